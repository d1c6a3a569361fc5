// The desktop article page: the document, its header, the body sanitiser, players, images, themes.
// Every check re-reads the page with libxml2's HTML parser and looks at elements and attributes.
#include "app/desktop/ArticleTemplate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>

#include "app/desktop/ArticleBody.h"
#include "content/HtmlDocument.h"
#include "core/Dates.h"
#include "core/Strings.h"

namespace lectern::desktop {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::string_view kArticleUrl = "https://example.com/posts/1";
constexpr std::string_view kSandbox = "allow-scripts allow-same-origin allow-presentation";

std::unique_ptr<HtmlDocument> reparse(const std::string& html) {
  auto document = HtmlDocument::parse(html);
  if (!document) throw std::runtime_error("the page did not parse");
  return std::move(*document);
}

struct Rendered {
  std::string html;
  std::unique_ptr<HtmlDocument> document;

  std::vector<xmlNodePtr> all(const char* xpath) const { return document->select(xpath); }
  xmlNodePtr one(const char* xpath) const { return document->first(xpath); }
  xmlNodePtr body() const { return one("//div[@class='lectern-body']"); }
  std::string text(const char* xpath) const { return textContent(one(xpath)); }
};

Rendered render(const ArticlePage& page, const ArticleStyle& style = {}, const CachedImageLookup& images = {}) {
  Rendered rendered{renderArticleHtml(page, style, images), nullptr};
  rendered.document = reparse(rendered.html);
  return rendered;
}

Rendered renderBody(std::string body, const CachedImageLookup& images = {}) {
  ArticlePage page;
  page.title = "Title";
  page.url = kArticleUrl;
  page.bodyHtml = std::move(body);
  return render(page, {}, images);
}

bool isScriptUrl(std::string value) {
  std::erase_if(value, [](char c) { return static_cast<unsigned char>(c) <= 0x20; });
  value = toLowerASCII(value);
  return value.find("javascript:") != std::string::npos || value.find("vbscript:") != std::string::npos ||
         value.starts_with("data:text");
}

// Whatever in a page could run code, load a plug-in, submit, restyle the page or frame a
// document other than a video player, one line each.
std::vector<std::string> hazards(const Rendered& page) {
  std::vector<std::string> found;
  for (xmlNodePtr node : page.all("//*")) {
    const std::string name(elementName(node));
    static const std::set<std::string> kForbidden = {"script", "object", "embed", "applet", "form", "input",
                                                     "button", "textarea", "select", "svg", "math", "link",
                                                     "frame", "frameset", "noscript", "template"};
    if (kForbidden.contains(name)) found.push_back("element " + name);
    const bool inHead = isElement(node->parent, "head");
    if ((name == "style" || name == "meta" || name == "base") && !inHead) found.push_back("element " + name);
    if (name == "iframe") {
      const std::string src = attribute(node, "src");
      if (!src.starts_with("https://www.youtube-nocookie.com/embed/") &&
          !src.starts_with("https://player.vimeo.com/video/")) {
        found.push_back("frame " + src);
      }
      if (attribute(node, "sandbox") != kSandbox) found.push_back("unsandboxed frame");
    }
    for (xmlAttrPtr attr = node->properties; attr; attr = attr->next) {
      const std::string attrName = toLowerASCII(reinterpret_cast<const char*>(attr->name));
      const std::string value = attribute(node, attrName.c_str());
      if (attrName.starts_with("on") || attrName == "srcdoc" || attrName == "style" || attrName == "formaction" ||
          attrName == "action" || isScriptUrl(value)) {
        found.push_back(name + " " + attrName + "=" + value);
      }
    }
  }
  if (page.all("//head/base").size() > 1) found.push_back("a second base");
  return found;
}

TEST(ArticlePage, IsACompleteDocumentWhosePolicyComesFirstAndForbidsScripts) {
  const auto page = renderBody("<p>Hello</p>");
  EXPECT_TRUE(page.html.starts_with("<!DOCTYPE html>"));
  const xmlNodePtr head = page.one("//head");
  ASSERT_NE(head, nullptr);
  xmlNodePtr first = head->children;
  while (first && first->type != XML_ELEMENT_NODE) first = first->next;
  ASSERT_TRUE(isElement(first, "meta"));
  EXPECT_EQ(attribute(first, "http-equiv"), "Content-Security-Policy");
  const std::string policy = attribute(first, "content");
  for (const char* directive : {"default-src 'none'", "script-src 'none'", "object-src 'none'", "form-action 'none'",
                                "img-src * data: file:", "media-src * data: file:", "style-src 'unsafe-inline'",
                                "frame-src https://www.youtube-nocookie.com https://player.vimeo.com;"}) {
    EXPECT_THAT(policy, HasSubstr(directive));
  }
  // Our own base must be allowed, and no other.
  EXPECT_THAT(policy, HasSubstr("base-uri 'self' https://example.com;"));
  EXPECT_EQ(attribute(page.one("//meta[@charset]"), "charset"), "utf-8");
  ASSERT_EQ(page.all("//base").size(), 1u);
  EXPECT_EQ(attribute(page.one("//base"), "href"), kArticleUrl);
  EXPECT_EQ(page.text("//div[@class='lectern-body']/p"), "Hello");
}

TEST(ArticlePage, HeaderFieldsAreEscapedTextAndEmptyOnesAreLeftOut) {
  ArticlePage article;
  article.title = "<script>alert(\"x\")</script> & \"quoted\" 'too'";
  article.feed = "<b>Feed</b> & co";
  article.author = "O'Brien \"<i>\"";
  article.url = "https://example.com/a?b=1&c=\"><script>x</script>";
  article.date = dateFromSecondsSince1970(1795529100);  // 2026-11-24T14:05:00Z
  article.readable = true;
  ArticleStyle style;
  style.timeZone = "Europe/London";
  const auto page = render(article, style);
  EXPECT_THAT(hazards(page), ::testing::IsEmpty());
  EXPECT_EQ(page.text("//h1[@class='lectern-title']"), article.title);
  EXPECT_EQ(page.text("//title"), article.title);
  EXPECT_EQ(attribute(page.one("//h1/a"), "href"), article.url);
  EXPECT_EQ(page.text("//span[@class='lectern-feed']"), article.feed);
  EXPECT_EQ(page.text("//span[@class='lectern-author']"), article.author);
  EXPECT_EQ(attribute(page.one("//time"), "datetime"), "2026-11-24T14:05:00Z");
  EXPECT_THAT(page.text("//time"), HasSubstr("14:05"));
  EXPECT_NE(page.one("//span[@class='lectern-readable']"), nullptr);
  EXPECT_TRUE(page.all("//header//b | //header//i").empty());

  // Nothing to show: no title, no byline; a title without a usable address is not a link.
  ArticlePage bare;
  bare.url = "javascript:alert(1)";
  EXPECT_EQ(render(bare).one("//h1"), nullptr);
  EXPECT_EQ(render(bare).one("//p[@class='lectern-byline']"), nullptr);
  EXPECT_EQ(render(bare).one("//base"), nullptr);
  bare.title = "Only a title";
  bare.author = "  ";
  const auto titled = render(bare);
  EXPECT_EQ(titled.text("//h1"), "Only a title");
  EXPECT_EQ(titled.one("//h1/a"), nullptr);
  EXPECT_EQ(titled.one("//p[@class='lectern-byline']"), nullptr);
}

TEST(ArticlePage, DatesAreWrittenOutInTheReadersZone) {
  const Date date = dateFromSecondsSince1970(1795529100);  // 2026-11-24T14:05:00Z
  EXPECT_EQ(articleDateString(date, "Europe/London", "en"), "Tuesday 24 November 2026, 14:05");
  EXPECT_EQ(articleDateString(date, "America/New_York", "en"), "Tuesday 24 November 2026, 09:05");
  EXPECT_EQ(articleDateString(date, "Pacific/Kiritimati", "en"), "Wednesday 25 November 2026, 04:05");
}

TEST(ArticleBody, HostileMarkupLeavesNothingThatRunsAndKeepsTheText) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"<p>a<script>alert(1)</script>b</p>", "ab"},
      {"<SCRIPT SRC=//evil.example/x.js></SCRIPT><ScRiPt>alert(1)</sCrIpT>keep", "keep"},
      {"<scr<script>ipt>alert(1)</script>keep", "ipt>alert(1)keep"},  // text, as a browser shows it
      {"<img src=x onerror=alert(1) ONLOAD=alert(2)>keep", "keep"},
      {"<a href=\"jav&#x09;ascript:alert(1)\">keep</a>", "keep"},
      {"<a href=\"&#106;&#97;&#118;&#97;&#115;&#99;&#114;&#105;&#112;&#116;&#58;alert(1)\">keep</a>", "keep"},
      {"<a href=\" \n JaVaScRiPt:alert(1)\">keep</a><a href=\"vbscript:msgbox(1)\">!</a>", "keep!"},
      {"<a href=\"data:text/html;base64,PHNjcmlwdD5hbGVydCgxKTwvc2NyaXB0Pg==\">keep</a>", "keep"},
      {"<svg onload=alert(1)><script>alert(1)</script><a xlink:href=\"javascript:alert(1)\">x</a></svg>keep", "keep"},
      {"<math><mtext><table><mglyph><style><img src=x onerror=alert(1)>", ""},
      {"<iframe srcdoc=\"<script>alert(1)</script>\"></iframe>keep", "keep"},
      {"<iframe src=\"javascript:alert(1)\"></iframe><iframe src=\"data:text/html,x\"></iframe>keep", "keep"},
      {"<object data=\"x.swf\"><param name=a value=b></object><embed src=\"x.swf\"><applet code=x></applet>keep",
       "keep"},
      {"<form action=\"javascript:alert(1)\"><button formaction=\"javascript:alert(1)\">b</button>"
       "<input onfocus=alert(1) autofocus><textarea>t</textarea>keep</form>",
       "keep"},
      {"<style>body{display:none}</style><link rel=stylesheet href=//evil.example/x.css>"
       "<meta http-equiv=refresh content=\"0;url=javascript:alert(1)\"><base href=\"javascript:/\">keep",
       "keep"},
      {"<div style=\"background:url(javascript:alert(1))\" class=\"lectern-header\">keep</div>", "keep"},
      {"<noscript><p title=\"</noscript><img src=x onerror=alert(1)>\">keep</p></noscript>", "keep"},
      {"<!--<script>alert(1)</script>--><![CDATA[<script>alert(1)</script>]]>keep", "![CDATA[]]>keep"},
      {"<video src=x onerror=alert(1) autoplay><source src=y onerror=alert(1)></video>"
       "<details open ontoggle=alert(1)>keep</details>",
       "keep"},
      {"<img src=\"x\" srcset=\"javascript:alert(1) 1x, https://ok.example/a.png 2x\">keep", "keep"},
      {"<a href=\"javascript&colon;alert(1)\">keep</a>", "keep"},
  };
  for (const auto& [html, text] : cases) {
    const auto page = renderBody(std::string(html));
    EXPECT_THAT(hazards(page), ::testing::IsEmpty()) << html;
    ASSERT_NE(page.body(), nullptr) << html;
    EXPECT_EQ(trim(textContent(page.body())), text) << html;
  }
}

