#include "feeds/FeedTestHelpers.h"
#include "feeds/RSSFeedJson.h"
#include "feeds/RSSParser.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

using test::expectFields;
using test::utc;

RSSFeed stream(std::string xml) {
  auto feed = RSSParser::withData(std::move(xml)).fetch();
  EXPECT_TRUE(feed) << feed.error().message();
  return feed ? *feed : RSSFeed{};
}

TEST(RSSParserPaths, RSSChannelAndItemsAsWritten) {
  const RSSFeed feed = stream(R"(<rss xmlns:content="urn:c"><channel>
    <title> News </title><link>http://example.com/</link><description>D</description>
    <language>en</language><copyright>C</copyright><generator>G</generator><ttl>15</ttl>
    <managingEditor>ed</managingEditor><image><url>http://example.com/logo.png</url></image>
    <category domain="x">Tech</category><lastBuildDate>Tue, 10 Jun 2003 04:00:00 GMT</lastBuildDate>
    <cloud domain="rpc.example.com" port="80" path="/RPC2" registerProcedure="notify" protocol="xml-rpc"/>
    <item><title>A</title><link>http://example.com/a</link><guid>g</guid><description>S</description>
      <category>one</category><category>two</category><comments>c</comments><author>au</author>
      <content:encoded><![CDATA[<p>x</p>]]></content:encoded><pubDate>Tue, 10 Jun 2003 04:00:00 GMT</pubDate>
      <enclosure url="1.mp3" length="10" type="audio/mpeg"/><enclosure url="2.mp3"/></item>
    <item><title>B</title><pubDate> not a date </pubDate></item>
  </channel></rss>)");
  EXPECT_EQ(feed.type, RSSFeedType::kRSS);
  expectFields({{"title", feed.title, " News "},  // never trimmed
                {"url", feed.url, "http://example.com/"},
                {"descriptionText", feed.descriptionText, "D"},
                {"language", feed.language, "en"}});
  EXPECT_EQ(feed.validTime, 15);
  expectFields({{"author", feed.author, "ed"}, {"iconUrl", feed.iconUrl, "http://example.com/logo.png"}});
  EXPECT_EQ(feed.categories, std::vector<std::string>{"Tech"});
  EXPECT_EQ(feed.date, utc(2003, 6, 10, 4));
  ASSERT_TRUE(feed.cloudService);
  EXPECT_EQ(
      rssFeedToJson(feed)["cloudService"].dump(),
      R"({"domain":"rpc.example.com","path":"/RPC2","procedure":"notify","protocol":"xml-rpc","port":80})");
  ASSERT_EQ(feed.articles.size(), 2u);
  const RSSEntry& a = feed.articles[0];
  expectFields({{"url", a.url, "http://example.com/a"},
                {"uid", a.uid, "g"},
                {"summary", a.summary, "S"},
                {"comments", a.comments, "c"},
                {"author", a.author, "au"},
                {"content", a.content, "<p>x</p>"}});
  EXPECT_EQ(a.categories, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(a.date, utc(2003, 6, 10, 4));
  ASSERT_TRUE(a.attachedMedia);  // the last enclosure wins
  EXPECT_EQ(a.attachedMedia->url, "2.mp3");
  EXPECT_EQ(a.attachedMedia->length, 0);
  EXPECT_EQ(a.attachedMedia->type, std::nullopt);
  EXPECT_EQ(feed.articles[1].date, std::nullopt);  // no fallback to the parse time here
  EXPECT_EQ(feed.articles[1].content, std::nullopt);
}

TEST(RSSParserPaths, AtomAuthorsLinksAndTerms) {
  const RSSFeed feed =
      stream(R"(<feed xmlns="http://www.w3.org/2005/Atom"><title>T</title><subtitle>S</subtitle>
    <id>urn:f</id><rights>R</rights><icon>i.png</icon><updated>2003-12-13T18:30:02Z</updated>
    <link rel="alternate" href="http://e/"/><link rel="self" href="http://e/atom"/>
    <author><email>ann@e</email><name>Ann</name></author><category term="t1"/><category>plain</category>
    <entry><title>E</title><id>1</id><link href="http://e/1"/><link href="http://e/1.atom"/>
      <author><name>Bob</name></author><summary>s</summary><content type="html">c</content>
      <rights>r</rights><category term="x"/><updated>2003-12-13T18:30:02.25+01:00</updated></entry>
  </feed>)");
  EXPECT_EQ(feed.type, RSSFeedType::kAtom);
  expectFields({{"title", feed.title, "T"},
                {"descriptionText", feed.descriptionText, "S"},
                {"uid", feed.uid, "urn:f"},
                {"copyright", feed.copyright, "R"},
                {"iconUrl", feed.iconUrl, "i.png"},
                {"url", feed.url, "http://e/atom"},
                {"author", feed.author, "Ann (ann@e)"}});
  EXPECT_EQ(feed.categories, (std::vector<std::string>{"t1", "plain"}));
  EXPECT_EQ(feed.date, utc(2003, 12, 13, 18, 30, 2));
  EXPECT_EQ(feed.language, std::nullopt);
  ASSERT_EQ(feed.articles.size(), 1u);
  const RSSEntry& e = feed.articles[0];
  expectFields({{"url", e.url, "http://e/1.atom"},
                {"author", e.author, "Bob"},
                {"summary", e.summary, "s"},
                {"content", e.content, "c"},
                {"copyright", e.copyright, "r"}});
  EXPECT_EQ(e.categories, std::vector<std::string>{"x"});
  EXPECT_EQ(e.date, utc(2003, 12, 13, 17, 30, 2, 250));

  EXPECT_EQ(stream("<feed><author><name>N</name></author></feed>").author, "N");
  EXPECT_EQ(stream("<feed><author><name>N</name><email>m</email></author></feed>").author, "N (m)");
}

TEST(RSSParserPaths, RSS10IsNotRecognised) {
  const RSSFeed feed =
      stream("<rdf:RDF><channel><title>R</title></channel><item><title>A</title></item></rdf:RDF>");
  EXPECT_EQ(feed.type, std::nullopt);
  EXPECT_EQ(feed.title, std::nullopt);
  EXPECT_TRUE(feed.articles.empty());
}

class RecordingDelegate : public RSSParserDelegate {
 public:
  void parsedFeed(RSSParser&, const RSSFeed& feed) override { feeds.push_back(feed); }
  void errorOccurred(RSSParser&, const Error& error) override { errors.push_back(error); }
  std::vector<RSSFeed> feeds;
  std::vector<Error> errors;
};

TEST(RSSParserDelegate, HearsOfTheFeedOrTheErrorOnce) {
  RecordingDelegate delegate;
  RSSParser good = RSSParser::withData("<rss><channel><item><title>A</title></item></channel></rss>");
  good.setDelegate(&delegate);
  ASSERT_TRUE(good.fetch());
  ASSERT_EQ(delegate.feeds.size(), 1u);
  EXPECT_EQ(delegate.feeds[0].articles.size(), 1u);
  EXPECT_TRUE(delegate.errors.empty());

  RecordingDelegate failing;
  RSSParser bad = RSSParser::withData("<rss><channel><item></channel></rss>");
  bad.setDelegate(&failing);
  auto result = bad.fetch();
  ASSERT_FALSE(result);
  EXPECT_TRUE(failing.feeds.empty());
  ASSERT_EQ(failing.errors.size(), 1u);
  EXPECT_EQ(failing.errors[0], result.error());
  EXPECT_EQ(failing.errors[0].domain, kXmlParserErrorDomain);

  RSSParser missing = RSSParser::withFile("/nonexistent/feed.xml");
  missing.setDelegate(&failing);
  EXPECT_FALSE(missing.fetch());
  EXPECT_EQ(failing.errors.size(), 2u);
}

TEST(RSSParserSources, AFileStreamsToTheSameFeedAsItsBytes) {
  LECTERN_SKIP_WITHOUT_CORPUS();
  for (const char* name :
       {"feeds/rss-parser__giantbomb-podcast.rss", "feeds/feed-rs__atom_example_reddit.xml"}) {
    const auto path = test::corpusPath(name);
    auto fromFile = RSSParser::withFile(path).fetch();
    auto fromBytes = RSSParser::withData(test::readFile(path)).fetch();
    ASSERT_TRUE(fromFile && fromBytes) << name;
    EXPECT_FALSE(fromFile->articles.empty()) << name;
    EXPECT_EQ(rssFeedToJson(*fromFile), rssFeedToJson(*fromBytes)) << name;
  }
}

}  // namespace
}  // namespace lectern
