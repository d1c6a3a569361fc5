// Extracting pages fetched from a local server: decoding by the transport's charset, the page's
// domain, failed downloads and delivery on the main queue.
#include <gtest/gtest.h>

#include "content/QKContentParserAsync.h"
#include "net/NetTestSupport.h"
#include "net/URLError.h"

namespace lectern {
namespace {

// An article in KOI8-R that declares nothing itself: only the transport says how to read it.
const std::string kRussianPage =
    "<html><head><title>\xF0\xD2\xC9\xD7\xC5\xD4</title></head><body><div class=\"article\">"
    "<p>\xF0\xD2\xC9\xD7\xC5\xD4, \xCD\xC9\xD2! This paragraph is long enough to be scored, with commas, "
    "and then some more words so that the extractor keeps it as the article.</p></div></body></html>";

const std::string kArticle =
    "<html><head><title>Moved article</title></head><body><div class=\"post\"><p>A paragraph that is long "
    "enough, with a comma or two, to become the article the extractor returns to its caller.</p></div>"
    "</body></html>";

struct Outcome {
  Result<QKContentParser> parser = fail("test", 0, "not delivered");
  bool onMainThread = false;
};

class ContentDownload : public ::testing::Test {
 protected:
  void SetUp() override {
    server.server().Get("/ru", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(kRussianPage, "text/html; charset=koi8-r");
    });
    server.server().Get("/article", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(kArticle, "text/html");
    });
    server.server().Get("/old", [](const httplib::Request&, httplib::Response& response) {
      response.set_redirect("/article", 301);
    });
    server.server().Get("/gone", [](const httplib::Request&, httplib::Response& response) {
      response.status = 410;
      response.set_content(kArticle, "text/html");
    });
    server.start();
  }

  // Several pages at once through one QKContentParserAsync; outcomes in request order.
  std::vector<Outcome> extract(const std::vector<std::string>& urls) {
    std::vector<Outcome> outcomes(urls.size());
    size_t delivered = 0;
    {
      QKContentParserAsync async(net.main);
      for (size_t i = 0; i < urls.size(); ++i) {
        async.contentOfURL(net.session, urls[i], [&, i](Result<QKContentParser> parser) {
          outcomes[i] = {std::move(parser), net.main.isMainThread()};
          ++delivered;
        });
      }
      EXPECT_TRUE(net.runUntil([&] { return delivered == urls.size(); }));
    }
    return outcomes;
  }

  test::LocalServer server;
  test::NetFixture net{test::testSessionOptions()};
};

TEST_F(ContentDownload, PagesAreReadWithTheTransportCharsetAndKeepTheirAddress) {
  auto outcomes = extract({server.url("/ru"), server.url("/old")});
  for (auto& outcome : outcomes) {
    ASSERT_TRUE(outcome.parser) << outcome.parser.error().message();
    EXPECT_TRUE(outcome.onMainThread);
  }
  QKContentParser& russian = *outcomes[0].parser;
  EXPECT_EQ(russian.title(), "\u041F\u0440\u0438\u0432\u0435\u0442");
  EXPECT_NE(russian.fetchContent().find("\u041F\u0440\u0438\u0432\u0435\u0442, \u043C\u0438\u0440!"),
            std::string::npos);
  EXPECT_EQ(russian.domain(), server.url("/ru"));

  // The domain is the address asked for, even when the page came from elsewhere.
  QKContentParser& moved = *outcomes[1].parser;
  EXPECT_EQ(moved.title(), "Moved article");
  EXPECT_NE(moved.fetchContent().find("long enough"), std::string::npos);
  EXPECT_EQ(moved.domain(), server.url("/old"));
}

TEST_F(ContentDownload, FailedDownloadsSayWhichPageAndWhy) {
  test::LocalServer closed;
  closed.start();
  const std::string refused = closed.url("/a");
  closed.server().stop();
  const std::string gone = server.url("/gone");
  auto outcomes = extract({gone, refused, "not a url"});

  ASSERT_FALSE(outcomes[0].parser);
  EXPECT_EQ(outcomes[0].parser.error().description, "Failed to download page: " + gone);
  EXPECT_EQ(outcomes[0].parser.error().code, URLErrorCode::kBadServerResponse);
  ASSERT_FALSE(outcomes[1].parser);
  EXPECT_EQ(outcomes[1].parser.error().code, URLErrorCode::kCannotConnectToHost);
  EXPECT_EQ(outcomes[1].parser.error().recoverySuggestion, "Cannot connect to host");
  ASSERT_FALSE(outcomes[2].parser);
  EXPECT_EQ(outcomes[2].parser.error().code, URLErrorCode::kBadURL);
  for (const auto& outcome : outcomes) EXPECT_TRUE(outcome.onMainThread);
}

}  // namespace
}  // namespace lectern
