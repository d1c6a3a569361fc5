#include <httplib.h>

#include <atomic>
#include <thread>

#include "feeds/FeedTestHelpers.h"
#include "feeds/RSSParser.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

using test::renderXml;

struct TreeCase {
  const char* xml;
  const char* tree;
};

void expectTrees(std::initializer_list<TreeCase> cases) {
  for (const auto& c : cases) EXPECT_EQ(renderXml(c.xml), c.tree) << c.xml;
}

TEST(XMLReaderTree, ElementsBecomeDictionariesWithQualifiedNamesAndRepeatsAsLists) {
  expectTrees({
      {R"(<rss version="2.0" xmlns:dc="urn:dc"><channel><item><dc:creator>A</dc:creator></item>)"
       R"(<item><title>B</title></item></channel></rss>)",
       R"({rss={xmlns:dc="urn:dc",version="2.0",channel={item=[{dc:creator={textNode="A"}},{title={textNode="B"}}]}}})"},
      // An undeclared prefix is kept as written.
      {"<a><x:y>1</x:y><x:y>2</x:y></a>", R"({a={x:y=[{textNode="1"},{textNode="2"}]}})"},
      // An attribute and a child of the same name share one list, attribute first.
      {R"(<link href="a"><href>b</href></link>)", R"({link={href=["a",{textNode="b"}]}})"},
      // Text replaces anything else stored under "textNode".
      {R"(<t textNode="attr">text</t>)", R"({t={textNode="text"}})"},
      {"<t/>", "{t={}}"},
  });
}

TEST(XMLReaderTree, ManyDistinctNamesStillGroupRepeats) {
  std::string xml = "<r>";
  for (int i = 0; i < 20; ++i) xml += "<n" + std::to_string(i) + "/>";
  xml += "<n3>again</n3><n19/></r>";
  const std::string tree = renderXml(xml);
  EXPECT_NE(tree.find(R"(n3=[{},{textNode="again"}])"), std::string::npos) << tree;
  EXPECT_NE(tree.find("n19=[{},{}]"), std::string::npos) << tree;
  EXPECT_EQ(tree.find("n3=", tree.find("n3=") + 1), std::string::npos) << "one entry per name: " << tree;
}

TEST(XMLReaderText, TextIsKeptAsWrittenAndMixedContentLandsOnTheFirstElementToEnd) {
  expectTrees({
      {"<t>  a b \n</t>", R"({t={textNode="  a b \n"}})"},
      {"<t>   </t>", R"({t={textNode="   "}})"},
      // Text split by a child is gathered until the next element end.
      {"<a>hello <b>world</b> there</a>", R"({a={b={textNode="hello world"},textNode=" there"}})"},
      // White space alone beside child elements is layout.
      {"<item>\n  <title>T</title>\n  <content:encoded></content:encoded>\n</item>",
       R"({item={title={textNode="T"},content:encoded={}}})"},
      {"<c>a<![CDATA[<p>&amp;</p>]]>b</c>", R"({c={textNode="a<p>&amp;</p>b"}})"},
      {R"(<t a="x &amp; y &lt; &#38; &quot;">&lt;p&gt; &amp; &#233;</t>)",
       R"({t={a="x & y < & "",textNode="<p> & é"}})"},
      {R"(<!DOCTYPE t [<!ENTITY who "World &amp; co">]><t a="&who;">Hello &who;</t>)",
       R"({t={a="World & co",textNode="Hello World & co"}})"},
      // HTML's named characters read as their characters, declared or not.
      {R"(<t a="&copy;">a&nbsp;b&eacute;&mdash;</t>)",
       "{t={a=\"\u00A9\",textNode=\"a\u00A0b\u00E9\u2014\"}}"},
      {R"(<!DOCTYPE rss SYSTEM "http://127.0.0.1:9/rss-0.91.dtd"><t>&eacute;</t>)",
       "{t={textNode=\"\u00E9\"}}"},
  });
}

TEST(XMLReaderRetry, RefusedBytesAreReadAgainAsRepairedUTF8) {
  expectTrees({
      {"<t>caf\xE9</t>", "{t={textNode=\"caf\u00E9\"}}"},
      {"<t>it\x92s</t>", "{t={textNode=\"it\u2019s\"}}"},
      {"<t>\xC3\xA9 \xE9</t>", "{t={textNode=\"\u00E9 \u00E9\"}}"},
      {"<t>a\x0C"
       "b</t>",
       R"({t={textNode="ab"}})"},
      {"\n\n<?xml version=\"1.0\"?><t>x</t>", R"({t={textNode="x"}})"},
      {R"(<t a="1&2">AT&T &amp; &#38; <![CDATA[& raw]]></t>)", R"({t={a="1&2",textNode="AT&T & & & raw"}})"},
      // The retry reads UTF-8 whatever the declaration says.
      {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><t>&bogus caf\xC3\xA9</t>",
       "{t={textNode=\"&bogus caf\u00E9\"}}"},
  });
  // A declared encoding that fits is read as declared, never converted twice.
  EXPECT_EQ(renderXml("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><t>caf\xE9</t>"),
            "{t={textNode=\"caf\u00E9\"}}");
}

