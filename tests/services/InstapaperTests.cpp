// An Instapaper account against the mock server: the qline answers and errors, the `have` list,
// sign-in, first and later syncs, the item calls online and offline, each with what reached the server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "ServiceTestSupport.h"
#include "accounts/AccountErrors.h"
#include "core/Strings.h"
#include "mocks/InstapaperMockServer.h"
#include "services/instapaper/InstapaperService.h"
#include "services/instapaper/QKInstapaperClient.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/ServiceDelivery.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using mock::InstapaperBookmark;
using mock::InstapaperFault;
using nlohmann::json;

constexpr std::string_view kUser = "reader@example.org";
constexpr std::string_view kPassword = "secret";

// ---- the answers' format ----

TEST(InstapaperQline, LinesBecomeObjectsWithEveryEncodingDecoded) {
  const json objects = QKXAuthClient::convertToJSONFromQline(
      "type=bookmark&bookmark_id=1234&url=http%3A%2F%2Fexample.com%2Fpage1.html&title=Example+page%201"
      "&description=&starred=0\n"
      "\n"
      "type=meta&delete_ids=1201%2C1202\r\n"
      "type=user&username=reader%40example.org&name=Ren%C3%A9+%2B+co\n");
  ASSERT_EQ(objects.size(), 3u);  // the empty line and the trailing newline make no object
  EXPECT_EQ(objects[0]["type"], "bookmark");
  EXPECT_EQ(objects[0]["bookmark_id"], "1234");
  EXPECT_EQ(objects[0]["url"], "http://example.com/page1.html");
  EXPECT_EQ(objects[0]["title"], "Example page 1");  // "+" and "%20" both a space
  EXPECT_EQ(objects[0]["description"], "");
  EXPECT_EQ(objects[1]["delete_ids"], "1201,1202");
  EXPECT_EQ(objects[2]["username"], "reader@example.org");
  EXPECT_EQ(objects[2]["name"], "René + co");  // an escaped "+" stays a plus
}

TEST(InstapaperQline, MalformedPairsAndBytesNeverBreakTheAnswer) {
  const json objects = QKXAuthClient::convertToJSONFromQline(
      "=orphan&novalue&&a=1=2&bad=%zz%4&utf=%FF%FE\n"
      "&&&\n"
      "type=error&error_code=1241&message=Invalid+or+missing+bookmark_id");
  ASSERT_EQ(objects.size(), 3u);
  EXPECT_EQ(objects[0][""], "orphan");
  EXPECT_EQ(objects[0]["novalue"], "");
  EXPECT_EQ(objects[0]["a"], "1=2");  // split at the first "=" only
  EXPECT_EQ(objects[0]["bad"], "%zz%4");  // a broken escape is kept as it stands
  EXPECT_TRUE(isValidUTF8(objects[0]["utf"].get<std::string>()));
  EXPECT_TRUE(objects[1].empty());
  EXPECT_EQ(objects[2]["message"], "Invalid or missing bookmark_id");
  EXPECT_TRUE(QKXAuthClient::convertToJSONFromQline("").empty());
  EXPECT_TRUE(QKXAuthClient::convertToJSONFromQline("\n\n  \n").empty());
}

TEST(InstapaperQline, JsonAnswersAreReadTooAndTheListObjectIsFlattened) {
  EXPECT_EQ(QKInstapaperClient::parseResponse(R"([{"type":"folder","folder_id":7}])")[0]["folder_id"], 7);
  const json list = QKInstapaperClient::parseResponse(
      R"({"user":{"type":"user"},"bookmarks":[{"type":"bookmark","bookmark_id":5}],"delete_ids":[8,9]})");
  std::vector<std::string> types;
  for (const auto& object : list) types.push_back(safeStringValue(object, "type").value_or(""));
  EXPECT_THAT(types, UnorderedElementsAre("user", "bookmark", "meta"));
  for (const auto& object : list) {
    if (object["type"] == "meta") {
      EXPECT_EQ(object["delete_ids"], "8,9");
    }
  }
}

