#include <cfloat>
#include <chrono>
#include <climits>
#include <random>

#include "core/Dates.h"
#include "core/Regex.h"
#include "feeds/FeedDocumentParser.h"
#include "feeds/FeedStrings.h"
#include "feeds/FeedTestHelpers.h"
#include "feeds/FeedURLSplit.h"
#include "feeds/RSSFeedJson.h"

namespace lectern {
namespace {

using test::expectFields;
using test::utc;

const Date kNow = utc(2024, 3, 1, 12);

RSSFeed parse(std::string_view xml) {
  auto feed = FeedDocumentParser::parseFeedData(xml, kNow);
  EXPECT_TRUE(feed) << feed.error().message();
  return feed ? *feed : RSSFeed{};
}

std::string lookup(std::string_view entryXml, std::string_view keyPath,
                   WhitespaceTrim trim = WhitespaceTrim::kTrim) {
  auto document = XMLReader::dictionaryForXMLData(entryXml);
  EXPECT_TRUE(document);
  return std::string(
      FeedDocumentParser::valueForKeyPath(document->root().find("e")->asDictionary(), keyPath, trim));
}

TEST(FeedValueLookup, RepeatedLinksTakeTheFirstUnlessALaterOneIsSelf) {
  const std::pair<const char*, const char*> cases[] = {
      {R"(<link rel="alternate" href="A"/><link rel="self" href="S"/>)", "S"},
      {R"(<link rel="alternate" href="A"/><link rel="enclosure" href="E"/>)", "A"},
      {R"(<link rel="self" href="S"/><link rel="alternate" href="A"/>)", "S"},
      {R"(<link href="A"/><link rel="self" href="S1"/><link rel="self" href="S2"/>)", "S2"},
      {R"(<link rel="alternate"/><link href="B"/>)", "B"},  // no value yet: the next one is taken
      {R"(<link href=" A "/>)", "A"},
  };
  for (const auto& [links, want] : cases)
    EXPECT_EQ(lookup(std::string("<e>") + links + "</e>", "link.href"), want) << links;
}

TEST(FeedValueLookup, PathsReadThroughDictionariesListsAndStrings) {
  struct Case {
    const char* xml;
    const char* path;
    WhitespaceTrim trim;
    const char* want;
  };
  const Case cases[] = {
      {"<e><title>\n  T \u3000</title></e>", "title.textNode", WhitespaceTrim::kTrim, "T"},
      {"<e><title>\n  T </title></e>", "title.textNode", WhitespaceTrim::kKeep, "\n  T "},
      {"<e><author><name>A</name></author><author><name>B</name></author></e>", "author.name.textNode",
       WhitespaceTrim::kTrim, "A"},
      {"<e><image><url>U</url></image></e>", "image.url.textNode", WhitespaceTrim::kTrim, "U"},
      {R"(<e title="attr"><x/></e>)", "title.textNode", WhitespaceTrim::kTrim,
       "attr"},  // the parent is a string
      {R"(<e link="s"><link href="h"/></e>)", "link.href", WhitespaceTrim::kTrim,
       "s"},                                                            // a string member ends the walk
      {"<e><title>T</title></e>", "title", WhitespaceTrim::kTrim, ""},  // no parent path
      {"<e><title><b>x</b></title></e>", "title.b", WhitespaceTrim::kTrim, ""},  // not a string
      {"<e/>", "missing.textNode", WhitespaceTrim::kTrim, ""},
  };
  for (const auto& c : cases) EXPECT_EQ(lookup(c.xml, c.path, c.trim), c.want) << c.xml << " " << c.path;

  const std::tuple<const char*, const char*, const char*> paths[] = {
      {"author.name.textNode", "author.name", "textNode"},
      {"link.href", "link", "href"},
      {"title", "", "title"}};
  for (const auto& [path, parent, last] : paths) {
    EXPECT_EQ(FeedDocumentParser::removeLastPathComponentFromKeyPath(path), parent);
    EXPECT_EQ(FeedDocumentParser::lastElementOfKeyPath(path), last);
  }
}

TEST(FeedTrim, RemovesExactlyTheIcuWhitespaceClass) {
  const Regex space = Regex::compileOrThrow("^\\s$");
  for (char32_t cp = 1; cp < 0x10000; ++cp) {
    if (cp >= 0xD800 && cp <= 0xDFFF) continue;
    std::string text;
    if (cp < 0x80) {
      text += static_cast<char>(cp);
    } else if (cp < 0x800) {
      text += {static_cast<char>(0xC0 | (cp >> 6)), static_cast<char>(0x80 | (cp & 0x3F))};
    } else {
      text += {static_cast<char>(0xE0 | (cp >> 12)), static_cast<char>(0x80 | ((cp >> 6) & 0x3F)),
               static_cast<char>(0x80 | (cp & 0x3F))};
    }
    ASSERT_EQ(trimWhitespaces(text + "x" + text) == "x", space.search(text))
        << std::hex << static_cast<unsigned>(cp);
  }
  EXPECT_EQ(trimWhitespaces("\xFF a b \xFF"), "\xFF a b \xFF");
  EXPECT_EQ(trimWhitespaces(" \t\r\n"), "");
}

TEST(FeedNumbers, ReadTheLeadingNumberLikeTheFeedsExpect) {
  const std::pair<const char*, std::int32_t> ints[] = {{"60", 60},
                                                       {" 42px", 42},
                                                       {"-7", -7},
                                                       {"+5", 5},
                                                       {"abc", 0},
                                                       {"", 0},
                                                       {"99999999999", INT_MAX},
                                                       {"-99999999999", INT_MIN}};
  for (const auto& [text, want] : ints) EXPECT_EQ(intValue(text), want) << text;
  const std::pair<const char*, float> floats[] = {
      {"60", 60},         {"1.5", 1.5f}, {" 1e3 min", 1000}, {".5", 0.5f}, {"-2.", -2},
      {"1e999", FLT_MAX}, {"1e-999", 0}, {"nan", 0},         {"inf", 0},   {"e5", 0}};
  for (const auto& [text, want] : floats) EXPECT_EQ(floatValue(text), want) << text;
}

TEST(FeedDocumentParser, AtomFeedsAndEntries) {
  const RSSFeed feed = parse(R"(<feed xmlns="http://www.w3.org/2005/Atom">
    <title> Example </title><subtitle>Sub</subtitle><id>urn:feed</id><rights>(c)</rights>
    <generator>gen</generator><icon>/i.png</icon><updated>2003-12-13T18:30:02Z</updated>
    <link rel="alternate" href="http://example.org/"/><link rel="self" href="http://example.org/atom"/>
    <author><name>Ann</name><email>ann@example.org</email></author>
    <entry><title>One</title><id>1</id><rights>r</rights><author><name>Bob</name></author>
      <link rel="alternate" href="http://example.org/1"/><link rel="self" href="http://example.org/1.atom"/>
      <summary>  Short  </summary><content type="html"></content>
      <updated>2003-12-13T18:30:02.25+01:00</updated></entry>
    <entry><title>Two</title><link href="/2"/><content> &lt;p&gt;Body&lt;/p&gt; </content>
      <published>2003-12-13 18:30:02</published></entry>
    <entry><title>Three</title><updated>yesterday</updated></entry>
  </feed>)");
  EXPECT_EQ(feed.type, RSSFeedType::kAtom);
  expectFields({{"title", feed.title, "Example"},
                {"url", feed.url, "http://example.org/atom"},
                {"descriptionText", feed.descriptionText, "Sub"},
                {"author", feed.author, "Ann"},
                {"uid", feed.uid, "urn:feed"},
                {"language", feed.language, "Unknown"},
                {"copyright", feed.copyright, "(c)"},
                {"generator", feed.generator, "gen"},
                {"iconUrl", feed.iconUrl, "/i.png"}});
  EXPECT_EQ(feed.validTime, 0);
  EXPECT_EQ(feed.date, utc(2003, 12, 13, 18, 30, 2));
  ASSERT_EQ(feed.articles.size(), 3u);
  const RSSEntry& one = feed.articles[0];
  expectFields({{"url", one.url, "http://example.org/1.atom"},
                {"uid", one.uid, "1"},
                {"author", one.author, "Bob"},
                {"copyright", one.copyright, "r"}});
  EXPECT_EQ(one.content, "Short");  // empty content: the summary
  EXPECT_EQ(one.date, utc(2003, 12, 13, 17, 30, 2, 250));
  EXPECT_EQ(feed.articles[1].content, " <p>Body</p> ");  // content is never trimmed
  EXPECT_EQ(feed.articles[1].url, "/2");
  EXPECT_EQ(feed.articles[1].date, utc(2003, 12, 13, 18, 30, 2));
  EXPECT_EQ(feed.articles[2].date, kNow);  // unreadable date: the parse time
  EXPECT_EQ(feed.articles[2].attachedMedia, std::nullopt);
  EXPECT_EQ(feed.articles[2].content, "");
}

TEST(FeedDocumentParser, RSSChannelsAndItems) {
  const RSSFeed feed = parse(R"(<rss version="2.0" xmlns:dc="urn:dc" xmlns:content="urn:content"><channel>
    <title>News</title><link>http://example.com/</link><description>D</description>
    <managingEditor>ed@example.com</managingEditor><language>en</language><copyright>C</copyright>
    <generator>G</generator><image><url> http://example.com/logo.png </url></image><ttl>60</ttl>
    <lastBuildDate>Tue, 10 Jun 2003 04:00:00 GMT</lastBuildDate>
    <item><title> First </title><link>http://example.com:8080/a</link><guid>g1</guid>
      <description>Desc</description><comments>http://example.com/c</comments><author>me@example.com</author>
      <content:encoded><![CDATA[<img src="/img/a.png"> see /img/a.png]]></content:encoded>
      <enclosure url="http://example.com/a.mp3" length="1234" type="audio/mpeg"/>
      <pubDate>Tue, 10 Jun 2003 04:00:00 GMT</pubDate></item>
    <item><title>Second</title><description> Only a description </description><content:encoded></content:encoded>
      <dc:creator> Carol </dc:creator><dc:date>2003-12-13T18:30:02Z</dc:date>
      <enclosure url="http://example.com/1.mp3"/><enclosure url="http://example.com/2.mp3"/></item>
    <item><title>Third</title><published>2099-01-01T00:00:00Z</published></item>
    <item><title>Fourth</title></item>
  </channel></rss>)");
  EXPECT_EQ(feed.type, RSSFeedType::kRSS);
  expectFields({{"title", feed.title, "News"},
                {"url", feed.url, "http://example.com/"},
                {"descriptionText", feed.descriptionText, "D"},
                {"author", feed.author, "ed@example.com"},
                {"language", feed.language, "en"},
                {"copyright", feed.copyright, "C"},
                {"generator", feed.generator, "G"},
                {"iconUrl", feed.iconUrl, "http://example.com/logo.png"}});
  EXPECT_EQ(feed.validTime, 60);
  EXPECT_EQ(feed.date, utc(2003, 6, 10, 4));
  ASSERT_EQ(feed.articles.size(), 4u);

  const RSSEntry& first = feed.articles[0];
  expectFields({{"title", first.title, "First"},
                {"uid", first.uid, "g1"},
                {"summary", first.summary, "Desc"},
                {"comments", first.comments, "http://example.com/c"},
                {"author", first.author, "me@example.com"}});
  EXPECT_EQ(first.content, R"(<img src="http://example.com/img/a.png"> see http://example.com/img/a.png)");
  EXPECT_EQ(first.date, utc(2003, 6, 10, 4));
  ASSERT_TRUE(first.attachedMedia);
  EXPECT_EQ(first.attachedMedia->url, "http://example.com/a.mp3");
  EXPECT_EQ(first.attachedMedia->length, 1234);
  EXPECT_EQ(first.attachedMedia->type, "audio/mpeg");

  const RSSEntry& second = feed.articles[1];
  EXPECT_EQ(second.content, "Only a description");
  EXPECT_EQ(second.author, "Carol");
  EXPECT_EQ(second.date, utc(2003, 12, 13, 18, 30, 2));
  EXPECT_EQ(second.attachedMedia, std::nullopt);      // two enclosures: none taken
  EXPECT_EQ(feed.articles[2].date, utc(2099, 1, 1));  // future dates are the story mapping's business
  EXPECT_EQ(feed.articles[2].content, "");
  EXPECT_EQ(feed.articles[3].url, "");
  EXPECT_EQ(feed.articles[3].date, kNow);
}

TEST(FeedDocumentParser, ChannelDatesComeFromLastBuildDateThenDcDate) {
  const std::tuple<const char*, std::optional<Date>> cases[] = {
      {"<lastBuildDate>Tue, 10 Jun 2003 04:00 GMT</lastBuildDate><dc:date>2001-01-01T00:00:00Z</dc:date>",
       utc(2003, 6, 10, 4)},
      {"<dc:date>2001-01-01T00:00:00Z</dc:date>", utc(2001, 1, 1)},
      {"<lastBuildDate> </lastBuildDate><dc:date>10 Jun 2003 04:00:00 GMT</dc:date>", utc(2003, 6, 10, 4)},
      {"<lastBuildDate>soon</lastBuildDate>", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [channel, want] : cases) {
    EXPECT_EQ(parse(std::string("<rss><channel>") + channel + "</channel></rss>").date, want) << channel;
  }
}

TEST(FeedDocumentParser, RSS10ItemsSitBesideTheChannel) {
  const RSSFeed feed = parse(R"(<rdf:RDF xmlns:rdf="urn:rdf" xmlns="http://purl.org/rss/1.0/">
    <channel><title>R</title><ttl>x</ttl></channel>
    <item><title>A</title><link>http://e/a</link></item><item><title>B</title></item></rdf:RDF>)");
  EXPECT_EQ(feed.type, RSSFeedType::kRSS);
  EXPECT_EQ(feed.title, "R");
  EXPECT_EQ(feed.validTime, 0);
  ASSERT_EQ(feed.articles.size(), 2u);
  EXPECT_EQ(feed.articles[0].title, "A");
  EXPECT_EQ(feed.articles[1].title, "B");
  EXPECT_EQ(parse("<rdf:RDF><channel/><item><title>Only</title></item></rdf:RDF>").articles.size(), 1u);
  // A channel's own items win over items beside it.
  EXPECT_EQ(parse("<rdf:RDF><channel><item/></channel><item/><item/></rdf:RDF>").articles.size(), 1u);
}

TEST(FeedDocumentParser, UnknownRootsAreInvalidFeedsAndEmptyChannelsAreNot) {
  for (const char* xml :
       {"<html><body/></html>", "<a:feed xmlns:a=\"http://example.com/not-atom\"/>", "<entry/>"}) {
    auto feed = FeedDocumentParser::parseFeedData(xml, kNow);
    ASSERT_FALSE(feed) << xml;
    EXPECT_EQ(feed.error(),
              Error::make("QKFeedParserClient", 1, "Invalid feed", "Couldn't find the root element of feed"));
  }
  const RSSFeed empty = parse("<rss/>");
  EXPECT_EQ(empty.type, RSSFeedType::kRSS);
  EXPECT_EQ(empty.title, "");
  EXPECT_EQ(empty.date, std::nullopt);
  EXPECT_TRUE(empty.articles.empty());
}

TEST(FeedImageLinks, RootRelativeSourcesGetTheEntryOriginEverywhere) {
  struct Case {
    const char* html;
    const char* url;
    const char* want;
  };
  const Case cases[] = {
      {R"(<img src="/img/a.png"> /img/a.png)", "http://example.com:8080/p",
       R"(<img src="http://example.com/img/a.png"> http://example.com/img/a.png)"},
      {R"(<img alt='x' src='/a.png' />)", "https://u:p@h.org/x?y",
       R"(<img alt='x' src='https://h.org/a.png' />)"},
      {R"(<img src="/a.png"><img src="/a.png">)", "http://h/",
       R"(<img src="http://h/a.png"><img src="http://h/a.png">)"},
      {R"(<img src="//cdn.example/a.png">)", "http://h/", R"(<img src="//cdn.example/a.png">)"},
      {R"(<img src="http://o/a.png">)", "http://h/", R"(<img src="http://o/a.png">)"},
      {R"(<IMG src="/a.png">)", "http://h/", R"(<IMG src="/a.png">)"},
      {R"(<img src="/a.png">)", "", R"(<img src="/a.png">)"},
      {R"(<img src="/a.png">)", "/relative", R"(<img src="/a.png">)"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(FeedDocumentParser::fixRelativeLinksInImageTags(c.html, c.url), c.want) << c.html;
}

TEST(FeedImageLinks, OnlyWholeUrlTokensEqualToACollectedPathChange) {
  struct Case {
    const char* html;
    const char* want;
  };
  const Case cases[] = {
      // A path that begins another gets the origin once, in each place.
      {R"(<img src="/a"><img src="/a/b"> /a/b)",
       R"(<img src="http://h/a"><img src="http://h/a/b"> http://h/a/b)"},
      // The root itself: closing tags and self-closing slashes are not URLs.
      {R"(<p>x</p><img src="/"><a href="/">home</a><br/><br />)",
       R"(<p>x</p><img src="http://h/"><a href="http://h/">home</a><br/><br />)"},
      // Other attributes: href, each candidate of a srcset, an unquoted value, a CSS url().
      {R"x(<img src="/i.png" srcset="/i.png 1x, /j.png 2x"><a href=/i.png>x</a><b style="top:url(/i.png)">)x",
       R"x(<img src="http://h/i.png" srcset="http://h/i.png 1x, /j.png 2x"><a href=http://h/i.png>x</a>)x"
       R"x(<b style="top:url(http://h/i.png)">)x"},
      // Longer or shorter runs that merely contain the path stay.
      {R"(<img src="/a.png"> /a.png.bak x/a.png /a.pngx http://o/a.png)",
       R"(<img src="http://h/a.png"> /a.png.bak x/a.png /a.pngx http://o/a.png)"},
      // Quoted values are whole tokens: spaces, commas and query strings belong to the path.
      {R"(<img src="/my photo,2.jpg"><img src='/i.php?w=1&amp;h=2'/><a href="/i.php?w=1&amp;h=2">)",
       R"(<img src="http://h/my photo,2.jpg"><img src='http://h/i.php?w=1&amp;h=2'/>)"
       R"(<a href="http://h/i.php?w=1&amp;h=2">)"},
      // Protocol-relative sources name another host and are left alone.
      {R"(<img src="//cdn/x.png"><img src="/x.png"> //cdn/x.png)",
       R"(<img src="//cdn/x.png"><img src="http://h/x.png"> //cdn/x.png)"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(FeedDocumentParser::fixRelativeLinksInImageTags(c.html, "http://h:81/post"), c.want) << c.html;
}

TEST(FeedImageLinks, TwentyThousandImagesInOnePass) {
  std::string html, want;
  for (int i = 0; i < 20'000; ++i) {
    const std::string path = "/img/" + std::to_string(i) + ".png";
    html += "<p><img src=\"" + path + "\"><a href=\"" + path + "\">" + std::to_string(i) + "</a></p>";
    want += "<p><img src=\"http://h" + path + "\"><a href=\"http://h" + path + "\">" + std::to_string(i) +
            "</a></p>";
  }
  const auto start = std::chrono::steady_clock::now();
  const std::string fixed = FeedDocumentParser::fixRelativeLinksInImageTags(html, "http://h/");
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_TRUE(fixed == want);
  // A loose bound: one replacement pass per path took minutes here.
  EXPECT_LT(seconds, 5.0);

  // Hostile shapes stay linear as well: many tags sharing one '>' or none at all.
  std::string noEnd, sharedEnd;
  for (int i = 0; i < 100'000; ++i) noEnd += "<img src=\"/";
  for (int i = 0; i < 100'000; ++i) sharedEnd += "<img src=x ";
  for (const std::string& odd : {noEnd, sharedEnd + ">"}) {
    const auto oddStart = std::chrono::steady_clock::now();
    EXPECT_TRUE(FeedDocumentParser::fixRelativeLinksInImageTags(odd, "http://h/") == odd);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - oddStart).count(), 5.0);
  }
}

TEST(FeedImageLinks, HandMatcherFindsWhatThePatternFinds) {
  const Regex pattern = Regex::compileOrThrow(R"(<img[^>]*src=["'](/[^"']*)["'][^>]*/?>)");
  const char* pieces[] = {"<img", " src=", "src=", "\"", "'", "/",       "/a",
                          ">",    "/>",    " ",    "x",  "<", "\xC3\xA9"};
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    std::string html;
    const int count = 1 + static_cast<int>(random() % 14);
    for (int i = 0; i < count; ++i) html += pieces[random() % std::size(pieces)];
    std::vector<std::string> want;
    for (const auto& match : pattern.allMatches(html)) want.push_back(match.group(1));
    const auto found = rootRelativeImageSources(html);
    ASSERT_EQ(std::vector<std::string>(found.begin(), found.end()), want) << html;
  }
}

TEST(FeedURLSplit, OriginPathAndBaseAsTheClientRequestsThem) {
  struct Case {
    const char* url;
    const char* origin;
    const char* path;
    const char* base;
  };
  const Case cases[] = {
      {"http://example.com/feed.xml", "http://example.com", "/feed.xml", "http://example.com"},
      {"https://example.com/feed?format=rss&x=1", "https://example.com", "/feed?format=rss&x=1",
       "https://example.com"},
      {"http://example.com:8080/feed", "http://example.com", ":8080/feed", "http://example.com"},
      {"http://example.com", "http://example.com", "", "http://example.com"},
      {"http://[::1]:80/f", "http://[::1]", ":80/f", "http://[::1]"},
      // Every occurrence of the origin goes, so the path no longer occurs in the URL.
      {"http://a.com/go?to=http://a.com/x", "http://a.com", "/go?to=/x", "http://a.com/go?to=http://a.com/x"},
      {"http://user@example.com/f", "http://example.com", "http://user@example.com/f", ""},
      {"example.com/feed", "", "example.com/feed", ""},
  };
  for (const auto& c : cases) {
    const FeedURLSplit split = FeedURLSplit::fromURL(c.url);
    EXPECT_EQ(split.origin, c.origin) << c.url;
    EXPECT_EQ(split.path, c.path) << c.url;
    EXPECT_EQ(split.baseUrl, c.base) << c.url;
  }
}

TEST(FeedJson, FieldNamesNullsAndDates) {
  RSSFeed feed;
  feed.type = RSSFeedType::kAtom;
  feed.title = "T";
  feed.date = utc(2003, 6, 10, 4);
  feed.cloudService =
      RSSCloudService{.domain = "d", .path = std::nullopt, .procedure = "p", .protocol = "x", .port = 80};
  RSSEntry& entry = feed.articles.emplace_back();
  entry.date = utc(2003, 12, 13, 17, 30, 2, 250);
  entry.categories = {"a"};
  entry.attachedMedia = RSSAttachedMedia{.url = "u", .length = 0, .type = std::nullopt};
  const auto json = rssFeedToJson(feed);

  std::vector<std::string> keys;
  for (const auto& [key, value] : json.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"type", "title", "descriptionText", "url", "author", "uid",
                                            "language", "copyright", "generator", "iconUrl", "date",
                                            "validTime", "categories", "cloudService", "articles"}));
  keys.clear();
  for (const auto& [key, value] : json["articles"][0].items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"title", "url", "uid", "summary", "comments", "content",
                                            "copyright", "author", "date", "categories", "attachedMedia"}));
  EXPECT_EQ(json["type"], 1);
  EXPECT_EQ(json["date"], "2003-06-10T04:00:00Z");
  EXPECT_TRUE(json["url"].is_null());
  EXPECT_TRUE(json["validTime"].is_null());
  EXPECT_EQ(json["cloudService"].dump(),
            R"({"domain":"d","path":null,"procedure":"p","protocol":"x","port":80})");
  EXPECT_EQ(json["articles"][0]["date"], "2003-12-13T17:30:02.25Z");
  EXPECT_TRUE(json["articles"][0]["title"].is_null());
  EXPECT_EQ(json["articles"][0]["attachedMedia"].dump(), R"({"url":"u","length":0,"type":null})");
}

}  // namespace
}  // namespace lectern
