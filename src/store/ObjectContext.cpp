#include "store/ObjectContext.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Content.h"
#include "store/Feed.h"
#include "store/FeedEnclosure.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ModelVersion.h"
#include "store/OfflineOperation.h"
#include "store/SearchFunctions.h"
#include "store/SmartFolder.h"
#include "store/SqliteDatabase.h"
#include "store/StoreEnvironment.h"
#include "store/Token.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "ObjectContext";
// Writers wait this long for another connection's write lock. Transactions are kept short
// (a batch of a sync, one user action), so reaching it means something is stuck.
constexpr std::chrono::milliseconds kBusyTimeout{60'000};
// Id blocks grow from the first size up to this, so a sync inserting thousands of stories
// reserves rarely while a context that adds one folder wastes few ids.
constexpr std::int64_t kLargestRowBlock = 1024;

std::string selectColumns(EntityTable table) {
  std::string columns = fmt::format("{}.id", tableName(table));
  for (const auto& column : columnsOf(table))
    columns += fmt::format(", {}.{}", tableName(table), column.name);
  return columns;
}

const std::string& selectColumnsCached(EntityTable table) {
  static const std::array<std::string, kEntityTableCount> cache = [] {
    std::array<std::string, kEntityTableCount> all;
    for (int i = 0; i < kEntityTableCount; ++i)
      all[static_cast<size_t>(i)] = selectColumns(static_cast<EntityTable>(i));
    return all;
  }();
  return cache[static_cast<size_t>(table)];
}

const std::string& insertSql(EntityTable table) {
  static const std::array<std::string, kEntityTableCount> cache = [] {
    std::array<std::string, kEntityTableCount> all;
    for (int i = 0; i < kEntityTableCount; ++i) {
      const auto t = static_cast<EntityTable>(i);
      std::string names = "id";
      std::string marks = "?";
      for (const auto& column : columnsOf(t)) {
        names += fmt::format(", {}", column.name);
        marks += ", ?";
      }
      all[static_cast<size_t>(i)] =
          fmt::format("INSERT INTO {} ({}) VALUES ({})", tableName(t), names, marks);
    }
    return all;
  }();
  return cache[static_cast<size_t>(table)];
}

std::shared_ptr<ManagedObject> makeObject(Entity entity, ManagedObject::Key key, ObjectContext& context,
                                          ObjectId id) {
  switch (entity) {
    case Entity::kAccount:
      return std::make_shared<Account>(key, context, id);
    case Entity::kFolder:
      return std::make_shared<Folder>(key, context, id);
    case Entity::kFeedFolder:
      return std::make_shared<FeedFolder>(key, context, id);
    case Entity::kFeed:
      return std::make_shared<Feed>(key, context, id);
    case Entity::kSmartFolder:
      return std::make_shared<SmartFolder>(key, context, id);
    case Entity::kBookmark:
      return std::make_shared<Bookmark>(key, context, id);
    case Entity::kFeedStory:
      return std::make_shared<FeedStory>(key, context, id);
    case Entity::kContent:
      return std::make_shared<Content>(key, context, id);
    case Entity::kFeedEnclosure:
      return std::make_shared<FeedEnclosure>(key, context, id);
    case Entity::kToken:
      return std::make_shared<Token>(key, context, id);
    case Entity::kOfflineOperation:
      return std::make_shared<OfflineOperation>(key, context, id);
  }
  throw InternalInconsistency("Unknown entity");
}

bool hasEntityColumn(EntityTable table) {
  return table == EntityTable::kFolder || table == EntityTable::kBookmark;
}

std::string idArray(const std::vector<std::int64_t>& rows) { return nlohmann::json(rows).dump(); }

}  // namespace

Result<std::unique_ptr<ObjectContext>> ObjectContext::open(const std::filesystem::path& path, Kind kind,
                                                           StoreEnvironment& environment,
                                                           SaveListener* listener) {
  auto db = SqliteDatabase::open(path, SqliteDatabase::OpenMode::kReadWrite, kBusyTimeout);
  if (!db) return fail(db.error());
  auto wal = (*db)->selectOne("PRAGMA journal_mode = WAL");
  if (!wal) return fail(wal.error());
  for (std::string_view pragma : {"PRAGMA foreign_keys = ON", "PRAGMA synchronous = NORMAL"}) {
    if (auto set = (*db)->execute(pragma); !set) return fail(set.error());
  }
  auto metadata = readStoreMetadata(**db);
  if (!metadata) return fail(metadata.error());
  if (metadata->versionNumber != currentModelVersion().number) {
    return fail(kStoreErrorDomain, 2,
                fmt::format("Failed to open the library: it is of version {} and needs migrating first",
                            metadata->versionName.empty() ? std::to_string(metadata->versionNumber)
                                                          : metadata->versionName));
  }
  return std::unique_ptr<ObjectContext>(new ObjectContext(std::move(*db), kind, environment, listener));
}

