#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"

namespace lectern {

// Flags of the ICU pattern syntax (the same family as the platform engine the rules were written for).
enum RegexOption : unsigned {
  kRegexNone = 0,
  kRegexCaseInsensitive = 1u << 0,
  kRegexDotAll = 1u << 1,      // "." matches line ends too
  kRegexMultiline = 1u << 2,   // ^ and $ match at line ends
  kRegexComments = 1u << 3,    // white space and #-comments in the pattern are ignored
};

// One match. Offsets are byte offsets into the UTF-8 text that was searched.
struct RegexMatch {
  struct Group {
    size_t begin = std::string::npos;  // npos: the group did not take part in the match
    size_t end = std::string::npos;
    std::string text;
    bool matched() const { return begin != std::string::npos; }
  };
  std::vector<Group> groups;  // groups[0] is the whole match

  const std::string& text() const { return groups[0].text; }
  size_t begin() const { return groups[0].begin; }
  size_t end() const { return groups[0].end; }
  // The text of group `i`, or "" when it did not take part or does not exist.
  std::string group(size_t i) const { return i < groups.size() ? groups[i].text : std::string(); }
};

// A compiled ICU regular expression over UTF-8 text. Compile once, use from any thread.
class Regex {
 public:
  static Result<Regex> compile(std::string_view pattern, unsigned options = kRegexNone);
  // For patterns written in the code: a bad one is a programming error.
  static Regex compileOrThrow(std::string_view pattern, unsigned options = kRegexNone);

  const std::string& pattern() const { return pattern_; }

  bool search(std::string_view text) const;  // matches somewhere in text
  std::optional<RegexMatch> firstMatch(std::string_view text) const;
  std::vector<RegexMatch> allMatches(std::string_view text) const;
  // Replaces matches; "$1" in `replacement` is a group, "\$" a dollar sign.
  std::string replaceAll(std::string_view text, std::string_view replacement) const;
  std::string replaceFirst(std::string_view text, std::string_view replacement) const;
  std::string replaceAll(std::string_view text, const std::function<std::string(const RegexMatch&)>& replacer) const;

 private:
  struct Impl;
  Regex(std::string pattern, std::shared_ptr<const Impl> impl) : pattern_(std::move(pattern)), impl_(std::move(impl)) {}
  // Calls `visit` for each match in order until it returns false.
  void forEachMatch(std::string_view text, const std::function<bool(const RegexMatch&)>& visit) const;

  std::string pattern_;
  std::shared_ptr<const Impl> impl_;
};

}  // namespace lectern