TEST(ArticleBody, OrdinaryMarkupStays) {
  const auto page = renderBody(
      "<h2>Part</h2><p>A <a href=\"/other\" target=_blank>link</a>, <em>stress</em> and <code>x&lt;y</code>.</p>"
      "<figure><img src=\"pic.jpg\" alt=\"A picture\"><figcaption>Caption</figcaption></figure>"
      "<ul><li>one</li></ul><ol start=3><li>three</li></ol><blockquote cite=\"https://q.example\">Q</blockquote>"
      "<pre><code>int main() {}</code></pre><table><tr><th>h</th><td colspan=2>d</td></tr></table>"
      "<video src=\"https://cdn.example/v.mp4\" poster=\"p.jpg\"></video><audio src=\"a.mp3\"></audio>"
      "<picture><source srcset=\"b.webp\" type=\"image/webp\"><img src=\"b.jpg\"></picture>"
      "<p><a href=\"mailto:me@example.com\">mail</a></p><p id=w>long<wbr>word</p>"
      "<p><a id=q href=\"/search?a=1&amp;b=%22x%22\">query</a></p>");
  EXPECT_THAT(hazards(page), ::testing::IsEmpty());
  for (const char* xpath : {"//h2", "//p/a", "//em", "//code", "//figure/img", "//figcaption", "//ul/li", "//ol",
                            "//blockquote", "//pre/code", "//table//th", "//td", "//video", "//audio",
                            "//picture/source", "//picture/img"}) {
    EXPECT_NE(page.one(xpath), nullptr) << xpath;
  }
  EXPECT_EQ(attribute(page.one("//p/a"), "href"), "/other");  // resolved by the base
  EXPECT_EQ(page.one("//p/a[@target]"), nullptr);
  EXPECT_EQ(attribute(page.one("//ol"), "start"), "3");
  EXPECT_EQ(attribute(page.one("//td"), "colspan"), "2");
  EXPECT_EQ(attribute(page.one("//figure/img"), "alt"), "A picture");
  EXPECT_EQ(page.text("//code"), "x<y");
  EXPECT_NE(page.one("//video[@controls]"), nullptr);
  EXPECT_NE(page.one("//audio[@controls]"), nullptr);
  EXPECT_EQ(attribute(page.one("//a[starts-with(@href, 'mailto:')]"), "href"), "mailto:me@example.com");
  EXPECT_EQ(attribute(page.one("//a[@id='q']"), "href"), "/search?a=1&b=%22x%22");  // escaped once, not twice
  // libxml2 puts what follows <wbr> inside it; a browser would not.
  ASSERT_NE(page.one("//p[@id='w']/wbr"), nullptr);
  EXPECT_EQ(page.one("//p[@id='w']/wbr")->children, nullptr);
  EXPECT_EQ(page.text("//p[@id='w']"), "longword");
}