ObjectContext::ObjectContext(std::unique_ptr<SqliteDatabase> db, Kind kind, StoreEnvironment& environment,
                             SaveListener* listener)
    : db_(std::move(db)),
      kind_(kind),
      environment_(environment),
      listener_(listener),
      owner_(std::this_thread::get_id()) {}

ObjectContext::~ObjectContext() {
  pending_.clear();
  for (auto& table : registered_) {
    for (auto& [row, weak] : table) {
      if (auto object = weak.lock()) object->context_ = nullptr;
    }
    table.clear();
  }
}

void ObjectContext::checkThread() const {
  if (std::this_thread::get_id() != owner_) {
    throw InternalInconsistency("An object context was used outside the thread that owns it");
  }
}

void ObjectContext::recordError(Error error) {
  logError(kLogCategory, "{}", error.message());
  if (!pendingError_) pendingError_ = std::move(error);
}

std::int64_t ObjectContext::allocateRow(EntityTable table) {
  auto& block = rowBlocks_[static_cast<size_t>(table)];
  if (block.next < block.end) return block.next++;
  auto first = reserveRows(table, block.size);
  if (!first) {
    recordError(first.error());
    return nextTemporaryRow_--;
  }
  block.next = *first;
  block.end = *first + block.size;
  block.size = std::min(block.size * 2, kLargestRowBlock);
  return block.next++;
}

Result<std::int64_t> ObjectContext::reserveRows(EntityTable table, std::int64_t count) {
  if (db_->isInTransaction()) {
    // A reservation rolled back with a read's trial would hand the same ids out twice.
    throw InternalInconsistency("Objects can't be inserted while the context writes");
  }
  // sqlite_sequence is what every context reads for the next id (and keeps ids of deleted rows
  // from coming back), so raising it reserves the block for this context alone.
  auto transaction = Transaction::begin(*db_, Transaction::Kind::kImmediate);
  if (!transaction) return fail(transaction.error());
  const SqlValue name[] = {std::string(tableName(table))};
  auto row = db_->selectOne(fmt::format("SELECT max(coalesce((SELECT seq FROM sqlite_sequence WHERE name = ?), 0),"
                                        " coalesce((SELECT max(id) FROM {}), 0))",
                                        tableName(table)),
                            name);
  if (!row) return fail(row.error());
  const std::int64_t first = integerOf((**row)[0]).value_or(0) + 1;
  const SqlValue sequence[] = {first + count - 1, std::string(tableName(table))};
  if (auto raised = db_->execute("UPDATE sqlite_sequence SET seq = ? WHERE name = ?", sequence); !raised)
    return fail(raised.error());
  if (db_->changes() == 0) {
    const SqlValue added[] = {std::string(tableName(table)), first + count - 1};
    if (auto inserted = db_->execute("INSERT INTO sqlite_sequence (name, seq) VALUES (?, ?)", added); !inserted)
      return fail(inserted.error());
  }
  if (auto committed = transaction->commit(); !committed) return fail(committed.error());
  return first;
}

std::shared_ptr<ManagedObject> ObjectContext::insertNewObject(Entity entity) {
  checkThread();
  const EntityTable table = tableOf(entity);
  const ObjectId id{entity, allocateRow(table)};
  auto object = makeObject(entity, ManagedObject::Key(), *this, id);
  const auto columns = columnsOf(table);
  object->values_.assign(columns.size(), SqlValue());
  for (size_t i = 0; i < columns.size(); ++i) {
    if (columns[i].type == ColumnType::kBoolean) object->values_[i] = std::int64_t{0};
  }
  if (hasEntityColumn(table)) object->values_[0] = std::string(entityName(entity));
  object->insertedSinceSave_ = true;
  object->pendingListed_ = true;
  pending_.push_back(object);
  registered_[static_cast<size_t>(table)][id.row] = object;
  object->commonAwake();
  return object;
}

