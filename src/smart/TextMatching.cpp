#include "smart/TextMatching.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>

namespace lectern {

namespace {

std::u32string toCodePoints(std::string_view text) {
  std::u32string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    char32_t cp = c;
    size_t length = 1;
    if (c >= 0xF0) {
      cp = c & 0x07;
      length = 4;
    } else if (c >= 0xE0) {
      cp = c & 0x0F;
      length = 3;
    } else if (c >= 0xC0) {
      cp = c & 0x1F;
      length = 2;
    }
    if (i + length > text.size()) length = 1;
    for (size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    out.push_back(length == 1 ? static_cast<char32_t>(c) : cp);
    i += length;
  }
  return out;
}

// "*" any run, "?" one character; iterative with one backtrack point.
bool likeMatch(const std::u32string& text, const std::u32string& pattern) {
  size_t t = 0, p = 0, starP = std::u32string::npos, starT = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == U'?' || pattern[p] == text[t])) {
      ++t;
      ++p;
    } else if (p < pattern.size() && pattern[p] == U'*') {
      starP = p++;
      starT = t;
    } else if (starP != std::u32string::npos) {
      p = starP + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == U'*') ++p;
  return p == pattern.size();
}

}  // namespace

namespace {

void appendFoldedASCII(std::string& out, std::string_view text, bool caseInsensitive) {
  for (char c : text) out += caseInsensitive && c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

void appendFoldedUnicode(std::string& out, std::string_view text, ComparisonOptions options) {
  icu::UnicodeString value = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  UErrorCode status = U_ZERO_ERROR;
  if (options.diacriticInsensitive) {
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_SUCCESS(status)) {
      icu::UnicodeString decomposed = nfd->normalize(value, status);
      if (U_SUCCESS(status)) {
        icu::UnicodeString stripped;
        for (int32_t i = 0; i < decomposed.length();) {
          const UChar32 c = decomposed.char32At(i);
          if (u_charType(c) != U_NON_SPACING_MARK) stripped.append(c);
          i += U16_LENGTH(c);
        }
        value = stripped;
      }
    }
  }
  if (options.caseInsensitive) value.foldCase();
  status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_SUCCESS(status)) {
    icu::UnicodeString composed = nfc->normalize(value, status);
    if (U_SUCCESS(status)) value = composed;
  }
  value.toUTF8String(out);
}

}  // namespace

std::string foldText(std::string_view text, ComparisonOptions options) {
  if (!options.caseInsensitive && !options.diacriticInsensitive) return std::string(text);
  // Mostly-ASCII text (most of what feeds carry) is folded by hand; only the runs around other
  // characters go through ICU. Each such run takes the ASCII letter before it along, the base a
  // combining mark may belong to; an ASCII character after it starts afresh, since none combines
  // with what precedes it and folding is the same for it in any context.
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    size_t j = i;
    while (j < text.size() && static_cast<unsigned char>(text[j]) < 0x80) ++j;
    if (j == text.size()) {
      appendFoldedASCII(out, text.substr(i), options.caseInsensitive);
      break;
    }
    const size_t base = j > i ? j - 1 : j;
    appendFoldedASCII(out, text.substr(i, base - i), options.caseInsensitive);
    size_t k = j;
    while (k < text.size() && static_cast<unsigned char>(text[k]) >= 0x80) ++k;
    appendFoldedUnicode(out, text.substr(base, k - base), options);
    i = k;
  }
  return out;
}

std::vector<TextRange> findMatches(std::string_view text, const std::vector<std::string>& terms) {
  // Fold character by character, remembering where each folded byte came from, so a match in
  // the folded text maps back to the original bytes.
  std::string folded;
  std::vector<size_t> origin;  // folded byte -> original start of its character
  size_t i = 0;
  while (i < text.size()) {
    size_t length = 1;
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead >= 0xF0) {
      length = 4;
    } else if (lead >= 0xE0) {
      length = 3;
    } else if (lead >= 0xC0) {
      length = 2;
    }
    length = std::min(length, text.size() - i);
    const std::string piece = foldForSearch(text.substr(i, length));
    folded += piece;
    origin.insert(origin.end(), piece.size(), i);
    i += length;
  }
  origin.push_back(text.size());
  std::vector<TextRange> ranges;
  for (const auto& term : terms) {
    const std::string needle = foldForSearch(term);
    if (needle.empty()) continue;
    for (size_t at = folded.find(needle); at != std::string::npos; at = folded.find(needle, at + needle.size())) {
      const size_t last = at + needle.size();
      // The match ends after the original character of its last folded byte.
      size_t end = text.size();
      for (size_t k = last; k < origin.size(); ++k) {
        if (origin[k] != origin[last - 1]) {
          end = origin[k];
          break;
        }
      }
      ranges.push_back({origin[at], end});
    }
  }
  std::sort(ranges.begin(), ranges.end(), [](const TextRange& a, const TextRange& b) { return a.begin < b.begin; });
  std::vector<TextRange> merged;
  for (const auto& range : ranges) {
    if (!merged.empty() && range.begin <= merged.back().end) {
      merged.back().end = std::max(merged.back().end, range.end);
    } else {
      merged.push_back(range);
    }
  }
  return merged;
}

size_t codePointCount(std::string_view text) {
  return static_cast<size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

bool compareText(ComparisonOperator op, ComparisonOptions options, std::string_view left, std::string_view right) {
  const std::string l = foldText(left, options);
  const std::string r = foldText(right, options);
  switch (op) {
    case ComparisonOperator::kEqual: return l == r;
    case ComparisonOperator::kNotEqual: return l != r;
    case ComparisonOperator::kLess: return l < r;
    case ComparisonOperator::kLessOrEqual: return l <= r;
    case ComparisonOperator::kGreater: return l > r;
    case ComparisonOperator::kGreaterOrEqual: return l >= r;
    case ComparisonOperator::kContains: return l.find(r) != std::string::npos;
    case ComparisonOperator::kBeginsWith: return l.starts_with(r);
    case ComparisonOperator::kEndsWith: return l.ends_with(r);
    case ComparisonOperator::kLike: return likeMatch(toCodePoints(l), toCodePoints(r));
    case ComparisonOperator::kIn: return r.find(l) != std::string::npos;
    case ComparisonOperator::kBetween: return false;
  }
  return false;
}

}  // namespace lectern
