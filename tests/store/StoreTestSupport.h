#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Clock.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "store/Account.h"
#include "store/AccountService.h"
#include "store/QKDataManager.h"
#include "support/TestSupport.h"

namespace lectern::test {

// A keychain in memory that remembers what was asked of it.
class RecordingSecretStore final : public SecretStore {
 public:
  Result<std::optional<std::string>> password(std::string_view service, std::string_view account) override;
  Result<void> setPassword(std::string_view service, std::string_view account,
                           std::string_view password) override;
  Result<void> deletePassword(std::string_view service, std::string_view account) override;
  std::string backendName() const override { return "test"; }
  std::vector<std::string> deleted() const;

 private:
  mutable std::mutex mutex_;  // guards secrets_, deleted_
  std::map<std::string, std::string> secrets_;
  std::vector<std::string> deleted_;
};

// An account service that records the calls it gets and succeeds (or fails) on the main queue.
class RecordingService final : public AccountService {
 public:
  explicit RecordingService(MainQueue& mainQueue) : mainQueue_(mainQueue) {}
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) override;
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;

  std::vector<std::string> calls() const;
  // What each call answers (by its recorded text); success when unset.
  void setOutcome(std::function<std::optional<Error>(const std::string& call)> outcome);
  // Held calls get no answer until released (or ever): a server that does not answer.
  void holdAnswers(bool hold);

 private:
  void record(std::string call, ServiceCompletion onCompleted);
  MainQueue& mainQueue_;
  mutable std::mutex mutex_;  // guards calls_, outcome_, hold_
  std::vector<std::string> calls_;
  std::function<std::optional<Error>(const std::string&)> outcome_;
  bool hold_ = false;
};

// A failure of the kind a service call gets when the network is gone (no HTTP answer), and one
// with an HTTP status the server answered.
Error networkFailure();
Error httpFailure(int status);

// A fresh library in a temporary folder with a fixed clock, a switchable network and a service
// that records calls. The test's thread is the main thread.
class StoreTest : public ::testing::Test {
 protected:
  StoreTest();
  ~StoreTest() override;

  ObjectContext& context();
  // An account of `service` in the main context, saved.
  std::shared_ptr<Account> makeAccount(std::string_view service,
                                       std::optional<std::string> username = "reader");
  // Runs the main queue until `done` or a few seconds pass.
  bool pumpUntil(const std::function<bool()>& done);
  void pump() { mainQueue_.drain(); }
  void goOffline() { reachability_.set(ReachabilityStatus::kNotReachable); }

  TempDir temp_;
  Paths paths_;
  UserDefaults defaults_;
  MainQueue mainQueue_;
  FixedClock clock_;
  FixedReachability reachability_;
  RecordingSecretStore secrets_;
  std::shared_ptr<RecordingService> service_;
  std::unique_ptr<QKDataManager> manager_;
};

// Builds a store file of an older model version from SQL statements run after its schema.
void writeStoreOfVersion(const std::filesystem::path& path, const ModelVersion& version,
                         const std::vector<std::string>& statements);
// Runs one query on a store file and returns its rows as text ("NULL" for NULL), cells joined by "|".
std::vector<std::string> queryStore(const std::filesystem::path& path, const std::string& sql);

Date at(double secondsSince1970);

}  // namespace lectern::test