std::shared_ptr<ManagedObject> ObjectContext::insertNewObjectForEntityForName(std::string_view name) {
  const auto entity = entityNamed(name);
  return entity ? insertNewObject(*entity) : nullptr;
}

std::shared_ptr<ManagedObject> ObjectContext::registeredObject(ObjectId id) const {
  const auto& table = registered_[static_cast<size_t>(id.table())];
  auto found = table.find(id.row);
  return found == table.end() ? nullptr : found->second.lock();
}

Result<std::shared_ptr<ManagedObject>> ObjectContext::existingObject(ObjectId id) {
  checkThread();
  if (auto object = registeredObject(id)) return object->deleted_ ? nullptr : object;
  // A row this context changed is registered (changed objects are held until the save), so this
  // one is as the store has it: read it without writing the context's changes first, which would
  // cost a write of everything pending for each lookup during a large merge.
  const EntityTable table = id.table();
  const SqlValue row[] = {id.row};
  if (pendingError_) return fail(*pendingError_);
  auto rows = db_->selectAll(
      fmt::format("SELECT {} FROM {} WHERE id = ?", selectColumnsCached(table), tableName(table)), row);
  if (!rows) return fail(rows.error());
  if (rows->empty()) return std::shared_ptr<ManagedObject>();
  auto object = materialize(table, rows->front());
  return object && !object->deleted_ ? object : nullptr;
}

std::shared_ptr<ManagedObject> ObjectContext::materialize(EntityTable table, const SqlRow& row) {
  const std::int64_t rowId = integerOf(row[0]).value_or(0);
  auto& map = registered_[static_cast<size_t>(table)];
  if (auto found = map.find(rowId); found != map.end()) {
    if (auto object = found->second.lock()) {
      if (!object->deleted_) mergeRow(*object, row, 1);
      return object;
    }
  }
  Entity entity = rootEntity(table);
  if (hasEntityColumn(table)) {
    if (auto named = entityNamed(textOf(row[1]).value_or("")); named && tableOf(*named) == table)
      entity = *named;
  }
  auto object = makeObject(entity, ManagedObject::Key(), *this, ObjectId{entity, rowId});
  object->values_.assign(row.begin() + 1, row.end());
  map[rowId] = object;
  object->commonAwake();
  return object;
}

void ObjectContext::mergeRow(ManagedObject& object, const SqlRow& row, size_t firstColumn) {
  const size_t count = object.values_.size();
  for (size_t i = 0; i < count && i + firstColumn < row.size(); ++i) {
    // Unsaved changes of this context stay; the store wins for everything else.
    if ((object.changed_ & (1u << i)) == 0) object.values_[i] = row[i + firstColumn];
  }
}

Result<bool> ObjectContext::reread(ManagedObject& object) {
  const EntityTable table = object.id_.table();
  const SqlValue row[] = {object.id_.row};
  auto rows = db_->selectAll(
      fmt::format("SELECT {} FROM {} WHERE id = ?", selectColumnsCached(table), tableName(table)), row);
  if (!rows) return fail(rows.error());
  if (rows->empty()) return false;
  mergeRow(object, rows->front(), 1);
  object.didRefresh();
  return true;
}

void ObjectContext::markGone(ManagedObject& object) {
  object.deleted_ = true;
  object.deleteFlushed_ = true;
  auto& map = registered_[static_cast<size_t>(object.id_.table())];
  if (auto found = map.find(object.id_.row); found != map.end() && found->second.lock().get() == &object) {
    map.erase(found);
  }
}

void ObjectContext::forget(const ObjectId& id) {
  // Called from an object's destructor: only its own (now expired) entry goes.
  auto& map = registered_[static_cast<size_t>(id.table())];
  if (auto found = map.find(id.row); found != map.end() && found->second.expired()) map.erase(found);
}

void ObjectContext::objectWillChange(ManagedObject& object) {
  if (!object.pendingListed_) {
    object.pendingListed_ = true;
    pending_.push_back(object.shared_from_this());
  }
}

void ObjectContext::deleteObject(ManagedObject& object) {
  checkThread();
  if (object.deleted_ || object.context_ != this) return;
  object.prepareForDeletion();
  objectWillChange(object);
  object.deleted_ = true;
}

