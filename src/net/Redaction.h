#pragma once

#include <string>
#include <string_view>

#include "net/HttpHeaders.h"

namespace lectern {

// What a secret becomes in diagnostics (dumps, log lines that show a request or a response).
inline constexpr std::string_view kRedacted = "<redacted>";

// Whether a parameter, JSON key or header names a secret: password, passwd, token, secret, code,
// api_key, session ids, anything ending in "token", "secret", "password" or "_key" (any case,
// "-" read as "_"). A nested form key ("user[password]") is judged by its innermost part.
bool isSecretParameterName(std::string_view name);

// The URL with the values of secret query and fragment parameters, and the password of its user
// information, replaced by kRedacted. Text that is no URL is treated the same way from its "?".
std::string redactedURL(std::string_view url);

// "Authorization", "Proxy-Authorization", "Cookie", "Set-Cookie" and any field named like a secret
// ("X-Auth-Token") get kRedacted as value.
HttpHeaders redactedHeaders(const HttpHeaders& headers);

// Any text a diagnostic shows: a JSON document has the values under secret keys replaced (at any
// depth); other text has the values of `key=value`, `key="value"` and `"key": value` pairs with a
// secret key, and the rest of "Authorization:", "Cookie:" and "Set-Cookie:" lines, replaced.
// Pure and thread-safe; never throws for any bytes.
std::string redactedText(std::string_view text);

}  // namespace lectern