TEST(VideoEmbedUrl, KnowsEachFormOfBothServices) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"https://www.youtube.com/watch?v=dQw4w9WgXcQ", "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ"},
      {"https://youtube.com/watch?feature=share&v=dQw4w9WgXcQ&t=1m30s",
       "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ?start=90"},
      {"https://m.youtube.com/watch?v=dQw4w9WgXcQ", "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ"},
      {"http://youtu.be/dQw4w9WgXcQ?t=42", "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ?start=42"},
      {"https://www.youtube.com/embed/dQw4w9WgXcQ?start=10&autoplay=1",
       "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ?start=10"},
      {"https://www.youtube.com/shorts/dQw4w9WgXcQ", "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ"},
      {"https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ", "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ"},
      {"//www.youtube.com/embed/a-b_c-d_e-f", "https://www.youtube-nocookie.com/embed/a-b_c-d_e-f"},
      {"HTTPS://WWW.YOUTUBE.COM./watch?v=dQw4w9WgXcQ", "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ"},
      {"https://vimeo.com/76979871", "https://player.vimeo.com/video/76979871"},
      {"https://vimeo.com/76979871#t=1m2s", "https://player.vimeo.com/video/76979871#t=62s"},
      {"https://vimeo.com/76979871/0a1b2c", "https://player.vimeo.com/video/76979871?h=0a1b2c"},
      {"https://player.vimeo.com/video/76979871?h=0a1b2c&autoplay=1",
       "https://player.vimeo.com/video/76979871?h=0a1b2c"},
      {"https://vimeo.com/channels/staffpicks/76979871", "https://player.vimeo.com/video/76979871"},
  };
  for (const auto& [url, player] : cases) EXPECT_EQ(videoEmbedUrl(url), std::string(player)) << url;
}

