// Atom read the same way by both readers: XHTML text constructs, and the Atom namespace under
// any prefix.
#include "feeds/FeedDocumentParser.h"
#include "feeds/FeedTestHelpers.h"
#include "feeds/RSSParser.h"

namespace lectern {
namespace {

using test::expectFields;

const Date kNow = test::utc(2024, 3, 1);

// The dictionary path (what a refresh uses) and the stream parser, over the same bytes.
std::vector<RSSFeed> bothReaders(const std::string& xml) {
  std::vector<RSSFeed> feeds;
  auto dictionary = FeedDocumentParser::parseFeedData(xml, kNow);
  auto stream = RSSParser::withData(xml).fetch();
  EXPECT_TRUE(dictionary) << dictionary.error().message();
  EXPECT_TRUE(stream) << stream.error().message();
  if (dictionary) feeds.push_back(*std::move(dictionary));
  if (stream) feeds.push_back(*std::move(stream));
  return feeds;
}

TEST(AtomXhtml, TitlesReadAsTextAndContentAsTheMarkupInsideTheDiv) {
  const std::string xml = R"(<feed xmlns="http://www.w3.org/2005/Atom">
<title type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml">A <b>bold</b> title</div></title>
<subtitle type="xhtml">
  <div xmlns="http://www.w3.org/1999/xhtml">
    Fish &amp;   <i>chips</i>
  </div>
</subtitle>
<entry>
  <title type="xhtml"><xhtml:div xmlns:xhtml="http://www.w3.org/1999/xhtml">An <xhtml:em>entry</xhtml:em> &lt;3</xhtml:div></title>
  <summary type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml"><p>Short <a href="/x?a=1&amp;b=&quot;2&quot;">link</a></p></div></summary>
  <content type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml"><p>Para<br/>graph</p><a name="n"></a><img src="i.png"/></div></content>
  <rights type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml">&#169; <b>Us</b></div></rights>
</entry>
<entry><title type="text">Plain &lt;b&gt;</title><content type="xhtml">No <b>div</b></content></entry>
</feed>)";
  for (const RSSFeed& feed : bothReaders(xml)) {
    expectFields(
        {{"title", feed.title, "A bold title"}, {"descriptionText", feed.descriptionText, "Fish & chips"}});
    ASSERT_EQ(feed.articles.size(), 2u);
    const RSSEntry& entry = feed.articles[0];
    expectFields({{"entry title", entry.title, "An entry <3"},
                  {"summary", entry.summary, R"(<p>Short <a href="/x?a=1&amp;b=&quot;2&quot;">link</a></p>)"},
                  {"content", entry.content, R"(<p>Para<br/>graph</p><a name="n"></a><img src="i.png"/>)"},
                  {"rights", entry.copyright, "\u00A9 Us"},
                  {"plain title", feed.articles[1].title, "Plain <b>"},
                  {"content without its div", feed.articles[1].content, "No <b>div</b>"}});
  }
}

TEST(AtomXhtml, TheTreeHoldsTheMarkupInPlaceOfChildren) {
  EXPECT_EQ(
      test::renderXml(R"(<feed><title type="xhtml"><div xmlns="x">A <b>B</b></div></title><b>c</b></feed>)"),
      R"({feed={title={type="xhtml",textNode="A <b>B</b>"},b={textNode="c"}}})");
  // Outside an Atom feed, type="xhtml" means nothing.
  EXPECT_EQ(test::renderXml(R"(<rss><title type="xhtml"><div>A</div></title></rss>)"),
            R"({rss={title={type="xhtml",div={textNode="A"}}}})");
}

TEST(AtomNamespace, AnyPrefixBoundToAtomReadsLikeNone) {
  const std::string xml =
      R"(<a:feed xmlns:a="http://www.w3.org/2005/Atom" xmlns:dc="http://purl.org/dc/elements/1.1/">
  <a:title>Prefixed</a:title>
  <a:link href="http://example.com/"/>
  <a:updated>2024-01-02T03:04:05Z</a:updated>
  <a:entry><a:title>One</a:title><a:link href="http://example.com/1"/><a:id>urn:1</a:id>
    <a:updated>2024-01-01T00:00:00Z</a:updated><a:content type="html">&lt;p&gt;Body&lt;/p&gt;</a:content></a:entry>
  <a:entry><a:title type="xhtml"><h:div xmlns:h="http://www.w3.org/1999/xhtml"><h:b>Two</h:b></h:div></a:title></a:entry>
</a:feed>)";
  for (const RSSFeed& feed : bothReaders(xml)) {
    EXPECT_EQ(feed.type, RSSFeedType::kAtom);
    expectFields({{"title", feed.title, "Prefixed"}, {"url", feed.url, "http://example.com/"}});
    EXPECT_EQ(feed.date, test::utc(2024, 1, 2, 3, 4, 5));
    ASSERT_EQ(feed.articles.size(), 2u);
    expectFields({{"entry title", feed.articles[0].title, "One"},
                  {"entry url", feed.articles[0].url, "http://example.com/1"},
                  {"uid", feed.articles[0].uid, "urn:1"},
                  {"content", feed.articles[0].content, "<p>Body</p>"},
                  {"xhtml title", feed.articles[1].title, "Two"}});
    EXPECT_EQ(feed.articles[0].date, test::utc(2024, 1, 1));
  }
}

TEST(AtomNamespace, OtherNamespacesKeepTheirQualifiedNames) {
  // Atom elements by local name, the rest as written; an unprefixed element of another namespace
  // stays unprefixed.
  EXPECT_EQ(
      test::renderXml(R"(<feed xmlns="http://www.w3.org/2005/Atom" xmlns:at="http://www.w3.org/2005/Atom")"
                      R"( xmlns:dc="urn:dc"><at:id>i</at:id><dc:date>d</dc:date><x xmlns="urn:x"/></feed>)"),
      R"({feed={xmlns="http://www.w3.org/2005/Atom",xmlns:at="http://www.w3.org/2005/Atom",)"
      R"(xmlns:dc="urn:dc",id={textNode="i"},dc:date={textNode="d"},x={xmlns="urn:x"}}})");
  // In RSS an atom:link stays atom:link, so it never competes with the channel's own link.
  const std::string rss = R"(<rss xmlns:atom="http://www.w3.org/2005/Atom"><channel><title>R</title>)"
                          R"(<link>http://site/</link><atom:link rel="self" href="http://site/feed"/>)"
                          R"(<item><title>I</title><link>http://site/i</link>)"
                          R"(<atom:link rel="self" href="http://site/x"/></item></channel></rss>)";
  for (const RSSFeed& feed : bothReaders(rss)) {
    expectFields({{"url", feed.url, "http://site/"}});
    ASSERT_EQ(feed.articles.size(), 1u);
    expectFields({{"entry url", feed.articles[0].url, "http://site/i"}});
  }
}

}  // namespace
}  // namespace lectern