TEST(XMLReaderErrors, BrokenDocumentsGiveTheParserError) {
  auto broken = XMLReader::dictionaryForXMLData("<a>\n<b></a>");
  ASSERT_FALSE(broken);
  EXPECT_EQ(broken.error().domain, kXmlParserErrorDomain);
  EXPECT_EQ(broken.error().code, 76);  // libxml2's tag mismatch
  EXPECT_EQ(broken.error().description, "Couldn't read the XML document");
  EXPECT_EQ(broken.error().info("line"), "2");
  EXPECT_NE(broken.error().recoverySuggestion.find("Opening and ending tag mismatch"), std::string::npos);

  for (std::string_view bytes :
       {std::string_view(""), std::string_view("<rss><channel><title>cut"),
        std::string_view("\x1F\x8B\x08\x00\xFF\x00garbage", 13), std::string_view("just text")}) {
    auto result = XMLReader::dictionaryForXMLData(bytes);
    ASSERT_FALSE(result) << bytes;
    EXPECT_EQ(result.error().domain, kXmlParserErrorDomain);
    EXPECT_FALSE(result.error().recoverySuggestion.empty());
  }
}

TEST(XMLReaderSafety, NeverFetchesDTDsOrExternalEntities) {
  httplib::Server server;
  std::atomic<int> requests{0};
  server.Get(R"(.*)", [&](const httplib::Request&, httplib::Response& response) {
    ++requests;
    response.set_content("<!ENTITY leak \"LEAKED\">LEAKED", "text/plain");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { server.listen_after_bind(); });
  while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  test::TempDir dir;
  test::writeFile(dir / "secret.txt", "SECRET");
  const std::string base = "http://127.0.0.1:" + std::to_string(port);
  const std::string xml = "<!DOCTYPE rss SYSTEM \"" + base + "/rss.dtd\" [<!ENTITY net SYSTEM \"" + base +
                          "/e\"><!ENTITY file SYSTEM \"file://" + (dir / "secret.txt").string() + "\">" +
                          "<!ENTITY % pe SYSTEM \"" + base + "/pe\"> %pe;]>" +
                          "<rss><channel><title>a&net;b&file;c</title></channel></rss>";
  const std::string tree = renderXml(xml);
  auto streamed = RSSParser::withData(xml).fetch();
  server.stop();
  serving.join();

  EXPECT_EQ(requests.load(), 0);
  EXPECT_EQ(tree.find("SECRET"), std::string::npos) << tree;
  EXPECT_EQ(tree.find("LEAKED"), std::string::npos) << tree;
  ASSERT_TRUE(streamed) << streamed.error().message();
  EXPECT_EQ(streamed->title, "abc");
}

TEST(XMLReaderSafety, EntityBombsAndDeepNestingAreRefused) {
  std::string laughs = "<!DOCTYPE l [<!ENTITY l0 \"lol\">";
  for (int i = 1; i < 10; ++i) {
    laughs += "<!ENTITY l" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k) laughs += "&l" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  laughs += "]><l>&l9;</l>";
  EXPECT_FALSE(XMLReader::dictionaryForXMLData(laughs));
  EXPECT_FALSE(RSSParser::withData(laughs).fetch());

  // Linear entities, each below libxml2's own amplification check, still stop at the budget.
  std::string quadratic = "<!DOCTYPE q [<!ENTITY a \"" + std::string(10'000, 'x') + "\">]><q>";
  for (int i = 0; i < 2'000; ++i) quadratic += "&a;";
  quadratic += "</q>";
  auto blown = XMLReader::dictionaryForXMLData(quadratic);
  ASSERT_FALSE(blown);
  EXPECT_EQ(blown.error().code, kXmlErrorExpansionTooLarge);

  std::string deep;
  for (int i = 0; i < 100'000; ++i) deep += "<a>";
  EXPECT_FALSE(XMLReader::dictionaryForXMLData(deep));
  EXPECT_FALSE(RSSParser::withData(deep).fetch());
}

TEST(XMLReaderSafety, LimitsAreEnforcedWithTheirOwnCodes) {
  std::string wide = "<r>";
  for (int i = 0; i < 200; ++i) wide += "<i/>";
  wide += "</r>";
  std::string deep;
  for (int i = 0; i < 60; ++i) deep += "<a>";
  for (int i = 0; i < 60; ++i) deep += "</a>";

  const auto limits = [](std::size_t bytes, std::size_t elements, std::size_t depth) {
    XmlParseLimits limits;
    limits.maxDocumentBytes = bytes;
    limits.maxElements = elements;
    limits.maxDepth = depth;
    return limits;
  };
  struct Case {
    std::string xml;
    XmlParseLimits limits;
    int code;
  };
  const Case cases[] = {
      {wide, limits(100, 1000, 10), kXmlErrorDocumentTooLarge},
      {wide, limits(10'000, 100, 10), kXmlErrorTooManyElements},
      {deep, limits(10'000, 1000, 50), kXmlErrorTooDeep},
  };
  for (const auto& c : cases) {
    auto result = XMLReader::dictionaryForXMLData(c.xml, c.limits);
    ASSERT_FALSE(result) << c.code;
    EXPECT_EQ(result.error().code, c.code);
  }
  EXPECT_TRUE(XMLReader::dictionaryForXMLData(deep, limits(10'000, 1000, 60)));
}

}  // namespace
}  // namespace lectern
