#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lectern {

// "scheme://host" of an absolute address: the user info and port are left out, the host is
// lower-cased. Nothing for an address without scheme or host.
std::optional<std::string> urlDomain(std::string_view url);

}  // namespace lectern
