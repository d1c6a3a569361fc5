// The article renderer: HTML in, terminal lines out.
#include "app/text/ArticleText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/TestSupport.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Lines = std::vector<std::string>;

Lines render(std::string_view html, int width = 40, std::string_view base = {}) {
  return renderArticleText(html, width, base).lines;
}

TEST(ArticleText, ParagraphsWrapAtWordsAndStandApart) {
  EXPECT_EQ(render("<p>The quick brown fox jumps over the lazy dog.</p><p>Second\n   paragraph.</p>", 20),
            (Lines{"The quick brown fox", "jumps over the lazy", "dog.", "", "Second paragraph."}));
  // A line break starts a new line; white space at its ends goes.
  EXPECT_EQ(render("<div>one <br> two<br><br>three</div>"), (Lines{"one", "two", "", "three"}));
  // Text straight in the body, no block around it, and nothing at all.
  EXPECT_EQ(render("plain &amp; simple"), (Lines{"plain & simple"}));
  EXPECT_TRUE(render("").empty());
  EXPECT_TRUE(render("<script>alert(1)</script><style>p{}</style>").empty());
}

TEST(ArticleText, HeadingsAreUnderlinedAtTheTwoTopLevels) {
  EXPECT_EQ(render("<h1>Title</h1><p>Body</p><h2>Part</h2><h3>Small</h3>text"),
            (Lines{"Title", "=====", "", "Body", "", "Part", "----", "", "Small", "", "text"}));
}

TEST(ArticleText, NestedListsIndentAndNumbersFollowStart) {
  const auto lines = render(
      "<ul><li>alpha item that is long enough to wrap</li><li>beta<ul><li>inner</li>"
      "<li>deeper<ol start=\"3\"><li>three</li><li>four</li></ol></li></ul></li><li></li></ul><p>after</p>",
      30);
  EXPECT_EQ(lines, (Lines{"  * alpha item that is long",
                          "    enough to wrap",
                          "  * beta",
                          "    - inner",
                          "    - deeper",
                          "      3. three",
                          "      4. four",
                          "  *",
                          "",
                          "after"}));
}

TEST(ArticleText, QuotesArePrefixedAndPreformattedTextIsKept) {
  EXPECT_EQ(render("<p>in</p><blockquote><p>quoted words that wrap here</p><p>two</p></blockquote><p>out</p>", 20),
            (Lines{"in", "", "> quoted words that", "> wrap here", ">", "> two", "", "out"}));
  // Inside pre nothing is wrapped or collapsed; tabs become spaces to the next stop of eight.
  EXPECT_EQ(render("<pre>\nint main() {\n\treturn   0;  // a comment longer than the width\n}\n</pre>", 20),
            (Lines{"int main() {", "        return   0;  // a comment longer than the width", "}"}));
}

TEST(ArticleText, LinksAreNumberedResolvedAndListedOnce) {
  const auto text = renderArticleText(
      "<p>See <a href=\"/about\">about</a>, <a href=\"https://other.example/x\">this</a> and "
      "<a href=\"../about\">again</a>. <a href=\"#top\">top</a> <a href=\"javascript:go()\">go</a></p>"
      "<p><a href=\"pic.html\"><img src=\"a.png\" alt=\"A cat\"></a> <img src=\"b.png\"><a href=\"/icon\"> </a></p>",
      80, "https://blog.example/posts/1");
  EXPECT_THAT(text.lines, ElementsAre("See about[1], this[2] and again[1]. top go", "",
                                      "[image: A cat][3] [image]"));
  EXPECT_THAT(text.links, ElementsAre(ArticleLink{1, "https://blog.example/about"}, ArticleLink{2, "https://other.example/x"},
                                      ArticleLink{3, "https://blog.example/posts/pic.html"}));
  // Without a base the address stays as written.
  EXPECT_EQ(renderArticleText("<a href=\"/x\">x</a>", 40).links, (std::vector<ArticleLink>{{1, "/x"}}));
}

TEST(ArticleText, WideAndCombiningCharactersCountAsTheTerminalShowsThem) {
  EXPECT_EQ(displayWidth("abc"), 3u);
  EXPECT_EQ(displayWidth("日本語"), 6u);
  EXPECT_EQ(displayWidth("e\xCC\x81"), 1u);  // e and a combining acute accent
  EXPECT_EQ(displayWidth("\xF0\x9F\x98\x80"), 2u);  // an emoji
  // CJK text has no spaces: it breaks between characters, never past the width.
  const auto cjk = render("<p>日本語の文章はスペースなしで折り返されます。</p>", 10);
  ASSERT_GT(cjk.size(), 2u);
  for (const auto& line : cjk) EXPECT_LE(displayWidth(line), 10u) << line;
  std::string joined;
  for (const auto& line : cjk) joined += line;
  EXPECT_EQ(joined, "日本語の文章はスペースなしで折り返されます。");
  // A combining mark stays with its letter when a long word is cut.
  const auto cut = render("<p>" + std::string(7, 'a') + "e\xCC\x81" + "bbbb</p>", 8);
  EXPECT_EQ(cut, (Lines{"aaaaaaae\xCC\x81", "bbbb"}));
}

