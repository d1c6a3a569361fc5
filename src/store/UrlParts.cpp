#include "store/UrlParts.h"

#include <fmt/format.h>

#include <cctype>

#include "core/Strings.h"

namespace lectern {

std::optional<std::string> urlDomain(std::string_view url) {
  url = trimView(url);
  const auto schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos || schemeEnd == 0) return std::nullopt;
  const std::string_view scheme = url.substr(0, schemeEnd);
  for (char c : scheme) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '+' && c != '-' && c != '.')
      return std::nullopt;
  }
  std::string_view authority = url.substr(schemeEnd + 3);
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (auto at = authority.rfind('@'); at != std::string_view::npos) authority = authority.substr(at + 1);
  std::string_view host = authority;
  if (!host.empty() && host.front() == '[') {
    host = host.substr(0, host.find(']') == std::string_view::npos ? host.size() : host.find(']') + 1);
  } else if (auto colon = host.rfind(':'); colon != std::string_view::npos) {
    host = host.substr(0, colon);
  }
  if (host.empty()) return std::nullopt;
  return fmt::format("{}://{}", toLowerASCII(scheme), toLowerASCII(host));
}

}  // namespace lectern
