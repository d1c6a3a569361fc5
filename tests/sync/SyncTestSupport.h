#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/Clock.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/UserDefaults.h"
#include "net/NetworkSession.h"
#include "store/Account.h"
#include "store/AccountService.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/QKDataManager.h"
#include "support/TestSupport.h"
#include "sync/QKSyncManager.h"
#include "sync/SyncEnvironment.h"
#include "sync/SyncPassObserver.h"

namespace lectern::test {

// One entry of a test feed; its age is counted back from the test clock.
struct TestEntry {
  std::string title;
  std::string link;  // "" leaves the link out
  std::chrono::hours age{1};
  std::string html = "<p>text</p>";
};

// Serves Atom documents at /feeds/<name> on 127.0.0.1 and counts what it is asked: requests per
// feed and how many were answered at the same time. Documents can change between syncs.
class FeedServer {
 public:
  FeedServer();
  ~FeedServer();

  std::string url(const std::string& name) const;
  std::string imageUrl(const std::string& name) const;
  void setFeed(const std::string& name, const std::vector<TestEntry>& entries, Date now);
  void setBody(const std::string& name, std::string body, int status = 200);
  // Runs in the request's thread before the answer (may block, may touch the main queue).
  void setHook(const std::string& name, std::function<void()> hook);
  // Holds every feed request until `count` are under way at once (or all of `total` have come).
  void rendezvous(int count, int total);
  // Holds requests of `name` until release().
  void hold(const std::string& name);
  void release();

  // Serves `body` as `contentType` at /site/<path>: pages that name feeds, feeds at any path.
  void setPage(const std::string& path, std::string body, std::string contentType = "text/html");
  std::string pageUrl(const std::string& path) const;
  // From now on documents carry an ETag and a Last-Modified (new ones whenever a body changes),
  // and a request that sends the current one back (If-None-Match, else If-Modified-Since) is
  // answered 304 without a body.
  void answerConditionally();

  int requests(const std::string& name) const;
  // Requests of `name` answered 304.
  int notModified(const std::string& name) const;
  int imageRequests() const;
  int maxConcurrent() const;

 private:
  void answer(const std::string& name, const httplib::Request& request, httplib::Response& response);

  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::map<std::string, std::pair<int, std::string>> bodies_;
  bool conditional_ = false;
  std::map<std::string, int> versions_;  // bumped by each new body: the validators follow it
  std::map<std::string, int> notModified_;
  std::map<std::string, std::function<void()>> hooks_;
  std::map<std::string, int> requests_;
  std::string held_;
  bool released_ = false;
  int rendezvous_ = 0;
  int rendezvousTotal_ = 0;
  int started_ = 0;
  int inFlight_ = 0;
  int maxInFlight_ = 0;
  int imageRequests_ = 0;
  std::map<std::string, std::pair<std::string, std::string>> pages_;  // path -> content type, body
};

// Hears the pass and keeps what it heard.
class RecordingObserver final : public SyncPassObserver {
 public:
  void accountSyncStarted(Account& account) override { started.push_back(account.title().value_or("")); }
  void accountSyncFinished(Account& account, const AccountSyncReport& report) override {
    finished.push_back(account.title().value_or(""));
    reports.push_back(report);
  }
  void syncPassFinished(const std::vector<AccountSyncReport>&) override { ++passes; }

  std::vector<std::string> started;
  std::vector<std::string> finished;
  std::vector<AccountSyncReport> reports;
  int passes = 0;
};

// An account service that records the calls it gets and succeeds on the main queue.
class RecordingService final : public AccountService {
 public:
  explicit RecordingService(MainQueue& mainQueue) : mainQueue_(mainQueue) {}
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark&, bool, ServiceCompletion onCompleted) override {
    record("share", onCompleted);
  }
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;
  void moveBookmark(Bookmark&, Folder&, ServiceCompletion onCompleted) override {
    record("move", onCompleted);
  }
  void updateTags(Bookmark&, ServiceCompletion onCompleted) override { record("tags", onCompleted); }
  void updateReadProgress(Bookmark&, double, ServiceCompletion onCompleted) override {
    record("progress", onCompleted);
  }
  std::vector<std::string> calls() const;

 private:
  void record(std::string call, const ServiceCompletion& onCompleted);
  MainQueue& mainQueue_;
  mutable std::mutex mutex_;  // guards calls_
  std::vector<std::string> calls_;
};

// A library in a temporary folder, a fixed clock, a switchable network, a real network session,
// a feed server and the sync manager. The test's thread is the main thread.
class SyncTest : public ::testing::Test {
 protected:
  SyncTest();
  ~SyncTest() override;

  ObjectContext& context();
  // The built-in reader's account (saved), its feeds served by the feed server.
  std::shared_ptr<Account> localAccount();
  std::shared_ptr<Account> makeAccount(std::string_view service, std::string username, std::string title);
  std::shared_ptr<Feed> addFeed(Account& account, const std::string& name, FeedFolder* folder = nullptr);
  // A pass over `accounts`, waited for; false when it did not end within 20 s.
  bool syncAndWait(const std::vector<std::shared_ptr<Account>>& accounts);
  bool syncAndWait(const std::shared_ptr<Account>& account) { return syncAndWait(std::vector{account}); }
  // The titles of the feed's stories as the store has them, newest first, "*" after a read one.
  std::vector<std::string> storiesOf(const Feed& feed);
  // A story stored directly, as an earlier sync would have left it.
  std::shared_ptr<FeedStory> addStory(Account& account, Feed& feed, const std::string& title,
                                      std::chrono::hours age, bool read, bool starred = false);

  TempDir temp_;
  FeedServer server_;
  Paths paths_;
  UserDefaults defaults_;
  MainQueue mainQueue_;
  FixedClock clock_;
  FixedReachability reachability_;
  NetworkSession session_;
  std::unique_ptr<QKDataManager> dataManager_;
  SyncEnvironment environment_;
  RecordingObserver observer_;
  std::unique_ptr<QKSyncManager> manager_;
};

}  // namespace lectern::test