void ObjectContext::writeRelationship(std::string_view sql, std::span<const SqlValue> arguments, ObjectId a,
                                      ObjectId b) {
  checkThread();
  memberships_.push_back(Membership{std::string(sql), std::vector<SqlValue>(arguments.begin(), arguments.end())});
  touched_.insert(a);
  touched_.insert(b);
}

void ObjectContext::noteRelatedChange(ObjectId id) {
  checkThread();
  touched_.insert(id);
}

bool ObjectContext::hasChanges() const {
  return hasPendingWrites() || !touched_.empty() || pendingError_.has_value();
}

Result<void> ObjectContext::writeInsert(ManagedObject& object) {
  auto statement = db_->prepare(insertSql(object.id_.table()));
  if (!statement) return fail(statement.error());
  (*statement)->bind(1, object.id_.row);
  (*statement)->bindAll(object.values_, 2);
  return (*statement)->run();
}

Result<void> ObjectContext::writeUpdate(ManagedObject& object) {
  // Only the changed columns are written, so a column another context saved meanwhile survives.
  const EntityTable table = object.id_.table();
  const auto columns = columnsOf(table);
  std::string assignments;
  std::vector<SqlValue> arguments;
  for (size_t i = 0; i < columns.size(); ++i) {
    if ((object.changed_ & (1u << i)) == 0) continue;
    assignments += fmt::format("{}{} = ?", assignments.empty() ? "" : ", ", columns[i].name);
    arguments.push_back(object.values_[i]);
  }
  arguments.push_back(object.id_.row);
  return db_->execute(fmt::format("UPDATE {} SET {} WHERE id = ?", tableName(table), assignments), arguments);
}

Result<void> ObjectContext::writeDelete(ManagedObject& object) {
  const SqlValue row[] = {object.id_.row};
  return db_->execute(fmt::format("DELETE FROM {} WHERE id = ?", tableName(object.id_.table())), row);
}

Result<void> ObjectContext::writePendingChanges() {
  // Inserts and updates first: a row inserted and deleted in the same save is written and then
  // deleted, so the store's cascades remove whatever was attached to it meanwhile. Memberships come
  // before the deletes for the same reason (their foreign keys are checked at the commit).
  for (const auto& pending : pending_) {
    auto& object = *pending;
    if (object.insertedSinceSave_) {
      if (auto done = writeInsert(object); !done) return done;
    } else if (object.changed_ != 0 && !object.deleted_) {
      if (auto done = writeUpdate(object); !done) return done;
    }
  }
  for (const auto& membership : memberships_) {
    if (auto done = db_->execute(membership.sql, membership.arguments); !done) return done;
  }
  for (const auto& pending : pending_) {
    auto& object = *pending;
    if (object.deleted_ && !object.deleteFlushed_) {
      if (auto done = writeDelete(object); !done) return done;
    }
  }
  return {};
}

Result<void> ObjectContext::findCascadedDeletions() {
  for (int t = 0; t < kEntityTableCount; ++t) {
    const auto table = static_cast<EntityTable>(t);
    std::vector<std::int64_t> rows;
    for (const auto& [row, weak] : registered_[static_cast<size_t>(t)]) {
      auto object = weak.lock();
      if (object && !object->deleted_) rows.push_back(row);
    }
    if (rows.empty()) continue;
    const SqlValue ids[] = {idArray(rows)};
    auto missing = db_->selectAll(
        fmt::format(
            "SELECT j.value FROM json_each(?) j LEFT JOIN {0} ON {0}.id = j.value WHERE {0}.id IS NULL",
            tableName(table)),
        ids);
    if (!missing) return fail(missing.error());
    for (const auto& row : *missing) {
      auto object = registeredObject(ObjectId{rootEntity(table), integerOf(row[0]).value_or(0)});
      if (!object) continue;
      cascaded_.push_back(object->id_);
      markGone(*object);
    }
  }
  return {};
}

std::vector<std::int64_t> ObjectContext::storiesWritten() const {
  std::vector<std::int64_t> rows;
  for (const auto& object : pending_) {
    if (object->id_.table() == tableOf(Entity::kBookmark)) {
      rows.push_back(object->id_.row);
    } else if (object->id_.entity == Entity::kContent) {
      if (auto bookmark = static_cast<const Content&>(*object).bookmarkID()) rows.push_back(bookmark->row);
    }
  }
  return rows;
}

