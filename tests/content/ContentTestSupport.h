#pragma once

// Helpers shared by the content tests.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>

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

}  // namespace lectern::test
