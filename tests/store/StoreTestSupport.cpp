#include "StoreTestSupport.h"

#include <fmt/format.h>

#include "store/Bookmark.h"
#include "store/ModelVersion.h"
#include "store/SqliteDatabase.h"

namespace lectern::test {

Result<std::optional<std::string>> RecordingSecretStore::password(std::string_view service,
                                                                  std::string_view account) {
  std::lock_guard lock(mutex_);
  auto found = secrets_.find(fmt::format("{}/{}", service, account));
  return found == secrets_.end() ? std::nullopt : std::optional<std::string>(found->second);
}

Result<void> RecordingSecretStore::setPassword(std::string_view service, std::string_view account,
                                               std::string_view password) {
  std::lock_guard lock(mutex_);
  secrets_[fmt::format("{}/{}", service, account)] = std::string(password);
  return {};
}

Result<void> RecordingSecretStore::deletePassword(std::string_view service, std::string_view account) {
  std::lock_guard lock(mutex_);
  secrets_.erase(fmt::format("{}/{}", service, account));
  deleted_.push_back(fmt::format("{}/{}", service, account));
  return {};
}

std::vector<std::string> RecordingSecretStore::deleted() const {
  std::lock_guard lock(mutex_);
  return deleted_;
}

void RecordingService::record(std::string call, ServiceCompletion onCompleted) {
  std::optional<Error> answer;
  bool hold = false;
  {
    std::lock_guard lock(mutex_);
    if (outcome_) answer = outcome_(call);
    hold = hold_;
    calls_.push_back(std::move(call));
  }
  if (onCompleted && !hold) mainQueue_.post([onCompleted, answer] { onCompleted(answer); });
}

void RecordingService::setOutcome(std::function<std::optional<Error>(const std::string& call)> outcome) {
  std::lock_guard lock(mutex_);
  outcome_ = std::move(outcome);
}

void RecordingService::holdAnswers(bool hold) {
  std::lock_guard lock(mutex_);
  hold_ = hold;
}

Error networkFailure() {
  return Error::make("NSURLErrorDomain", -1009, "Failed to mark entry", "The Internet connection appears to be offline.");
}

Error httpFailure(int status) {
  Error error = Error::make("AFNetworkingErrorDomain", -1011, "Failed to mark entry",
                            fmt::format("Expected status code in (200-299), got {}", status));
  error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = std::to_string(status);
  return error;
}

void RecordingService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                     bool archived, ServiceCompletion onCompleted) {
  std::string ids;
  for (const auto& bookmark : bookmarks)
    ids += (ids.empty() ? "" : ",") + bookmark->bookmark_id().value_or("");
  record(fmt::format("mark {} {}", ids, archived ? "read" : "unread"), std::move(onCompleted));
}
void RecordingService::markBookmarkFavorited(Bookmark& bookmark, bool favorited,
                                             ServiceCompletion onCompleted) {
  record(fmt::format("{} {}", favorited ? "star" : "unstar", bookmark.bookmark_id().value_or("")),
         std::move(onCompleted));
}
void RecordingService::markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) {
  record(fmt::format("{} {}", shared ? "share" : "unshare", bookmark.bookmark_id().value_or("")),
         std::move(onCompleted));
}
void RecordingService::deleteBookmark(Account&, const std::string& bookmarkId,
                                      const std::optional<std::string>& feedId,
                                      ServiceCompletion onCompleted) {
  record(fmt::format("delete {} {}", bookmarkId, feedId.value_or("-")), std::move(onCompleted));
}
void RecordingService::moveBookmark(Bookmark& bookmark, Folder&, ServiceCompletion onCompleted) {
  record(fmt::format("move {}", bookmark.bookmark_id().value_or("")), std::move(onCompleted));
}
void RecordingService::updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) {
  record(fmt::format("tags {}", bookmark.bookmark_id().value_or("")), std::move(onCompleted));
}
void RecordingService::updateReadProgress(Bookmark& bookmark, double progress,
                                          ServiceCompletion onCompleted) {
  record(fmt::format("progress {} {}", bookmark.bookmark_id().value_or(""), progress),
         std::move(onCompleted));
}
std::vector<std::string> RecordingService::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

StoreTest::StoreTest()
    : paths_(Paths::under(temp_.path())),
      clock_(at(1'700'000'000)),
      service_(std::make_shared<RecordingService>(mainQueue_)) {
  manager_ = std::make_unique<QKDataManager>(paths_, defaults_, mainQueue_, clock_, reachability_, &secrets_);
  manager_->setServiceFactory([service = service_](Account&) { return service; });
}

StoreTest::~StoreTest() {
  manager_.reset();
  mainQueue_.drain();
}

ObjectContext& StoreTest::context() {
  auto opened = manager_->managedObjectContext();
  if (!opened) throw std::runtime_error(opened.error().message());
  return **opened;
}

std::shared_ptr<Account> StoreTest::makeAccount(std::string_view service,
                                                std::optional<std::string> username) {
  auto account = Account::create(context(), service, std::move(username), std::string(service));
  if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  return account;
}

bool StoreTest::pumpUntil(const std::function<bool()>& done) {
  return mainQueue_.runUntil(done, std::chrono::seconds(10));
}

void writeStoreOfVersion(const std::filesystem::path& path, const ModelVersion& version,
                         const std::vector<std::string>& statements) {
  std::filesystem::create_directories(path.parent_path());
  auto db = SqliteDatabase::open(path, SqliteDatabase::OpenMode::kReadWriteCreate, std::chrono::seconds(5));
  if (!db) throw std::runtime_error(db.error().message());
  if (auto created = createSchema(**db, version); !created)
    throw std::runtime_error(created.error().message());
  for (const auto& statement : statements) {
    if (auto done = (*db)->execute(statement); !done) throw std::runtime_error(done.error().message());
  }
}

std::vector<std::string> queryStore(const std::filesystem::path& path, const std::string& sql) {
  auto db = SqliteDatabase::open(path, SqliteDatabase::OpenMode::kReadOnly, std::chrono::seconds(5));
  if (!db) throw std::runtime_error(db.error().message());
  auto rows = (*db)->selectAll(sql);
  if (!rows) throw std::runtime_error(rows.error().message());
  std::vector<std::string> out;
  for (const auto& row : *rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) line += (i ? "|" : "") + textOf(row[i]).value_or("NULL");
    out.push_back(line);
  }
  return out;
}

Date at(double secondsSince1970) { return dateFromSecondsSince1970(secondsSince1970); }

}  // namespace lectern::test