TEST(VideoEmbedUrl, RefusesLookAlikeHostsAndIdsOfTheWrongShape) {
  const std::string_view refused[] = {
      "https://youtube.com.evil.example/watch?v=dQw4w9WgXcQ",
      "https://evilyoutube.com/watch?v=dQw4w9WgXcQ",
      "https://youtube.com@evil.example/watch?v=dQw4w9WgXcQ",
      "https://me@youtube.com/watch?v=dQw4w9WgXcQ",
      "https://www.youtube.com:8080/watch?v=dQw4w9WgXcQ",
      "https://evil.example/?u=https://youtu.be/dQw4w9WgXcQ",
      "javascript:alert(1)//youtube.com/watch?v=dQw4w9WgXcQ",
      "ftp://youtube.com/watch?v=dQw4w9WgXcQ",
      "https://www.youtube.com/watch?v=dQw4w9WgXc\"",
      "https://www.youtube.com/watch?v=dQw4w9WgXc%22",
      "https://www.youtube.com/watch?v=dQw4w9WgXcQQ",
      "https://youtu.be/dQw4w9WgXc'",
      "https://www.youtube.com/embed/dQw4w9WgXcQ/../x",
      "https://www.youtube.com/channel/UC38IQsAvIsxxjztdMZQtwHA",
      "https://vimeo.com/abc",
      "https://vimeo.com/123abc",
      "https://player.vimeo.com/video/1%22onload%3D",
      "https://vimeo.com.evil.example/76979871",
      "not a url",
      "",
  };
  for (const auto url : refused) EXPECT_EQ(videoEmbedUrl(url), std::nullopt) << url;
  // A start time that is not one is dropped, never copied.
  EXPECT_EQ(videoEmbedUrl("https://youtu.be/dQw4w9WgXcQ?t=\"><b>"), "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ");
}

