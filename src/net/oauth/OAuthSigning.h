#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lectern {

// Key/value pairs in the order they were added (the OAuth header keeps that order).
using OAuthParameters = std::vector<std::pair<std::string, std::string>>;

// The pieces of an OAuth 1.0a HMAC-SHA1 signature. Pure functions, callable from any thread.

// UTF-8 bytes, upper-case hex; only letters, digits and "-._~" stay as they are (a space is
// "%20", never "+").
std::string oauthEscape(std::string_view text);

// "scheme://host[:port]/path" of an absolute URL: scheme and host lower-cased, no query or
// fragment, the port kept only when it is not the scheme's default (80 for http, 443 for https).
// A URL without a host is a caller error: throws InternalInconsistency "URL host missing: <url>".
std::string oauthNormalizedBaseURL(std::string_view absoluteURL);

// Already-escaped pairs sorted by key, then by value (byte-wise), joined as "k=v&k=v".
std::string oauthParameterString(OAuthParameters escapedPairs);

// "METHOD&escaped URL&escaped parameter string", the method upper-cased.
std::string oauthSignatureBaseString(std::string_view method, std::string_view normalizedURL,
                                     std::string_view parameterString);

// "escaped consumer secret&escaped token secret"; a missing token secret leaves a lone "&".
std::string oauthSigningKey(std::string_view consumerSecret, std::string_view tokenSecret);

// Base64 (standard alphabet, padded) of the HMAC-SHA1 of the base string under the key.
std::string oauthHMACSHA1Signature(std::string_view baseString, std::string_view signingKey);

// `OAuth realm="<realm>", k="escaped v", ...` with the parameters in their given order.
std::string oauthAuthorizationHeaderValue(std::string_view realm, const OAuthParameters& oauthParameters);

// Everything one signature needs. Values are given unescaped.
struct OAuthSigningInput {
  std::string method;
  std::string url;                    // absolute; its query is not part of the signature
  OAuthParameters oauthParameters;    // oauth_* and x_auth_*, in header order, no signature yet
  OAuthParameters requestParameters;  // the request's own parameters, flattened
  std::string consumerSecret;
  std::string tokenSecret;
  std::optional<std::string> realm;  // the normalised URL when absent
};

struct OAuthSignature {
  std::string baseString;
  std::string signature;    // Base64, unescaped
  std::string headerValue;  // the "Authorization" value, signature included
};

// Signs: escapes and merges both parameter sets (an OAuth key wins over a request parameter with
// the same escaped key), builds the base string and key, and writes the header with the realm first
// and the OAuth parameters (plus "oauth_signature") only.
OAuthSignature oauthSign(const OAuthSigningInput& input);

}  // namespace lectern
