#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace lectern {

// Small text readers shared by the feed parsers. Pure functions.

// Leading and trailing white space removed, white space being what the ICU pattern class \s
// matches (Unicode White_Space: tab to carriage return, U+0085, U+00A0, U+3000 ...): the same as
// removing the first match of "^\s*" and then of "\s*$".
std::string_view trimWhitespaces(std::string_view text);

// The number at the start of the text, after white space; 0 when there is none. Integers clamp
// to the 32-bit range; a float too large for its type becomes the largest finite one.
std::int32_t intValue(std::string_view text);
float floatValue(std::string_view text);

// "scheme://host" of an absolute URL, without user, password or port (an IPv6 host keeps its
// brackets); "" when the URL has no scheme or no host.
std::string urlOrigin(std::string_view url);

// The captures of the pattern <img[^>]*src=["'](/[^"']*)["'][^>]*/?> over `html`, leftmost
// match first: the root-relative sources of its image tags. Matched by hand, because the pattern
// engine would step through every character of every entry.
std::vector<std::string_view> rootRelativeImageSources(std::string_view html);

// The text of markup written by XhtmlCapture, as a title shows it: tags dropped, the escapes
// it writes (&amp; &lt; &gt; &quot;) read, runs of white space one space, no white space at
// either end.
std::string xhtmlText(std::string_view markup);

// `html` with `prefix` put before every URL token that equals one of `tokens`, in one pass that
// never reads replaced text again. A token is a whole quoted value, or a run of text that starts
// after a quote, white space, '=', ',', '(', ')' or '>' (or at the start) and ends before a quote,
// white space, ',', '(', ')', '<', '>' or the "/>" that closes a tag (or at the end); a run's
// part after its first '=' counts as a run too. So "</p>" and "<br/>" never hold a token.
std::string prefixUrlTokens(std::string_view html, const std::unordered_set<std::string_view>& tokens,
                            std::string_view prefix);

}  // namespace lectern
