#include "core/Error.h"

namespace lectern {

Error Error::make(std::string_view domain, int code, std::string_view description,
                  std::string_view recoverySuggestion) {
  Error error;
  error.domain = domain;
  error.code = code;
  error.description = description;
  error.recoverySuggestion = recoverySuggestion;
  return error;
}

std::string Error::message() const {
  if (recoverySuggestion.empty()) return description;
  if (description.empty()) return recoverySuggestion;
  return description + ": " + recoverySuggestion;
}

std::string Error::info(std::string_view key) const {
  auto it = userInfo.find(std::string(key));
  return it == userInfo.end() ? std::string() : it->second;
}

}  // namespace lectern
