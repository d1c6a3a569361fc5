#include <gtest/gtest.h>

#include "core/Regex.h"

namespace lectern {
namespace {

TEST(Regex, GroupsAndByteOffsetsInUtf8Text) {
  // The image pattern the library uses to find pictures in article HTML.
  auto re = Regex::compileOrThrow("<img[^>]+src=\"([^\">]+)\"");
  const std::string html = "é <img alt=\"ü\" src=\"/a.png\"> and <img src=\"b.jpg\">";
  auto matches = re.allMatches(html);
  ASSERT_EQ(matches.size(), 2u);
  EXPECT_EQ(matches[0].group(1), "/a.png");
  EXPECT_EQ(matches[1].group(1), "b.jpg");
  // Offsets count bytes, so slicing the input gives the match back.
  EXPECT_EQ(html.substr(matches[0].begin(), matches[0].end() - matches[0].begin()), matches[0].text());
  EXPECT_EQ(html.substr(matches[1].groups[1].begin, 5), "b.jpg");
}

TEST(Regex, OptionalGroupThatDidNotTakePartIsEmpty) {
  auto re = Regex::compileOrThrow("(a)|(b)");
  auto m = re.firstMatch("b");
  ASSERT_TRUE(m);
  EXPECT_FALSE(m->groups[1].matched());
  EXPECT_EQ(m->group(1), "");
  EXPECT_EQ(m->group(2), "b");
  EXPECT_EQ(m->group(7), "");
}

TEST(Regex, ReplaceWithTemplatesAndCallbacks) {
  auto re = Regex::compileOrThrow("(\\w+)@(\\w+)");
  EXPECT_EQ(re.replaceAll("a@b, c@d", "$2 at $1"), "b at a, d at c");
  EXPECT_EQ(re.replaceFirst("a@b, c@d", "\\$1"), "$1, c@d");
  EXPECT_EQ(re.replaceAll("x@y", [](const RegexMatch& m) { return "<" + m.group(1) + ">"; }), "<x>");
  // Trimming as feed fields are trimmed: the first match of each anchor only.
  auto leading = Regex::compileOrThrow("^\\s*");
  EXPECT_EQ(leading.replaceFirst("\n  title \n", ""), "title \n");
}

TEST(Regex, OptionsAndBadPatterns) {
  EXPECT_TRUE(Regex::compileOrThrow("comment|meta", kRegexCaseInsensitive).search("Comment-Box"));
  EXPECT_FALSE(Regex::compileOrThrow("comment").search("Comment"));
  EXPECT_TRUE(Regex::compileOrThrow("^b", kRegexMultiline).search("a\nb"));
  auto bad = Regex::compile("(unclosed");
  ASSERT_FALSE(bad);
  EXPECT_NE(bad.error().description.find("(unclosed"), std::string::npos);
  EXPECT_THROW(Regex::compileOrThrow("[z-a]"), InternalInconsistency);
}

TEST(Regex, InvalidUtf8InputIsSearchedNotRejected) {
  auto re = Regex::compileOrThrow("ok");
  const std::string text = "\xff\xfe ok";
  auto m = re.firstMatch(text);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->begin(), 3u);
}

}  // namespace
}  // namespace lectern