TEST(ArticleBody, StandAloneVideoLinksAndPlayerFramesBecomeSandboxedPlayers) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"<p><a href=\"https://youtu.be/dQw4w9WgXcQ\">https://youtu.be/dQw4w9WgXcQ</a></p>",
       "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ"},
      {"<p>Intro</p><p>\n  https://vimeo.com/76979871 <br></p>", "https://player.vimeo.com/video/76979871"},
      {"<iframe src=\"https://www.youtube.com/embed/dQw4w9WgXcQ?autoplay=1\" onload=\"x()\" width=9></iframe>",
       "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ"},
      {"<p><iframe src=\"//player.vimeo.com/video/76979871\"></iframe></p>", "https://player.vimeo.com/video/76979871"},
  };
  for (const auto& [html, player] : cases) {
    const auto page = renderBody(std::string(html));
    EXPECT_THAT(hazards(page), ::testing::IsEmpty()) << html;
    const auto frames = page.all("//iframe");
    ASSERT_EQ(frames.size(), 1u) << html;
    EXPECT_EQ(attribute(frames[0], "src"), player);
    EXPECT_EQ(attribute(frames[0], "sandbox"), kSandbox);
    EXPECT_NE(xmlHasProp(frames[0], reinterpret_cast<const xmlChar*>("allowfullscreen")), nullptr);
    EXPECT_FALSE(attribute(frames[0], "referrerpolicy").empty());
    EXPECT_EQ(attribute(frames[0]->parent, "class"), "lectern-video");
  }
  // A video link inside a sentence stays a link; other frames become links to what they showed.
  const auto inline_ = renderBody("<p>Watch <a href=\"https://youtu.be/dQw4w9WgXcQ\">this</a> now</p>"
                                  "<iframe src=\"https://maps.example/embed?q=1\"></iframe>"
                                  "<iframe src=\"https://youtube.com.evil.example/embed/dQw4w9WgXcQ\"></iframe>");
  EXPECT_TRUE(inline_.all("//iframe").empty());
  EXPECT_NE(inline_.one("//a[@href='https://youtu.be/dQw4w9WgXcQ']"), nullptr);
  EXPECT_NE(inline_.one("//a[@href='https://maps.example/embed?q=1']"), nullptr);
  EXPECT_NE(inline_.one("//a[@href='https://youtube.com.evil.example/embed/dQw4w9WgXcQ']"), nullptr);
}

