#include "net/Redaction.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "core/Strings.h"

namespace lectern {
namespace {

constexpr std::array<std::string_view, 14> kSecretNames = {
    "password", "passwd",        "pwd",    "token",      "secret",  "code",      "apikey",
    "api_key",  "authorization", "cookie", "set_cookie", "session", "sessionid", "signature"};
constexpr std::array<std::string_view, 8> kSecretSuffixes = {
    "token", "secret", "password", "passwd", "_key", "_signature", "sessionid", "session_id"};
// Header lines whose whole value is a credential.
constexpr std::array<std::string_view, 4> kSecretHeaderLines = {
    "authorization:", "proxy-authorization:", "set-cookie:", "cookie:"};

bool isKeyCharacter(char c) {
  const auto u = static_cast<unsigned char>(c);
  return std::isalnum(u) != 0 || c == '_' || c == '-' || c == '.' || c == '[' || c == ']' || c == '%';
}

bool isSpace(char c) { return c == ' ' || c == '\t'; }

// "a=1&token=x" -> "a=1&token=<redacted>".
std::string redactedPairs(std::string_view text) {
  std::string out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('&', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view pair = text.substr(start, end - start);
    const size_t equals = pair.find('=');
    if (equals != std::string_view::npos && isSecretParameterName(pair.substr(0, equals))) {
      out.append(pair.substr(0, equals + 1));
      out.append(kRedacted);
    } else {
      out.append(pair);
    }
    if (end == text.size()) break;
    out += '&';
    start = end + 1;
  }
  return out;
}

std::string redactedFreeText(std::string_view text);

void redactJSON(nlohmann::json& value) {
  if (value.is_string()) {
    value = redactedFreeText(value.get_ref<const std::string&>());
  } else if (value.is_object()) {
    for (auto& [key, element] : value.items()) {
      if (isSecretParameterName(key)) {
        element = std::string(kRedacted);
      } else {
        redactJSON(element);
      }
    }
  } else if (value.is_array()) {
    for (auto& element : value) redactJSON(element);
  }
}

// Where a bare value that follows "key=" ends.
size_t endOfBareValue(std::string_view text, size_t from) {
  size_t i = from;
  while (i < text.size()) {
    const char c = text[i];
    if (c == '&' || c == ',' || c == ';' || c == '"' || c == '\'' || c == '>' || c == ')' || c == '}' ||
        c == ']' || c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      break;
    }
    ++i;
  }
  return i;
}

// Where the quoted string starting at `from` (on its opening quote) ends, past the closing quote.
size_t endOfQuoted(std::string_view text, size_t from) {
  size_t i = from + 1;
  while (i < text.size() && text[i] != '"') i += text[i] == '\\' ? 2 : 1;
  return std::min(i + 1, text.size());
}

// Appends kRedacted for the value at `i` and returns where the text goes on.
size_t skipValue(std::string_view text, size_t i, std::string& out) {
  if (text.substr(i).starts_with(kRedacted)) {
    out.append(kRedacted);
    return i + kRedacted.size();
  }
  if (i < text.size() && text[i] == '"') {
    out += '"';
    out.append(kRedacted);
    out += '"';
    return endOfQuoted(text, i);
  }
  out.append(kRedacted);
  return endOfBareValue(text, i);
}

std::optional<size_t> secretHeaderLineAt(std::string_view text, size_t i) {
  if (i > 0 && isKeyCharacter(text[i - 1])) return std::nullopt;
  for (std::string_view name : kSecretHeaderLines) {
    if (text.size() - i >= name.size() && equalsIgnoringASCIICase(text.substr(i, name.size()), name)) {
      return name.size();
    }
  }
  return std::nullopt;
}

std::string redactedFreeText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    if (const auto header = secretHeaderLineAt(text, i)) {
      out.append(text.substr(i, *header));
      i += *header;
      while (i < text.size() && isSpace(text[i])) out += text[i++];
      out.append(kRedacted);
      while (i < text.size() && text[i] != '\r' && text[i] != '\n') ++i;
      continue;
    }
    const char c = text[i];
    if (c == '"') {
      // "key": value. A quoted text that is no key is read on as free text, so pairs inside it
      // ("next": "https://host/?token=x") are found too.
      size_t close = i + 1;
      while (close < text.size() && text[close] != '"') close += text[close] == '\\' ? 2 : 1;
      size_t j = close + 1;
      while (j < text.size() && isSpace(text[j])) ++j;
      if (close < text.size() && j < text.size() && text[j] == ':' &&
          isSecretParameterName(text.substr(i + 1, close - i - 1))) {
        ++j;
        while (j < text.size() && isSpace(text[j])) ++j;
        out.append(text.substr(i, j - i));
        i = skipValue(text, j, out);
        continue;
      }
      out += c;
      ++i;
      continue;
    }
    if (isKeyCharacter(c) && (i == 0 || !isKeyCharacter(text[i - 1]))) {
      size_t j = i;
      while (j < text.size() && isKeyCharacter(text[j])) ++j;
      const std::string_view key = text.substr(i, j - i);
      out.append(key);
      i = j;
      if (i < text.size() && text[i] == '=' && isSecretParameterName(key)) {
        out += '=';
        i = skipValue(text, i + 1, out);
      }
      continue;
    }
    out += c;
    ++i;
  }
  return out;
}

}  // namespace

