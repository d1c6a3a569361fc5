// A Fever account against servers of both flavours: what the library ends with and what reached
// the server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ServiceTestSupport.h"
#include "accounts/AccountErrors.h"
#include "accounts/Subscriptions.h"
#include "core/Strings.h"
#include "mocks/FeverMockServer.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"
#include "store/QKAccountPreferences.h"

namespace lectern::test {
namespace {

using mock::FeverFlavour;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

class FeverTest : public ServiceTest, public ::testing::WithParamInterface<FeverFlavour> {
 protected:
  FeverFlavour flavour() const { return GetParam(); }

  void SetUp() override {
    server_ = std::make_unique<mock::FeverMockServer>(
        "me", "secret", flavour(), flavour() == FeverFlavour::kTextIds ? "/api/fever.php" : "/fever/");
    auto added = addAccount("fever", "me", "secret", server_->endpoint());
    if (!added) FAIL() << added.error().message();
    account_ = *added;
    server_->clearRequests();
  }

  void addItem(std::int64_t id, std::int64_t feed, const std::string& title, std::chrono::minutes age,
               bool read, bool saved = false) {
    const auto created =
        std::chrono::duration_cast<std::chrono::seconds>((clock_.now() - age).time_since_epoch());
    server_->addItem({id, feed, title, "Jane", fmt::format("<p>{}</p>", title),
                      fmt::format("https://example.org/{}", id), created.count()},
                     read, saved);
  }

  // Two groups, a feed in one, a feed in both, a spark feed, a feed in none; items of each kind.
  void serveTypicalAccount() {
    server_->addGroup({1, "Tech"});
    server_->addGroup({2, "News"});
    server_->addFeed({10, "Ten", "https://ten.example/rss", "https://ten.example/", false, 1'700'000'000},
                     {1});
    server_->addFeed({11, "Eleven", "https://eleven.example/rss", "https://eleven.example/", false, 0},
                     {1, 2});
    server_->addFeed({12, "Spark", "https://spark.example/rss", std::nullopt, true, 0}, {});
    server_->addFeed({13, "Thirteen", "https://thirteen.example/rss", std::nullopt, false, 0}, {});
    addItem(1001, 10, "Unread", 2h, /*read=*/false);
    addItem(1002, 11, "Unread and saved", 3h, /*read=*/false, /*saved=*/true);
    addItem(1003, 13, "Old saved", 24h * 30, /*read=*/true, /*saved=*/true);
    addItem(1004, 10, "Read yesterday", 24h, /*read=*/true);
    addItem(1005, 12, "Spark item", 1h, /*read=*/false);
  }

  std::string apiKey() const { return MD5Hash("me:secret"); }

  std::unique_ptr<mock::FeverMockServer> server_;
  std::shared_ptr<Account> account_;
};

INSTANTIATE_TEST_SUITE_P(Flavours, FeverTest,
                         ::testing::Values(FeverFlavour::kNumbersAndToggledStars, FeverFlavour::kTextIds),
                         [](const auto& info) {
                           return info.param == FeverFlavour::kTextIds
                                      ? std::string("TextIds")
                                      : std::string("NumbersAndToggledStars");
                         });

TEST_P(FeverTest, BothFlavoursGiveTheSameLibraryAndFollowChangesAtTheServer) {
  serveTypicalAccount();
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  // Sparks are not synced by default: the spark feed and its items stay out.
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("Eleven: News, Tech", "Ten: Tech", "Thirteen:"));
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"1001", "Unread", false, false, "10"},
                                              StoredStory{"1002", "Unread and saved", false, true, "11"},
                                              StoredStory{"1003", "Old saved", true, true, "13"},
                                              StoredStory{"1004", "Read yesterday", true, false, "10"}));
  for (const auto& request : server_->requests()) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_THAT(request.body, ::testing::HasSubstr("api_key=" + apiKey()));
  }

  addItem(1006, 11, "New", 10min, /*read=*/false);
  server_->setRead(1001, true);
  server_->setSaved(1002, false);
  server_->setSaved(1004, true);
  server_->removeFeed(13);
  report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("Eleven: News, Tech", "Ten: Tech"));
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"1001", "Unread", true, false, "10"},
                                              StoredStory{"1002", "Unread and saved", false, false, "11"},
                                              StoredStory{"1004", "Read yesterday", true, true, "10"},
                                              StoredStory{"1006", "New", false, false, "11"}));
}

TEST_P(FeverTest, MarksReachTheServerOnlineAndAfterBeingQueuedOffline) {
  serveTypicalAccount();
  ASSERT_FALSE(sync(account_).error);
  server_->clearRequests();

  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmarks({story(*account_, "1001")}, *account_, true, done); }));
  EXPECT_FALSE(server_->unreadItemIds().contains(1001));
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmark(*story(*account_, "1004"), Bookmark::Favorited{true}, done);
  }));
  EXPECT_TRUE(server_->savedItemIds().contains(1004));

  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmarks({story(*account_, "1001")}, *account_, false, done); }));
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmark(*story(*account_, "1002"), Bookmark::Favorited{false}, done);
  }));
  EXPECT_THAT(queued(*account_), ElementsAre("4 1001", "2 1002"));
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  server_->clearRequests();
  ASSERT_FALSE(sync(account_).error);
  const auto marks = server_->requests("mark");
  ASSERT_EQ(marks.size(), 2u);
  EXPECT_THAT(marks[0].body, ::testing::HasSubstr("as=unread"));
  EXPECT_THAT(marks[1].body, ::testing::HasSubstr("as=unsaved"));
  EXPECT_TRUE(server_->unreadItemIds().contains(1001));
  EXPECT_FALSE(server_->savedItemIds().contains(1002));
  EXPECT_THAT(queued(*account_), IsEmpty());
}

