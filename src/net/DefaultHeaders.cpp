#include "net/DefaultHeaders.h"

#include <sys/utsname.h>
#include <unicode/translit.h>
#include <unicode/unistr.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "core/Strings.h"

namespace lectern {
namespace {

bool isASCII(std::string_view text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

std::string toASCII(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Transliterator> transliterator(
      icu::Transliterator::createInstance("Any-Latin; Latin-ASCII", UTRANS_FORWARD, status));
  std::string latin;
  if (U_SUCCESS(status) && transliterator) {
    auto unicode =
        icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    transliterator->transliterate(unicode);
    unicode.toUTF8String(latin);
  } else {
    latin = std::string(text);
  }
  std::erase_if(latin, [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
  return latin;
}

// "fr_CA.UTF-8@euro" -> "fr-CA"; nothing for the C locale.
std::string languageTag(std::string_view locale) {
  locale = locale.substr(0, locale.find_first_of(".@"));
  if (locale.empty() || locale == "C" || locale == "POSIX") return {};
  std::string tag(locale);
  for (char& c : tag) {
    if (c == '_') c = '-';
  }
  return tag;
}

}  // namespace

std::string acceptLanguageHeaderValue(const std::vector<std::string>& languages) {
  std::string out;
  for (size_t n = 0; n < languages.size(); ++n) {
    const double q = 1.0 - 0.1 * static_cast<double>(n);
    char weight[16];
    std::snprintf(weight, sizeof weight, "%0.1g", q);
    if (!out.empty()) out += ", ";
    out += languages[n] + ";q=" + weight;
    if (q <= 0.5) break;
  }
  return out;
}

std::string userAgentHeaderValue(std::string_view version, std::string_view release) {
  std::string agent = "Lectern/" + std::string(version) + " (Linux " + std::string(release) + ")";
  return isASCII(agent) ? agent : toASCII(agent);
}

std::vector<std::string> preferredLanguagesFromEnvironment(
    const std::function<const char*(const char*)>& getenvFn) {
  auto env = [&](const char* name) -> std::string_view {
    const char* value = getenvFn ? getenvFn(name) : std::getenv(name);
    return value != nullptr ? value : "";
  };
  std::vector<std::string> languages;
  // LANGUAGE is a priority list, honoured only with a real locale, as gettext does.
  std::string_view locale = env("LC_ALL");
  if (locale.empty()) locale = env("LC_MESSAGES");
  if (locale.empty()) locale = env("LANG");
  if (!languageTag(locale).empty()) {
    for (const auto& part : split(env("LANGUAGE"), ":")) {
      auto tag = languageTag(part);
      if (!tag.empty()) languages.push_back(std::move(tag));
    }
    if (languages.empty()) languages.push_back(languageTag(locale));
  }
  if (languages.empty()) languages.push_back("en");
  return languages;
}

std::string systemRelease() {
  struct utsname name {};
  if (uname(&name) != 0) return "unknown";
  return name.release;
}

}  // namespace lectern
