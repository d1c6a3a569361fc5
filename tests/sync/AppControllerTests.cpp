// Start-up, scheduling, reachability and shutdown through the application controller.
#include <gmock/gmock.h>

#include <filesystem>

#include "SyncTestSupport.h"
#include "app/QKApplicationController.h"
#include "core/Log.h"
#include "store/ObjectContext.h"
#include "sync/SyncWindowControllerDelegate.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;

class RecordingWindow final : public SyncWindowControllerDelegate {
 public:
  void setSyncEnabled(bool enabled) override { syncEnabled.push_back(enabled); }
  std::vector<bool> syncEnabled;
};

class AppControllerTest : public SyncTest {
 protected:
  AppControllerTest()
      : controller_(environment_, QKApplicationController::Options{std::chrono::milliseconds(0),
                                                                   std::chrono::milliseconds(0), nullptr}) {
    controller_.syncManager().setSyncPassObserver(&observer_);
    controller_.setMainWindowController(&window_);
  }
  std::shared_ptr<Account> heldAccount() {
    auto account = localAccount();
    addFeed(*account, "held");
    server_.setFeed("held", {{"story", "http://example.com/story"}}, clock_.now());
    server_.hold("held");
    return account;
  }
  bool until(const std::function<bool()>& done) {
    return mainQueue_.runUntil(done, std::chrono::seconds(20));
  }

  RecordingWindow window_;
  QKApplicationController controller_;
};

TEST_F(AppControllerTest, SetupPreparesTheLibraryAndRemovesAccountsOfRetiredServices) {
  makeAccount("readability", "old", "Retired");
  auto kept = localAccount();

  ASSERT_TRUE(controller_.setupApp());
  ASSERT_TRUE(controller_.setupApp());  // again: nothing doubles
  EXPECT_EQ(context().count(Entity::kAccount, "service = ?", {std::string("readability")}), 0);
  EXPECT_EQ(context().count(Entity::kAccount, "service = ?", {std::string(kSmartFoldersServiceName)}), 1);
  EXPECT_FALSE(kept->isDeleted());
  EXPECT_TRUE(std::filesystem::is_directory(paths_.cacheFolder));
}

TEST_F(AppControllerTest, SchedulingLooksAtTheNetworkThenSyncsStartUpAccountsThenStartsTheTimer) {
  ASSERT_TRUE(controller_.setupApp());
  auto onStart = localAccount();
  auto notOnStart = makeAccount("feedly", "me", "Feedly");
  ASSERT_TRUE(notOnStart->preferences().setValue("syncOnStart", false));
  addFeed(*onStart, "news");
  server_.setFeed("news", {}, clock_.now());
  ScopedLogCapture log;

  controller_.startScheduling();
  ASSERT_TRUE(until([&] { return observer_.passes == 1; }));
  EXPECT_THAT(observer_.started, ElementsAre("Local"));
  EXPECT_THAT(observer_.finished, ElementsAre("Local"));
  EXPECT_TRUE(log.contains("*** Network status changed: reachable (periodic sync needed)"));
  EXPECT_TRUE(until([&] { return log.contains("Next sync: "); }));
  EXPECT_THAT(window_.syncEnabled, ElementsAre(true));
}

TEST_F(AppControllerTest, LosingTheNetworkCancelsTheRunningPass) {
  auto account = heldAccount();
  ScopedLogCapture log;
  ASSERT_EQ(controller_.startSync(), 1u);
  ASSERT_TRUE(until([&] { return server_.requests("held") > 0; }));

  reachability_.set(ReachabilityStatus::kNotReachable);
  ASSERT_TRUE(controller_.syncManager().waitUntilSyncFinished(std::chrono::seconds(20)));
  EXPECT_FALSE(account->isSyncing());
  ASSERT_EQ(observer_.reports.size(), 1u);
  EXPECT_TRUE(observer_.reports[0].cancelled);
  EXPECT_TRUE(log.contains("*** Network status changed: NOT reachable"));
  EXPECT_THAT(window_.syncEnabled, ElementsAre(false));
}

TEST_F(AppControllerTest, ShutdownCancelsTheRunningPassAndSavesTheLibrary) {
  auto account = heldAccount();
  ASSERT_EQ(controller_.startSync(), 1u);
  ASSERT_TRUE(until([&] { return server_.requests("held") > 0; }));
  account->setTitle("Renamed");

  controller_.shutdown();
  EXPECT_FALSE(controller_.syncManager().isSyncing());
  EXPECT_FALSE(account->isSyncing());
  EXPECT_FALSE(context().hasChanges());
  EXPECT_FALSE(account->last_sync().has_value());
}

}  // namespace
}  // namespace lectern::test
