#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "core/HtmlStrings.h"
#include "core/Strings.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

using Case = std::pair<std::string_view, std::string_view>;

TEST(HtmlEntities, DecodesNamedReferencesAsBrowsersDo) {
  const Case cases[] = {
      {"Caf&eacute; &amp; cr&egrave;me", "Café & crème"},
      {"&lt;b&gt; &quot;q&quot; &apos;a&apos;", "<b> \"q\" 'a'"},
      {"&AMP; &LT; &Aacute;", "& < Á"},     // names are case-sensitive ...
      {"&Amp; &aMp;", "&Amp; &aMp;"},       // ... so these are unknown
      {"&NotEqualTilde;", "\u2242\u0338"},  // two code points
      {"&fjlig;&ThickSpace;", "fj\u205F\u200A"},
      {"&CounterClockwiseContourIntegral;", "\u2233"},                  // the longest name
      {"&copy 2024 &copy2024 &nbsp", "\u00A9 2024 \u00A92024 \u00A0"},  // legacy forms without ";"
      {"&notit; &notin; &notin", "\u00ACit; \u2209 \u00ACin"},          // longest legacy prefix wins
      {"&ampx; &amp;amp;", "&x; &amp;"},                                // one pass only
      {"&bogus; &; & &# &#; &#x; &#xG; &a", "&bogus; &; & &# &#; &#x; &#xG; &a"},
      {"AT&T R&D Q&A;", "AT&T R&D Q&A;"},
      {"&", "&"},
      {"&amp", "&"},
      {"a&", "a&"},
  };
  for (auto [in, want] : cases) EXPECT_EQ(decodeHtmlEntities(in), want) << in;
}

TEST(HtmlEntities, DecodesNumericReferencesWithTheHtml5Substitutions) {
  const Case cases[] = {
      {"&#233;&#xE9;&#XE9;&#x000e9;", "éééé"},
      {"&#233abc &#xE9g", "éabc ég"},  // ";" may be missing; the digits end the number
      {"&#x1F600;", "\U0001F600"},
      {"&#0; &#xD800; &#xDFFF; &#x110000; &#99999999999999999999999;", "\uFFFD \uFFFD \uFFFD \uFFFD \uFFFD"},
      {"&#128;&#x82;&#150;&#151;&#x99;&#x9F;", "€‚–—™Ÿ"},  // Windows-1252
      {"&#x81;&#x8D;", "\u0081\u008D"},                    // undefined there: kept
      {"&#10;&#9;", "\n\t"},
  };
  for (auto [in, want] : cases) EXPECT_EQ(decodeHtmlEntities(in), want) << in;
}

TEST(HtmlEntities, EncodingEscapesMarkupAndRoundTrips) {
  EXPECT_EQ(encodeHtmlEntities(R"(<a href="x?a=1&b='2'">Tom & Jerry</a>)"),
            "&lt;a href=&quot;x?a=1&amp;b=&#39;2&#39;&quot;&gt;Tom &amp; Jerry&lt;/a&gt;");
  for (std::string_view text : {"plain", "Ünïcödé — “quotes” 😀", "&amp; already", "<<>>&&\"\"''", ""}) {
    EXPECT_EQ(decodeHtmlEntities(encodeHtmlEntities(text)), text) << text;
  }
}

TEST(HtmlToPlainText, LaysOutBlocksAndCollapsesWhiteSpace) {
  const Case cases[] = {
      {"<p>Hello <b>world</b>!</p><p>Second</p>", "Hello world!\n\nSecond"},
      {"<div>a</div><div>b</div>c", "a\nb\nc"},
      {"line<br>next<br/><br />after<br><br><br><br>end", "line\nnext\n\nafter\n\nend"},
      {"<p>para<br></p><div>div</div>", "para\n\ndiv"},
      {"  lots   of\n\t white\r\n space  ", "lots of white space"},
      {"<h1>Title</h1>Body <i>text</i>", "Title\n\nBody text"},
      {"Intro<ul>\n  <li>One</li>\n  <li>Two <a href=\"/x\">link</a></li>\n</ul>Outro",
       "Intro\nOne\nTwo link\nOutro"},
      {"<table><tr><th>a</th><td>b</td></tr><tr><td>c</td></tr></table>", "a b\nc"},
      {"<blockquote><p>Quoted</p></blockquote><p>Reply</p>", "Quoted\n\nReply"},
      {"<pre>line 1\n    line 2\n\n\n\nline 3</pre>after", "line 1\nline 2\n\nline 3\n\nafter"},
      {"<P>Upper</P><DIV>Case</DIV>", "Upper\n\nCase"},
      {"a&nbsp;&nbsp; b\u00A0\u00A0c", "a b c"},  // no-break spaces collapse too
      {"Donau&shy;dampf\u00ADschiff", "Donaudampfschiff"},
      {"a\x01"
       "b\x7F"
       "c&#1;d",
       "abcd"},  // control characters vanish
      {"<p>   </p><p></p><br><p>x</p>", "x"},
      {"", ""},
  };
  for (auto [in, want] : cases) EXPECT_EQ(htmlToPlainText(in), want) << in;
}

