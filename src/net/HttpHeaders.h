#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lectern {

// HTTP header fields in the order they were set; names compare without regard to ASCII case.
// A plain value.
class HttpHeaders {
 public:
  using Field = std::pair<std::string, std::string>;

  std::optional<std::string> value(std::string_view name) const;
  bool contains(std::string_view name) const { return value(name).has_value(); }
  // Replaces every field of that name (keeping the place of the first); appends when absent.
  void set(std::string_view name, std::string value);
  // Adds one more field, even when the name is present (response headers may repeat).
  void add(std::string_view name, std::string value);
  void remove(std::string_view name);

  const std::vector<Field>& fields() const { return fields_; }
  size_t size() const { return fields_.size(); }
  bool empty() const { return fields_.empty(); }
  auto begin() const { return fields_.begin(); }
  auto end() const { return fields_.end(); }

  bool operator==(const HttpHeaders&) const = default;

 private:
  std::vector<Field> fields_;
};

}  // namespace lectern
