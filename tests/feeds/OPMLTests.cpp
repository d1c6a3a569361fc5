// OPML export and import against a real library in a temporary folder.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "core/Log.h"
#include "feeds/OPMLViewController.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/SqliteDatabase.h"
#include "store/StoreTestSupport.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

using Lines = std::vector<std::string>;

class OPML : public test::StoreTest {
 protected:
  OPML() : account(makeAccount("localrss", std::nullopt)) {}

  std::shared_ptr<FeedFolder> folder(const std::string& title, std::int64_t pos) {
    return account->addFeedFolderWithTitle(title, pos, std::string("feed-folder"));
  }
  std::shared_ptr<Feed> feed(const std::string& title, const std::string& link, FeedFolder* in = nullptr) {
    return account->addFeedWithTitle(title, link, std::nullopt, in);
  }

  Result<OPMLImportSummary> import(std::string_view document) {
    return OPMLViewController(account).importOPMLFromData(document);
  }
  Result<OPMLImportSummary> importFixture(std::string_view name) {
    return OPMLViewController(account).importOPMLFromURL(test::fixturePath(name));
  }

  // The account's subscriptions as sorted "folder|feed title|address|site" lines; a folder without
  // feeds is "folder|", a feed in no folder has an empty folder part.
  Lines library() {
    Lines lines;
    auto folders = account->sortedFolders();
    EXPECT_TRUE(folders);
    for (const auto& each : *folders) {
      if (each->folderTypeIdentifier() != "FeedFolder") continue;
      auto feeds = std::static_pointer_cast<FeedFolder>(each)->feeds();
      if (feeds->empty()) lines.push_back(each->title().value_or("") + "|");
      for (const auto& f : *feeds) lines.push_back(each->title().value_or("") + "|" + line(*f));
    }
    const auto feeds = account->feeds();
    for (const auto& f : *feeds) {
      if (f->feedFolders()->empty()) lines.push_back("|" + line(*f));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  static std::string line(const Feed& f) {
    return f.title().value_or("") + "|" + f.feed_link().value_or("") + "|" + f.ext_id().value_or("");
  }

  std::shared_ptr<Account> account;
};

TEST_F(OPML, ExportWritesFeedFoldersByPositionThenLooseFeedsByTitle) {
  auto tech = folder("Tech", 2);
  auto news = folder("News & Views", 1);
  folder("Empty", 3);
  account->addFolderWithTitle("Not a feed folder", 0, std::string("plain"));
  feed("Zeta", "https://z.example.com/rss", news.get());
  auto shared = feed("Alpha", "https://a.example.com/rss?x=1&y=2", news.get());
  tech->addFeed(*shared);
  // Bytes XML cannot hold are repaired on the way out, so the list always reads back.
  feed("beta\x01\xFF", "https://b.example.com/atom");
  feed("Aardvark", "https://aa.example.com/feed");
  ASSERT_TRUE(context().save());

  test::TempDir out;
  ASSERT_TRUE(OPMLViewController(account).exportOPMLToURL(out / "Lectern.opml"));
  EXPECT_EQ(
      test::readFile(out / "Lectern.opml"),
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<opml version=\"1.0\">\n"
      "  <head>\n"
      "    <title>Lectern</title>\n"
      "  </head>\n"
      "  <body>\n"
      "    <outline text=\"News &amp; Views\">\n"
      "      <outline type=\"rss\" text=\"Alpha\" title=\"Alpha\" "
      "xmlUrl=\"https://a.example.com/rss?x=1&amp;y=2\"/>\n"
      "      <outline type=\"rss\" text=\"Zeta\" title=\"Zeta\" xmlUrl=\"https://z.example.com/rss\"/>\n"
      "    </outline>\n"
      "    <outline text=\"Tech\">\n"
      "      <outline type=\"rss\" text=\"Alpha\" title=\"Alpha\" "
      "xmlUrl=\"https://a.example.com/rss?x=1&amp;y=2\"/>\n"
      "    </outline>\n"
      "    <outline text=\"Empty\"/>\n"
      "    <outline type=\"rss\" text=\"Aardvark\" title=\"Aardvark\" "
      "xmlUrl=\"https://aa.example.com/feed\"/>\n"
      "    <outline type=\"rss\" text=\"beta\uFFFD\" title=\"beta\uFFFD\" "
      "xmlUrl=\"https://b.example.com/atom\"/>\n"
      "  </body>\n"
      "</opml>\n");
  // Written through a temporary file: nothing else is left in the folder.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(out.path()), {}), 1);
}

TEST_F(OPML, ImportTakesTitleOverTextAndFlattensNestedFolders) {
  auto summary = import(
      "<opml version=\"1.0\"><body>"
      "<outline title=\"A\" text=\"not this\">"
      "  <outline type=\"rss\" title=\"In A\" text=\"x\" xmlUrl=\"https://e.com/a\"/>"
      "  <outline text=\"B\"><outline text=\"C\">"
      "    <outline type=\"rss\" text=\"In C\" xmlUrl=\"https://e.com/c\"/>"
      "  </outline></outline>"
      "</outline>"
      "<outline type=\"rss\" text=\"Top\" xmlUrl=\"https://e.com/top\"/>"
      "</body></opml>");
  ASSERT_TRUE(summary) << summary.error().message();
  EXPECT_EQ(library(), (Lines{"A - B - C|In C|https://e.com/c|", "A - B|", "A|In A|https://e.com/a|",
                              "|Top|https://e.com/top|"}));
  EXPECT_EQ(summary->foldersAdded, 3);
  EXPECT_EQ(summary->feedsAdded, 3);
  // Positions are places within each list.
  std::map<std::string, std::int64_t> positions;
  const auto feeds = account->feeds();
  for (const auto& f : *feeds) positions[f->title().value_or("")] = f->pos();
  EXPECT_EQ(positions, (std::map<std::string, std::int64_t>{{"In A", 0}, {"In C", 0}, {"Top", 1}}));
}

TEST_F(OPML, AFeedAlreadySubscribedIsSkippedWhereverTheListPutsIt) {
  auto news = folder("News", 0);
  feed("Existing", "https://e.com/one", news.get());
  ASSERT_TRUE(context().save());
  // The same address in another folder, at the top level, with its scheme and host in capitals:
  // one feed, left where it is. A path that differs in case is another feed.
  const std::string document =
      "<opml><body>"
      "<outline text=\"News\"><outline type=\"rss\" text=\"Again\" xmlUrl=\"https://e.com/one\"/></outline>"
      "<outline text=\"Other\"><outline type=\"rss\" text=\"Elsewhere\" "
      "xmlUrl=\"HTTPS://E.com/one\"/><outline type=\"rss\" text=\"Upper path\" xmlUrl=\"https://e.com/One\"/>"
      "</outline>"
      "<outline type=\"rss\" text=\"Loose\" xmlUrl=\"https://e.com/one\"/>"
      "<outline type=\"rss\" text=\"Loose upper path\" xmlUrl=\"https://e.com/One\"/>"
      "</body></opml>";
  auto first = import(document);
  ASSERT_TRUE(first) << first.error().message();
  EXPECT_EQ(first->foldersAdded, 1);
  EXPECT_EQ(first->foldersSkipped, 1);
  EXPECT_EQ(first->feedsAdded, 1);
  EXPECT_EQ(first->feedsSkipped, 4);
  EXPECT_EQ(library(), (Lines{"News|Existing|https://e.com/one|", "Other|Upper path|https://e.com/One|"}));

  const Lines once = library();
  auto second = import(document);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->foldersAdded, 0);
  EXPECT_EQ(second->feedsAdded, 0);
  EXPECT_EQ(second->feedsSkipped, 5);
  EXPECT_EQ(library(), once);
}

TEST_F(OPML, AnOutlineWithoutAnAddressIsAFolderOnlyWhenItHoldsOutlines) {
  const std::string document =
      "<opml><body>"
      "<outline text=\"Separator\"/>"
      "<outline text=\"Note\"></outline>"
      "<outline text=\"Holder\"><outline text=\"Empty inside\"/>"
      "<outline text=\"Feed\" xmlUrl=\"https://f.example/rss\"/></outline>"
      "<outline text=\"Typed\" type=\"rss\"><outline text=\"Child\" xmlUrl=\"https://c.example/rss\"/></outline>"
      "</body></opml>";
  auto summary = import(document);
  ASSERT_TRUE(summary) << summary.error().message();
  EXPECT_EQ(library(), (Lines{"Holder|Feed|https://f.example/rss|"}));
  EXPECT_EQ(summary->foldersAdded, 1);
  EXPECT_EQ(summary->outlinesIgnored, 3);
  EXPECT_EQ(summary->feedsWithoutAddress, 1);  // typed as a feed: it is one, without its address
}

TEST_F(OPML, ListsFromOtherReadersImportWhatIsUsable) {
  ScopedLogCapture log;
  auto summary = importFixture("opml/other-readers.opml");
  ASSERT_TRUE(summary) << summary.error().message();
  EXPECT_EQ(library(),
            (Lines{
                "Technology - Languages - Systems - C++|Deep feed|https://deep.example.com/feed.xml|"
                "https://deep.example.com/",
                "Technology - Languages - Systems|",
                "Technology - Languages|",
                "Technology|Tech Daily|https://feeds.example.com/daily|https://daily.example.com/",
                "|Caf\u00E9 & Bar|https://cafe.example.com/rss?x=1&y=2|",
                "|Nameless group's feed|https://nameless.example.com/rss|",
                "|Untyped feed|https://untyped.example.com/rss|https://untyped.example.com",
                "|Upper-case type|https://upper.example.com/rss|",
            }));
  EXPECT_EQ(summary->foldersAdded, 4);
  EXPECT_EQ(summary->feedsAdded, 6);
  EXPECT_EQ(summary->feedsSkipped, 1);
  EXPECT_EQ(summary->feedsWithoutAddress, 2);
  EXPECT_EQ(summary->outlinesIgnored, 3);  // a link, an include and an empty group
  EXPECT_EQ(log.count("Invalid url for feed No address. Skipped!"), 1u);
  EXPECT_EQ(log.count("Invalid url for feed Relative address. Skipped!"), 1u);

  auto again = importFixture("opml/other-readers.opml");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->foldersAdded + again->feedsAdded, 0);
  EXPECT_EQ(again->foldersSkipped, 4);
}