TEST(HtmlToPlainText, DropsWhatBrowsersDoNotShow) {
  const Case cases[] = {
      {"<html><head><title>T</title><meta charset=utf-8><style>p { color: red }</style></head>"
       "<body><p>Text</p><script>if (a<b && c>d) { document.write('</p>'); }</script></body></html>",
       "Text"},
      {"a<!-- <p>hidden</p> -->b<!---->c<!-->d<!--->e<!-- x --!>f", "abcdef"},
      {"<!DOCTYPE html><?xml version=\"1.0\"?><p>x</p>", "x"},
      {"<template><p>later</p></template>now", "now"},
      {"<video src=v.mp4>Your browser cannot play this.</video>Caption", "Caption"},
      {"<p>Before<svg viewBox='0 0 1 1'><title>icon</title><text>A</text></svg> after</p>", "Before after"},
      {"<svg><path d='M0 0'><p>Shown</p>", "Shown"},  // HTML ends an unclosed svg
      {"<SCRIPT type=x>var s = '<b>';</script >y", "y"},
      {"<iframe src=x>fallback</iframe>z", "z"},
      {"<script src='x.js'/><p>Kept</p>", "Kept"},  // XHTML self-closing must not swallow the rest
  };
  for (auto [in, want] : cases) EXPECT_EQ(htmlToPlainText(in), want) << in;
}

TEST(HtmlToPlainText, ReadsAwkwardMarkupLikeABrowser) {
  const Case cases[] = {
      {"<a title=\"a>b\" data-x='c>d' href=x>link</a>", "link"},
      {"<img alt=\"x\"/>text<br/ >more", "text\nmore"},
      {"<![CDATA[1 < 2 & <b>3</b>]]> ok", "1 < 2 & <b>3</b> ok"},
      {"<my-widget>x</my-widget> <o:p>y</o:p>", "x y"},
      {"<textarea>x</p>y</textarea>z<select><option>A</option></select>", "z"},
      {"<plaintext><b>x</b>", "<b>x</b>"},
      {"a</>b", "ab"},
      {"<p>Hello <b>world", "Hello world"},   // never closed
      {"Text <a href=\"http://exa", "Text"},  // cut off inside a tag
      {"text<!-- never closed <p>more", "text"},
  };
  for (auto [in, want] : cases) EXPECT_EQ(htmlToPlainText(in), want) << in;
}

TEST(HtmlToPlainText, KeepsTextThatOnlyLooksLikeMarkup) {
  // Preview text is made from HTML whose entities were already decoded once, so "<" and "&"
  // from the original text arrive bare and must survive.
  const Case cases[] = {
      {"1 < 2 and 3 > 2", "1 < 2 and 3 > 2"},
      {"if x<y then", "if x<y then"},
      {"List<String> and Vec<u8>", "List<String> and Vec<u8>"},
      {"a <= b, c<-d, <3, << >>", "a <= b, c<-d, <3, << >>"},
      {"fish&chips, ?a=1&copy=2, &notes", "fish&chips, ?a=1&copy=2, &notes"},
      {"&copy 2024 &amp; &lt;", "\u00A9 2024 & <"},
  };
  for (auto [in, want] : cases) EXPECT_EQ(htmlToPlainText(in), want) << in;
  EXPECT_EQ(htmlToPlainText(decodeHtmlEntities("<p>Tom &amp;amp; Jerry &amp;notes 5 &lt; 6</p>")),
            "Tom & Jerry &notes 5 < 6");
}

