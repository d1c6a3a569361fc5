#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace lectern {

// The header values every client sends. Pure functions.

// "en;q=1, fr;q=0.9, de;q=0.8": the n-th language gets q = 1 - 0.1 n, and the list stops after
// the first language whose q is 0.5 or less (so at most six).
std::string acceptLanguageHeaderValue(const std::vector<std::string>& languages);

// "Lectern/<version> (Linux <release>)", transliterated and then stripped to ASCII if needed.
std::string userAgentHeaderValue(std::string_view version, std::string_view systemRelease);

// The user's languages from LANGUAGE, else LC_ALL, LC_MESSAGES or LANG ("fr_CA.UTF-8" -> "fr-CA");
// "en" when nothing usable is set. `getenv` is injectable for tests.
std::vector<std::string> preferredLanguagesFromEnvironment(
    const std::function<const char*(const char*)>& getenv = nullptr);

// The kernel release (uname -r).
std::string systemRelease();

}  // namespace lectern