TEST(InstapaperSecret, TheTokenPairIsKeptAsOneSecretAndAPasswordIsNoPair) {
  const std::string kept = InstapaperService::tokenPairSecret("to&ken=1", "se cret%/");
  const auto pair = InstapaperService::tokenPairFromSecret(kept);
  ASSERT_TRUE(pair);
  EXPECT_EQ(pair->first, "to&ken=1");
  EXPECT_EQ(pair->second, "se cret%/");
  EXPECT_FALSE(InstapaperService::tokenPairFromSecret("secret"));
  EXPECT_FALSE(InstapaperService::tokenPairFromSecret("oauth_token=a"));
  EXPECT_FALSE(InstapaperService::tokenPairFromSecret(""));
}

// ---- against the mock ----

class InstapaperTest : public ServiceTest {
 protected:
  void SetUp() override {
    configureConsumer();
    auto added = addAccount("instapaper", std::string(kUser), std::string(kPassword), server_.baseURL());
    ASSERT_TRUE(added) << added.error().message();
    account_ = *added;
    server_.clearRequests();
  }
  void configureConsumer() {
    ASSERT_TRUE(defaults_.setString(InstapaperService::kConsumerKeyDefaultsKey, server_.consumerKey()));
    ASSERT_TRUE(defaults_.setString(InstapaperService::kConsumerSecretDefaultsKey, server_.consumerSecret()));
  }

  InstapaperBookmark add(std::string title, std::string folder, bool starred = false) {
    InstapaperBookmark bookmark;
    bookmark.title = std::move(title);
    bookmark.folder = std::move(folder);
    bookmark.starred = starred;
    return server_.addBookmark(std::move(bookmark));
  }
  std::shared_ptr<Folder> folder(const std::string& folderId) { return account_->findFolderWithId(folderId).value(); }
  // The titles of the bookmarks in a folder, sorted.
  std::vector<std::string> titlesIn(const std::string& folderId) {
    std::vector<std::string> titles;
    auto found = folder(folderId);
    if (!found) return {"<no folder>"};
    const auto held = found->bookmarks().value();
    for (const auto& bookmark : held) titles.push_back(bookmark->title().value_or(""));
    std::sort(titles.begin(), titles.end());
    return titles;
  }
  std::vector<std::string> folderIds() {
    std::vector<std::string> ids;
    const auto folders = account_->sortedFolders().value();
    for (const auto& folder : folders) ids.push_back(folder->folder_id().value_or(""));
    std::sort(ids.begin(), ids.end());
    return ids;
  }
  std::shared_ptr<Bookmark> local(std::int64_t id) { return account_->findBookmarkWithId(std::to_string(id)).value(); }
  std::string haveSent(const std::string& folderId) {
    for (const auto& request : server_.requests("bookmarks/list")) {
      if (request.parameter("folder_id") == folderId) return request.parameter("have");
    }
    return "<not listed>";
  }

  mock::InstapaperMockServer server_;
  std::shared_ptr<Account> account_;
};

TEST_F(InstapaperTest, EachBookmarkIsWrittenInTheHaveListWithWhatItHas) {
  auto& context = this->context();
  auto bare = context.insertNewObject<Bookmark>();
  bare->setBookmark_id("12345");
  bare->setProgress(-1);
  auto hashed = context.insertNewObject<Bookmark>();
  hashed->setBookmark_id("12346");
  hashed->setBookmark_hash("OjMuzFp6");
  hashed->setProgress(-1);
  auto read = context.insertNewObject<Bookmark>();
  read->setBookmark_id("12347");
  read->setBookmark_hash("8LjFpB3s");
  read->setProgress(0.5);
  read->setDate_updated(dateFromSecondsSince1970(1288584076.7));
  auto progressOnly = context.insertNewObject<Bookmark>();
  progressOnly->setBookmark_id("12348");
  progressOnly->setProgress(0);
  EXPECT_EQ(bare->instapaperHaveEntry(), "12345");
  EXPECT_EQ(hashed->instapaperHaveEntry(), "12346:OjMuzFp6");
  EXPECT_EQ(read->instapaperHaveEntry(), "12347:8LjFpB3s:0.500000:1288584076");
  EXPECT_EQ(progressOnly->instapaperHaveEntry(), "12348:0.000000:0");
  EXPECT_EQ(Bookmark::instapaperHaveString({bare, hashed, read}),
            "12345,12346:OjMuzFp6,12347:8LjFpB3s:0.500000:1288584076");
  EXPECT_EQ(Bookmark::instapaperHaveString({}), "");
}