TEST(StripTags, RemovesTagsAndCommentsOnly) {
  const Case cases[] = {
      {"<p>Tom &amp; <b>Jerry</b></p><!-- c -->!", "Tom &amp; Jerry!"},
      {"a<br>b\n  c", "ab\n  c"},
      {"x < y <a title='>'>z</a>", "x < y z"},
      {"<style>p{}</style>s", "p{}s"},
      {"<![CDATA[kept]]>", "kept"},
      {"<textarea>a &lt; <b>b</b></textarea>", "a &lt; <b>b</b>"},
  };
  for (auto [in, want] : cases) EXPECT_EQ(stripTags(in), want) << in;
}

// Compares without printing megabytes when it fails.
#define EXPECT_SAME_TEXT(actual, expected)                                                             \
  do {                                                                                                 \
    const std::string a_ = (actual), e_ = (expected);                                                  \
    EXPECT_TRUE(a_ == e_) << #actual << ": " << a_.size() << " bytes, starting \"" << a_.substr(0, 40) \
                          << "\"; expected " << e_.size() << " bytes";                                 \
  } while (false)

TEST(HtmlTextTools, SurviveHostileInputInLinearTime) {
  // Each of these would take minutes with a quadratic scan; the test's own time limit catches it.
  const std::string megabyte(1 << 20, 'x');
  std::string amps;
  for (int i = 0; i < (1 << 20) / 5; ++i) amps += "&amp;";
  EXPECT_SAME_TEXT(decodeHtmlEntities(amps), std::string(amps.size() / 5, '&'));
  EXPECT_SAME_TEXT(htmlToPlainText(amps), std::string(amps.size() / 5, '&'));

  const std::string lessThans(1 << 20, '<');
  EXPECT_SAME_TEXT(htmlToPlainText(lessThans), lessThans);
  std::string tagStarts;
  for (int i = 0; i < (1 << 20) / 2; ++i) tagStarts += "<a";
  EXPECT_SAME_TEXT(htmlToPlainText(tagStarts + "!"), tagStarts + "!");  // "a<" is no tag name

  for (const std::string open : {"<!--", "<a title=\"", "<script>", "<!", "<svg>", "<![CDATA["}) {
    EXPECT_SAME_TEXT(htmlToPlainText("ok" + open + megabyte), open == "<![CDATA[" ? "ok" + megabyte : "ok");
  }
  std::string repeats[4];
  for (int i = 0; i < 100'000; ++i) {
    repeats[0] += "<!-- -- ";
    repeats[1] += "</scrip";
    repeats[2] += "<x-a<b-c";
    repeats[3] += "http://.";
  }
  EXPECT_SAME_TEXT(htmlToPlainText(repeats[0]), "");
  EXPECT_SAME_TEXT(htmlToPlainText("<script>" + repeats[1] + "</script>ok"), "ok");
  EXPECT_SAME_TEXT(htmlToPlainText(repeats[2] + "!"), repeats[2] + "!");
  EXPECT_TRUE(detectLinks(repeats[3]).empty());
}

TEST(HtmlTextTools, AlwaysGiveValidUTF8) {
  std::vector<std::string> inputs = {"\xFF\xFE<p>\xC3</p>&#xD800;\xE2\x82",
                                     "caf\xE9 &eacute;",
                                     std::string("nul\0byte&#0;", 12),
                                     "\xF4\x90\x80\x80 over",
                                     "\xC2&nbsp;\xC2",
                                     "http://ex\xFF"
                                     "ample.com/\xC3\xA9"};
  // Every byte value in every position of a short tag soup.
  for (int b = 0; b < 256; ++b)
    inputs.push_back("<p a='" + std::string(1, static_cast<char>(b)) + "'>x" +
                     std::string(1, static_cast<char>(b)) + "&amp" + std::string(1, static_cast<char>(b)));
  for (const auto& in : inputs) {
    EXPECT_TRUE(isValidUTF8(decodeHtmlEntities(in))) << in;
    EXPECT_TRUE(isValidUTF8(encodeHtmlEntities(in))) << in;
    EXPECT_TRUE(isValidUTF8(htmlToPlainText(in))) << in;
    EXPECT_TRUE(isValidUTF8(htmlToPlainText(decodeHtmlEntities(in)))) << in;
    EXPECT_TRUE(isValidUTF8(stripTags(in))) << in;
    EXPECT_TRUE(isValidUTF8(linkifyText(in))) << in;
    for (const auto& link : detectLinks(in)) EXPECT_TRUE(isValidUTF8(link.url)) << in;
  }
}

