// Feed discovery against a local server: which addresses are feeds, which links of a page are
// candidates, how their addresses are formed, how a page is decoded, and the three errors.
#include <gtest/gtest.h>

#include <thread>

#include "feeds/FeedDiscovery.h"
#include "feeds/QKFeedLinkParser.h"
#include "net/NetTestSupport.h"
#include "net/URLError.h"

namespace lectern {
namespace {

using Items = std::vector<QKFeedLinkItem>;

struct Page {
  std::string path;
  std::string contentType;
  std::string body;
};

const Page kPages[] = {
    {"/blog/index.html", "text/html; charset=utf-8",
     "<html><head><title>Blog</title>"
     "<link rel=\"alternate\" type=\"application/rss+xml\" title=\"Posts (RSS)\" href=\"/posts.rss\">"
     "<link rel=\"stylesheet\" type=\"text/css\" href=\"/style.css\">"
     "<link rel=\"alternate\" type=\"application/atom+xml\" title=\"Posts (Atom)\" "
     "href=\"https://feeds.example.org/atom\">"
     "<link rel=\"stylesheet\" type=\"application/rss+xml\" title=\"Odd\" href=\"comments.xml\">"
     "<link rel=\"alternate\" type=\"application/json\" title=\"JSON\" href=\"/feed.json\">"
     "</head><body><link rel=\"alternate\" type=\"application/rss+xml\" title=\"In body\" href=\"/body.rss\">"
     "<p>Hello</p></body></html>"},
    {"/plain.html", "text/html", "<html><head><title>No feeds</title></head><body>x</body></html>"},
    {"/feed", "application/xml", "this body is never read, so it need not be XML"},
    {"/atom", "application/atom+xml; charset=utf-8", "<feed/>"},
    {"/logo.png", "image/png", "\x89PNG\r\n\x1A\n"},
    {"/empty", "text/html", ""},
    // Latin-1 bytes without a declared charset: the title's "é" is the byte E9.
    {"/latin1.html", "text/html",
     "<html><head><link type=\"application/rss+xml\" title=\"Caf\xE9\" href=\"/f\"></head></html>"},
    // An unknown charset name reads as UTF-8.
    {"/unknown-charset.html", "text/html; charset=x-no-such-set",
     "<html><head><link type=\"text/xml\" title=\"Caf\xC3\xA9\" href=\"/f\"></head></html>"},
};

class FeedDiscovery : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const Page& page : kPages) {
      server.server().Get(page.path, [&page](const httplib::Request&, httplib::Response& response) {
        response.set_content(page.body, page.contentType);
      });
    }
    server.server().Get("/moved-feed", [](const httplib::Request&, httplib::Response& response) {
      response.set_redirect("/atom", 302);
    });
    server.server().Get("/missing", [](const httplib::Request&, httplib::Response& response) {
      response.status = 404;
      response.set_content("<html><head><link type=\"application/rss+xml\" href=\"/x\"></head></html>",
                           "text/html");
    });
    server.start();
  }

  Result<Items> discover(const std::string& url) {
    QKFeedLinkParser parser(net.session, url);
    std::optional<Result<Items>> outcome;
    bool onMainThread = false;
    parser.getFeedLinks([&](Result<Items> items) {
      onMainThread = net.main.isMainThread();
      outcome = std::move(items);
    });
    EXPECT_TRUE(net.runUntil([&] { return outcome.has_value(); }));
    EXPECT_TRUE(onMainThread);
    return outcome ? std::move(*outcome) : fail("test", 0, "no completion");
  }

  test::LocalServer server;
  test::NetFixture net{test::testSessionOptions()};
};

TEST_F(FeedDiscovery, HeadLinksOfFeedTypesAreCandidatesInPageOrder) {
  const std::string page = server.url("/blog/index.html");
  auto items = discover(page);
  ASSERT_TRUE(items) << items.error().message();
  // The type decides, not the rel; links in the body and of other types are not candidates. An
  // absolute path is appended to the page's own address; anything else stands as written.
  EXPECT_EQ(*items, (Items{{"Posts (RSS)", page + "/posts.rss"},
                           {"Posts (Atom)", "https://feeds.example.org/atom"},
                           {"Odd", "comments.xml"}}));
  EXPECT_EQ(items->front().description(), "Posts (RSS): " + page + "/posts.rss");
}

TEST_F(FeedDiscovery, AFeedTypeIsTakenAtItsWordAsTheRequestedAddress) {
  for (const char* path : {"/feed", "/atom", "/moved-feed"}) {
    auto items = discover(server.url(path));
    ASSERT_TRUE(items) << path << ": " << items.error().message();
    // After a redirect the candidate is still the address asked for.
    EXPECT_EQ(*items, (Items{{"Feed", server.url(path)}})) << path;
  }
}