Result<std::int64_t> ObjectContext::indexStoriesAwaitingSearch(std::int64_t limit) {
  checkThread();
  auto transaction = Transaction::begin(*db_, Transaction::Kind::kImmediate);
  if (!transaction) return fail(transaction.error());
  auto indexed = updateSearchIndex(*db_, SearchIndexBatch::oldest(limit));
  if (!indexed) return indexed;
  if (auto committed = transaction->commit(); !committed) return fail(committed.error());
  return indexed;
}

Result<std::int64_t> ObjectContext::storiesAwaitingSearchIndex() {
  checkThread();
  return lectern::storiesAwaitingSearchIndex(*db_);
}

Result<void> ObjectContext::save() {
  checkThread();
  if (!hasChanges()) return {};
  // willSave may change or insert objects (tokens from tags); those get their turn too.
  for (int pass = 0; pass < 4; ++pass) {
    bool ranAny = false;
    for (size_t i = 0; i < pending_.size(); ++i) {
      auto object = pending_[i];
      if (object->willSaveDone_ || object->deleted_) continue;
      object->willSaveDone_ = true;
      object->willSave();
      ranAny = true;
    }
    if (!ranAny) break;
  }
  bool deletesSomething = false;
  for (const auto& object : pending_) deletesSomething = deletesSomething || object->deleted_;
  auto written = [&]() -> Result<void> {
    if (pendingError_) return fail(*pendingError_);
    auto transaction = Transaction::begin(*db_, Transaction::Kind::kImmediate);
    if (!transaction) return fail(transaction.error());
    if (auto done = writePendingChanges(); !done) return done;
    if (!defersSearchIndex_) {
      if (auto indexed = updateSearchIndex(*db_, SearchIndexBatch::these(storiesWritten())); !indexed) {
        return fail(indexed.error());
      }
    }
    return transaction->commit();
  }();
  if (!written) {
    Error error = written.error();
    logError(kLogCategory, "Error while saving: {}", error.message());
    rollback();
    return fail(std::move(error));
  }
  // Which held objects went with the deleted rows is worked out once, after the commit.
  if (deletesSomething) {
    if (auto cascaded = findCascadedDeletions(); !cascaded) {
      logError(kLogCategory, "Failed to find the objects deleted with others: {}",
               cascaded.error().message());
    }
  }

  ContextDidSave changes;
  std::unordered_set<ObjectId> reported;
  for (auto& object : pending_) {
    if (object->insertedSinceSave_ && object->deleted_) {
      markGone(*object);
    } else if (object->insertedSinceSave_) {
      changes.inserted.push_back(object->id_);
    } else if (object->deleted_) {
      changes.deleted.push_back(object->id_);
      markGone(*object);
    } else if (object->changed_ != 0) {
      changes.updated.push_back(object->id_);
    }
    if (object->deleted_) object->deleteFlushed_ = true;
    reported.insert(object->id_);
    object->changed_ = 0;
    object->insertedSinceSave_ = false;
    object->pendingListed_ = false;
    object->willSaveDone_ = false;
  }
  for (const auto& id : cascaded_) {
    if (reported.insert(id).second) changes.deleted.push_back(id);
  }
  for (const auto& id : touched_) {
    if (reported.insert(id).second) changes.updated.push_back(id);
  }
  pending_.clear();
  memberships_.clear();
  touched_.clear();
  cascaded_.clear();
  notifyObservers(changes);
  if (listener_ != nullptr && !changes.empty()) listener_->contextDidSave(*this, changes);
  return {};
}

void ObjectContext::rollback() {
  checkThread();
  discardUnsavedChanges();
}

void ObjectContext::discardUnsavedChanges() {
  db_->rollback();
  pendingError_.reset();
  auto pending = std::move(pending_);
  pending_.clear();
  for (auto& object : pending) {
    object->pendingListed_ = false;
    object->willSaveDone_ = false;
    if (object->insertedSinceSave_) {
      object->insertedSinceSave_ = false;
      markGone(*object);
      continue;
    }
    object->changed_ = 0;
    object->deleted_ = false;
    object->deleteFlushed_ = false;
    if (auto found = reread(*object); !found || !*found) markGone(*object);
  }
  memberships_.clear();
  touched_.clear();
  cascaded_.clear();
}