TEST(HtmlTextTools, PreviewEveryCorpusPage) {
  // Real pages: each gives readable, valid text without markup left in it.
  LECTERN_SKIP_WITHOUT_CORPUS();
  const auto folder = test::corpusPath("pages");
  int pages = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() != ".html") continue;
    const std::string html = test::readFile(entry.path());
    const std::string text = htmlToPlainText(decodeHtmlEntities(html));
    EXPECT_TRUE(isValidUTF8(text)) << entry.path();
    for (std::string_view markup : {"<p>", "</p>", "<div", "<script", "<style", "<!--", "&amp;", "&nbsp;"}) {
      EXPECT_EQ(text.find(markup), std::string::npos) << entry.path() << " shows " << markup;
    }
    EXPECT_EQ(text.find("\n\n\n"), std::string::npos) << entry.path();
    ++pages;
  }
  EXPECT_GT(pages, 100);
}

struct LinkCase {
  std::string_view text;
  std::vector<std::string_view> links;  // as written in the text
};

TEST(DetectLinks, FindsLinksAndLeavesSentencePunctuationOut) {
  const LinkCase cases[] = {
      {"See https://example.com/a?b=1&c=2#d.", {"https://example.com/a?b=1&c=2#d"}},
      {"Two: http://a.com, and ftp://files.b.org/x!", {"http://a.com", "ftp://files.b.org/x"}},
      {"(see http://en.wikipedia.org/wiki/Foo_(bar)) and more", {"http://en.wikipedia.org/wiki/Foo_(bar)"}},
      {"(http://example.com/path)", {"http://example.com/path"}},
      {"[http://[::1]:8080/x]", {"http://[::1]:8080/x"}},
      {"Mail mailto:someone@example.com?subject=Hi.", {"mailto:someone@example.com?subject=Hi"}},
      {"Visit www.example.com/news... or WWW.Example.org", {"www.example.com/news", "WWW.Example.org"}},
      {"\"http://quoted.example/\" <http://angle.example/>",
       {"http://quoted.example/", "http://angle.example/"}},
      {"“https://curly.example/x”, ‘https://single.example’…",
       {"https://curly.example/x", "https://single.example"}},
      {"https://de.wikipedia.org/wiki/Äpfel。次", {"https://de.wikipedia.org/wiki/Äpfel"}},
      {"HTTPS://LOUD.EXAMPLE", {"HTTPS://LOUD.EXAMPLE"}},
      {"not links: http:// http://. xhttp://a.com mailto:@x mailto:me@. a.www.b.com user@www.x.com "
       "javascript:alert(1)",
       {}},
  };
  for (const auto& c : cases) {
    std::vector<std::string_view> found;
    for (const auto& link : detectLinks(c.text))
      found.push_back(c.text.substr(link.begin, link.end - link.begin));
    EXPECT_EQ(found, c.links) << c.text;
  }
}

TEST(DetectLinks, GivesSchemesToBareHostsAndLinkifiesSafely) {
  const auto links = detectLinks("go to www.example.com now");
  ASSERT_EQ(links.size(), 1u);
  EXPECT_EQ(links[0].begin, 6u);
  EXPECT_EQ(links[0].end, 21u);
  EXPECT_EQ(links[0].url, "http://www.example.com");

  EXPECT_EQ(linkifyText("Read <this> at www.a.com & http://b.com/?x=1&y=\"2\"."),
            "Read &lt;this&gt; at <a href=\"http://www.a.com\">www.a.com</a> &amp; "
            "<a href=\"http://b.com/?x=1&amp;y=\">http://b.com/?x=1&amp;y=</a>&quot;2&quot;.");
  EXPECT_EQ(linkifyText("no links <b>"), "no links &lt;b&gt;");
}

}  // namespace
}  // namespace lectern
