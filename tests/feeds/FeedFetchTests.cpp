// Fetching feeds over HTTP from a local server: the request the client sends, what reaches the
// caller for good and bad answers, and the blocking form used by refresh operations.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "feeds/QKFeedParserClient.h"
#include "feeds/RSSParserURL.h"
#include "net/NetTestSupport.h"
#include "net/URLError.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

constexpr std::string_view kFeed =
    "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>Local news</title>"
    "<item><title>First</title><link>http://e/1</link></item>"
    "<item><title>Second</title><link>http://e/2</link></item></channel></rss>";

// What the server saw of the last request.
struct SeenRequest {
  std::string target;  // path and query
  std::string accept;
  bool conditional = false;
};

class FeedFetch : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server.server();
    s.Get("/feed.xml", [this](const httplib::Request& request, httplib::Response& response) {
      record(request);
      response.set_content(std::string(kFeed), "application/rss+xml");
    });
    // Answers 304 to the validators it hands out, "\"v1\"" and a fixed date.
    s.Get("/validated.xml", [this](const httplib::Request& request, httplib::Response& response) {
      record(request);
      response.set_header("ETag", "\"v1\"");
      response.set_header("Last-Modified", "Sun, 01 Nov 2026 08:00:00 GMT");
      if (request.get_header_value("If-None-Match") == "\"v1\"" ||
          request.get_header_value("If-Modified-Since") == "Sun, 01 Nov 2026 08:00:00 GMT") {
        response.status = 304;
        return;
      }
      response.set_content(std::string(kFeed), "application/rss+xml");
    });
    s.Get("/missing.xml", [](const httplib::Request&, httplib::Response& response) {
      response.status = 404;
      response.set_content("<html><body>gone</body></html>", "text/html");
    });
    s.Get("/page.html", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("<html><head><title>x</title></head><body><p>Not a feed</p></body></html>",
                           "text/html");
    });
    s.Get("/plain.txt", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("just some words, no markup at all", "text/plain");
    });
    s.Get("/latin1.rss", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(test::readFile(test::fixturePath("feeds/latin1-undeclared.rss")), "text/xml");
    });
    s.Get("/moved", [](const httplib::Request&, httplib::Response& response) {
      response.set_redirect("/feed.xml", 301);
    });
    s.Get("/slow.xml", [this](const httplib::Request&, httplib::Response& response) {
      std::unique_lock lock(mutex);
      released.wait_for(lock, std::chrono::seconds(10), [this] { return release; });
      response.set_content(std::string(kFeed), "application/rss+xml");
    });
    server.start();
  }

  void TearDown() override {
    {
      std::lock_guard lock(mutex);
      release = true;
    }
    released.notify_all();
  }

  void record(const httplib::Request& request) {
    std::lock_guard lock(mutex);
    seen.target = request.target;
    seen.accept = request.get_header_value("Accept");
    seen.conditional = request.has_header("If-None-Match") || request.has_header("If-Modified-Since");
  }

  SeenRequest lastRequest() {
    std::lock_guard lock(mutex);
    return seen;
  }

  // fetchFeed, waited for on the main queue; also checks the completion ran on the main thread.
  Result<RSSFeed> fetchAsync(const std::string& url) {
    QKFeedParserClient client(net.session, url);
    std::optional<Result<RSSFeed>> outcome;
    bool onMainThread = false;
    client.fetchFeed([&](Result<RSSFeed> feed) {
      onMainThread = net.main.isMainThread();
      outcome = std::move(feed);
    });
    EXPECT_TRUE(net.runUntil([&] { return outcome.has_value(); }));
    EXPECT_TRUE(onMainThread);
    return outcome ? std::move(*outcome) : fail("test", 0, "no completion");
  }

  test::LocalServer server;
  test::NetFixture net{test::testSessionOptions()};
  std::mutex mutex;  // guards seen, release
  std::condition_variable released;
  SeenRequest seen;
  bool release = false;
};

