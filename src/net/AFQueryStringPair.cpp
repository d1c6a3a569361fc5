#include "net/AFQueryStringPair.h"

#include "core/Strings.h"

namespace lectern {
namespace {

constexpr std::string_view kEscapedInQueries = ":/?&=;+!@#$()',*";
constexpr std::string_view kKeptInKeys = "[].";

// Text in the target character set; UTF-8 when it has no form there.
std::string inCharset(std::string_view utf8, std::string_view charset) {
  return encodeText(utf8, charset).value_or(std::string(utf8));
}

std::string describe(const nlohmann::json& value) {
  if (value.is_string()) return value.get<std::string>();
  return safeStringValue(value).value_or(value.dump());
}

void flatten(const std::optional<std::string>& key, const nlohmann::json& value,
             std::vector<AFQueryStringPair>& out) {
  if (value.is_object()) {
    // nlohmann keeps object keys in byte order, which is the order wanted here.
    for (const auto& [innerKey, innerValue] : value.items()) {
      flatten(key ? *key + "[" + innerKey + "]" : innerKey, innerValue, out);
    }
  } else if (value.is_array()) {
    const std::string arrayKey = key.value_or("") + "[]";
    for (const auto& element : value) flatten(arrayKey, element, out);
  } else if (value.is_null()) {
    out.push_back(AFQueryStringPair{key.value_or(""), std::nullopt});
  } else {
    out.push_back(AFQueryStringPair{key.value_or(""), describe(value)});
  }
}

}  // namespace

std::string percentEscapedQueryStringKey(std::string_view key, std::string_view charset) {
  return percentEscape(inCharset(key, charset), kEscapedInQueries, kKeptInKeys);
}

std::string percentEscapedQueryStringValue(std::string_view value, std::string_view charset) {
  return percentEscape(inCharset(value, charset), kEscapedInQueries);
}

std::string AFQueryStringPair::URLEncodedStringValueWithEncoding(std::string_view charset) const {
  if (!value) return percentEscapedQueryStringKey(field, charset);
  return percentEscapedQueryStringKey(field, charset) + "=" + percentEscapedQueryStringValue(*value, charset);
}

std::vector<AFQueryStringPair> queryStringPairsFromDictionary(const nlohmann::json& parameters) {
  std::vector<AFQueryStringPair> pairs;
  flatten(std::nullopt, parameters, pairs);
  return pairs;
}

std::string queryStringFromParameters(const nlohmann::json& parameters, std::string_view charset) {
  std::string out;
  for (const auto& pair : queryStringPairsFromDictionary(parameters)) {
    if (!out.empty()) out += '&';
    out += pair.URLEncodedStringValueWithEncoding(charset);
  }
  return out;
}

}  // namespace lectern
