#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

#include "ContentTestSupport.h"
#include "core/Strings.h"

namespace lectern {
namespace {

using test::contains;

// Builds, extracts and checks the one promise every page gets: UTF-8 out, no crash.
std::string extractAnything(std::string_view bytes, std::string_view name) {
  auto parser = QKContentParser::initWithData(bytes);
  EXPECT_TRUE(parser) << name << ": " << (parser ? "" : parser.error().message());
  if (!parser) return {};
  std::string content = parser->fetchContent();
  EXPECT_TRUE(isValidUTF8(content)) << name;
  EXPECT_TRUE(isValidUTF8(parser->title())) << name;
  return content;
}

std::string nested(size_t depth, std::string_view open, std::string_view close, std::string_view inner) {
  std::string page;
  page.reserve(depth * (open.size() + close.size()) + inner.size());
  for (size_t i = 0; i < depth; ++i) page += open;
  page += inner;
  for (size_t i = 0; i < depth; ++i) page += close;
  return page;
}

TEST(ContentRobustness, BrokenAndStrangeInputGivesAResult) {
  std::mt19937 random(7);
  std::string binary(64 * 1024, '\0');
  for (char& byte : binary) byte = static_cast<char>(random() & 0xFF);
  const std::pair<std::string, std::string> inputs[] = {
      {"binary bytes", binary},
      {"NULs inside markup", std::string("<div class=\"content\"><p>a") + '\0' +
                                 "b, c, d, e, f, g, h, i, j, k, l, m, n" + '\0' + "</p></div>"},
      {"angle brackets", "<<<>>><p<p>>></p <div =\"\" class=>>"},
      {"unclosed everything",
       nested(2000, "<div class=\"post\"><p>Unclosed paragraph text, long enough to score.", "", "")},
      {"stray closing tags",
       "</p></div></body></html><p>After the end of the page, a paragraph still comes along.</p>"},
      {"a table never closed", nested(3000, "<table><tr><td>cell text with a comma, and words", "", "")},
      {"only a doctype", "<!DOCTYPE html>"},
      {"a comment never closed",
       "<div><p>Before the comment, some text to score here.</p><!-- and then nothing"},
      {"a script never closed",
       "<div><p>Before the script, some text to score here.</p><script>var x = '</div>"},
      {"entities and bad references",
       "<p>&amp;&#0;&#xD800;&#x110000;&bogus;&#99999999999; with more words, to score</p>"},
      {"invalid UTF-8 with a UTF-8 declaration",
       "<meta charset=utf-8><p>\xC3\x28 \xE2\x82 \xF0\x90\x28 and words to score</p>"},
  };
  for (const auto& [name, bytes] : inputs) extractAnything(bytes, name);
}

TEST(ContentRobustness, DeepNestingKeepsWhatCameBeforeIt) {
  const std::string article =
      "<div class=\"article\"><p>ARTICLE-TEXT before the deep part, long enough to be scored as a "
      "paragraph.</p>"
      "<p>More of the article, so that it clearly wins over anything the deep part could hold.</p></div>";
  for (const std::string_view tag : {"div", "span", "table", "p", "b"}) {
    const std::string open = "<" + std::string(tag) + ">";
    const std::string close = "</" + std::string(tag) + ">";
    const std::string page =
        "<html><body>" + article + nested(50'000, open, close, "deep") + "</body></html>";
    EXPECT_TRUE(contains(extractAnything(page, tag), "ARTICLE-TEXT")) << tag;
  }
}

TEST(ContentRobustness, TwentyMegabytePagesFinish) {
  std::string paragraph = "<p>";
  while (paragraph.size() < 2000)
    paragraph += "Text of a very long page, with commas, and <a href=\"/l\">a link</a> now and then. ";
  paragraph += "</p>";

  // Many paragraphs in many containers.
  std::string wide = "<html><head><title>Wide</title></head><body>";
  for (int section = 0; wide.size() < 20'000'000; ++section) {
    wide += "<div class=\"entry\" id=\"s" + std::to_string(section) + "\">";
    for (int i = 0; i < 20; ++i) wide += paragraph;
    wide += "</div>";
  }
  EXPECT_TRUE(contains(extractAnything(wide + "</body></html>", "wide"), "Text of a very long page"));

  // Nested scored containers around all the text: each level is measured, which must not cost a
  // walk of everything below it per level.
  std::string text;
  while (text.size() < 20'000'000) text += paragraph;
  const std::string deep = nested(240, "<div class=\"content\">", "</div>", text);
  EXPECT_FALSE(extractAnything(deep, "deep").empty());
}

TEST(ContentRobustness, OversizedPagesAreRefused) {
  const std::string huge(QKContentParser::kMaxPageBytes + 1, ' ');
  const auto fromData = QKContentParser::initWithData(huge);
  ASSERT_FALSE(fromData);
  EXPECT_EQ(fromData.error().domain, kLecternErrorDomain);
  EXPECT_EQ(fromData.error().code, kContentPageTooLarge);
  const auto fromText = QKContentParser::initWithHTML(huge);
  ASSERT_FALSE(fromText);
  EXPECT_EQ(fromText.error().code, kContentPageTooLarge);
}

TEST(ContentRobustness, EveryCorpusPageGivesAResult) {
  LECTERN_SKIP_WITHOUT_CORPUS();
  size_t pages = 0;
  size_t withText = 0;
  for (const auto& entry : std::filesystem::directory_iterator(test::corpusPath("pages"))) {
    if (entry.path().extension() != ".html") continue;
    ++pages;
    const std::string content =
        extractAnything(test::readFile(entry.path()), entry.path().filename().string());
    if (content.size() > 200) ++withText;
    EXPECT_EQ(test::unsafeMarkup(content), "") << entry.path().filename();
  }
  ASSERT_GT(pages, 100u);
  // Nearly all of them are real articles: a scoring fault shows as a collapse of this count.
  EXPECT_GT(withText, pages * 4 / 5) << withText << " of " << pages;
}

}  // namespace
}  // namespace lectern