TEST_F(InstapaperTest, BothFormsOfAnErrorAnswerCarryTheServersMessage) {
  const std::string jsonError = R"([{"type":"error","error_code":1241,"message":"Invalid or missing bookmark_id"}])";
  const std::string qlineError = "type=error&error_code=1241&message=Invalid%20or%20missing%20bookmark_id\n";
  auto client = std::make_shared<QKInstapaperClient>(session_, "http://127.0.0.1:9/", "k", "s",
                                                     QKInstapaperClient::TokenPair{"t", "ts"});
  const Error transport = Error::make("NSURLErrorDomain", -1011, "Expected status code in (200-299), got 400");
  for (const auto& body : {jsonError, qlineError}) {
    SCOPED_TRACE(body);
    EXPECT_TRUE(QKInstapaperClient::isResponseError(body));
    const Error error = client->errorFromResponseData(body, transport, "Instapaper: Failed to delete bookmark");
    EXPECT_EQ(error.domain, "NSURLErrorDomain");
    EXPECT_EQ(error.code, -1011);
    EXPECT_EQ(error.description, "Instapaper: Failed to delete bookmark");
    EXPECT_EQ(error.recoverySuggestion, "Invalid or missing bookmark_id");
    const Error without = client->errorFromResponseData(body, std::nullopt, "Instapaper: Failed to get folders");
    EXPECT_EQ(without.domain, "com.quillhq.lectern");
    EXPECT_EQ(without.code, 100);
    EXPECT_EQ(without.recoverySuggestion, "Invalid or missing bookmark_id");
  }
  // Not an error: a list whose first object is of another type, or no list at all.
  EXPECT_FALSE(QKInstapaperClient::isResponseError("type=bookmark&bookmark_id=1\ntype=error&message=x"));
  EXPECT_FALSE(QKInstapaperClient::isResponseError("<html>Down</html>"));
  EXPECT_FALSE(QKInstapaperClient::isResponseError(""));
  // Without a message the transport's text stays.
  EXPECT_EQ(client->errorFromResponseData("", transport, "T").recoverySuggestion, transport.description);
  EXPECT_EQ(QKInstapaperClient::folderOrderString({{"11", 1}, {"12", 2}}), "11:1,12:2");
  EXPECT_EQ(QKInstapaperClient::folderOrderString({}), "");
}

TEST_F(InstapaperTest, SignInKeepsTheTokenPairNeverThePassword) {
  const auto secret = account_->tokenSecret().value();
  ASSERT_TRUE(secret);
  EXPECT_NE(*secret, kPassword);
  const auto pair = InstapaperService::tokenPairFromSecret(*secret);
  ASSERT_TRUE(pair);
  EXPECT_EQ(pair->first, server_.issuedToken());
  EXPECT_EQ(pair->second, server_.issuedTokenSecret());
  // Later calls are signed with the token; the mock checked every signature.
  ASSERT_FALSE(sync(account_).error);
  for (const auto& request : server_.requests()) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_THAT(request.authorization, HasSubstr(fmt::format("oauth_token=\"{}\"", server_.issuedToken())));
    EXPECT_THAT(request.authorization, ::testing::Not(HasSubstr("x_auth_password")));
    EXPECT_EQ(request.parameter("format"), "qline");
    EXPECT_EQ(request.status, 200);
  }
}

TEST_F(InstapaperTest, ARefusedOrUnconfiguredSignInLeavesNothingBehind) {
  auto wrong = addAccount("instapaper", "other@example.org", "wrong", server_.baseURL());
  ASSERT_FALSE(wrong);
  EXPECT_EQ(wrong.error().description, "Instapaper: Failed to login");
  EXPECT_EQ(wrong.error().recoverySuggestion, "Invalid xAuth credentials.");
  const auto sent = server_.requests("oauth/access_token");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].parameter("x_auth_mode"), "client_auth");
  EXPECT_EQ(sent[0].parameter("x_auth_username"), "other@example.org");
  EXPECT_EQ(Account::findService(context(), "instapaper", std::string("other@example.org")).value(), nullptr);
  EXPECT_EQ(secrets_.password("com.quillhq.Lectern", "instapaper:other@example.org").value_or(std::nullopt), std::nullopt);

  server_.clearRequests();
  ASSERT_TRUE(defaults_.setString(InstapaperService::kConsumerSecretDefaultsKey, ""));
  auto unconfigured = addAccount("instapaper", "third@example.org", "secret", server_.baseURL());
  ASSERT_FALSE(unconfigured);
  EXPECT_THAT(unconfigured.error().recoverySuggestion, HasSubstr("lectern config set instapaperConsumerSecret"));
  EXPECT_THAT(server_.requests(), IsEmpty());  // nothing was sent
  EXPECT_EQ(Account::findService(context(), "instapaper", std::string("third@example.org")).value(), nullptr);
}

