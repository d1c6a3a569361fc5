#include "content/KeywordPattern.h"

#include <algorithm>
#include <array>

#include "core/Strings.h"

namespace lectern {
namespace {

bool isKeywordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

KeywordPattern::KeywordPattern(std::string_view alternation)
    : keywords_(split(alternation, "|")), regex_(Regex::compileOrThrow(alternation, kRegexCaseInsensitive)) {
  for (const auto& keyword : keywords_) {
    if (keyword.empty() || !std::all_of(keyword.begin(), keyword.end(), isKeywordCharacter)) {
      throw InternalInconsistency("Not a keyword alternation: " + std::string(alternation));
    }
  }
}

bool KeywordPattern::search(std::string_view text) const {
  if (std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) {
    return regex_.search(text);
  }
  // Class attributes are short; a long one is lower-cased on the heap.
  std::array<char, 256> small;
  std::string large;
  char* lower = small.data();
  if (text.size() > small.size()) {
    large.resize(text.size());
    lower = large.data();
  }
  std::transform(text.begin(), text.end(), lower, lowerASCII);
  const std::string_view haystack(lower, text.size());
  return std::any_of(keywords_.begin(), keywords_.end(), [&](const std::string& keyword) {
    return haystack.find(keyword) != std::string_view::npos;
  });
}

}  // namespace lectern