TEST_P(FeverTest, SparksFollowThePreferenceAndTheSpecialFoldersSurvive) {
  serveTypicalAccount();
  ASSERT_TRUE(account_->findFolderWithId("sparks").value());  // made with the account
  account_->addFeedFolderWithTitle("Hot", 9, "hot");
  account_->addFeedFolderWithTitle("Gone", 10, "77");  // a group the server no longer has
  ASSERT_TRUE(context().save());
  ASSERT_TRUE(account_->preferences().setValue("syncFeverSparks", true));
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(feedsAndFolders(*account_),
              ElementsAre("Eleven: News, Tech", "Spark: Sparks", "Ten: Tech", "Thirteen:"));
  EXPECT_TRUE(account_->findFolderWithId("hot").value());
  EXPECT_TRUE(account_->findFolderWithId("sparks").value());
  EXPECT_FALSE(account_->findFolderWithId("77").value());
  EXPECT_FALSE(story(*account_, "1005")->is_archived());
}

TEST_P(FeverTest, EmptyIdListsAndFullPagesArePagedToTheirEnd) {
  server_->addFeed({10, "Ten", "https://ten.example/rss", std::nullopt, false, 0}, {});
  for (int id = 1; id <= 50; ++id)
    addItem(id, 10, fmt::format("Item {}", id), 60min - std::chrono::minutes(id), true);
  ASSERT_FALSE(sync(account_).error);
  // Nothing unread: no item is asked for by id, and every story is read.
  EXPECT_THAT(server_->requests("with_ids"), IsEmpty());
  for (const auto& story : stories(*account_)) EXPECT_TRUE(story.read) << story.id;
  EXPECT_EQ(stories(*account_).size(), 50u);
  // A page of exactly 50 asks for one more, from the largest id of the page.
  const auto pages = server_->requests("since_id");
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_EQ(pages[0].query.find("since_id")->second, "0");
  EXPECT_EQ(pages[1].query.find("since_id")->second, "50");
}

TEST_P(FeverTest, ARefusedKeyFailsTheSyncAndLeavesNoAccountWhenAdded) {
  auto refused = addAccount("fever", "other", "wrong", server_->endpoint());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().description, "Failed to login");
  EXPECT_EQ(refused.error().recoverySuggestion, "Invalid user name or password");
  EXPECT_EQ(Account::services(context()).value().size(), 1u);
  EXPECT_FALSE(secrets_.password(kPasswordServiceName, "fever:other").value());

  auto withoutServer = addAccount("fever", "other", "secret", "");
  ASSERT_FALSE(withoutServer);
  EXPECT_THAT(withoutServer.error().recoverySuggestion, ::testing::HasSubstr("--endpoint"));
}

TEST_P(FeverTest, OddAnswersChangeNothingAndARefreshThatFailsStopsNothing) {
  serveTypicalAccount();
  ASSERT_FALSE(sync(account_).error);
  const auto shape = feedsAndFolders(*account_);
  const auto before = stories(*account_);
  server_->injectFault("groups", mock::Fault::kWrongShape);
  ASSERT_FALSE(sync(account_).error);
  EXPECT_EQ(feedsAndFolders(*account_), shape);
  EXPECT_EQ(stories(*account_), before);

  ASSERT_TRUE(account_->preferences().setValue("refreshOnFeverServer", true));
  server_->clearRequests();
  server_->injectFault("refresh", mock::Fault::kServerError);
  ASSERT_FALSE(sync(account_).error);
  ASSERT_EQ(server_->requests("refresh").size(), 1u);
  EXPECT_EQ(server_->requests("refresh")[0].method, "GET");
}

TEST_P(FeverTest, SubscriptionChangesAreRefusedWithAReasonWithoutAskingTheServer) {
  serveTypicalAccount();
  ASSERT_FALSE(sync(account_).error);
  server_->clearRequests();
  auto feed = account_->feeds().value().front();
  auto folder = account_->findFolderWithId("1").value();
  ASSERT_TRUE(folder);

  std::optional<Result<std::shared_ptr<Feed>>> subscribed;
  subscribeAccountToFeed(context(), *account_, "https://new.example/feed", "Later",
                         [&](Result<std::shared_ptr<Feed>> added) { subscribed = std::move(added); });
  ASSERT_TRUE(pumpUntil([&] { return subscribed.has_value(); }));
  ASSERT_FALSE(*subscribed);
  std::vector<Error> errors{subscribed->error()};
  const std::int64_t feedRow = feed->objectID().row;
  const std::int64_t folderRow = folder->objectID().row;
  const std::vector<std::function<void(ServiceCompletion)>> calls = {
      [&](ServiceCompletion done) { unsubscribeFromFeed(context(), feedRow, done); },
      [&](ServiceCompletion done) { moveFeedToFolder(context(), feedRow, "Later", done); },
      [&](ServiceCompletion done) { renameFolder(context(), folderRow, "Renamed", done); }};
  for (const auto& call : calls) {
    auto error = waitFor(call);
    ASSERT_TRUE(error);
    errors.push_back(*error);
  }
  for (const auto& error : errors) {
    EXPECT_EQ(error.code, kChangeNotOffered);
    EXPECT_THAT(error.recoverySuggestion, ::testing::HasSubstr("Fever server"));
  }
  EXPECT_THAT(server_->requests(), IsEmpty());
  EXPECT_EQ(account_->feeds().value().size(), 3u);
  EXPECT_EQ(folder->title(), "Tech");
}

}  // namespace
}  // namespace lectern::test