TEST_F(OPML, ThousandsOfOutlines) {
  std::string document = "<opml version=\"2.0\"><head/><body>";
  for (int f = 0; f < 40; ++f) {
    document += fmt::format("<outline text=\"Folder {}\">", f);
    for (int i = 0; i < 100; ++i) {
      document += fmt::format(
          "<outline type=\"rss\" text=\"Feed {}-{}\" xmlUrl=\"https://e{}.example.com/{}\"/>", f, i, f, i);
    }
    document += "</outline>";
  }
  document += "</body></opml>";
  auto summary = import(document);
  ASSERT_TRUE(summary) << summary.error().message();
  EXPECT_EQ(summary->foldersAdded, 40);
  EXPECT_EQ(summary->feedsAdded, 4000);
  EXPECT_EQ(test::queryStore(paths_.storeFile(), "SELECT COUNT(*) FROM FeedFolder_feeds"), Lines{"4000"});
  auto again = import(document);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->feedsSkipped, 4000);
  EXPECT_EQ(again->feedsAdded, 0);
}

TEST_F(OPML, BadFilesAndMissingAccountChangeNothing) {
  auto news = folder("News", 0);
  feed("Kept", "https://e.com/kept", news.get());
  ASSERT_TRUE(context().save());
  const Lines before = library();

  const std::string_view notOpml[] = {"this is not XML at all", "<opml><body><outline text=\"x\">",
                                      "<rss><channel><title>A feed, not a list</title></channel></rss>", ""};
  for (std::string_view document : notOpml) {
    auto summary = import(document);
    ASSERT_FALSE(summary) << document;
    EXPECT_EQ(summary.error().domain, "OPMLImport");
    EXPECT_EQ(summary.error().code, 100);
    EXPECT_EQ(summary.error().description, "Cannot import OPML");
    EXPECT_EQ(summary.error().recoverySuggestion, "Invalid file format");
  }
  EXPECT_EQ(library(), before);

  const std::shared_ptr<Account> instapaper = makeAccount("instapaper");
  for (const auto& none : {std::shared_ptr<Account>(), instapaper}) {
    auto summary = OPMLViewController(none).importOPMLFromData("<opml><body/></opml>");
    ASSERT_FALSE(summary);
    EXPECT_EQ(summary.error().domain, "OPMLImport");
    EXPECT_EQ(summary.error().code, 100);
    EXPECT_EQ(summary.error().description, "The required account not found");
    EXPECT_EQ(summary.error().recoverySuggestion,
              "The built-in RSS reader account not found hence not able to import OPML.");
    EXPECT_FALSE(OPMLViewController(none).exportOPMLDocument());
  }
}

