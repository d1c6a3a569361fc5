#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "core/Log.h"
#include "feeds/FeedDocumentParser.h"
#include "feeds/FeedTestHelpers.h"
#include "feeds/RSSFeedJson.h"
#include "feeds/RSSParser.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

const Date kNow = test::utc(2024, 3, 1);

// Unreadable dates are logged; thousands of them would only slow these tests down.
class FeedRobustness : public ::testing::Test {
 protected:
  void SetUp() override { Log::setDebugEnabled(false); }
  void TearDown() override { Log::setDebugEnabled(true); }
};

// Both parsers must come back with a feed or an error that says what went wrong.
void expectFeedOrError(std::string_view bytes, const std::string& what) {
  for (const auto& result :
       {FeedDocumentParser::parseFeedData(bytes, kNow), RSSParser::withData(std::string(bytes)).fetch()}) {
    if (result) continue;
    EXPECT_TRUE(result.error().domain == kXmlParserErrorDomain ||
                result.error().domain == kQKFeedParserClientErrorDomain)
        << what << ": " << result.error().domain;
    EXPECT_FALSE(result.error().description.empty()) << what;
  }
}

TEST_F(FeedRobustness, OddFixturesGiveTheFeedTheyMeanOrAClearError) {
  struct Case {
    const char* file;
    std::optional<std::string> title;  // nullopt: the document must be refused
  };
  const Case cases[] = {
      {"latin1-undeclared.rss", "Caf\u00E9 \u201CNews\u201D"},
      {"blank-line-before-declaration.rss", "Leading blank lines"},
      {"bare-ampersands.rss", "AT&T & Friends"},
      {"html-entities.rss", "Caf\u00E9\u00A0\u2014\u00A0News"},
      {"rss091-netscape-dtd.rss", "R\u00E9sum\u00E9s"},
      {"external-entity.rss", "BeforeAfter"},
      {"utf16le-bom.rss", "UTF-16 \u00E9t\u00E9"},
      {"two-channels.rss", "First"},
      {"control-characters.rss", "Bell and NUL inside"},
      {"undeclared-prefixes.rss", "T"},
      {"atom-xhtml-content.atom", "XH"},
      {"truncated.rss", std::nullopt},
      {"billion-laughs.xml", std::nullopt},
      {"empty.xml", std::nullopt},
      {"xhtml-page.html", std::nullopt},
  };
  for (const auto& c : cases) {
    const std::string bytes = test::readFile(test::fixturePath(std::string("feeds/") + c.file));
    auto feed = FeedDocumentParser::parseFeedData(bytes, kNow);
    if (c.title) {
      ASSERT_TRUE(feed) << c.file << ": " << feed.error().message();
      EXPECT_EQ(feed->title, *c.title) << c.file;
    } else {
      EXPECT_FALSE(feed) << c.file;
    }
    expectFeedOrError(bytes, c.file);
  }
  const auto undeclared = FeedDocumentParser::parseFeedData(
      test::readFile(test::fixturePath("feeds/undeclared-prefixes.rss")), kNow);
  ASSERT_TRUE(undeclared);
  EXPECT_EQ(undeclared->articles.at(0).author, "Dee");
  EXPECT_EQ(undeclared->articles.at(0).content, "<p>Body</p>");
}

TEST_F(FeedRobustness, EveryCorpusDocumentGivesAFeedOrAnError) {
  LECTERN_SKIP_WITHOUT_CORPUS();
  std::size_t documents = 0, feeds = 0;
  for (const auto& item : std::filesystem::directory_iterator(test::corpusPath("feeds"))) {
    const std::string bytes = test::readFile(item.path());
    expectFeedOrError(bytes, item.path().filename().string());
    ++documents;
    feeds += FeedDocumentParser::parseFeedData(bytes, kNow).has_value();
  }
  ASSERT_GT(documents, 0u);
  // Most of the corpus is real feeds; a parser that loses many of them is broken, not strict.
  EXPECT_GE(feeds * 10, documents * 9) << feeds << " of " << documents;
}

TEST_F(FeedRobustness, MutatedDocumentsNeverCrashEitherParser) {
  LECTERN_SKIP_WITHOUT_CORPUS();
  const char* seeds[] = {"feeds/feed-rs__rss_2.0_bbc.xml", "feeds/feed-rs__atom_example_reddit.xml",
                         "feeds/feed-rs__rss_1.0_debian.xml", "feeds/rss-parser__many-links.rss"};
  std::mt19937 random(42);
  for (const char* seed : seeds) {
    const std::string original = test::readFile(test::corpusPath(seed));
    for (int round = 0; round < 120; ++round) {
      std::string bytes = original;
      const std::size_t at = random() % bytes.size();
      switch (round % 4) {
        case 0:
          bytes.resize(at);
          break;
        case 1:
          for (int k = 0; k < 8; ++k) bytes[random() % bytes.size()] = static_cast<char>(random() % 256);
          break;
        case 2:
          bytes.insert(
              at,
              std::string_view("<!DOCTYPE x [<!ENTITY e \"&e;\">]>&e;<![CDATA[\x80").substr(random() % 20));
          break;
        case 3:
          bytes.insert(at, bytes.substr(random() % bytes.size(), 200));
          break;
      }
      expectFeedOrError(bytes, std::string(seed) + " round " + std::to_string(round));
    }
  }
}

TEST_F(FeedRobustness, ParsesFromSeveralThreadsAtOnceAlikeToOne) {
  LECTERN_SKIP_WITHOUT_CORPUS();
  std::vector<std::string> documents;
  for (const char* name :
       {"feeds/feed-rs__rss_2.0_bbc.xml", "feeds/feed-rs__atom_example_reddit.xml",
        "feeds/feed-rs__rss_1.0_debian.xml", "feeds/node-feedparser__invalid-characters-gzipped.xml"}) {
    documents.push_back(test::readFile(test::corpusPath(name)));
  }
  const auto describe = [&](const std::string& bytes) {
    auto feed = FeedDocumentParser::parseFeedData(bytes, kNow);
    return feed ? rssFeedToJson(*feed).dump() : feed.error().message();
  };
  std::vector<std::string> expected;
  for (const auto& document : documents) expected.push_back(describe(document));
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 10; ++round) {
        const std::size_t i = static_cast<std::size_t>(t + round) % documents.size();
        mismatches += describe(documents[i]) != expected[i];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(FeedRobustness, FiftyMegabyteFeedParsesWithBothParsers) {
  const std::string item =
      "<item><title>Item</title><link>http://example.com/i</link><pubDate>Tue, 10 Jun 2003 04:00:00 "
      "GMT</pubDate>"
      "<description>" +
      std::string(6'000, 'x') + "</description></item>\n";
  std::string xml = "<rss version=\"2.0\"><channel><title>Big</title>\n";
  const std::size_t items = (50u << 20) / item.size() + 1;
  xml.reserve(items * item.size() + 64);
  for (std::size_t i = 0; i < items; ++i) xml += item;
  xml += "</channel></rss>";
  ASSERT_GE(xml.size(), 50u << 20);

  auto feed = FeedDocumentParser::parseFeedData(xml, kNow);
  ASSERT_TRUE(feed) << feed.error().message();
  EXPECT_EQ(feed->articles.size(), items);
  auto streamed = RSSParser::withData(std::move(xml)).fetch();
  ASSERT_TRUE(streamed) << streamed.error().message();
  EXPECT_EQ(streamed->articles.size(), items);
}

}  // namespace
}  // namespace lectern