bool isSecretParameterName(std::string_view name) {
  std::string key = toLowerASCII(trimView(percentUnescape(name)));
  std::replace(key.begin(), key.end(), '-', '_');
  while (key.ends_with("[]")) key.resize(key.size() - 2);
  if (key.ends_with(']')) {
    const size_t open = key.rfind('[');
    if (open != std::string::npos) key = key.substr(open + 1, key.size() - open - 2);
  }
  if (key.empty()) return false;
  if (std::find(kSecretNames.begin(), kSecretNames.end(), key) != kSecretNames.end()) return true;
  return std::any_of(kSecretSuffixes.begin(), kSecretSuffixes.end(),
                     [&](std::string_view suffix) { return key.ends_with(suffix); });
}

std::string redactedURL(std::string_view url) {
  std::string out;
  size_t i = 0;
  if (const size_t scheme = url.find("://"); scheme != std::string_view::npos) {
    const size_t authorityStart = scheme + 3;
    size_t authorityEnd = url.find_first_of("/?#", authorityStart);
    if (authorityEnd == std::string_view::npos) authorityEnd = url.size();
    const std::string_view authority = url.substr(authorityStart, authorityEnd - authorityStart);
    out.append(url.substr(0, authorityStart));
    const size_t at = authority.rfind('@');
    const size_t colon = at == std::string_view::npos ? std::string_view::npos : authority.find(':');
    if (colon != std::string_view::npos && colon < at) {
      out.append(authority.substr(0, colon + 1));
      out.append(kRedacted);
      out.append(authority.substr(at));
    } else {
      out.append(authority);
    }
    i = authorityEnd;
  }
  const size_t question = url.find('?', i);
  const size_t hash = url.find('#', i);
  const size_t pathEnd = std::min(question, hash);
  out.append(url.substr(i, pathEnd == std::string_view::npos ? std::string_view::npos : pathEnd - i));
  if (question != std::string_view::npos && question < hash) {
    const size_t queryEnd = hash == std::string_view::npos ? url.size() : hash;
    out += '?';
    out.append(redactedPairs(url.substr(question + 1, queryEnd - question - 1)));
  }
  if (hash != std::string_view::npos) {
    out += '#';
    out.append(redactedPairs(url.substr(hash + 1)));
  }
  return out;
}

HttpHeaders redactedHeaders(const HttpHeaders& headers) {
  HttpHeaders out;
  for (const auto& [name, value] : headers) {
    const bool secret = equalsIgnoringASCIICase(name, "Authorization") ||
                        equalsIgnoringASCIICase(name, "Proxy-Authorization") || isSecretParameterName(name);
    out.add(name, secret ? std::string(kRedacted) : value);
  }
  return out;
}

std::string redactedText(std::string_view text) {
  const std::string_view trimmed = trimView(text);
  if (trimmed.starts_with('{') || trimmed.starts_with('[')) {
    auto document = nlohmann::json::parse(trimmed, nullptr, /*allow_exceptions=*/false);
    if (!document.is_discarded()) {
      nlohmann::json redacted = document;
      redactJSON(redacted);
      // Rewritten only when something was hidden, so a document without secrets keeps its layout.
      if (redacted == document) return std::string(text);
      return redacted.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
  }
  return redactedFreeText(text);
}

}  // namespace lectern
