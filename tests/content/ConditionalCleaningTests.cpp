#include <gtest/gtest.h>

#include <string>

#include "ContentTestSupport.h"
#include "core/Log.h"

namespace lectern {
namespace {

using test::contains;
using test::contentPage;

// A block inside an article of four long paragraphs without commas, so that only the block's
// text decides whether the article's elements reach the tests that follow the comma count.
std::string articleWith(const std::string& block) {
  return contentPage("conditional-cleaning.html", "BLOCK", block);
}

// "BLOCK-MARKER, ab, ab..." with `commas` commas: 52 characters for ten.
std::string marker(int commas) {
  std::string text = "BLOCK-MARKER";
  for (int i = 0; i < commas; ++i) text += ", ab";
  return text;
}

struct Cleaned {
  std::string content;
  std::vector<std::string> log;
};

Cleaned clean(const std::string& html, bool cleanConditionally = true) {
  ScopedLogCapture capture;
  auto parser = QKContentParser::initWithHTML(html);
  EXPECT_TRUE(parser);
  if (!parser) return {};
  parser->setCleanConditionally(cleanConditionally);
  Cleaned result;
  result.content = parser->fetchContent();
  for (const auto& line : capture.messages()) {
    if (line.starts_with("Conditionally cleaned")) result.log.push_back(line);
  }
  return result;
}

bool logged(const Cleaned& cleaned, std::string_view text) {
  for (const auto& line : cleaned.log) {
    if (contains(line, text)) return true;
  }
  return false;
}

// Each reason, and the comma rule in front of them all: the block is judged only when its text
// holds ten commas or more; with nine it stays whatever it carries.
TEST(ConditionalCleaning, ReasonsApplyOnlyFromTenCommas) {
  struct Case {
    std::string reason;
    std::string (*block)(int commas);
  };
  const Case cases[] = {
      {"too many images",
       [](int n) {
         return "<div id=\"block\"><p>" + marker(n) + "</p><img src=\"a.png\"/><img src=\"b.png\"/></div>";
       }},
      {"more <li>s than <p>s",
       [](int n) {
         std::string items;
         for (int i = 0; i < 102; ++i) items += "<li>x</li>";
         return "<div id=\"block\"><p>" + marker(n) + "</p><ul>" + items + "</ul></div>";
       }},
      {"less than 3x <p>s than <input>s",
       [](int n) { return "<div id=\"block\"><p>" + marker(n) + "</p><input name=\"q\"/></div>"; }},
      {"too short a content length without a single image",
       [](int n) {
         return "<div id=\"block\"><pre>" + std::string(static_cast<size_t>(n), ',') + "</pre></div>";
       }},
      {"too many links for its weight (0)",
       [](int n) {
         return "<div id=\"block\"><p>" + marker(n) +
                " <a href=\"/x\">a link whose text is long enough to outweigh the rest</a></p></div>";
       }},
      {"<embed>s with too short a content length, or too many <embed>s",
       [](int n) { return "<div id=\"block\"><p>" + marker(n) + "</p><embed src=\"a.swf\"/></div>"; }},
  };
  for (const auto& c : cases) {
    const Cleaned judged = clean(articleWith(c.block(10)));
    EXPECT_FALSE(contains(judged.content, "id=\"block\"")) << c.reason << "\n" << judged.content;
    EXPECT_TRUE(logged(judged, "div#block. with weight 0")) << c.reason;
    EXPECT_TRUE(logged(judged, "because it has " + c.reason + ".")) << c.reason;
    EXPECT_EQ(judged.log.size(), 1u) << c.reason << ": only the block goes";

    const Cleaned spared = clean(articleWith(c.block(9)));
    EXPECT_TRUE(contains(spared.content, "id=\"block\"")) << c.reason << "\n" << spared.content;
    EXPECT_TRUE(spared.log.empty()) << c.reason << ": " << (spared.log.empty() ? "" : spared.log.front());

    EXPECT_TRUE(
        contains(clean(articleWith(c.block(10)), /*cleanConditionally=*/false).content, "id=\"block\""))
        << c.reason;
  }
}

TEST(ConditionalCleaning, LogLinesCarryNameIdClassWeightAndScore) {
  const Cleaned images = clean(articleWith("<div id=\"block\" class=\"gallery\"><p>" + marker(10) +
                                           "</p><img src=\"a.png\"/><img src=\"b.png\"/></div>"));
  // The block is scored as the parent of its paragraph: 5 for a div, 1 + 11 pieces for the text.
  EXPECT_EQ(images.log,
            std::vector<std::string>{"Conditionally cleaned div#block.gallery with weight 0 and content "
                                     "score 17 because it has too many images."});

  const Cleaned negative = clean(articleWith("<div id=\"block\" class=\"widget\"><p>short words</p></div>"));
  EXPECT_EQ(negative.log,
            std::vector<std::string>{"Conditionally cleaned div #block.widget with weight -25 and "
                                     "content score 0 because score + content score was less than zero."});
  EXPECT_FALSE(contains(negative.content, "short words"));
}

TEST(ConditionalCleaning, ListsMayHoldMoreItemsThanParagraphs) {
  std::string items;
  for (int i = 0; i < 102; ++i) items += "<li>" + std::string(i < 10 ? "item, " : "item") + "</li>";
  const Cleaned list = clean(articleWith("<ul id=\"block\">" + items + "</ul>"));
  EXPECT_TRUE(contains(list.content, "<ul id=\"block\">")) << list.content;
  EXPECT_TRUE(list.log.empty());
  const Cleaned div = clean(articleWith("<div id=\"block\"><ul>" + items + "</ul></div>"));
  EXPECT_FALSE(contains(div.content, "id=\"block\""));
  EXPECT_TRUE(
      logged(div, "div#block. with weight 0 and content score 0 because it has more <li>s than <p>s."));
}

}  // namespace
}  // namespace lectern