TEST_F(InstapaperTest, ABadSignatureIsRefused) {
  auto client = std::make_shared<QKInstapaperClient>(session_, server_.baseURL(), server_.consumerKey(),
                                                     server_.consumerSecret(),
                                                     QKInstapaperClient::TokenPair{server_.issuedToken(), "wrong"});
  std::optional<Result<json>> answer;
  client->verifyCredentials([&](Result<json> result) { answer = std::move(result); });
  ASSERT_TRUE(pumpUntil([&] { return answer.has_value(); }));
  ASSERT_FALSE(*answer);
  EXPECT_EQ(answer->error().description, "Instapaper: Failed to verify credentials");
  EXPECT_EQ(answer->error().recoverySuggestion, "Invalid signature");
  EXPECT_EQ(answer->error().info(kHTTPStatusCodeErrorKey), "401");
}

TEST_F(InstapaperTest, FirstSyncBringsFoldersBookmarksAndTheirArticles) {
  const auto reading = server_.addFolder("Reading", 1300000001);
  const auto one = add("  One", "unread");
  const auto two = add("Two", "unread", /*starred=*/true);
  const auto three = add("Three", "archive");
  const auto four = add("Four", std::to_string(reading.folderId));
  server_.setProgress(two.bookmarkId, 0.25, 1700000000);

  const auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(folderIds(), ElementsAre(std::to_string(reading.folderId), "archive", "starred", "unread"));
  EXPECT_EQ(folder(std::to_string(reading.folderId))->title(), "Reading");
  EXPECT_THAT(titlesIn("unread"), ElementsAre("One", "Two"));  // leading white space trimmed
  EXPECT_THAT(titlesIn("starred"), ElementsAre("Two"));
  EXPECT_THAT(titlesIn("archive"), ElementsAre("Three"));
  EXPECT_THAT(titlesIn(std::to_string(reading.folderId)), ElementsAre("Four"));
  EXPECT_TRUE(local(three.bookmarkId)->is_archived());
  EXPECT_FALSE(local(one.bookmarkId)->is_archived());
  EXPECT_TRUE(local(two.bookmarkId)->is_favorited());
  EXPECT_DOUBLE_EQ(local(two.bookmarkId)->progress(), 0.25);
  EXPECT_EQ(local(two.bookmarkId)->date_updated(), dateFromSecondsSince1970(1700000000));
  EXPECT_EQ(local(one.bookmarkId)->bookmark_hash(), one.hash);
  EXPECT_EQ(local(four.bookmarkId)->url(), server_.articleURL(four.bookmarkId));
  // The first sync is forced: nothing is claimed as held, every list asks for 500.
  for (const auto& request : server_.requests("bookmarks/list")) {
    EXPECT_EQ(request.parameter("have"), "");
    EXPECT_EQ(request.parameter("limit"), "500");
  }
  // Folders in position order: the built-in ones first, then the person's.
  std::vector<std::string> order;
  for (const auto& request : server_.requests("bookmarks/list")) order.push_back(request.parameter("folder_id"));
  EXPECT_THAT(order, ElementsAre("unread", "starred", "archive", std::to_string(reading.folderId)));
  // Each new bookmark's page was fetched and its article kept.
  const auto html = local(four.bookmarkId)->html().value();
  ASSERT_TRUE(html);
  EXPECT_THAT(*html, HasSubstr(fmt::format("Paragraph 1 of article {}", four.bookmarkId)));
  EXPECT_GE(server_.articleRequests(), 4);
  EXPECT_TRUE(account_->last_sync());
}

