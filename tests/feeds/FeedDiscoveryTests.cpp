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
    // An article page whose feed link only a browser's reading finds, and a section page whose
    // link works as discovery has always read it (and differently as a browser reads it).
    server.server().Get("/2026/article.html", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("<html><head><link type=\"application/rss+xml\" title=\"Site\" href=\"/site.rss\">"
                           "<link type=\"application/rss+xml\" title=\"Gone\" href=\"/gone.rss\"></head></html>",
                           "text/html");
    });
    server.server().Get("/site.rss", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("<rss version=\"2.0\"><channel><title>Site</title></channel></rss>", "text/plain");
    });
    server.server().Get("/section", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("<html><head><link type=\"application/rss+xml\" href=\"/section.rss\"></head></html>",
                           "text/html");
    });
    for (const char* path : {"/section/section.rss", "/section.rss"}) {
      server.server().Get(path, [](const httplib::Request&, httplib::Response& response) {
        response.set_content("<rss/>", "application/rss+xml");
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
  // Each also carries the href as a browser reads it.
  EXPECT_EQ(*items, (Items{{"Posts (RSS)", page + "/posts.rss", server.url("/posts.rss")},
                           {"Posts (Atom)", "https://feeds.example.org/atom", "https://feeds.example.org/atom"},
                           {"Odd", "comments.xml", server.url("/blog/comments.xml")}}));
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

TEST(FeedLinkResolution, HrefsAreAlsoReadAsABrowserReadsThem) {
  // {page, <head> contents, the address discovery has always built, the browser's reading}
  struct Case {
    std::string page, head, url, resolved;
  };
  const Case cases[] = {
      {"http://h.example/blog/post", R"(<link type="text/xml" href="/feed">)", "http://h.example/blog/post/feed",
       "http://h.example/feed"},
      {"http://h.example/blog/post", R"(<link type="text/xml" href="//cdn.example/f.xml">)",
       "http://h.example/blog/post/cdn.example/f.xml", "http://cdn.example/f.xml"},
      {"https://h.example/a/b/post.html", R"(<link type="text/xml" href="../feed.xml?x=1">)", "../feed.xml?x=1",
       "https://h.example/a/feed.xml?x=1"},
      {"https://h.example/a/post.html", R"(<base href="https://feeds.example/x/"><link type="text/xml" href="rss">)",
       "rss", "https://feeds.example/x/rss"},
      // A relative base is read against the page; only the first base counts.
      {"https://h.example/a/post.html",
       R"(<base href="/b/"><base href="https://other.example/"><link type="text/xml" href="rss">)", "rss",
       "https://h.example/b/rss"},
      {"https://h.example/a/post.html", R"(<link type="text/xml" href=" https://f.example/rss ">)",
       " https://f.example/rss ", "https://f.example/rss"},
      {"not a page address", R"(<link type="text/xml" href="rss">)", "rss", ""},
  };
  for (const auto& c : cases) {
    const auto items = QKFeedLinkParser::parseFeedLinksFromHtmlData("<html><head>" + c.head + "</head></html>",
                                                                    "UTF-8", c.page);
    ASSERT_EQ(items.size(), 1u) << c.head;
    EXPECT_EQ(items[0].URL, c.url) << c.head;
    EXPECT_EQ(items[0].resolvedURL, c.resolved) << c.head;
  }
}

TEST(FeedAddress, SubscriptionsCompareWithSchemeAndHostInLowerCaseAndNothingElseChanged) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"HTTP://Example.ORG/Feed.xml", "http://example.org/Feed.xml"},
      {" https://Me@Example.org:8080/a?Q=1#F ", "https://Me@example.org:8080/a?Q=1#F"},
      {"https://example.org", "https://example.org"},
      {"https://[2001:DB8::1]/rss", "https://[2001:db8::1]/rss"},
      {"https://example.org/path@Part", "https://example.org/path@Part"},
      {"Not A URL", "Not A URL"},
  };
  for (auto [address, want] : cases) EXPECT_EQ(comparableFeedAddress(address), want) << address;
}

TEST_F(FeedDiscovery, ABrowsersReadingIsTakenWhenTheUsualAddressAnswersWithNoFeed) {
  auto article = discoverFeeds(net.session, server.url("/2026/article.html"));
  ASSERT_TRUE(article) << article.error().message();
  // A feed served as text/plain still answers as a feed; when neither reading works, the browser's
  // is the one shown.
  EXPECT_EQ((*article)[0].URL, server.url("/site.rss"));
  EXPECT_EQ((*article)[1].URL, server.url("/gone.rss"));
  auto section = discoverFeeds(net.session, server.url("/section"));
  ASSERT_TRUE(section) << section.error().message();
  EXPECT_EQ((*section)[0].URL, server.url("/section/section.rss"));
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