TEST_F(FeedDiscovery, ThreeErrorsWithTheirTexts) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"/plain.html", 0, "The specified URL does not return a valid feed document"},
      {"/empty", 1, "Response does not contain any data"},
      {"/logo.png", 2, "Unknown MIMI type"},
  };
  for (const auto& [path, code, description] : cases) {
    auto items = discover(server.url(path));
    ASSERT_FALSE(items) << path;
    EXPECT_EQ(items.error().domain, "QKFeedLinkParserErrorDomain") << path;
    EXPECT_EQ(items.error().code, code) << path;
    EXPECT_EQ(items.error().description, description) << path;
  }
}

TEST_F(FeedDiscovery, CharsetOfThePage) {
  auto latin1 = discover(server.url("/latin1.html"));
  ASSERT_TRUE(latin1) << latin1.error().message();
  EXPECT_EQ(latin1->at(0).title, "Caf\u00E9");

  auto unknown = discover(server.url("/unknown-charset.html"));
  ASSERT_TRUE(unknown) << unknown.error().message();
  EXPECT_EQ(unknown->at(0).title, "Caf\u00E9");

  // The classification step alone: a named set is honoured; bytes it cannot read do not lose the link.
  auto koi8 = QKFeedLinkParser::URLDidLoaded(
      "http://h/", "<head><link type=\"text/xml\" title=\"\xF0\xD2\xC9\xD7\xC5\xD4\" href=\"/f\"></head>",
      "text/html", "koi8-r");
  ASSERT_TRUE(koi8);
  EXPECT_EQ(koi8->at(0).title, "\u041F\u0440\u0438\u0432\u0435\u0442");
  auto broken = QKFeedLinkParser::URLDidLoaded(
      "http://h/", "<head><link type=\"text/xml\" title=\"a\xFF\" href=\"/f\"></head>", "text/html", "utf-8");
  ASSERT_TRUE(broken);
  EXPECT_EQ(broken->at(0).title, "a\uFFFD");
}

TEST_F(FeedDiscovery, StatusCodesDoNotMatterButTransportFailuresDo) {
  // A 404 page is examined like any page.
  auto missing = discover(server.url("/missing"));
  ASSERT_TRUE(missing) << missing.error().message();
  EXPECT_EQ(missing->size(), 1u);

  test::LocalServer closed;
  closed.start();
  const std::string refused = closed.url("/");
  closed.server().stop();
  auto unreachable = discover(refused);
  ASSERT_FALSE(unreachable);
  EXPECT_EQ(unreachable.error().code, URLErrorCode::kCannotConnectToHost);
}

TEST_F(FeedDiscovery, AParserSearchesOnceAtATimeAndAgainFromItsCompletion) {
  QKFeedLinkParser parser(net.session, server.url("/feed"));
  std::vector<size_t> found;
  parser.getFeedLinks([&](Result<Items> items) {
    found.push_back(items ? items->size() : 0);
    // A retry from the completion block is a new search, not a second one at once.
    parser.getFeedLinks([&](Result<Items> again) { found.push_back(again ? again->size() : 0); });
  });
  EXPECT_THROW(parser.getFeedLinks(nullptr), InternalInconsistency);
  ASSERT_TRUE(net.runUntil([&] { return found.size() == 2; }));
  EXPECT_EQ(found, (std::vector<size_t>{1, 1}));
}

TEST(FeedAddress, TypedAddressesGetASchemeWhenTheyHaveNone) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"example.com", "https://example.com"},
      {"  example.com/blog \n", "https://example.com/blog"},
      {"localhost:8080/feed", "https://localhost:8080/feed"},
      {"http://example.com/rss", "http://example.com/rss"},
      {"HTTPS://Example.com", "HTTPS://Example.com"},
      {"feed://example.com/rss", "feed://example.com/rss"},
      {"", ""},
  };
  for (auto [typed, want] : cases) EXPECT_EQ(normalizedFeedAddress(typed), want) << typed;
}

TEST_F(FeedDiscovery, DiscoverFeedsWaitsOnTheMainThreadOrOnAWorker) {
  auto onMain = discoverFeeds(net.session, server.url("/blog/index.html"));
  ASSERT_TRUE(onMain) << onMain.error().message();
  EXPECT_EQ(onMain->size(), 3u);

  // From a worker, while the main thread runs its queue.
  std::optional<Result<Items>> fromWorker;
  std::thread worker([&] {
    auto items = discoverFeeds(net.session, "  " + server.url("/atom") + " ");
    net.main.post([&, items = std::move(items)]() mutable { fromWorker = std::move(items); });
  });
  ASSERT_TRUE(net.runUntil([&] { return fromWorker.has_value(); }));
  worker.join();
  ASSERT_TRUE(*fromWorker);
  EXPECT_EQ(**fromWorker, (Items{{"Feed", server.url("/atom")}}));
}

}  // namespace
}  // namespace lectern
