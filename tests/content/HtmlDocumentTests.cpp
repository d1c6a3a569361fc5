#include <gtest/gtest.h>

#include "ContentTestSupport.h"
#include "content/HtmlDocument.h"
#include "content/PageDecoder.h"

namespace lectern {
namespace {

// The one-walk shortcut for unions of name steps must select what libxml2's XPath selects,
// in the same order, before and after the tree is edited.
TEST(HtmlDocumentSelect, NameStepsSelectWhatXPathSelects) {
  const char* absolute[] = {"//*",
                            "//comment()",
                            "//script | //style",
                            "//p | //td | //div",
                            "//title",
                            "//h1 | //h2 | //h3 | //h4 | //h5 | //h6",
                            "//form | //header | //footer | //nav"};
  const char* relative[] = {".//table | .//ul | .//div", ".//a", ".//*"};
  for (const auto& name :
       {test::fixturePath("content/clutter.html"), test::corpusPath("pages/nytimes-1.html"),
        test::corpusPath("pages/wikipedia.html")}) {
    for (const bool edited : {false, true}) {
      auto document = HtmlDocument::parse(decodePage(test::readFile(name)).text);
      ASSERT_TRUE(document);
      HtmlDocument& page = **document;
      if (edited) {
        for (xmlNodePtr node : page.select("//p")) xmlNodeSetName(node, BAD_CAST "div");
        page.remove(page.select("//div").back());
      }
      ASSERT_GT(page.evaluateXPath("//*").size(), 5u);
      for (const char* xpath : absolute) {
        EXPECT_EQ(page.select(xpath), page.evaluateXPath(xpath)) << name.filename() << " " << xpath;
      }
      xmlNodePtr body = page.first("//body");
      ASSERT_NE(body, nullptr);
      for (const char* xpath : relative) {
        EXPECT_EQ(page.select(xpath, body), page.evaluateXPath(xpath, body))
            << name.filename() << " " << xpath;
      }
    }
  }
}

}  // namespace
}  // namespace lectern