TEST(ArticleBody, AVideoArticleWithNoTextShowsItsPlayer) {
  ArticlePage article;
  article.title = "A video";
  article.url = "https://www.youtube.com/watch?v=dQw4w9WgXcQ";
  EXPECT_EQ(attribute(render(article).one("//iframe"), "src"), "https://www.youtube-nocookie.com/embed/dQw4w9WgXcQ");
  article.bodyHtml = "<div> <br> </div>";
  EXPECT_EQ(render(article).all("//iframe").size(), 1u);
  article.bodyHtml = "<p>A description of the video.</p>";
  EXPECT_TRUE(render(article).all("//iframe").empty());
  article.bodyHtml = "<img src=\"https://i.ytimg.com/vi/dQw4w9WgXcQ/hq.jpg\">";
  EXPECT_TRUE(render(article).all("//iframe").empty());
}

TEST(ArticleBody, CachedPicturesComeFromTheirFilesAndEveryPictureLoadsLazily) {
  const std::map<std::string, std::filesystem::path> cache = {
      {"https://example.com/img/a.png", "/cache/images/a b#1.png"},
      {"https://cdn.example/c-1x.png", "/cache/images/c.png"},
  };
  std::vector<std::string> asked;
  const CachedImageLookup lookup = [&](std::string_view url) -> std::optional<std::filesystem::path> {
    asked.emplace_back(url);
    const auto found = cache.find(std::string(url));
    if (found == cache.end()) return std::nullopt;
    return found->second;
  };
  const auto page = renderBody(
      "<p><img id=a src=\"/img/a.png\" srcset=\"/img/a-2x.png 2x\" sizes=\"50vw\"></p>"
      "<p><img id=b src=\"https://cdn.example/b.png\"></p>"
      "<p><img id=c srcset=\"https://cdn.example/c-1x.png 1x, https://cdn.example/c-2x.png 2x\"></p>"
      "<p><img id=d src=\"data:image/gif;base64,R0lGODlhAQABAAAAACw=\" data-src=\"https://cdn.example/d.png\"></p>"
      "<picture><source srcset=\"https://cdn.example/e.webp\" type=\"image/webp\"><img id=e src=\"img/a.png\">"
      "</picture><p><img id=f alt=\"nothing to show\"></p>",
      lookup);
  EXPECT_THAT(asked, ::testing::Contains("https://example.com/img/a.png"));  // relative addresses resolved
  EXPECT_EQ(attribute(page.one("//img[@id='a']"), "src"), "file:///cache/images/a%20b%231.png");
  EXPECT_EQ(page.one("//img[@id='a'][@srcset]"), nullptr);
  EXPECT_EQ(attribute(page.one("//img[@id='b']"), "src"), "https://cdn.example/b.png");
  EXPECT_EQ(attribute(page.one("//img[@id='c']"), "src"), "file:///cache/images/c.png");
  EXPECT_EQ(attribute(page.one("//img[@id='d']"), "src"), "https://cdn.example/d.png");
  // "img/a.png" against /posts/1 is /posts/img/a.png, which is not cached: the picture keeps its sources.
  EXPECT_EQ(page.all("//picture/source").size(), 1u);
  EXPECT_EQ(page.one("//img[@id='f']"), nullptr);
  for (xmlNodePtr img : page.all("//img")) EXPECT_EQ(attribute(img, "loading"), "lazy");

  const auto cachedPicture = renderBody(
      "<picture><source srcset=\"https://cdn.example/e.webp\"><img src=\"/img/a.png\"></picture>", lookup);
  EXPECT_TRUE(cachedPicture.all("//picture/source").empty());
  EXPECT_THAT(attribute(cachedPicture.one("//picture/img"), "src"), ::testing::StartsWith("file:///"));
}

