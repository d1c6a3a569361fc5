#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/TextEncoding.h"

namespace lectern {

// One field of a flattened parameter dictionary: "tags[]" = "a", "user[name]" = "x". A plain value.
struct AFQueryStringPair {
  std::string field;
  std::optional<std::string> value;  // nothing for a null value

  // "field=value", both escaped in `charset`; the escaped field alone when there is no value.
  std::string URLEncodedStringValueWithEncoding(std::string_view charset = kUTF8Charset) const;
  bool operator==(const AFQueryStringPair&) const = default;
};

// Flattens parameters: object entries in ascending key order (nested keys become "outer[inner]"),
// array elements under "key[]", anything else one pair. Numbers and booleans are written in
// decimal ("1"/"0" for booleans).
std::vector<AFQueryStringPair> queryStringPairsFromDictionary(const nlohmann::json& parameters);

// The pairs written and joined with "&".
std::string queryStringFromParameters(const nlohmann::json& parameters,
                                      std::string_view charset = kUTF8Charset);

// Percent-escaping of keys and values: ":/?&=;+!@#$()',*" and everything never legal in a URL are
// escaped; keys keep "[]." so nested keys stay readable.
std::string percentEscapedQueryStringKey(std::string_view key, std::string_view charset = kUTF8Charset);
std::string percentEscapedQueryStringValue(std::string_view value, std::string_view charset = kUTF8Charset);

}  // namespace lectern
