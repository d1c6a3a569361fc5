#include <gtest/gtest.h>

#include <filesystem>

#include "ContentTestSupport.h"
#include "content/HtmlDocument.h"
#include "content/PageDecoder.h"

namespace lectern {
namespace {

// The one-walk shortcut for unions of name steps must select what libxml2's XPath selects,
// in the same order, before and after the tree is edited.
void expectNameStepsSelectWhatXPathSelects(const std::filesystem::path& file) {
  const char* absolute[] = {"//*",
                            "//comment()",
                            "//script | //style",
                            "//p | //td | //div",
                            "//title",
                            "//h1 | //h2 | //h3 | //h4 | //h5 | //h6",
                            "//form | //header | //footer | //nav"};
  const char* relative[] = {".//table | .//ul | .//div", ".//a", ".//*"};
  for (const bool edited : {false, true}) {
    auto document = HtmlDocument::parse(decodePage(test::readFile(file)).text);
    ASSERT_TRUE(document);
    HtmlDocument& page = **document;
    if (edited) {
      for (xmlNodePtr node : page.select("//p")) xmlNodeSetName(node, BAD_CAST "div");
      page.remove(page.select("//div").back());
    }
    ASSERT_GT(page.evaluateXPath("//*").size(), 5u);
    for (const char* xpath : absolute) {
      EXPECT_EQ(page.select(xpath), page.evaluateXPath(xpath)) << file.filename() << " " << xpath;
    }
    xmlNodePtr body = page.first("//body");
    ASSERT_NE(body, nullptr);
    for (const char* xpath : relative) {
      EXPECT_EQ(page.select(xpath, body), page.evaluateXPath(xpath, body)) << file.filename() << " " << xpath;
    }
  }
}

TEST(HtmlDocumentSelect, NameStepsSelectWhatXPathSelects) {
  expectNameStepsSelectWhatXPathSelects(test::fixturePath("content/clutter.html"));
}

TEST(HtmlDocumentSelect, NameStepsSelectWhatXPathSelectsOnRealPages) {
  LECTERN_SKIP_WITHOUT_CORPUS();
  for (const char* name : {"pages/nytimes-1.html", "pages/wikipedia.html"}) {
    expectNameStepsSelectWhatXPathSelects(test::corpusPath(name));
  }
}

// libxml2 writes a childless element as "<x/>"; HTML readers only know that for void elements.
TEST(HtmlDocumentSerialize, EmptyElementsGetEndTagsAndVoidOnesStayShort) {
  auto document = HtmlDocument::parse(
      "<div id=\"a\"><a name=\"x\"></a><div></div><span></span><p></p><iframe src=\"f\"></iframe>"
      "<img src=\"i.png\"><br><hr><input name=\"q\"><b>bold</b></div>");
  ASSERT_TRUE(document);
  xmlNodePtr div = (*document)->first("//body/div");
  ASSERT_NE(div, nullptr);
  const std::string want =
      "<div id=\"a\"><a name=\"x\"></a><div></div><span></span><p></p><iframe src=\"f\"></iframe>"
      "<img src=\"i.png\"/><br/><hr/><input name=\"q\"/><b>bold</b></div>";
  EXPECT_EQ(HtmlDocument::serialize(div), want);
  // Writing leaves the tree as it was.
  EXPECT_EQ(HtmlDocument::serialize(div), want);
  EXPECT_EQ((*document)->first("//a")->children, nullptr);
  EXPECT_EQ(HtmlDocument::serialize((*document)->first("//span")), "<span></span>");
}

}  // namespace
}  // namespace lectern