double luminance(const std::string& hex) {
  const auto channel = [&](size_t at) {
    const double c = std::stoi(hex.substr(at, 2), nullptr, 16) / 255.0;
    return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
  };
  return 0.2126 * channel(1) + 0.7152 * channel(3) + 0.0722 * channel(5);
}
double contrast(const std::string& a, const std::string& b) {
  const double la = luminance(a), lb = luminance(b);
  return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}
bool brownish(const std::string& hex) {
  const int r = std::stoi(hex.substr(1, 2), nullptr, 16), g = std::stoi(hex.substr(3, 2), nullptr, 16),
            b = std::stoi(hex.substr(5, 2), nullptr, 16);
  return r > g && g > b;
}

TEST(ArticleTheme, FollowsTheDesktopUnlessChosen) {
  const std::tuple<std::string_view, bool, ArticleTheme> cases[] = {
      {"system", true, ArticleTheme::kDark},  {"system", false, ArticleTheme::kLight},
      {"", true, ArticleTheme::kDark},        {"bogus", false, ArticleTheme::kLight},
      {"Sepia", true, ArticleTheme::kSepia},  {"dark", false, ArticleTheme::kDark},
      {" LIGHT ", true, ArticleTheme::kLight}};
  for (const auto& [preference, prefersDark, theme] : cases) {
    EXPECT_EQ(articleTheme(preference, prefersDark), theme) << preference << " " << prefersDark;
  }
}

TEST(ArticleTheme, EachThemeHasItsColoursAndReadableContrast) {
  const auto light = articleThemeColors(ArticleTheme::kLight);
  const auto dark = articleThemeColors(ArticleTheme::kDark);
  const auto sepia = articleThemeColors(ArticleTheme::kSepia);
  EXPECT_GT(luminance(light.background), 0.9);
  EXPECT_LT(luminance(light.text), 0.05);
  EXPECT_LT(luminance(dark.background), 0.02);
  EXPECT_GT(luminance(dark.text), 0.6);
  EXPECT_TRUE(brownish(sepia.background) && luminance(sepia.background) > 0.7) << sepia.background;
  EXPECT_TRUE(brownish(sepia.text) && luminance(sepia.text) < 0.1) << sepia.text;
  for (const auto& colors : {light, dark, sepia}) {
    EXPECT_GE(contrast(colors.text, colors.background), 7.0) << colors.background;
    EXPECT_GE(contrast(colors.link, colors.background), 4.5) << colors.background;
    EXPECT_GE(contrast(colors.secondary, colors.background), 4.5) << colors.background;
  }
  // The page uses the colours of the theme it is given.
  for (const auto theme : {ArticleTheme::kLight, ArticleTheme::kDark, ArticleTheme::kSepia}) {
    ArticleStyle style;
    style.theme = theme;
    const auto page = render({}, style);
    const std::string css = page.text("//head/style");
    EXPECT_THAT(css, HasSubstr("--background: " + articleThemeColors(theme).background + ";"));
    EXPECT_THAT(css, HasSubstr("--text: " + articleThemeColors(theme).text + ";"));
  }
}

TEST(ArticleStyleSheet, FontFamilyCannotBreakOutAndSizeIsClamped) {
  const auto styleText = [](std::string family, int size) {
    ArticleStyle style;
    style.fontFamily = std::move(family);
    style.fontSize = size;
    const auto page = render({}, style);
    EXPECT_EQ(page.all("//style").size(), 1u);
    EXPECT_THAT(hazards(page), ::testing::IsEmpty());
    return page.text("//head/style");
  };
  const std::string plain = styleText("Noto Serif", 16);
  EXPECT_THAT(plain, HasSubstr("font-family: \"Noto Serif\", sans-serif;"));
  EXPECT_THAT(plain, HasSubstr("font-size: 16px;"));
  EXPECT_THAT(styleText("Inter, serif", 16), HasSubstr("font-family: \"Inter\", serif, sans-serif;"));
  EXPECT_THAT(styleText("", 16), HasSubstr("font-family: sans-serif;"));
  EXPECT_THAT(styleText("x", 200), HasSubstr("font-size: 40px;"));
  EXPECT_THAT(styleText("x", -3), HasSubstr("font-size: 10px;"));
  const auto count = [](const std::string& text, char c) { return std::count(text.begin(), text.end(), c); };
  for (const char* hostile : {"Noto \"Serif\"} html { display: none } x{\"", "a\\\"; } body{color:red}",
                              "x</style><script>alert(1)</script>", "line\nbreak\x01"}) {
    const std::string css = styleText(hostile, 16);
    for (const char c : {'{', '}', '<'}) EXPECT_EQ(count(css, c), count(plain, c)) << hostile << " " << c;
  }
}

