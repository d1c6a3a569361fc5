#pragma once

// Helpers shared by the content tests.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <string>
#include <string_view>

#include "content/HtmlDocument.h"
#include "content/QKContentParser.h"
#include "core/Strings.h"
#include "support/TestSupport.h"

namespace lectern::test {

// tests/fixtures/content/<name>, with `{{KEY}}` replaced by `value` when a key is given.
inline std::string contentPage(std::string_view name, std::string_view key = {},
                               std::string_view value = {}) {
  std::string page = readFile(fixturePath(std::string("content/") + std::string(name)));
  if (!key.empty()) page = replaceAll(page, "{{" + std::string(key) + "}}", value);
  return page;
}

struct Extraction {
  std::string content;
  std::string title;
};

// The article and title of `html`, after `configure` set the parser's options.
inline Extraction extract(std::string_view html,
                          const std::function<void(QKContentParser&)>& configure = {}) {
  auto parser = QKContentParser::initWithHTML(html);
  EXPECT_TRUE(parser.has_value()) << (parser ? "" : parser.error().message());
  if (!parser) return {};
  if (configure) configure(*parser);
  Extraction result;
  result.content = parser->fetchContent();
  result.title = parser->title();
  return result;
}

inline bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// What makes extracted HTML unsafe or misread by a browser, "" when nothing does: an empty
// element written as "<div/>" (HTML keeps it open), a script, an event handler attribute or a
// javascript: link. Reads the text for the first and the parsed page for the rest.
inline std::string unsafeMarkup(std::string_view html) {
  static constexpr std::string_view kVoid[] = {"area",  "base", "br",   "col",   "embed",  "hr",    "img",
                                               "input", "link", "meta", "param", "source", "track", "wbr"};
  for (size_t end = html.find("/>"); end != std::string_view::npos; end = html.find("/>", end + 2)) {
    const size_t open = html.rfind('<', end);
    if (open == std::string_view::npos) return "a stray />";
    size_t nameEnd = open + 1;
    while (nameEnd < end && (std::isalnum(static_cast<unsigned char>(html[nameEnd])) || html[nameEnd] == ':'))
      ++nameEnd;
    const std::string_view name = html.substr(open + 1, nameEnd - open - 1);
    if (std::find(std::begin(kVoid), std::end(kVoid), name) == std::end(kVoid))
      return "<" + std::string(name) + "/>";
  }
  auto page = HtmlDocument::parse(html);
  if (!page) return "unreadable";
  std::string found;
  forEachNode(reinterpret_cast<xmlNodePtr>((*page)->doc()), [&](xmlNodePtr node) {
    if (!found.empty() || node->type != XML_ELEMENT_NODE) return;
    if (isElement(node, "script")) found = "<script>";
    for (xmlAttrPtr attr = node->properties; attr && found.empty(); attr = attr->next) {
      const std::string name = toLowerASCII(reinterpret_cast<const char*>(attr->name));
      std::string value = toLowerASCII(trim(attribute(node, name.c_str())));
      if (name.starts_with("on")) found = name + "=";
      if ((name == "href" || name == "src") && value.starts_with("javascript:")) found = name + "=" + value;
    }
  });
  return found;
}

}  // namespace lectern::test