TEST_F(OPML, ExportReplacesOnlyOPMLOrEmptyFilesUnlessToldAndMakesNoFolder) {
  feed("Alpha", "https://a.example.com/rss");
  ASSERT_TRUE(context().save());
  OPMLViewController controller(account);
  test::TempDir out;
  using Existing = OPMLViewController::ExistingFile;
  test::writeFile(out / "notes.txt", "keep me");
  test::writeFile(out / "empty.opml", "");
  test::writeFile(out / "old.opml", "<?xml version=\"1.0\"?><opml version=\"1.0\"><body/></opml>");
  test::writeFile(out / "broken.xml", "<opml><body>");  // not XML: not an export either

  for (const char* name : {"notes.txt", "broken.xml"}) {
    auto refused = controller.exportOPMLToURL(out / name);
    ASSERT_FALSE(refused) << name;
    EXPECT_EQ(refused.error().description, "Cannot export OPML");
    EXPECT_NE(refused.error().recoverySuggestion.find("is not an OPML file"), std::string::npos);
  }
  EXPECT_EQ(test::readFile(out / "notes.txt"), "keep me");
  for (const char* name : {"empty.opml", "old.opml", "new.opml"}) {
    ASSERT_TRUE(controller.exportOPMLToURL(out / name)) << name;
    EXPECT_NE(test::readFile(out / name).find("https://a.example.com/rss"), std::string::npos) << name;
  }
  ASSERT_TRUE(controller.exportOPMLToURL(out / "notes.txt", Existing::kAny));
  EXPECT_NE(test::readFile(out / "notes.txt").find("<opml"), std::string::npos);

  auto nowhere = controller.exportOPMLToURL(out / "missing" / "list.opml", Existing::kAny);
  ASSERT_FALSE(nowhere);
  EXPECT_NE(nowhere.error().recoverySuggestion.find("does not exist"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(out / "missing"));
  EXPECT_FALSE(controller.exportOPMLToURL(out.path(), Existing::kAny));  // a folder
}

TEST_F(OPML, AStoreFailureHalfWayLosesNothing) {
  auto news = folder("News", 0);
  feed("Kept", "https://e.com/kept", news.get());
  ASSERT_TRUE(context().save());
  const Lines before = library();
  {
    // The disk refuses the third folder the import writes.
    auto db = SqliteDatabase::open(paths_.storeFile(), SqliteDatabase::OpenMode::kReadWrite,
                                   std::chrono::seconds(5));
    ASSERT_TRUE(db);
    ASSERT_TRUE(
        (*db)->execute("CREATE TRIGGER refuse BEFORE INSERT ON Folder WHEN NEW.title = 'Third' "
                       "BEGIN SELECT RAISE(ABORT, 'disk trouble'); END"));
  }
  auto summary = import(
      "<opml><body><outline text=\"First\"><outline type=\"rss\" text=\"a\" "
      "xmlUrl=\"https://e.com/a\"/></outline>"
      "<outline text=\"News\"><outline type=\"rss\" text=\"b\" xmlUrl=\"https://e.com/b\"/></outline>"
      "<outline text=\"Third\"><outline type=\"rss\" text=\"c\" xmlUrl=\"https://e.com/c\"/></outline>"
      "</body></opml>");
  ASSERT_FALSE(summary);
  ASSERT_TRUE(context().refreshAllObjects());
  EXPECT_EQ(library(), before);
  EXPECT_EQ(test::queryStore(paths_.storeFile(), "SELECT title FROM Folder WHERE entity = 'Feed'"),
            Lines{"Kept"});
}

}  // namespace
}  // namespace lectern
