#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/Error.h"
#include "store/EntitySchema.h"
#include "store/ManagedObject.h"
#include "store/SqlValue.h"

namespace lectern {

class SqliteDatabase;
class StoreEnvironment;

// What a save changed: the object ids inserted, updated (attributes or memberships) and deleted.
struct ContextDidSave {
  std::vector<ObjectId> inserted;
  std::vector<ObjectId> updated;
  std::vector<ObjectId> deleted;
  bool empty() const { return inserted.empty() && updated.empty() && deleted.empty(); }
};

// A working view of the library over its own connection: one object per row; changes stay in
// memory until `save` writes them in one short transaction. Owned by one thread (main queue's, or
// its opener's).
class ObjectContext {
 public:
  enum class Kind { kMain, kBackground };
  using Observer = std::function<void(const ContextDidSave&)>;

  // Hears every save of a context (the data manager forwards background saves to the main context).
  class SaveListener {
   public:
    virtual ~SaveListener() = default;
    virtual void contextDidSave(ObjectContext& context, const ContextDidSave& changes) = 0;
  };

  // Opens a connection to a store of the current model version.
  static Result<std::unique_ptr<ObjectContext>> open(const std::filesystem::path& path, Kind kind,
                                                     StoreEnvironment& environment, SaveListener* listener);
  // Rolls back unsaved changes; objects still held elsewhere lose their context.
  ~ObjectContext();
  ObjectContext(const ObjectContext&) = delete;
  ObjectContext& operator=(const ObjectContext&) = delete;

  Kind kind() const { return kind_; }
  bool isMainContext() const { return kind_ == Kind::kMain; }
  StoreEnvironment& environment() const { return environment_; }

  // insertNewObjectForEntityForName: the entity's class with its defaults (flags false).
  std::shared_ptr<ManagedObject> insertNewObject(Entity entity);
  // nullptr for a name that is not an entity.
  std::shared_ptr<ManagedObject> insertNewObjectForEntityForName(std::string_view name);
  template <class T>
  std::shared_ptr<T> insertNewObject() {
    return std::static_pointer_cast<T>(insertNewObject(T::kEntity));
  }

  // The object for `id` in this context; nullptr when its row is gone or was deleted here.
  Result<std::shared_ptr<ManagedObject>> existingObject(ObjectId id);
  // nullptr also when the object is not a T.
  template <class T>
  Result<std::shared_ptr<T>> existingObject(ObjectId id) {
    auto object = existingObject(id);
    if (!object) return fail(object.error());
    if (!*object || !isKindOf((*object)->entity(), T::kEntity)) return std::shared_ptr<T>();
    return std::static_pointer_cast<T>(*object);
  }
  // The object for `id` if this context already holds it (no query).
  std::shared_ptr<ManagedObject> registeredObject(ObjectId id) const;

  // Calls the object's prepareForDeletion, then removes it at the next write. Rows that depend on
  // it (a bookmark's content, an account's everything) go with it; memberships are detached.
  void deleteObject(ManagedObject& object);

  bool hasChanges() const;
  // Runs willSave on the changed objects, then writes them in one transaction: the library's write
  // lock is held only while it runs. On failure everything since the last save is rolled back (the
  // store keeps its last saved state) and the error is returned.
  Result<void> save();
  // Discards the changes since the last save.
  void rollback();

  // The search index: each save indexes the stories it changed. A context that stores stories in
  // bulk (a sync) defers that to `indexStoriesAwaitingSearch`, run when there is time: searches
  // stay complete meanwhile (the stories awaiting it are compared one by one).
  void setDefersSearchIndex(bool defers) { defersSearchIndex_ = defers; }
  bool defersSearchIndex() const { return defersSearchIndex_; }
  // Indexes up to `limit` of the stories awaiting the index (the oldest first) in one transaction
  // of their own; answers how many it indexed. Unsaved changes of this context stay unsaved.
  Result<std::int64_t> indexStoriesAwaitingSearch(std::int64_t limit);
  Result<std::int64_t> storiesAwaitingSearchIndex();

  // Re-reads every object held here; unsaved changes of this context win, the store wins for the rest.
  Result<void> refreshAllObjects();
  // Brings in another context's save: the store wins. Observers of this context are then told.
  void mergeChangesFromContextDidSave(const ContextDidSave& changes);

  int addObserver(Observer observer);
  void removeObserver(int token);

