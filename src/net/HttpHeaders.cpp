#include "net/HttpHeaders.h"

#include <algorithm>

#include "core/Strings.h"

namespace lectern {

std::optional<std::string> HttpHeaders::value(std::string_view name) const {
  for (const auto& [key, v] : fields_) {
    if (equalsIgnoringASCIICase(key, name)) return v;
  }
  return std::nullopt;
}

void HttpHeaders::set(std::string_view name, std::string value) {
  auto first = std::find_if(fields_.begin(), fields_.end(),
                            [&](const Field& f) { return equalsIgnoringASCIICase(f.first, name); });
  if (first == fields_.end()) {
    fields_.emplace_back(std::string(name), std::move(value));
    return;
  }
  first->second = std::move(value);
  const auto keep = first - fields_.begin();
  fields_.erase(std::remove_if(fields_.begin() + keep + 1, fields_.end(),
                               [&](const Field& f) { return equalsIgnoringASCIICase(f.first, name); }),
                fields_.end());
}

void HttpHeaders::add(std::string_view name, std::string value) {
  fields_.emplace_back(std::string(name), std::move(value));
}

void HttpHeaders::remove(std::string_view name) {
  std::erase_if(fields_, [&](const Field& f) { return equalsIgnoringASCIICase(f.first, name); });
}

}  // namespace lectern
