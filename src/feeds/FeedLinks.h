#pragma once

#include <string>
#include <string_view>

namespace lectern {

// Relative links of feed documents made absolute. Pure functions; any thread.

// `reference` resolved against `base` by the generic rules of RFC 3986 (5.2): an absolute
// reference stands as it is, "//host/x" takes the base's scheme, "/x" the base's authority, "x"
// and "../x" the base's folder, "?q" and "#f" the base's path. A base that is not absolute
// ("", "feed.xml") leaves the reference as it is.
std::string resolveLinkReference(std::string_view base, std::string_view reference);

// `html` with the value of every href and src attribute that is a relative reference resolved
// against `base`, quoted or not; everything else is kept byte for byte. Unchanged when `base` is
// not absolute.
std::string resolveRelativeLinksInHtml(std::string_view html, std::string_view base);

// Runs of white space (line breaks included) made one space, none at either end: a title's text.
std::string collapseWhitespace(std::string_view text);

}  // namespace lectern
