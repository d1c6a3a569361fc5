#include "net/oauth/OAuthSigning.h"

#include <algorithm>

#include "core/Error.h"
#include "core/Strings.h"
#include "net/URL.h"

namespace lectern {

std::string oauthEscape(std::string_view text) {
  // Everything printable outside the unreserved set, on top of what is never legal in a URL.
  return percentEscape(text, "!*'();:@&=+$,/?#[]<>{}|`^%\"\\ ");
}

std::string oauthNormalizedBaseURL(std::string_view absoluteURL) {
  const auto url = URL::parse(absoluteURL);
  if (!url || url->host().empty()) {
    throw InternalInconsistency("URL host missing: " + std::string(absoluteURL));
  }
  const std::string scheme = toLowerASCII(url->scheme());
  std::string host = toLowerASCII(url->host());
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  if (const auto port = url->port()) {
    const bool isDefault = (scheme == "http" && *port == 80) || (scheme == "https" && *port == 443);
    if (!isDefault) host += ":" + std::to_string(*port);
  }
  return scheme + "://" + host + url->path();
}

std::string oauthParameterString(OAuthParameters escapedPairs) {
  std::sort(escapedPairs.begin(), escapedPairs.end());
  std::string out;
  for (const auto& [key, value] : escapedPairs) {
    if (!out.empty()) out += '&';
    out += key;
    out += '=';
    out += value;
  }
  return out;
}

std::string oauthSignatureBaseString(std::string_view method, std::string_view normalizedURL,
                                     std::string_view parameterString) {
  return toUpperASCII(method) + "&" + oauthEscape(normalizedURL) + "&" + oauthEscape(parameterString);
}

std::string oauthSigningKey(std::string_view consumerSecret, std::string_view tokenSecret) {
  return oauthEscape(consumerSecret) + "&" + oauthEscape(tokenSecret);
}

std::string oauthHMACSHA1Signature(std::string_view baseString, std::string_view signingKey) {
  return base64Encode(hmacSHA1(signingKey, baseString));
}

std::string oauthAuthorizationHeaderValue(std::string_view realm, const OAuthParameters& oauthParameters) {
  std::string out = "OAuth realm=\"" + std::string(realm) + "\"";
  for (const auto& [key, value] : oauthParameters) {
    out += ", " + key + "=\"" + oauthEscape(value) + "\"";
  }
  return out;
}

OAuthSignature oauthSign(const OAuthSigningInput& input) {
  const std::string baseURL = oauthNormalizedBaseURL(input.url);

  OAuthParameters escapedOAuth;
  for (const auto& [key, value] : input.oauthParameters)
    escapedOAuth.emplace_back(oauthEscape(key), oauthEscape(value));
  OAuthParameters merged = escapedOAuth;
  for (const auto& [key, value] : input.requestParameters) {
    std::string escapedKey = oauthEscape(key);
    const bool takenByOAuth = std::any_of(escapedOAuth.begin(), escapedOAuth.end(),
                                          [&](const auto& pair) { return pair.first == escapedKey; });
    if (!takenByOAuth) merged.emplace_back(std::move(escapedKey), oauthEscape(value));
  }

  OAuthSignature result;
  result.baseString =
      oauthSignatureBaseString(input.method, baseURL, oauthParameterString(std::move(merged)));
  result.signature =
      oauthHMACSHA1Signature(result.baseString, oauthSigningKey(input.consumerSecret, input.tokenSecret));
  OAuthParameters headerParameters = input.oauthParameters;
  headerParameters.emplace_back("oauth_signature", result.signature);
  result.headerValue = oauthAuthorizationHeaderValue(input.realm.value_or(baseURL), headerParameters);
  return result;
}

}  // namespace lectern
