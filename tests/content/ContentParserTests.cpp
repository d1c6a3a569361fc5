#include <gtest/gtest.h>
#include <libxml/tree.h>

#include "ContentTestSupport.h"
#include "content/HtmlDocument.h"
#include "content/QKContentCandidates.h"
#include "content/QKContentParser.h"
#include "core/Log.h"

namespace lectern {
namespace {

using test::contains;
using test::contentPage;
using test::extract;

TEST(ContentConstruction, PlainConstructionIsRefusedWithFixedMessages) {
  try {
    QKContentParser parser;
    FAIL() << "a parser without a page was made";
  } catch (const InternalInconsistency& e) {
    EXPECT_STREQ(e.what(), "Must use initWithURL: instead.");
  }
  try {
    QKContentCandidate candidate;
    FAIL() << "a candidate without an element was made";
  } catch (const InternalInconsistency& e) {
    EXPECT_STREQ(e.what(), "Must use initWithElement:score:.");
  }
}

TEST(ContentCandidates, BestIsHighestAndEarliestAmongEquals) {
  xmlNodePtr first = xmlNewNode(nullptr, BAD_CAST "p");
  xmlNodePtr second = xmlNewNode(nullptr, BAD_CAST "div");
  xmlNodePtr third = xmlNewNode(nullptr, BAD_CAST "td");
  xmlNodeAddContent(first, BAD_CAST "a & b");
  QKContentCandidates candidates;
  EXPECT_EQ(candidates.selectBestCandidate(), nullptr);
  candidates.addContentCandidate(QKContentCandidate(first, 7));
  candidates.addContentCandidate(QKContentCandidate(second, 9));
  candidates.addContentCandidate(QKContentCandidate(third, 9));
  candidates.addContentCandidate(QKContentCandidate(first, 4));  // a second entry never shadows the first
  ASSERT_NE(candidates.selectBestCandidate(), nullptr);
  EXPECT_EQ(candidates.selectBestCandidate()->element(), second);
  EXPECT_EQ(candidates.candidateForElement(first)->score(), 7);
  EXPECT_TRUE(candidates.containsElement(third));
  EXPECT_EQ(candidates.candidateForElement(nullptr), nullptr);
  EXPECT_EQ(candidates.candidateForElement(first)->description(), "Element: <p>a &amp; b</p>... [Score: 7]");
  xmlFreeNode(first);
  xmlFreeNode(second);
  xmlFreeNode(third);
}

TEST(ContentExtraction, PagesWithoutCandidatesGiveTheEmptyString) {
  const auto page = extract(contentPage("no-candidate.html"));
  EXPECT_EQ(page.content, "");
  EXPECT_EQ(page.title, "Nothing to read");
  for (const std::string_view html : {"", "  \n\t ", "<html></html>", "a few words"}) {
    const auto nothing = extract(html);
    EXPECT_EQ(nothing.content, "") << html;
    EXPECT_EQ(nothing.title, "") << html;
  }
}

TEST(ContentExtraction, MinimumLengthDecidesWhichParagraphsScore) {
  const std::string page = contentPage("sibling-paragraph.html", "SIBLING", "");
  EXPECT_NE(extract(page).content, "");
  EXPECT_EQ(extract(page, [](QKContentParser& p) { p.setMinContentLength(1000); }).content, "");
}

TEST(ContentExtraction, DivOfTextAndSpansBecomesAScoredParagraph) {
  ScopedLogCapture log;
  auto parser = QKContentParser::initWithHTML(contentPage("misused-div.html"));
  ASSERT_TRUE(parser);
  const std::string content = parser->fetchContent();
  EXPECT_TRUE(contains(content, "<p id=\"lead\">A paragraph written as a div")) << content;
  EXPECT_TRUE(contains(content, "<p id=\"second\">")) << content;
  EXPECT_TRUE(contains(content, "<div id=\"linked\">")) << content;
  EXPECT_TRUE(log.contains("Altering div(#lead.intro) to p"));
  EXPECT_TRUE(log.contains("Altering div(#second.intro) to p"));
  EXPECT_FALSE(log.contains("Altering div(#linked."));
  // Scored as paragraphs, the two make their container the article.
  const auto* best = parser->candidates().selectBestCandidate();
  ASSERT_NE(best, nullptr);
  EXPECT_EQ(attribute(best->element(), "id"), "story");
}

TEST(ContentExtraction, InstapaperBodyOutranksALongerStory) {
  const std::string page = contentPage("instapaper-body.html");
  const auto weighted = extract(page);
  EXPECT_TRUE(contains(weighted.content, "INSTAPAPER-BODY first")) << weighted.content;
  EXPECT_FALSE(contains(weighted.content, "MAIN-STORY")) << weighted.content;
  // Without class weights only the text counts: the longer story leads (and the other, now
  // scoring above the sibling threshold, follows it).
  const auto unweighted = extract(page, [](QKContentParser& p) { p.setWeightClasses(false); });
  EXPECT_TRUE(unweighted.content.starts_with("<div><div id=\"one\">\n  <div id=\"main-story\">"))
      << unweighted.content;
}

// The sibling paragraph rules: a long one with few links, or a short sentence without any.
TEST(ContentExtraction, SiblingParagraphsJoinByLengthLinksAndSentenceEnd) {
  const auto text = [](size_t length, std::string_view ending) {
    std::string t = "SIBLING";
    while (t.size() + ending.size() < length) t += " x";
    t.resize(length - ending.size(), 'y');
    return t + std::string(ending);
  };
  struct Case {
    std::string name;
    std::string paragraph;
    bool joins;
  };
  const std::string sixty = text(60, ". ");
  const Case cases[] = {
      {"60 characters ending in a sentence", "<p>" + sixty + "</p>", true},
      {"the same with a link", "<p><a href=\"/x\">SIB</a>" + sixty.substr(3) + "</p>", false},
      {"60 characters without a sentence end", "<p>" + text(60, "y") + "</p>", false},
      {"79 characters ending in a period", "<p>" + text(79, ".") + "</p>", true},
      {"exactly 80 characters ending in a period", "<p>" + text(80, ".") + "</p>", false},
      {"81 characters without a sentence end", "<p>" + text(81, "y") + "</p>", true},
      {"100 characters, a fifth of them linked",
       "<p>" + text(80, "y") + "<a href=\"/x\">" + std::string(20, 'z') + "</a></p>", true},
      {"100 characters, 30 of them linked",
       "<p>" + text(70, "y") + "<a href=\"/x\">" + std::string(30, 'z') + "</a></p>", false},
      {"a long div that is no candidate", "<div><img src=\"a.png\"/>" + text(200, ". ") + "</div>", false},
  };
  for (const auto& c : cases) {
    const auto page = extract(contentPage("sibling-paragraph.html", "SIBLING", c.paragraph));
    EXPECT_TRUE(contains(page.content, "The first paragraph of the story")) << c.name;
    EXPECT_EQ(contains(page.content, "SIB"), c.joins) << c.name << "\n" << page.content;
  }
}

TEST(ContentExtraction, WellScoredSiblingsJoinAsDivs) {
  const std::string section =
      "<section id=\"more\">"
      "<p>SECTION-ONE is a paragraph long enough to score, with a comma, and then some more words.</p>"
      "<p>SECTION-TWO is a paragraph long enough to score, with a comma, and then some more words.</p>"
      "<p>SECTION-THREE is a paragraph long enough to score, with a comma, and then some more words.</p>"
      "</section>";
  const auto page = extract(contentPage("sibling-paragraph.html", "SIBLING", section));
  EXPECT_TRUE(contains(page.content, "<div id=\"more\"><p>SECTION-ONE")) << page.content;
  EXPECT_FALSE(contains(page.content, "<section")) << page.content;
}

TEST(ContentExtraction, AWeakTopCandidateStillMakesTheArticle) {
  // Its score (7) is below the sibling threshold of 10, but the article is built around it.
  const auto page =
      extract("<html><body><div id=\"only\"><p>Thirty characters without end</p></div></body></html>");
  EXPECT_EQ(page.content, "<div><div id=\"only\"><p>Thirty characters without end</p></div></div>");
}

TEST(ContentExtraction, SanitisingDropsClutterAndPresentationAttributes) {
  const auto page = extract(contentPage("clutter.html"));
  for (const std::string_view kept :
       {"The opening paragraph", "KEPT-HEADING", "MAYBE-TEXT", "id=\"opening\"", "href=\"/link\""}) {
    EXPECT_TRUE(contains(page.content, kept)) << kept << "\n" << page.content;
  }
  for (const std::string_view dropped :
       {"SCRIPT-TEXT", "color", "COMMENT-TEXT", "SIDEBAR-TEXT", "WIDGET-HEADING", "LINKED-HEADING",
        "AUTHOR-LINE", "NAV-LINK", "HEADER-TEXT", "FORM-TEXT", "style=", "class=", "align=", "rel="}) {
    EXPECT_FALSE(contains(page.content, dropped)) << dropped << "\n" << page.content;
  }
  EXPECT_EQ(page.title, "Cluttered page");
}

TEST(ContentExtraction, EmptyParagraphsGoOnlyWhenAsked) {
  const std::string page = contentPage("clutter.html");
  EXPECT_TRUE(contains(extract(page).content, "<p></p>"));
  EXPECT_FALSE(
      contains(extract(page, [](QKContentParser& p) { p.setRemoveEmptyNodes(true); }).content, "<p></p>"));
}

// The article is shown, never run: handlers, script links and scripts go; a browser reads the
// markup as written (an empty element is never "<a/>").
TEST(ContentExtraction, TheArticleIsInertHtml) {
  const auto page = extract(
      "<html><body><div id=\"only\"><p onclick=\"steal()\">Thirty characters without end</p>"
      "<a name=\"top\"></a><img src=\"a.png\" onerror=\"steal()\" OnLoad=\"steal()\"><br>"
      "<a href=\" JavaScript:steal()\">one</a><a href=\"java&#9;script:steal()\">two</a>"
      "<a href=\"/javascript:story\">three</a><img src=\"\njavascript:steal()\" alt=\"x\">"
      "<script>steal()</script></div></body></html>");
  EXPECT_EQ(page.content,
            "<div><div id=\"only\"><p>Thirty characters without end</p><a name=\"top\"></a>"
            "<img src=\"a.png\"/><br/><a>one</a><a>two</a><a href=\"/javascript:story\">three</a>"
            "<img alt=\"x\"/></div></div>");
  EXPECT_EQ(test::unsafeMarkup(page.content), "");
}

TEST(ContentExtraction, AnArticleCleanedEmptyIsAnOpenAndCloseTag) {
  // The only candidate has a negative class weight, so conditional cleaning removes it.
  const auto page = extract(
      "<html><body><div class=\"tool\"><p>A paragraph long enough to be scored "
      "here.</p></div></body></html>");
  EXPECT_EQ(page.content, "<div><div></div></div>");
}

TEST(ContentExtraction, ContentIsMadeOnceAndTheTitleOutlivesIt) {
  auto parser = QKContentParser::initWithHTML(contentPage("sibling-paragraph.html", "SIBLING", ""));
  ASSERT_TRUE(parser);
  const std::string first = parser->fetchContent();
  EXPECT_EQ(parser->fetchContent(), first);
  EXPECT_EQ(parser->title(), "Sibling paragraphs");
  EXPECT_TRUE(first.starts_with("<div><div>\n    <p>The first paragraph")) << first;
}

}  // namespace
}  // namespace lectern