TEST_F(InstapaperTest, ASecondSyncSendsHaveListsAndFollowsEveryChange) {
  const auto reading = server_.addFolder("Reading", 1300000001);
  const auto old = server_.addFolder("Old", 1300000002);
  const auto moved = add("Moved", "unread");
  const auto starredLater = add("Starred later", "archive");
  const auto deleted = add("Deleted", "unread");
  const auto unstarred = add("Unstarred", "unread", /*starred=*/true);
  const auto orphan = add("Orphan", std::to_string(old.folderId));
  const auto kept = add("Kept", "unread");
  ASSERT_FALSE(sync(account_).error);
  const auto keptHash = local(kept.bookmarkId)->bookmark_hash().value_or("");

  server_.moveBookmark(moved.bookmarkId, std::to_string(reading.folderId));
  server_.setStarred(starredLater.bookmarkId, true);
  server_.removeBookmark(deleted.bookmarkId);
  server_.setStarred(unstarred.bookmarkId, false);
  server_.removeBookmark(orphan.bookmarkId);
  server_.removeFolder(old.folderId);
  const auto fresh = add("Fresh", "unread");
  server_.clearRequests();

  const auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  // The have list names what the folder held, with hashes.
  const std::string have = haveSent("unread");
  EXPECT_THAT(have, HasSubstr(fmt::format("{}:{}", kept.bookmarkId, keptHash)));
  EXPECT_THAT(have, HasSubstr(std::to_string(deleted.bookmarkId)));
  // Moved between folders: only in the new one.
  EXPECT_THAT(titlesIn("unread"), ElementsAre("Fresh", "Kept", "Unstarred"));
  EXPECT_THAT(titlesIn(std::to_string(reading.folderId)), ElementsAre("Moved"));
  // Starred elsewhere: in its folder and in "starred".
  EXPECT_THAT(titlesIn("archive"), ElementsAre("Starred later"));
  EXPECT_THAT(titlesIn("starred"), ElementsAre("Starred later"));
  EXPECT_TRUE(local(starredLater.bookmarkId)->is_favorited());
  // A delete id in "starred" unstars only.
  ASSERT_NE(local(unstarred.bookmarkId), nullptr);
  EXPECT_FALSE(local(unstarred.bookmarkId)->is_favorited());
  // Deleted on the server, and left in no folder: both gone.
  EXPECT_EQ(local(deleted.bookmarkId), nullptr);
  EXPECT_EQ(local(orphan.bookmarkId), nullptr);
  // The obsolete folder went; the built-in three stay.
  EXPECT_THAT(folderIds(), ElementsAre(std::to_string(reading.folderId), "archive", "starred", "unread"));
  // Only the new bookmark's article was fetched again (and the moved one's, which came back changed).
  EXPECT_TRUE(local(fresh.bookmarkId)->html().value());
  EXPECT_LE(server_.articleRequests(), 1);
}

TEST_F(InstapaperTest, ReadingProgressTravelsBothWaysThroughTheHaveList) {
  const auto article = add("Article", "unread");
  ASSERT_FALSE(sync(account_).error);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::updateBookmark(*local(article.bookmarkId), 0.75, done); }));
  const auto sent = server_.requests("bookmarks/update_read_progress");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].parameter("progress"), "0.750000");
  EXPECT_EQ(sent[0].parameter("progress_timestamp"),
            fmt::format("{}", static_cast<std::int64_t>(secondsSince1970(clock_.now()))));
  EXPECT_DOUBLE_EQ(server_.bookmark(article.bookmarkId)->progress, 0.75);

  // Read further on another device: the newer position comes back.
  server_.setProgress(article.bookmarkId, 0.9, static_cast<std::int64_t>(secondsSince1970(clock_.now())) + 60);
  server_.clearRequests();
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(haveSent("unread"), HasSubstr(":0.750000:"));
  EXPECT_DOUBLE_EQ(local(article.bookmarkId)->progress(), 0.9);
}