TEST_F(FeedFetch, PortStaysAtTheFrontOfThePathYetTheRequestReachesThatPort) {
  const std::string url = server.url("/feed.xml?format=rss&page=2");
  QKFeedParserClient client(net.session, url);
  EXPECT_EQ(client.baseUrl(), "http://127.0.0.1");
  EXPECT_EQ(client.path(), ":" + std::to_string(server.port()) + "/feed.xml?format=rss&page=2");
  EXPECT_EQ(client.requestWithMethod("GET", client.path()).url, url);

  auto feed = client.synchronouslyFetchFeed();
  ASSERT_TRUE(feed) << feed.error().message();
  EXPECT_EQ(feed->title, "Local news");
  const SeenRequest request = lastRequest();
  EXPECT_EQ(request.target, "/feed.xml?format=rss&page=2");
  EXPECT_EQ(request.accept, "*/*");
  EXPECT_FALSE(request.conditional);

  // A second fetch of the same feed is not made conditional by the first one's answer.
  ASSERT_TRUE(fetchAsync(url));
  EXPECT_FALSE(lastRequest().conditional);
}

TEST_F(FeedFetch, ConditionalFetchKeepsTheValidatorsAndReadsNothingOn304) {
  const std::string url = server.url("/validated.xml");
  auto full = QKFeedParserClient(net.session, url).synchronouslyFetchFeed(FeedValidators{});
  ASSERT_TRUE(full) << full.error().message();
  ASSERT_TRUE(full->feed);
  EXPECT_EQ(full->feed->title, "Local news");
  EXPECT_FALSE(lastRequest().conditional);
  const FeedValidators held{"\"v1\"", "Sun, 01 Nov 2026 08:00:00 GMT", std::nullopt};
  EXPECT_EQ(full->validators.etag, held.etag);
  EXPECT_EQ(full->validators.lastModified, held.lastModified);
  ASSERT_TRUE(full->validators.bodyHash);
  EXPECT_EQ(full->validators.bodyHash->size(), 64u);

  // Either validator alone is sent back and earns a 304: no feed, the validators as they were.
  for (const FeedValidators& sent :
       {FeedValidators{held.etag, std::nullopt, std::nullopt}, FeedValidators{std::nullopt, held.lastModified, std::nullopt}}) {
    auto same = QKFeedParserClient(net.session, url).synchronouslyFetchFeed(sent);
    ASSERT_TRUE(same) << same.error().message();
    EXPECT_FALSE(same->feed);
    EXPECT_EQ(same->validators, sent);
    EXPECT_TRUE(lastRequest().conditional);
  }
  // Validators the server does not know get the document in full.
  auto changed =
      QKFeedParserClient(net.session, url).synchronouslyFetchFeed(FeedValidators{"\"v0\"", std::nullopt, std::nullopt});
  ASSERT_TRUE(changed);
  EXPECT_TRUE(changed->feed);
  // The same answer in full, with the document's hash held: not modified either, and not read; the
  // answer's own validators come back.
  auto sameDocument = QKFeedParserClient(net.session, url)
                          .synchronouslyFetchFeed(FeedValidators{"\"v0\"", std::nullopt, full->validators.bodyHash});
  ASSERT_TRUE(sameDocument);
  EXPECT_FALSE(sameDocument->feed);
  EXPECT_EQ(sameDocument->validators.etag, held.etag);
  EXPECT_EQ(sameDocument->validators.bodyHash, full->validators.bodyHash);
  auto otherDocument = QKFeedParserClient(net.session, url)
                           .synchronouslyFetchFeed(FeedValidators{"\"v0\"", std::nullopt, std::string(64, '0')});
  ASSERT_TRUE(otherDocument);
  EXPECT_TRUE(otherDocument->feed);
  // The plain fetch sends no validator.
  ASSERT_TRUE(QKFeedParserClient(net.session, url).synchronouslyFetchFeed());
  EXPECT_FALSE(lastRequest().conditional);
}

TEST_F(FeedFetch, BothFormsDeliverTheFeedAndFollowRedirects) {
  for (const char* path : {"/feed.xml", "/moved"}) {
    SCOPED_TRACE(path);
    auto feed = fetchAsync(server.url(path));
    ASSERT_TRUE(feed) << feed.error().message();
    ASSERT_EQ(feed->articles.size(), 2u);
    EXPECT_EQ(feed->articles[1].title, "Second");

    QKFeedParserClient client(net.session, server.url(path));
    auto blocking = client.synchronouslyFetchFeed();
    ASSERT_TRUE(blocking) << blocking.error().message();
    EXPECT_EQ(blocking->articles.size(), 2u);
  }
}

