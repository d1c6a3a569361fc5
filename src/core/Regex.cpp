#include "core/Regex.h"

#include <cctype>

#include <unicode/regex.h>
#include <unicode/utext.h>

namespace lectern {

struct Regex::Impl {
  std::unique_ptr<icu::RegexPattern> pattern;
};

namespace {

uint32_t icuFlags(unsigned options) {
  uint32_t flags = 0;
  if (options & kRegexCaseInsensitive) flags |= UREGEX_CASE_INSENSITIVE;
  if (options & kRegexDotAll) flags |= UREGEX_DOTALL;
  if (options & kRegexMultiline) flags |= UREGEX_MULTILINE;
  if (options & kRegexComments) flags |= UREGEX_COMMENTS;
  return flags;
}

// "$12" refers to group 12 only when the pattern has that many groups, as ICU itself reads it.
std::string expandTemplate(std::string_view replacement, const RegexMatch& match) {
  std::string out;
  for (size_t i = 0; i < replacement.size(); ++i) {
    const char c = replacement[i];
    if (c == '\\' && i + 1 < replacement.size()) {
      out += replacement[++i];
    } else if (c == '$' && i + 1 < replacement.size() && std::isdigit(static_cast<unsigned char>(replacement[i + 1]))) {
      size_t group = 0;
      size_t j = i + 1;
      while (j < replacement.size() && std::isdigit(static_cast<unsigned char>(replacement[j]))) {
        const size_t next = group * 10 + static_cast<size_t>(replacement[j] - '0');
        if (j > i + 1 && next >= match.groups.size()) break;
        group = next;
        ++j;
      }
      out += match.group(group);
      i = j - 1;
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

Result<Regex> Regex::compile(std::string_view pattern, unsigned options) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError{};
  auto impl = std::make_shared<Impl>();
  impl->pattern.reset(icu::RegexPattern::compile(
      icu::UnicodeString::fromUTF8(icu::StringPiece(pattern.data(), static_cast<int32_t>(pattern.size()))),
      icuFlags(options), parseError, status));
  if (U_FAILURE(status) || !impl->pattern) {
    return fail("com.quillhq.Lectern.Regex", status, "Invalid regular expression: " + std::string(pattern),
                u_errorName(status));
  }
  return Regex(std::string(pattern), std::move(impl));
}

Regex Regex::compileOrThrow(std::string_view pattern, unsigned options) {
  auto regex = compile(pattern, options);
  if (!regex) throw InternalInconsistency(regex.error().message());
  return *std::move(regex);
}

void Regex::forEachMatch(std::string_view text, const std::function<bool(const RegexMatch&)>& visit) const {
  UErrorCode status = U_ZERO_ERROR;
  UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
  if (U_FAILURE(status)) return;
  std::unique_ptr<icu::RegexMatcher> matcher(impl_->pattern->matcher(status));
  if (U_FAILURE(status) || !matcher) {
    utext_close(utext);
    return;
  }
  matcher->reset(utext);
  const int32_t groupCount = matcher->groupCount();
  while (matcher->find(status) && U_SUCCESS(status)) {
    RegexMatch match;
    match.groups.resize(static_cast<size_t>(groupCount) + 1);
    for (int32_t g = 0; g <= groupCount; ++g) {
      const int64_t begin = matcher->start64(g, status);
      const int64_t end = matcher->end64(g, status);
      if (U_FAILURE(status) || begin < 0) {
        status = U_ZERO_ERROR;
        continue;
      }
      auto& group = match.groups[static_cast<size_t>(g)];
      group.begin = static_cast<size_t>(begin);
      group.end = static_cast<size_t>(end);
      group.text.assign(text.substr(group.begin, group.end - group.begin));
    }
    if (!visit(match)) break;
  }
  utext_close(utext);
}

bool Regex::search(std::string_view text) const { return firstMatch(text).has_value(); }

std::optional<RegexMatch> Regex::firstMatch(std::string_view text) const {
  std::optional<RegexMatch> result;
  forEachMatch(text, [&](const RegexMatch& m) {
    result = m;
    return false;
  });
  return result;
}

std::vector<RegexMatch> Regex::allMatches(std::string_view text) const {
  std::vector<RegexMatch> result;
  forEachMatch(text, [&](const RegexMatch& m) {
    result.push_back(m);
    return true;
  });
  return result;
}

std::string Regex::replaceAll(std::string_view text, const std::function<std::string(const RegexMatch&)>& replacer) const {
  std::string out;
  size_t copied = 0;
  forEachMatch(text, [&](const RegexMatch& m) {
    out.append(text.substr(copied, m.begin() - copied));
    out += replacer(m);
    copied = m.end();
    return true;
  });
  out.append(text.substr(copied));
  return out;
}

std::string Regex::replaceAll(std::string_view text, std::string_view replacement) const {
  return replaceAll(text, [&](const RegexMatch& m) { return expandTemplate(replacement, m); });
}

std::string Regex::replaceFirst(std::string_view text, std::string_view replacement) const {
  auto match = firstMatch(text);
  if (!match) return std::string(text);
  std::string out(text.substr(0, match->begin()));
  out += expandTemplate(replacement, *match);
  out.append(text.substr(match->end()));
  return out;
}

}  // namespace lectern