TEST_F(InstapaperTest, AFailedFolderListEndsTheSyncAndAFailedBookmarkListLeavesOnlyThatFolder) {
  const auto reading = server_.addFolder("Reading", 1300000001);
  add("First", "unread");
  add("Inside", std::to_string(reading.folderId));
  ASSERT_FALSE(sync(account_).error);

  server_.injectFault("folders/list", InstapaperFault::kServerError);
  server_.clearRequests();
  auto failed = sync(account_);
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->description, "Instapaper: Failed to get folders");
  EXPECT_THAT(server_.requests("bookmarks/list"), IsEmpty());

  // The person's folder fails (its list is the fourth); the others still follow the server.
  add("Second", "unread");
  add("Also inside", std::to_string(reading.folderId));
  server_.injectFault("bookmarks/list", InstapaperFault::kNotQline, 4);
  const auto unreadable = sync(account_);
  ASSERT_TRUE(unreadable.error);
  EXPECT_EQ(unreadable.error->description, "Instapaper: Failed to get bookmarks");
  EXPECT_EQ(unreadable.error->recoverySuggestion, "Instapaper's answer could not be read.");
  EXPECT_THAT(titlesIn("unread"), ElementsAre("First", "Second"));
  EXPECT_THAT(titlesIn(std::to_string(reading.folderId)), ElementsAre("Inside"));

  server_.injectFault("bookmarks/list", InstapaperFault::kServerError, 4);
  const auto refused = sync(account_);
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->description, "Instapaper: Failed to get bookmarks");
  EXPECT_THAT(refused.error->recoverySuggestion, HasSubstr("unexpected error"));
  EXPECT_THAT(titlesIn(std::to_string(reading.folderId)), ElementsAre("Inside"));
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(titlesIn(std::to_string(reading.folderId)), ElementsAre("Also inside", "Inside"));
}

TEST_F(InstapaperTest, ItemChangesReachTheServerAndRefusalsAreShown) {
  const auto reading = server_.addFolder("Reading", 1300000001);
  const auto one = add("One", "unread");
  const auto two = add("Two", "unread");
  ASSERT_FALSE(sync(account_).error);
  server_.clearRequests();

  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmark(*local(one.bookmarkId), Bookmark::Favorited{true}, done); }));
  EXPECT_TRUE(server_.bookmark(one.bookmarkId)->starred);
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmarks({local(one.bookmarkId), local(two.bookmarkId)}, *account_, true, done);
  }));
  EXPECT_EQ(server_.bookmark(one.bookmarkId)->folder, "archive");
  EXPECT_EQ(server_.bookmark(two.bookmarkId)->folder, "archive");
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmarks({local(two.bookmarkId)}, *account_, false, done); }));
  EXPECT_EQ(server_.bookmark(two.bookmarkId)->folder, "unread");
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::moveBookmark(*local(two.bookmarkId), *folder(std::to_string(reading.folderId)), done);
  }));
  EXPECT_EQ(server_.bookmark(two.bookmarkId)->folder, std::to_string(reading.folderId));
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::deleteBookmarkWithId(std::to_string(one.bookmarkId), *account_, done); }));
  EXPECT_FALSE(server_.bookmark(one.bookmarkId));
  EXPECT_THAT(queued(*account_), IsEmpty());
  // Tags have no call at Instapaper: said so, and nothing is sent.
  const auto before = server_.requests().size();
  auto& service = dynamic_cast<InstapaperService&>(*account_->serviceObject());
  auto tagged = waitFor([&](auto done) { service.updateTags(*local(two.bookmarkId), done); });
  ASSERT_TRUE(tagged);
  EXPECT_EQ(tagged->code, kChangeNotOffered);
  EXPECT_EQ(server_.requests().size(), before);

  // A refusal (400 with the service's message) is shown and not queued again.
  server_.injectFault("bookmarks/star", InstapaperFault::kRateLimited);
  auto refused =
      waitFor([&](auto done) { Bookmark::markBookmark(*local(two.bookmarkId), Bookmark::Favorited{true}, done); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Instapaper: Failed to favorite bookmark");
  EXPECT_EQ(refused->recoverySuggestion, "Rate-limit exceeded");
  EXPECT_EQ(deliveryOf(refused), Delivery::kRefused);
  // An error told with status 200 is a refusal too.
  server_.injectFault("bookmarks/unstar", InstapaperFault::kErrorInSuccess);
  auto declined =
      waitFor([&](auto done) { Bookmark::markBookmark(*local(two.bookmarkId), Bookmark::Favorited{false}, done); });
  ASSERT_TRUE(declined);
  EXPECT_EQ(declined->description, "Instapaper: Failed to unfavorite bookmark");
  EXPECT_EQ(deliveryOf(declined), Delivery::kRefused);
  EXPECT_THAT(queued(*account_), IsEmpty());
  // A server in trouble: the change waits in the queue.
  server_.injectFault("bookmarks/archive", InstapaperFault::kServerError);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmarks({local(two.bookmarkId)}, *account_, true, done); }));
  EXPECT_EQ(queued(*account_).size(), 1u);
}