TEST(ArticleText, LongWordsAreCutAtTheWidth) {
  // An address breaks after its slashes, as the Unicode line-breaking rules allow.
  EXPECT_EQ(render("<p>short https://example.org/a/very/long/address/that/does/not/fit</p>", 16),
            (Lines{"short https://", "example.org/a/", "very/long/", "address/that/", "does/not/fit"}));
  EXPECT_EQ(render("<p>" + std::string(25, 'x') + "</p>", 10),
            (Lines{std::string(10, 'x'), std::string(10, 'x'), std::string(5, 'x')}));
}

TEST(ArticleText, MalformedHtmlAndControlCharactersAreSafe) {
  // Unclosed tags, stray end tags, a cut-off tag: what reads is shown.
  EXPECT_EQ(render("<p>one<p>two</b></i><ul><li>three<li>four</p><div"),
            (Lines{"one", "", "two", "", "  * three", "  * four"}));
  // An escape sequence in the text never reaches the terminal.
  for (const auto& line : render("<p>red \x1b[31mtext\x1b[0m&#27;[2J done \x07</p>")) {
    EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;
    EXPECT_EQ(line.find('\x07'), std::string::npos) << line;
  }
  EXPECT_EQ(terminalSafe("a\x1b" "b\xff"), "ab\xEF\xBF\xBD");
  // Very deep nesting is cut, not a crash.
  std::string deep;
  for (int i = 0; i < 5000; ++i) deep += "<div><blockquote>";
  deep += "bottom";
  EXPECT_NO_THROW(render(deep));
}

TEST(ArticleText, PageHasHeaderTextLinksAndEnclosures) {
  ArticleDocument document;
  document.title = "A title long enough to wrap";
  document.fields = {{"Feed", "The Daily"}, {"Author", ""}, {"Link", "https://d.example/1"}};
  document.html = "<p>Listen <a href=\"/ep1\">here</a>.</p>";
  document.baseUrl = "https://d.example/1";
  document.enclosures = {{"https://d.example/ep1.mp3", "audio/mpeg", 12'345'678}, {"https://d.example/x", "", {}}};
  EXPECT_EQ(renderArticlePage(document, 20).lines,
            (Lines{"A title long enough", "to wrap", "Feed:    The Daily", "Link:    https://d.example/1", "",
                   "Listen here[1].", "", "Links:", "  [1] https://d.example/ep1", "", "Enclosures:",
                   "  https://d.example/ep1.mp3  (audio/mpeg, 12.3 MB)", "  https://d.example/x"}));
  EXPECT_EQ(fitToWidth("日本語テキスト", 7), "日本語…");
  EXPECT_EQ(humanSize(512), "512 bytes");
  EXPECT_EQ(humanSize(900'000), "900 KB");
}

TEST(ArticleText, EveryCorpusPageRendersWithinTheWidthAndSafely) {
  LECTERN_SKIP_WITHOUT_CORPUS();
  size_t pages = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpusPath("pages"))) {
    if (entry.path().extension() != ".html") continue;
    ++pages;
    const std::string html = readFile(entry.path());
    const auto text = renderArticleText(html, 72, "https://example.org/dir/page.html");
    EXPECT_FALSE(text.lines.empty()) << entry.path().filename();
    // Only preformatted text may be wider than the line.
    const bool preformatted = html.find("<pre") != std::string::npos || html.find("<PRE") != std::string::npos ||
                              html.find("<xmp") != std::string::npos || html.find("<listing") != std::string::npos;
    for (const auto& line : text.lines) {
      if (!preformatted) {
        EXPECT_LE(displayWidth(line), 72u) << entry.path().filename() << ": " << line;
      }
      EXPECT_EQ(line, terminalSafe(line)) << entry.path().filename();
      EXPECT_EQ(line.find_first_of("\n\t"), std::string::npos) << entry.path().filename();
    }
    for (const auto& link : text.links) EXPECT_NE(link.url.find(':'), std::string::npos) << link.url;
  }
  EXPECT_GT(pages, 100u);
}

}  // namespace
}  // namespace lectern::test
