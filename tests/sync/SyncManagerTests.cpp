// The sync manager: queue width, which accounts a pass takes, due accounts, the end of a pass.
#include <gmock/gmock.h>

#include <set>

#include "SyncTestSupport.h"
#include "core/Log.h"
#include "store/Feed.h"
#include "store/ObjectContext.h"
#include "store/SmartFolder.h"
#include "sync/SmartFolderRearranging.h"
#include "sync/SyncAppControllerDelegate.h"
#include "sync/SyncWindowControllerDelegate.h"
#include "sync/UserNotificationPresenter.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class RecordingPresenter final : public UserNotificationPresenter {
 public:
  bool isApplicationActive() const override { return active; }
  void deliverNotification(std::string_view title, std::string_view subtitle,
                           std::string_view text) override {
    delivered.push_back(std::string(title) + "|" + std::string(subtitle) + "|" + std::string(text));
  }
  bool active = false;
  std::vector<std::string> delivered;
};

class RecordingDelegates final : public SyncAppControllerDelegate, public SyncWindowControllerDelegate {
 public:
  void syncOperationDidUpdateAccount(Account& account) override { updated.insert(&account); }
  void syncOperationDidCompletedForAccount(Account& account) override { completed.push_back(&account); }
  void startSyncProgressIndicator() override { ++progress; }
  void stopSyncProgressIndicator() override { --progress; }
  std::set<Account*> updated;
  std::vector<Account*> completed;
  int progress = 0;
};

class RecordingRearranger final : public SmartFolderRearranging {
 public:
  void rearrangeIfHasDatePredicate(SmartFolder& folder) override {
    titles.push_back(folder.title().value_or(""));
  }
  std::vector<std::string> titles;
};

class SyncManagerTest : public SyncTest {
 protected:
  // A local account whose one feed the server holds until released.
  std::shared_ptr<Account> heldAccount() {
    auto account = localAccount();
    addFeed(*account, "held");
    server_.setFeed("held", {{"story", "http://example.com/story"}}, clock_.now());
    server_.hold("held");
    return account;
  }
  bool untilRequested() {
    return mainQueue_.runUntil([&] { return server_.requests("held") > 0; }, std::chrono::seconds(20));
  }
};

TEST_F(SyncManagerTest, QueueWidthFollowsThePreferenceWhileRunning) {
  EXPECT_EQ(manager_->syncQueue().name(), "com.quillhq.Lectern.SyncOperationQueue");
  const std::pair<int, int> cases[] = {{0, 1}, {1, 2}, {2, 5}, {3, 1}, {-1, 1}};
  for (auto [index, width] : cases) {
    ASSERT_TRUE(defaults_.setInteger(kConcurrentSyncOperationsIndex, index));
    EXPECT_EQ(manager_->concurrentOperationCount(), width) << index;
  }
}

TEST_F(SyncManagerTest, APassTakesOnlyAccountsThatCanAndNeedToSync) {
  auto local = heldAccount();
  auto smart = makeAccount(kSmartFoldersServiceName, "", "Smart");

  EXPECT_EQ(manager_->syncAccounts({local, smart}), 1u);
  EXPECT_FALSE(smart->hasError());
  EXPECT_THAT(observer_.started, ElementsAre("Local"));
  EXPECT_TRUE(observer_.finished.empty());
  // An account already syncing is not queued twice.
  EXPECT_EQ(manager_->syncAccounts({local}), 0u);
  EXPECT_TRUE(manager_->isSyncing());

  server_.release();
  ASSERT_TRUE(manager_->waitUntilSyncFinished(std::chrono::seconds(20)));
  EXPECT_EQ(observer_.passes, 1);
  ASSERT_EQ(manager_->lastPassReports().size(), 1u);
  EXPECT_EQ(manager_->lastPassReports()[0].title, "Local");
  EXPECT_EQ(server_.requests("held"), 1);

  // Nothing starts while the network is unreachable.
  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_EQ(manager_->syncAccounts({local}), 0u);
  EXPECT_EQ(observer_.started.size(), 1u);
}

TEST_F(SyncManagerTest, TheTimerSyncsAccountsWhoseIntervalHasPassed) {
  // Instapaper accounts without a token pair fail at once (no client): being started shows they were taken.
  struct Case {
    std::string title;
    int interval;
    std::optional<std::chrono::seconds> syncedAgo;
    bool due;
  };
  const Case cases[] = {
      {"manual", 0, std::nullopt, false},
      {"manual synced", 0, std::chrono::seconds(9000), false},
      {"5 min, 200 s", 1, std::chrono::seconds(200), false},
      {"5 min, 300 s", 1, std::chrono::seconds(300), true},
      {"10 min, 599 s", 2, std::chrono::seconds(599), false},
      {"30 min, 1801 s", 3, std::chrono::seconds(1801), true},
      {"1 h, never", 4, std::nullopt, true},
  };
  std::set<std::string> expected;
  for (const auto& c : cases) {
    auto account = makeAccount("instapaper", c.title, c.title);
    ASSERT_TRUE(account->preferences().setValue("autoSyncIntervalIndex", c.interval));
    if (c.syncedAgo) account->setLast_sync(clock_.now() - *c.syncedAgo);
    if (c.due) expected.insert(c.title);
  }
  ASSERT_TRUE(context().save());
  ScopedLogCapture log;

  manager_->syncTimerExpired();
  EXPECT_EQ(std::set<std::string>(observer_.started.begin(), observer_.started.end()), expected);
  ASSERT_TRUE(manager_->waitUntilSyncFinished(std::chrono::seconds(20)));
  EXPECT_TRUE(log.contains("Sync timer fired"));

  manager_->startTimer();
  EXPECT_TRUE(log.contains("Next sync: "));
}