  // A fetch of `entity` and its subentities. `where` and `orderBy` are SQL written in the code,
  // with "?" for every value; the values go in `arguments`. Objects deleted here are left out.
  // Reads see this context's unsaved changes: while there are any, they are written in a
  // transaction that is rolled back after the read, so the write lock is held only for the read.
  struct FetchRequest {
    Entity entity = Entity::kBookmark;
    std::string where = "1";
    std::vector<SqlValue> arguments;
    std::string orderBy;
    std::optional<std::int64_t> limit;
  };
  Result<std::vector<std::shared_ptr<ManagedObject>>> fetchObjects(const FetchRequest& request);
  template <class T>
  Result<std::vector<std::shared_ptr<T>>> fetch(FetchRequest request) {
    request.entity = T::kEntity;
    auto objects = fetchObjects(request);
    if (!objects) return fail(objects.error());
    std::vector<std::shared_ptr<T>> typed;
    typed.reserve(objects->size());
    for (auto& object : *objects) typed.push_back(std::static_pointer_cast<T>(std::move(object)));
    return typed;
  }
  template <class T>
  Result<std::shared_ptr<T>> fetchFirst(FetchRequest request) {
    request.limit = 1;
    auto objects = fetch<T>(std::move(request));
    if (!objects) return fail(objects.error());
    return objects->empty() ? std::shared_ptr<T>() : objects->front();
  }
  Result<std::int64_t> count(Entity entity, std::string_view where, std::vector<SqlValue> arguments = {});
  // A read of this context's view of the library (its unsaved changes included).
  Result<std::vector<SqlRow>> select(std::string_view sql, std::span<const SqlValue> arguments = {});
  // Records a change of membership rows, written at the next save (and seen by reads before it);
  // `a` and `b` are reported updated.
  void writeRelationship(std::string_view sql, std::span<const SqlValue> arguments, ObjectId a, ObjectId b);
  // Reports `id` updated at the next save without changing a column of it: a change that hangs off
  // the object (a bookmark's new content row) makes other contexts re-read it.
  void noteRelatedChange(ObjectId id);

  // The first failure since the last save; save() returns it.
  const std::optional<Error>& pendingError() const { return pendingError_; }

 private:
  friend class ManagedObject;
  ObjectContext(std::unique_ptr<SqliteDatabase> db, Kind kind, StoreEnvironment& environment,
                SaveListener* listener);

  struct Membership {
    std::string sql;
    std::vector<SqlValue> arguments;
  };
  // Ids handed out to new objects: a block reserved in the store, so that no other context, in
  // this process or another, can take them, without holding the write lock until the save.
  struct RowBlock {
    std::int64_t next = 0;
    std::int64_t end = 0;  // one past the last reserved id
    std::int64_t size = 16;
  };

  void checkThread() const;
  void recordError(Error error);
  bool hasPendingWrites() const { return !pending_.empty() || !memberships_.empty(); }
  std::int64_t allocateRow(EntityTable table);
  Result<std::int64_t> reserveRows(EntityTable table, std::int64_t count);
  Result<void> writePendingChanges();
  // The stories (bookmark rows) the pending changes touch, for the search index.
  std::vector<std::int64_t> storiesWritten() const;
  void objectWillChange(ManagedObject& object);
  void forget(const ObjectId& id);
  std::shared_ptr<ManagedObject> materialize(EntityTable table, const SqlRow& row);
  void mergeRow(ManagedObject& object, const SqlRow& row, size_t firstColumn);
  Result<bool> reread(ManagedObject& object);
  void markGone(ManagedObject& object);
  Result<void> writeInsert(ManagedObject& object);
  Result<void> writeUpdate(ManagedObject& object);
  Result<void> writeDelete(ManagedObject& object);
  Result<void> findCascadedDeletions();
  void discardUnsavedChanges();
  void notifyObservers(const ContextDidSave& changes);
  std::vector<std::shared_ptr<ManagedObject>> registeredObjects() const;

  std::unique_ptr<SqliteDatabase> db_;
  const Kind kind_;
  StoreEnvironment& environment_;
  SaveListener* const listener_;
  const std::thread::id owner_;

  std::array<std::unordered_map<std::int64_t, std::weak_ptr<ManagedObject>>, kEntityTableCount> registered_;
  std::vector<std::shared_ptr<ManagedObject>> pending_;  // changed since the last save
  std::vector<Membership> memberships_;                  // membership writes since the last save
  std::unordered_set<ObjectId> touched_;                 // reported updated by the next save
  std::vector<ObjectId> cascaded_;                       // removed by the store with a deleted row
  std::array<RowBlock, kEntityTableCount> rowBlocks_{};
  std::int64_t nextTemporaryRow_ = -1;
  std::optional<Error> pendingError_;
  bool defersSearchIndex_ = false;
  std::map<int, Observer> observers_;
  int nextObserverToken_ = 1;
};

}  // namespace lectern
