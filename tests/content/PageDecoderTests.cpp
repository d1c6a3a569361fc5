#include <gtest/gtest.h>

#include <string>

#include "ContentTestSupport.h"
#include "content/PageDecoder.h"

namespace lectern {
namespace {

using test::contains;
using test::contentPage;

TEST(PageDecoder, PicksTheCharsetLikeABrowser) {
  struct Case {
    std::string name;
    std::string bytes;
    std::string transport;
    std::string text;
    std::string encoding;
  };
  const Case cases[] = {
      {"valid UTF-8 without a declaration", "caf\xC3\xA9", "", "caf\xC3\xA9", "UTF-8"},
      {"other bytes without a declaration are windows-1252",
       "\x93"
       "caf\xE9\x94",
       "",
       "\xE2\x80\x9C"
       "caf\xC3\xA9\xE2\x80\x9D",
       "windows-1252"},
      {"a declared Latin-1 is read as windows-1252", "<meta charset=\"ISO-8859-1\">\x80", "",
       "<meta charset=\"ISO-8859-1\">\xE2\x82\xAC", "windows-1252"},
      {"http-equiv declaration",
       "<META HTTP-EQUIV=\"Content-Type\" CONTENT=\"text/html; charset=koi8-r\">\xF0\xD2\xC9", "",
       "<META HTTP-EQUIV=\"Content-Type\" CONTENT=\"text/html; charset=koi8-r\">\xD0\x9F\xD1\x80\xD0\xB8",
       "koi8-r"},
      {"declared UTF-8 with a bad byte", "<meta charset=utf-8>caf\xE9", "",
       "<meta charset=utf-8>caf\xEF\xBF\xBD", "UTF-8"},
      {"an unknown charset falls back", "<meta charset=\"no-such-set\">caf\xE9", "",
       "<meta charset=\"no-such-set\">caf\xC3\xA9", "windows-1252"},
      {"a UTF-16 meta cannot be true", "<meta charset=\"utf-16\">caf\xC3\xA9", "",
       "<meta charset=\"utf-16\">caf\xC3\xA9", "UTF-8"},
      {"the transport's charset beats the page's", "<meta charset=utf-8>\xCF\xF0\xE8", "windows-1251",
       "<meta charset=utf-8>\xD0\x9F\xD1\x80\xD0\xB8", "windows-1251"},
      {"a byte-order mark beats everything", "\xEF\xBB\xBF<meta charset=koi8-r>caf\xC3\xA9", "latin1",
       "<meta charset=koi8-r>caf\xC3\xA9", "UTF-8"},
      {"UTF-16LE by its mark",
       std::string("\xFF\xFE"
                   "c\0a\0f\0\xE9\0",
                   10),
       "", "caf\xC3\xA9", "UTF-16LE"},
      {"NUL becomes U+FFFD", std::string("a\0b", 3), "",
       "a\xEF\xBF\xBD"
       "b",
       "UTF-8"},
  };
  for (const auto& c : cases) {
    const DecodedPage page = decodePage(c.bytes, c.transport);
    EXPECT_EQ(page.text, c.text) << c.name;
    EXPECT_EQ(page.encoding, c.encoding) << c.name;
  }
}

// Without a declaration, only well-formed UTF-8 is read as UTF-8, wherever the fault sits.
TEST(PageDecoder, TellsUTF8FromOtherBytes) {
  const std::pair<std::string_view, bool> cases[] = {
      {"\xF0\x9F\x98\x80 four bytes", true}, {"\xE2\x82\xAC three", true},
      {"\xC0\xAF overlong", false},          {"\xE0\x80\xAF overlong three", false},
      {"\xED\xA0\x80 surrogate", false},     {"\xF4\x90\x80\x80 past U+10FFFF", false},
      {"\x80 lone continuation", false},     {"\xF8\x88\x80\x80\x80 five bytes", false},
      {"truncated \xE2\x82", false},
  };
  for (const auto& [sequence, valid] : cases) {
    for (const std::string& lead :
         {std::string(), std::string("ascii run longer than a word "), std::string(7, 'a')}) {
      const std::string bytes = lead + std::string(sequence);
      EXPECT_EQ(decodePage(bytes).encoding, valid ? "UTF-8" : "windows-1252")
          << lead.size() << ": " << sequence;
    }
  }
}

TEST(PageDecoder, ConvertsLargePagesWhole) {
  // Five megabytes of euro signs need three times the room: more than the first guess.
  const DecodedPage page = decodePage(std::string(5 << 20, '\x80'));
  EXPECT_EQ(page.encoding, "windows-1252");
  ASSERT_EQ(page.text.size(), 15u << 20);
  EXPECT_EQ(page.text.substr(page.text.size() - 3), "\xE2\x82\xAC");
}

TEST(PageDecoder, FindsTheDeclarationOnlyNearTheTop) {
  EXPECT_EQ(declaredCharset("<head><META  CHARSET = 'Big5' ></head>"), "Big5");
  EXPECT_EQ(declaredCharset("<meta name=\"viewport\" content=\"width=device-width\"><meta charset=gbk>"),
            "gbk");
  EXPECT_EQ(declaredCharset("<meta name=\"description\" content=\"no charset here\">"), "");
  EXPECT_EQ(declaredCharset(std::string(9000, ' ') + "<meta charset=koi8-r>"), "");
  EXPECT_EQ(textAsUTF8(std::string("a\xFF\0", 3)), "a\xEF\xBF\xBD\xEF\xBF\xBD");
}

// The parser must not decode the text a second time by the page's own declaration.
TEST(PageDecoder, ExtractedTextIsUTF8WhateverThePageWasWrittenIn) {
  auto latin1 = QKContentParser::initWithData(contentPage("latin1-meta.html"));
  ASSERT_TRUE(latin1);
  EXPECT_TRUE(contains(latin1->fetchContent(), "Le caf\xC3\xA9 de la gare")) << latin1->fetchContent();
  EXPECT_EQ(latin1->title(), "Caf\xC3\xA9");

  auto japanese = QKContentParser::initWithData(contentPage("shift-jis-meta.html"));
  ASSERT_TRUE(japanese);
  EXPECT_TRUE(contains(japanese->fetchContent(), "\xE3\x81\x93\xE3\x82\x8C\xE3\x81\xAF"))
      << japanese->fetchContent();
  EXPECT_EQ(japanese->title(),
            "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE3\x83\x9A\xE3\x83\xBC\xE3\x82\xB8");

  // Text handed over as a string is already decoded, whatever its <meta> says.
  auto text = QKContentParser::initWithHTML(
      "<html><head><meta charset=\"iso-8859-1\"></head><body><div><p>Un caf\xC3\xA9 cr\xC3\xA8me, s'il vous "
      "pla\xC3\xAEt, et l'addition.</p></div></body></html>");
  ASSERT_TRUE(text);
  EXPECT_TRUE(contains(text->fetchContent(), "Un caf\xC3\xA9 cr\xC3\xA8me")) << text->fetchContent();
}

}  // namespace
}  // namespace lectern
