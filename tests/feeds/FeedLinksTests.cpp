// Relative links of feed documents made absolute against xml:base and the document's address,
// and titles made one line.
#include <gtest/gtest.h>

#include "feeds/FeedDocumentParser.h"
#include "feeds/FeedLinks.h"
#include "feeds/FeedTestHelpers.h"

namespace lectern {
namespace {

const Date kNow = test::utc(2024, 3, 1, 12);

TEST(FeedLinks, ReferencesResolveByTheGenericRules) {
  // The examples of RFC 3986 5.4 that feeds meet, against its base, and bases that are no base.
  constexpr std::string_view kBase = "http://a/b/c/d;p?q";
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"g", "http://a/b/c/g"},
      {"./g", "http://a/b/c/g"},
      {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},
      {"//g", "http://g"},
      {"?y", "http://a/b/c/d;p?y"},
      {"g?y#s", "http://a/b/c/g?y#s"},
      {"#s", "http://a/b/c/d;p?q#s"},
      {"", "http://a/b/c/d;p?q"},
      {"../g", "http://a/b/g"},
      {"../../../g", "http://a/g"},
      {"g/./h/../i", "http://a/b/c/g/i"},
      {"https://x/y", "https://x/y"},
      {"mailto:a@b", "mailto:a@b"},
      {"..", "http://a/b/"},
  };
  for (auto [reference, want] : cases) EXPECT_EQ(resolveLinkReference(kBase, reference), want) << reference;
  EXPECT_EQ(resolveLinkReference("http://h", "x"), "http://h/x");
  EXPECT_EQ(resolveLinkReference("", "x/y"), "x/y");
  EXPECT_EQ(resolveLinkReference("feed.xml", "/x"), "/x");
}

TEST(FeedLinks, OnlyRelativeHrefAndSrcValuesChangeInHtml) {
  constexpr std::string_view kBase = "https://site.example/blog/post/";
  const std::pair<std::string_view, std::string_view> cases[] = {
      {R"(<a href="../about">a</a> <img src='pic.png' alt="x.png">)",
       R"(<a href="https://site.example/blog/about">a</a> <img src='https://site.example/blog/post/pic.png' alt="x.png">)"},
      {R"(<A HREF=/top title=t>x</A>)", R"(<A HREF=https://site.example/top title=t>x</A>)"},
      {R"(<a href="https://other/x">o</a><a href="mailto:m@x">m</a>)",
       R"(<a href="https://other/x">o</a><a href="mailto:m@x">m</a>)"},
      {R"(text with src="x" and 1 < 2, <p data-href="y">p</p>)",
       R"(text with src="x" and 1 < 2, <p data-href="y">p</p>)"},
      {R"(<img src="unterminated)", R"(<img src="unterminated)"},
  };
  for (auto [html, want] : cases) EXPECT_EQ(resolveRelativeLinksInHtml(html, kBase), want) << html;
  EXPECT_EQ(resolveRelativeLinksInHtml(R"(<a href="x">)", ""), R"(<a href="x">)");
}

TEST(FeedLinks, AtomEntriesUseTheNearestXmlBaseAndElseTheDocumentsAddress) {
  const std::string xml = R"(<feed xmlns="http://www.w3.org/2005/Atom" xml:base="/blog/">
    <title>  The
      Blog </title>
    <entry xml:base="2024/">
      <title>First
line	and second</title>
      <link href="first.html"/>
      <updated>2024-02-01T00:00:00Z</updated>
      <content type="html" xml:base="media/">&lt;img src="a.png"&gt;&lt;a href="/x"&gt;x&lt;/a&gt;</content>
    </entry>
    <entry>
      <title>Second</title><link href="https://elsewhere.example/s"/>
      <summary type="html">&lt;a href="../up"&gt;up&lt;/a&gt;</summary>
    </entry>
  </feed>)";
  auto feed = FeedDocumentParser::parseFeedData(xml, kNow, "http://host.example/feeds/atom.xml").value();
  EXPECT_EQ(feed.title, "The Blog");
  ASSERT_EQ(feed.articles.size(), 2u);
  EXPECT_EQ(feed.articles[0].title, "First line and second");
  EXPECT_EQ(feed.articles[0].url, "http://host.example/blog/2024/first.html");
  EXPECT_EQ(feed.articles[0].content,
            R"(<img src="http://host.example/blog/2024/media/a.png"><a href="http://host.example/x">x</a>)");
  EXPECT_FALSE(feed.articles[0].undated);
  EXPECT_EQ(feed.articles[1].url, "https://elsewhere.example/s");
  EXPECT_EQ(feed.articles[1].content, R"(<a href="http://host.example/up">up</a>)");
  EXPECT_TRUE(feed.articles[1].undated);
  EXPECT_EQ(feed.articles[1].date, kNow);

  // Without an address every link stays as written (the base is relative all the way up).
  auto unplaced = FeedDocumentParser::parseFeedData(xml, kNow).value();
  EXPECT_EQ(unplaced.articles[0].url, "first.html");
}

TEST(FeedLinks, RssItemsResolveAgainstTheFeedAddressAfterTheRootRelativePictureRepair) {
  const std::string xml = R"(<rss version="2.0"><channel><title>News
 of the day</title>
    <item><title>One</title><link>/news/1</link>
      <description>&lt;img src="/i.png"&gt; &lt;a href="more"&gt;more&lt;/a&gt;</description></item>
    <item xml:base="http://cdn.example/x/"><title>Two</title><link>2</link>
      <content:encoded xmlns:content="http://purl.org/rss/1.0/modules/content/">&lt;a href="y"&gt;y&lt;/a&gt;</content:encoded></item>
  </channel></rss>)";
  auto feed = FeedDocumentParser::parseFeedData(xml, kNow, "https://feeds.example/site/rss").value();
  EXPECT_EQ(feed.title, "News of the day");
  ASSERT_EQ(feed.articles.size(), 2u);
  EXPECT_EQ(feed.articles[0].url, "https://feeds.example/news/1");
  EXPECT_EQ(feed.articles[0].content,
            R"(<img src="https://feeds.example/i.png"> <a href="https://feeds.example/site/more">more</a>)");
  EXPECT_EQ(feed.articles[1].url, "http://cdn.example/x/2");
  EXPECT_EQ(feed.articles[1].content, R"(<a href="http://cdn.example/x/y">y</a>)");
}

}  // namespace
}  // namespace lectern