std::vector<std::shared_ptr<ManagedObject>> ObjectContext::registeredObjects() const {
  std::vector<std::shared_ptr<ManagedObject>> objects;
  for (const auto& table : registered_) {
    for (const auto& [row, weak] : table) {
      if (auto object = weak.lock()) objects.push_back(std::move(object));
    }
  }
  return objects;
}

Result<void> ObjectContext::refreshAllObjects() {
  checkThread();
  for (auto& object : registeredObjects()) {
    if (object->deleted_ || object->insertedSinceSave_) continue;
    auto found = reread(*object);
    if (!found) return fail(found.error());
    if (!*found) markGone(*object);
  }
  return {};
}

void ObjectContext::mergeChangesFromContextDidSave(const ContextDidSave& changes) {
  checkThread();
  for (const auto& id : changes.deleted) {
    if (auto object = registeredObject(id)) markGone(*object);
  }
  for (const auto& id : changes.updated) {
    auto object = registeredObject(id);
    if (!object || object->deleted_) continue;
    auto found = reread(*object);
    if (!found) {
      logError(kLogCategory, "Failed to merge changes into the main context:\n{}", found.error().message());
      continue;
    }
    if (!*found) markGone(*object);
  }
  if (!changes.deleted.empty()) {
    if (auto cascaded = findCascadedDeletions(); !cascaded) {
      logError(kLogCategory, "Failed to merge changes into the main context:\n{}",
               cascaded.error().message());
    }
    cascaded_.clear();
  }
  notifyObservers(changes);
}

int ObjectContext::addObserver(Observer observer) {
  const int token = nextObserverToken_++;
  observers_.emplace(token, std::move(observer));
  return token;
}

void ObjectContext::removeObserver(int token) { observers_.erase(token); }

void ObjectContext::notifyObservers(const ContextDidSave& changes) {
  if (changes.empty()) return;
  auto observers = observers_;  // an observer may remove itself
  for (auto& [token, observer] : observers) observer(changes);
}

Result<std::vector<std::shared_ptr<ManagedObject>>> ObjectContext::fetchObjects(const FetchRequest& request) {
  checkThread();
  const EntityTable table = tableOf(request.entity);
  std::string sql = fmt::format("SELECT {} FROM {} WHERE ({}) AND ({})", selectColumnsCached(table),
                                tableName(table), entityCondition(request.entity), request.where);
  if (!request.orderBy.empty()) sql += " ORDER BY " + request.orderBy;
  std::vector<SqlValue> arguments = request.arguments;
  if (request.limit) {
    sql += " LIMIT ?";
    arguments.push_back(*request.limit);
  }
  auto rows = select(sql, arguments);
  if (!rows) return fail(rows.error());
  std::vector<std::shared_ptr<ManagedObject>> objects;
  objects.reserve(rows->size());
  for (const auto& row : *rows) {
    auto object = materialize(table, row);
    if (object && !object->deleted_) objects.push_back(std::move(object));
  }
  return objects;
}

Result<std::int64_t> ObjectContext::count(Entity entity, std::string_view where,
                                          std::vector<SqlValue> arguments) {
  auto rows = select(fmt::format("SELECT count(*) FROM {} WHERE ({}) AND ({})", tableName(tableOf(entity)),
                                 entityCondition(entity), where),
                     arguments);
  if (!rows) return fail(rows.error());
  return rows->empty() ? 0 : integerOf(rows->front()[0]).value_or(0);
}

Result<std::vector<SqlRow>> ObjectContext::select(std::string_view sql, std::span<const SqlValue> arguments) {
  checkThread();
  if (pendingError_) return fail(*pendingError_);
  if (!hasPendingWrites()) return db_->selectAll(sql, arguments);
  // The read must see what this context changed: write it, read, and roll it back again, so
  // the lock is taken for the read alone and never kept between a change and its save.
  auto transaction = Transaction::begin(*db_, Transaction::Kind::kImmediate);
  if (!transaction) return fail(transaction.error());
  if (auto written = writePendingChanges(); !written) return fail(written.error());
  return db_->selectAll(sql, arguments);  // the transaction rolls back as it goes
}

}  // namespace lectern
