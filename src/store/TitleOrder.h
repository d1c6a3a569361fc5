#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lectern {

// Orders titles as a person reads them: by the user's locale, ignoring case. A missing title
// comes before every title.
bool titleLess(const std::optional<std::string>& a, const std::optional<std::string>& b);

}  // namespace lectern
