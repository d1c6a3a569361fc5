// Feedbin's client on the wire: dates, long id lists, error titles and the status they carry.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "FeedbinTestSupport.h"
#include "accounts/ServiceFactory.h"
#include "net/NetworkSession.h"
#include "services/feedbin/FeedbinService.h"
#include "services/feedbin/QKFeedbinClient.h"
#include "store/ServiceDelivery.h"

namespace lectern::test {
namespace {

using nlohmann::json;

class FeedbinClientTest : public FeedbinTest {
 protected:
  std::shared_ptr<QKFeedbinClient> client() {
    return serviceObjectOf<FeedbinService>(*account_)->feedbinClient();
  }
  std::vector<std::string> ids(int from, int to) {
    std::vector<std::string> list;
    for (int id = from; id <= to; ++id) list.push_back(std::to_string(id));
    return list;
  }
};

TEST(FeedbinSince, HasSevenFractionalDigitsInUTC) {
  const Date date{std::chrono::seconds(1'360'000'019) + std::chrono::nanoseconds(127'893'100)};
  EXPECT_EQ(QKFeedbinClient::sinceString(date), "2013-02-04T17:46:59.1278931Z");
  EXPECT_EQ(QKFeedbinClient::sinceString(dateFromSecondsSince1970(0)), "1970-01-01T00:00:00.0000000Z");
}

TEST_F(FeedbinClientTest, LongIdListsAreSentInSeveralRequestsAndAllOfThemArrive) {
  server_.addSubscription({501, 11, "Alpha", "https://a.example/feed", std::nullopt});
  for (int id = 1; id <= 1001; ++id) addEntry(id, 11, "e", std::chrono::hours(1), /*unread=*/false);

  // Unread: JSON bodies of at most the server's 1,000 ids, ids as numbers.
  EXPECT_FALSE(waitFor([&](auto done) { client()->markStories(ids(1, 1001), /*readed=*/false, done); }));
  const auto posts = server_.requests("POST", "/v2/unread_entries.json");
  ASSERT_EQ(posts.size(), 2u);
  const auto firstBody = json::parse(posts[0].body);
  EXPECT_EQ(firstBody["unread_entries"].size(), 1000u);
  EXPECT_TRUE(firstBody["unread_entries"][0].is_number());
  EXPECT_EQ(server_.unreadEntryIds().size(), 1001u);

  // Read: DELETE parameters travel in the URL, each kept under 8 KB.
  server_.clearRequests();
  EXPECT_FALSE(waitFor([&](auto done) { client()->markStories(ids(1, 1001), /*readed=*/true, done); }));
  const auto deletes = server_.requests("DELETE", "/v2/unread_entries.json");
  ASSERT_GT(deletes.size(), 1u);
  std::set<std::string> sent;
  const std::string base = server_.baseURL();
  for (const auto& request : deletes) {
    // The URL as sent: the base without its last "/", the path, the query (ids need no escaping).
    std::string url = base.substr(0, base.size() - 1) + request.path;
    char separator = '?';
    for (const auto& [key, value] : request.query) {
      url += separator + key + "=" + value;
      separator = '&';
      if (key == "unread_entries[]") sent.insert(value);
    }
    EXPECT_LE(url.size(), 8192u);
  }
  EXPECT_EQ(sent.size(), 1001u);
  EXPECT_TRUE(server_.unreadEntryIds().empty());
}

TEST_F(FeedbinClientTest, FailuresCarryTheCallsTitleAndTellARefusalFromAnAnswerThatNeverCame) {
  // A wrong password: refused by the server.
  secrets_.setPassword(kPasswordServiceName, account_->uniqueIdentifier(), "wrong");
  serviceObjectOf<FeedbinService>(*account_)->resetApiClient();
  auto refused = waitFor([&](auto done) { client()->authenticate(done); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Authentication failed");
  EXPECT_EQ(refused->recoverySuggestion, "Authentication required");
  EXPECT_EQ(deliveryOf(refused), Delivery::kRefused);

  // A server in trouble: the change never arrived.
  secrets_.setPassword(kPasswordServiceName, account_->uniqueIdentifier(), std::string(kPassword));
  serviceObjectOf<FeedbinService>(*account_)->resetApiClient();
  server_.injectFault("POST", "/v2/starred_entries.json", mock::Fault::kServerError);
  auto troubled = waitFor([&](auto done) { client()->markStoryStarred("7", true, done); });
  ASSERT_TRUE(troubled);
  EXPECT_EQ(troubled->description, "Failed to mark entry");
  EXPECT_EQ(deliveryOf(troubled), Delivery::kNotDelivered);

  // The blocking calls title their failures the same way; a 404 past the last page is none.
  server_.injectFault("GET", "/v2/subscriptions.json", mock::Fault::kServerError);
  auto feeds = client()->getFeeds();
  ASSERT_FALSE(feeds);
  EXPECT_EQ(feeds.error().description, "Failed to fetch subscriptions");
  addEntry(7, 11, "Read", std::chrono::hours(1), /*unread=*/false);
  auto pastTheEnd = client()->getReadEntriesSince(std::nullopt, 99);
  ASSERT_TRUE(pastTheEnd) << pastTheEnd.error().message();
  EXPECT_FALSE(pastTheEnd->is_array());
}

TEST_F(FeedbinClientTest, ADroppedClientEndsItsCallInsteadOfLeavingItWaiting) {
  server_.injectFault("DELETE", "/v2/unread_entries.json", mock::Fault::kSlow, 1,
                      std::chrono::milliseconds(500));
  std::optional<std::optional<Error>> outcome;
  {
    auto held = client();
    held->markStories({"1"}, /*readed=*/true,
                      [&](std::optional<Error> error) { outcome = std::move(error); });
  }
  serviceObjectOf<FeedbinService>(*account_)->resetApiClient();
  ASSERT_TRUE(pumpUntil([&] { return outcome.has_value(); }));
  ASSERT_TRUE(outcome->has_value());
  EXPECT_EQ(deliveryOf(*outcome), Delivery::kNotDelivered);
}

}  // namespace
}  // namespace lectern::test