TEST_F(FeedFetch, FailedRequestsAreNamedAfterTheFeed) {
  const std::string url = server.url("/missing.xml");
  for (bool blocking : {false, true}) {
    SCOPED_TRACE(blocking ? "blocking" : "async");
    Result<RSSFeed> feed =
        blocking ? QKFeedParserClient(net.session, url).synchronouslyFetchFeed() : fetchAsync(url);
    ASSERT_FALSE(feed);
    EXPECT_EQ(feed.error().description, "Failed to fetch feed: " + url);
    EXPECT_EQ(feed.error().domain, kAFNetworkingErrorDomain);
    EXPECT_EQ(feed.error().code, URLErrorCode::kBadServerResponse);
    EXPECT_EQ(feed.error().recoverySuggestion,
              "The response received from the server for request could not be processed. It may be caused "
              "by an exception in the server.");
  }

  // Nothing listens on a closed port; an address without scheme is not sent at all.
  test::LocalServer closed;
  closed.start();
  const std::string refused = closed.url("/feed.xml");
  closed.server().stop();
  const std::pair<std::string, int> unreachable[] = {
      {refused, URLErrorCode::kCannotConnectToHost},
      {"feeds/local.xml", URLErrorCode::kBadURL},
      {"ftp://127.0.0.1/feed.xml", URLErrorCode::kUnsupportedURL}};
  for (const auto& [address, code] : unreachable) {
    auto feed = fetchAsync(address);
    ASSERT_FALSE(feed) << address;
    EXPECT_EQ(feed.error().code, code) << address;
    EXPECT_EQ(feed.error().description, "Failed to fetch feed: " + address);
  }
}

TEST_F(FeedFetch, BodiesThatAreNoFeedPassTheParsersErrorThrough) {
  // Well-formed markup with the wrong root.
  auto page = fetchAsync(server.url("/page.html"));
  ASSERT_FALSE(page);
  EXPECT_EQ(page.error().domain, "QKFeedParserClient");
  EXPECT_EQ(page.error().code, 1);
  EXPECT_EQ(page.error().description, "Invalid feed");
  EXPECT_EQ(page.error().recoverySuggestion, "Couldn't find the root element of feed");

  // No XML at all, even after the second reading.
  QKFeedParserClient client(net.session, server.url("/plain.txt"));
  auto text = client.synchronouslyFetchFeed();
  ASSERT_FALSE(text);
  EXPECT_EQ(text.error().domain, "com.quillhq.Lectern.XMLParser");
  EXPECT_FALSE(text.error().description.starts_with("Failed to fetch feed"));
}

TEST_F(FeedFetch, BytesTheFirstReadingRejectsAreReadAgain) {
  // Latin-1 bytes in a document that declares nothing (so claims UTF-8).
  auto feed = fetchAsync(server.url("/latin1.rss"));
  ASSERT_TRUE(feed) << feed.error().message();
  EXPECT_EQ(feed->title, "Caf\u00E9 \u201CNews\u201D");
  ASSERT_EQ(feed->articles.size(), 1u);
  EXPECT_EQ(feed->articles[0].title, "\u00C0 la une");
}

TEST_F(FeedFetch, BlockingFetchTimesOutWithoutTheMainThread) {
  // The main thread is stuck in join() and pumps nothing: the worker must still finish.
  Result<RSSFeed> feed = fail("test", 0, "not run");
  std::thread worker([&] {
    QKFeedParserClient client(net.session, server.url("/slow.xml"));
    client.setSynchronousTimeout(std::chrono::milliseconds(300));
    feed = client.synchronouslyFetchFeed();
  });
  worker.join();
  ASSERT_FALSE(feed);
  EXPECT_EQ(feed.error().code, URLErrorCode::kTimedOut);
  EXPECT_EQ(feed.error().description, "Failed to fetch feed: " + server.url("/slow.xml"));
  EXPECT_EQ(feed.error().recoverySuggestion, "Request is timed out");
}

TEST_F(FeedFetch, StreamParserCanStartFromAnAddress) {
  auto parser = rssParserWithURL(net.session, server.url("/feed.xml"));
  ASSERT_TRUE(parser) << parser.error().message();
  auto feed = parser->fetch();
  ASSERT_TRUE(feed) << feed.error().message();
  EXPECT_EQ(feed->articles.size(), 2u);
  EXPECT_FALSE(rssParserWithURL(net.session, server.url("/missing.xml")));
}

}  // namespace
}  // namespace lectern
