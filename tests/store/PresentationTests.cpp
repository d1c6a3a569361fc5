#include <gtest/gtest.h>

#include <filesystem>

#include "StoreTestSupport.h"
#include "core/Dates.h"
#include "core/Strings.h"
#include "feeds/RSSFeed.h"
#include "store/Bookmark.h"
#include "store/BookmarkSection.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/UrlParts.h"

namespace lectern::test {
namespace {

class PresentationTest : public StoreTest {
 protected:
  void SetUp() override { account_ = makeAccount("localrss"); }
  std::shared_ptr<FeedStory> newStory() {
    auto story = context().insertNewObject<FeedStory>();
    story->setAccount(*account_);
    return story;
  }
  std::shared_ptr<Account> account_;
};

TEST(UrlDomain, SchemeAndHostOnly) {
  const std::pair<std::string_view, std::optional<std::string>> cases[] = {
      {"https://User:pw@Example.COM:8080/a/b?c#d", "https://example.com"},
      {"http://example.com", "http://example.com"},
      {"http://[::1]:80/x", "http://[::1]"},
      {"file:///etc/passwd", std::nullopt},
      {"example.com/path", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [url, domain] : cases) EXPECT_EQ(urlDomain(url), domain) << url;
}

TEST_F(PresentationTest, ImagesAreTheQuotedSourcesOfImageTags) {
  auto story = newStory();
  story->setHtml(
      "<p><img class=\"wide\" src=\"http://a.example/1.png\"> <img src='single-quoted.png'>"
      "<img alt=x src=\"http://a.example/2.JPG?w=10\"><img src=\"http://a.example/1.png\"><IMG "
      "src=\"upper.png\"></p>");
  std::vector<std::string> sources;
  for (const auto& image : story->images()) sources.push_back(image.urlString());
  EXPECT_EQ(sources, (std::vector<std::string>{"http://a.example/1.png", "http://a.example/2.JPG?w=10"}));
  EXPECT_EQ(story->images()[1].cachedFilename(), MD5Hash("http://a.example/2.JPG?w=10") + ".jpg");
  EXPECT_EQ(BookmarkImage("http://a.example/x/../..").cachedFilename(), MD5Hash("http://a.example/x/../.."));
}

TEST_F(PresentationTest, CachedImagesReplaceTheirSourcesAndGoWithTheStory) {
  auto story = newStory();
  const std::string html = "<img src=\"http://a.example/1.png\"><img src=\"http://a.example/2.png\">";
  story->setHtml(html);
  ASSERT_TRUE(context().save());
  const auto cached = story->images()[0].cachedImagePath(account_->imageCacheFolder());
  std::filesystem::create_directories(cached.parent_path());
  writeFile(cached, "png");
  EXPECT_EQ(story->replaceImagesWithCachedRepresentation(html),
            "<img src=\"file://" + cached.string() + "\"><img src=\"http://a.example/2.png\">");
  context().deleteObject(*story);
  ASSERT_TRUE(context().save());
  EXPECT_FALSE(std::filesystem::exists(cached));
}

TEST_F(PresentationTest, DeletingAnAccountDeletesItsCachedImages) {
  // Regression (hardening issue): the account's stories went with it but their pictures stayed.
  auto other = makeAccount("pocket", "ann");
  auto story = newStory();
  story->setHtml("<img src=\"http://a.example/1.png\">");
  auto kept = context().insertNewObject<Bookmark>();
  kept->setAccount(*other);
  kept->setHtml("<img src=\"http://a.example/1.png\">");
  ASSERT_TRUE(context().save());
  const auto mine = story->images()[0].cachedImagePath(account_->imageCacheFolder());
  const auto theirs = kept->images()[0].cachedImagePath(other->imageCacheFolder());
  ASSERT_NE(mine, theirs);  // the same picture, cached once for each account
  for (const auto& file : {mine, theirs}) {
    std::filesystem::create_directories(file.parent_path());
    writeFile(file, "png");
  }
  context().deleteObject(*account_);
  ASSERT_TRUE(context().save());
  EXPECT_FALSE(std::filesystem::exists(mine));
  EXPECT_FALSE(std::filesystem::exists(account_->imageCacheFolder()));
  EXPECT_TRUE(std::filesystem::exists(theirs));
}

TEST_F(PresentationTest, SectionsAreDaysOrFolders) {
  EXPECT_THROW(
      {
        try {
          BookmarkSection refused;
        } catch (const InternalInconsistency& error) {
          EXPECT_STREQ(error.what(), "Must use initWithTitle:sectionIdentifier: instead.");
          throw;
        }
      },
      InternalInconsistency);
  auto story = newStory();
  EXPECT_EQ(story->sectionDate(), sectionDate(clock_.now()));  // no date: today
  story->setDate_added(clock_.now() - std::chrono::hours(24));
  EXPECT_EQ(BookmarkSection(story->sectionDate(), clock_).title(), "Yesterday");
  EXPECT_EQ(BookmarkSection(sectionDate(clock_.now()), clock_).title(), "Today");
  auto feed = account_->addFeedWithTitle("Caf&eacute; <b>News</b>", std::nullopt, "f");
  EXPECT_EQ(BookmarkSection(feed).title(), "Caf\xC3\xA9 News");
}

TEST_F(PresentationTest, PreviewTextIsThePlainTextOfTheHtml) {
  auto story = newStory();
  story->setHtml("<p>Fish &amp;amp; <i>chips</i></p><script>x()</script>");
  EXPECT_EQ(story->preview_text().value(), "Fish & chips");
  auto pinboard = makeAccount("pinboard");
  auto link = context().insertNewObject<Bookmark>();
  link->setAccount(*pinboard);
  link->setHtml("<p>kept as it is</p>");
  EXPECT_EQ(link->preview_text().value(), std::nullopt);  // bookmark services keep no preview
  ASSERT_TRUE(context().save());
  EXPECT_EQ(queryStore(paths_.storeFile(), "SELECT count(*) FROM Content"), std::vector<std::string>{"2"});
}

TEST_F(PresentationTest, EntriesBecomeStories) {
  RSSEntry entry;
  EXPECT_FALSE(FeedStory::isValidForRSSEntryMapping(nullptr));
  EXPECT_FALSE(FeedStory::isValidForRSSEntryMapping(&entry));
  entry.url = "";
  EXPECT_FALSE(FeedStory::isValidForRSSEntryMapping(&entry));
  entry.url = "http://example.com/post";
  EXPECT_TRUE(FeedStory::isValidForRSSEntryMapping(&entry));

  entry.title = "Post";
  entry.author = "Ann";
  entry.date = clock_.now() + std::chrono::hours(24 * 365);
  entry.content = "";
  entry.summary = "<p>summary</p>";
  entry.uid = "ignored-guid";
  auto story = newStory();
  story->mapFromRSSEntry(entry, clock_);
  EXPECT_EQ(story->bookmark_id(), "http://example.com/post");
  EXPECT_EQ(story->url(), "http://example.com/post");
  EXPECT_EQ(story->author(), "Ann");
  EXPECT_EQ(story->date_added(), clock_.now());  // a future date is now
  EXPECT_EQ(story->html().value(), "<p>summary</p>");
  EXPECT_FALSE(story->is_archived());

  entry.date.reset();
  entry.content = "<p>content</p>";
  auto undated = newStory();
  undated->mapFromRSSEntry(entry, clock_);
  EXPECT_EQ(undated->date_added(), clock_.now());
  EXPECT_EQ(undated->html().value(), "<p>content</p>");
}

}  // namespace
}  // namespace lectern::test