TEST_F(InstapaperTest, OfflineChangesAreQueuedAndReplayedBeforeTheServerIsRead) {
  const auto one = add("One", "unread");
  const auto two = add("Two", "unread");
  const auto three = add("Three", "archive");
  ASSERT_FALSE(sync(account_).error);
  server_.clearRequests();

  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmark(*local(one.bookmarkId), Bookmark::Favorited{true}, done); }));
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmarks({local(two.bookmarkId)}, *account_, true, done); }));
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::deleteBookmarkWithId(std::to_string(three.bookmarkId), *account_, done); }));
  EXPECT_EQ(queued(*account_).size(), 3u);
  EXPECT_THAT(server_.requests(), IsEmpty());

  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  const auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  std::vector<std::string> paths;
  for (const auto& request : server_.requests()) paths.push_back(request.path);
  ASSERT_GE(paths.size(), 4u);
  EXPECT_THAT(std::vector<std::string>(paths.begin(), paths.begin() + 3),
              UnorderedElementsAre("/api/1/bookmarks/star", "/api/1/bookmarks/archive", "/api/1/bookmarks/delete"));
  EXPECT_EQ(paths[3], "/api/1/folders/list");  // the queue goes first
  EXPECT_TRUE(server_.bookmark(one.bookmarkId)->starred);
  EXPECT_EQ(server_.bookmark(two.bookmarkId)->folder, "archive");
  EXPECT_FALSE(server_.bookmark(three.bookmarkId));
  EXPECT_THAT(queued(*account_), IsEmpty());
  EXPECT_THAT(titlesIn("archive"), ElementsAre("Two"));
  EXPECT_THAT(titlesIn("starred"), ElementsAre("One"));
  EXPECT_EQ(local(three.bookmarkId), nullptr);
}

TEST_F(InstapaperTest, SavingAPageKeepsTheBookmarkInTheFolderInstapaperPutItIn) {
  const auto reading = server_.addFolder("Reading", 1300000001);
  ASSERT_FALSE(sync(account_).error);
  auto& service = dynamic_cast<InstapaperService&>(*account_->serviceObject());

  EXPECT_FALSE(waitFor([&](auto done) {
    service.addBookmark(PageToSave{"https://example.org/a", "  A page", "About a", "", std::nullopt}, done);
  }));
  EXPECT_FALSE(waitFor([&](auto done) {
    service.addBookmark(
        PageToSave{"https://example.org/b", "B page", std::nullopt, "", std::to_string(reading.folderId)}, done);
  }));
  EXPECT_FALSE(waitFor([&](auto done) {
    service.addBookmark(PageToSave{"https://example.org/c", "C page", std::nullopt, "", "archive"}, done);
  }));
  const auto sent = server_.requests("bookmarks/add");
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].parameter("description"), "About a");
  EXPECT_EQ(sent[0].parameters.count("folder_id"), 0u);
  EXPECT_EQ(sent[1].parameter("folder_id"), std::to_string(reading.folderId));
  EXPECT_EQ(sent[2].parameters.count("folder_id"), 0u);  // archived afterwards instead
  EXPECT_THAT(titlesIn("unread"), ElementsAre("A page"));
  EXPECT_THAT(titlesIn(std::to_string(reading.folderId)), ElementsAre("B page"));
  EXPECT_THAT(titlesIn("archive"), ElementsAre("C page"));
  // Saved again without a folder: Instapaper's bookmark, where it lies.
  EXPECT_FALSE(waitFor([&](auto done) {
    service.addBookmark(PageToSave{"https://example.org/c", "C page", std::nullopt, "", std::nullopt}, done);
  }));
  EXPECT_THAT(titlesIn("archive"), ElementsAre("C page"));
  EXPECT_THAT(titlesIn("unread"), ElementsAre("A page"));
  for (const auto& bookmark : server_.bookmarks()) {
    if (bookmark.url == "https://example.org/c") {
      EXPECT_EQ(bookmark.folder, "archive");
    }
  }
  // An address Instapaper refuses: the person sees its reason, nothing is kept.
  auto refused = waitFor([&](auto done) {
    service.addBookmark(PageToSave{"notaurl", std::nullopt, std::nullopt, "", std::nullopt}, done);
  });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Instapaper: Failed to add bookmark");
  EXPECT_EQ(refused->recoverySuggestion, "Invalid URL specified");
  EXPECT_EQ(account_->bookmarks().value().size(), 3u);
}

}  // namespace
}  // namespace lectern::test