TEST_F(SyncManagerTest, NotificationsOfAPassAreDeliveredWhenItEnds) {
  RecordingPresenter presenter;
  manager_->setNotificationPresenter(&presenter);
  auto account = heldAccount();
  ASSERT_EQ(manager_->syncAccounts({account}), 1u);
  manager_->syncNotificationCenter().addNotificationWithTitle("Local", "3 new stories", "Top story");
  ASSERT_TRUE(untilRequested());
  EXPECT_THAT(presenter.delivered, IsEmpty());

  server_.release();
  ASSERT_TRUE(manager_->waitUntilSyncFinished(std::chrono::seconds(20)));
  EXPECT_THAT(presenter.delivered, ElementsAre("Local|3 new stories|Top story"));

  // Turned off, or the application in front: the entries are dropped, not kept for later.
  for (const bool off : {true, false}) {
    ASSERT_TRUE(defaults_.setInteger(kNotificationCenterIndex, off ? 0 : 1));
    presenter.active = !off;
    manager_->syncNotificationCenter().addNotificationWithTitle("Local", "1 new story", "");
    ASSERT_TRUE(syncAndWait(account));
    EXPECT_EQ(presenter.delivered.size(), 1u);
    EXPECT_THAT(manager_->syncNotificationCenter().pendingNotifications(), IsEmpty());
  }
}

TEST_F(SyncManagerTest, APassTellsItsDelegatesAndRearrangesSmartFolders) {
  RecordingDelegates delegates;
  RecordingRearranger rearranger;
  manager_->setAppControllerDelegate(&delegates);
  manager_->setMainWindowControllerDelegate(&delegates);
  manager_->setSmartFolderRearranger(&rearranger);
  auto smart = makeAccount(kSmartFoldersServiceName, "", "Smart");
  for (const std::string title : {"Today", "This week"}) {
    auto folder = context().insertNewObject<SmartFolder>();
    folder->setTitle(title);
    folder->setAccount(*smart);
  }
  auto account = localAccount();
  addFeed(*account, "news");
  server_.setFeed("news", {{"story", "http://example.com/story"}}, clock_.now());

  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(delegates.updated, ElementsAre(account.get()));
  EXPECT_THAT(delegates.completed, ElementsAre(account.get()));
  EXPECT_EQ(delegates.progress, 0);
  // The main context already sees what the operation saved when it is told.
  EXPECT_EQ(account->bookmarks()->size(), 1u);
  EXPECT_THAT(rearranger.titles, UnorderedElementsAre("Today", "This week"));
}

TEST_F(SyncManagerTest, CancelAndWaitCallsBackOnceTheAccountsOperationHasCompleted) {
  auto account = heldAccount();
  ASSERT_EQ(manager_->syncAccounts({account}), 1u);
  ASSERT_TRUE(untilRequested());
  bool called = false;
  manager_->cancelAndWaitSyncOperationOfAccount(*account, [&] {
    EXPECT_FALSE(account->isSyncing());
    called = true;
  });
  ASSERT_TRUE(mainQueue_.runUntil([&] { return called; }, std::chrono::seconds(20)));
  EXPECT_FALSE(manager_->isSyncing());

  // With nothing running the completion still comes; the blocking form returns at once.
  called = false;
  manager_->cancelAndWaitSyncOperationOfAccount(*account, [&] { called = true; });
  EXPECT_TRUE(mainQueue_.runUntil([&] { return called; }, std::chrono::seconds(20)));
  EXPECT_TRUE(manager_->cancelAndWaitSyncOperationOfAccount(*account, std::chrono::seconds(20)));

  // The blocking form, as deleting an account uses it.
  server_.hold("held");
  ASSERT_EQ(manager_->syncAccounts({account}), 1u);
  ASSERT_TRUE(mainQueue_.runUntil([&] { return server_.requests("held") == 2; }, std::chrono::seconds(20)));
  EXPECT_TRUE(manager_->cancelAndWaitSyncOperationOfAccount(*account, std::chrono::seconds(20)));
  EXPECT_FALSE(account->isSyncing());
}

TEST_F(SyncManagerTest, CancelAndWaitForAQueuedAccountDoesNotWaitForTheRunningOne) {
  // Regression (hardening issue): with the default width of 1 a cancelled operation still waited
  // for room, so deleting an account waited for another account's whole sync.
  ASSERT_EQ(manager_->concurrentOperationCount(), 1);
  auto running = heldAccount();
  auto queued = makeAccount("localrss", "", "Queued");
  addFeed(*queued, "other");
  server_.setFeed("other", {{"story", "http://example.com/other"}}, clock_.now());
  ASSERT_EQ(manager_->syncAccounts({running, queued}), 2u);
  ASSERT_TRUE(untilRequested());
  EXPECT_TRUE(manager_->cancelAndWaitSyncOperationOfAccount(*queued, std::chrono::seconds(10)));
  EXPECT_FALSE(queued->isSyncing());
  EXPECT_TRUE(running->isSyncing());  // still held by the server
  EXPECT_EQ(server_.requests("other"), 0);
  server_.release();
  ASSERT_TRUE(manager_->waitUntilSyncFinished(std::chrono::seconds(20)));
}

}  // namespace
}  // namespace lectern::test
