// Storing the article text of read-later items: fetched from a local server into a real library.
#include <gtest/gtest.h>

#include "content/BookmarkArticleDownload.h"
#include "net/NetTestSupport.h"
#include "net/URLError.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/StoreTestSupport.h"

namespace lectern {
namespace {

const std::string kArticlePage =
    "<html><head><title>Saved</title></head><body><div id=\"nav\">Home | About</div>"
    "<div class=\"article\"><p>The article body, long enough and with a comma, to be chosen by the "
    "extractor &amp; kept as the stored text of the bookmark.</p></div></body></html>";

class ArticleDownload : public test::StoreTest {
 protected:
  ArticleDownload() {
    server.server().Get("/article", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(kArticlePage, "text/html; charset=utf-8");
    });
    server.server().Get("/empty", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("<html><body></body></html>", "text/html");
    });
    server.server().Get("/missing", [](const httplib::Request&, httplib::Response& response) {
      response.status = 404;
      response.set_content(kArticlePage, "text/html");
    });
    server.start();
  }

  std::shared_ptr<Bookmark> bookmark(Account& account, const std::string& url) {
    auto item = context().insertNewObject<Bookmark>();
    item->setAccount(account);
    item->setBookmark_id(url);
    item->setUrl(url);
    return item;
  }

  test::LocalServer server;
  NetworkSession session{mainQueue_, reachability_, test::testSessionOptions()};
};

TEST_F(ArticleDownload, ReadLaterItemsGetTheirArticleStoredWithAPreview) {
  auto account = makeAccount("instapaper");
  auto item = bookmark(*account, server.url("/article"));
  ASSERT_TRUE(context().save());

  auto outcome = downloadArticle(*item, session);
  ASSERT_TRUE(outcome) << outcome.error().message();
  EXPECT_EQ(*outcome, lectern::ArticleDownload::kStored);
  ASSERT_TRUE(context().save());

  // What a fresh reader of the file sees: the article (without the navigation) in Content, and
  // the preview made from it.
  const auto stored = test::queryStore(paths_.storeFile(), "SELECT html, preview_text FROM Content");
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_NE(stored[0].find("The article body"), std::string::npos);
  EXPECT_EQ(stored[0].find("Home | About"), std::string::npos);
  EXPECT_NE(stored[0].find("|The article body, long enough"), std::string::npos) << stored[0];
  EXPECT_NE(stored[0].find("extractor & kept"), std::string::npos) << stored[0];
}

TEST_F(ArticleDownload, FailuresAndPagesWithoutArticleKeepWhatTheItemHad) {
  auto account = makeAccount("pinboard");
  auto missing = bookmark(*account, server.url("/missing"));
  auto empty = bookmark(*account, server.url("/empty"));
  auto nowhere = bookmark(*account, "");
  for (auto* item : {missing.get(), empty.get(), nowhere.get()}) item->setHtml("<p>kept</p>");
  ASSERT_TRUE(context().save());

  auto failed = downloadArticle(*missing, session);
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().description, "Failed to download page: " + server.url("/missing"));
  EXPECT_EQ(failed.error().code, URLErrorCode::kBadServerResponse);

  auto noArticle = downloadArticle(*empty, session);
  ASSERT_TRUE(noArticle) << noArticle.error().message();
  EXPECT_EQ(*noArticle, lectern::ArticleDownload::kNoArticle);

  auto noAddress = downloadArticle(*nowhere, session);
  ASSERT_FALSE(noAddress);
  EXPECT_EQ(noAddress.error().code, URLErrorCode::kBadURL);

  EXPECT_FALSE(context().hasChanges());
  for (auto* item : {missing.get(), empty.get(), nowhere.get()}) EXPECT_EQ(item->html(), "<p>kept</p>");
}

TEST_F(ArticleDownload, FeedItemsAreNotFetched) {
  auto account = makeAccount("localrss", std::nullopt);
  auto item = bookmark(*account, server.url("/article"));
  item->setHtml("<p>from the feed</p>");
  ASSERT_TRUE(context().save());
  const size_t requestsBefore = server.requestCount();

  auto outcome = downloadArticle(*item, session);
  ASSERT_TRUE(outcome);
  EXPECT_EQ(*outcome, lectern::ArticleDownload::kNotStoredForAccount);
  EXPECT_EQ(server.requestCount(), requestsBefore);
  EXPECT_EQ(item->html(), "<p>from the feed</p>");
}

}  // namespace
}  // namespace lectern