TEST(ArticleBody, MalformedHtmlAndInvalidUtf8StillGiveAWholePage) {
  const std::string cases[] = {
      "\xff\xfe<p>caf\xe9 \xc3\xa9t\xc3\xa9</p><div><p>unclosed <b>bold <i>both</div></table></p>",
      "<p>Hello <a href=\"https://exa",
      "</p></div></body></html><p>after the end",
      std::string(5000, '<'),
      std::string("<p>nul\0byte</p>", 15),
  };
  for (const auto& html : cases) {
    ArticlePage article;
    article.title = "T\xc3";
    article.feed = "\xe2\x82";
    article.bodyHtml = html;
    const auto page = render(article);
    EXPECT_TRUE(isValidUTF8(page.html)) << html;
    EXPECT_THAT(page.html, HasSubstr("</html>"));
    EXPECT_NE(page.body(), nullptr);
    EXPECT_THAT(hazards(page), ::testing::IsEmpty());
  }
  EXPECT_THAT(textContent(renderBody(cases[0]).body()), HasSubstr("\xc3\xa9t\xc3\xa9"));
  EXPECT_THAT(textContent(renderBody(cases[0]).body()), HasSubstr("bold"));
  EXPECT_THAT(textContent(renderBody(cases[1]).body()), HasSubstr("Hello"));

  std::string deep;
  for (int i = 0; i < 5000; ++i) deep += "<div>";
  deep += "deep";
  EXPECT_NE(renderBody(deep).body(), nullptr);
}

TEST(ArticlePage, EnclosuresArePlayersOrLinksWithTheirSize) {
  ArticlePage article;
  article.url = std::string(kArticleUrl);
  article.enclosures = {{"https://cdn.example/show/episode%201.mp3", "audio/mpeg", 12'345'678},
                        {"https://cdn.example/clip.mp4", "video/mp4", std::nullopt},
                        {"/files/notes.pdf", "application/pdf", 900},
                        {"https://cdn.example/untyped.ogg", "", std::nullopt},
                        {"javascript:alert(1)", "audio/mpeg", 1}};
  const auto page = render(article);
  EXPECT_THAT(hazards(page), ::testing::IsEmpty());
  const auto items = page.all("//section[@class='lectern-enclosures']//li");
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(attribute(page.document->first("./audio", items[0]), "src"), "https://cdn.example/show/episode%201.mp3");
  EXPECT_NE(page.document->first("./audio[@controls]", items[0]), nullptr);
  EXPECT_EQ(textContent(page.document->first("./a", items[0])), "episode 1.mp3");
  EXPECT_EQ(textContent(page.document->first("./span", items[0])), "12.3 MB");
  EXPECT_NE(page.document->first("./video[@controls]", items[1]), nullptr);
  EXPECT_EQ(page.document->first("./audio | ./video", items[2]), nullptr);
  EXPECT_EQ(attribute(page.document->first("./a", items[2]), "href"), "https://example.com/files/notes.pdf");
  EXPECT_EQ(textContent(page.document->first("./span", items[2])), "900 bytes");
  EXPECT_NE(page.document->first("./audio", items[3]), nullptr);
  EXPECT_EQ(render({}).one("//section[@class='lectern-enclosures']"), nullptr);
}

}  // namespace
}  // namespace lectern::desktop
