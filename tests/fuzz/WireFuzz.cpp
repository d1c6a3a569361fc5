// Answer bodies as the network layer reads them before any service sees them: JSON under each
// declared charset, XML property lists, the line-oriented "qline" form, and text decoding. A
// property list that reads must write and read back to the same value.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "FuzzSupport.h"
#include "net/AFJSONRequestOperation.h"
#include "net/PropertyList.h"
#include "net/QKXAuthClient.h"
#include "net/TextEncoding.h"

namespace {
constexpr const char* kCharsets[] = {"", "utf-8", "UTF-16", "iso-8859-1", "windows-1251", "bogus-charset", "utf-32be"};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lectern::fuzz::quietLog();
  lectern::fuzz::FuzzInput input(data, size);
  const std::string charset = kCharsets[input.choose(std::size(kCharsets))];
  const bool fragments = input.choose(2) == 1;
  const std::string body(input.rest());

  const std::optional<std::string> declared = charset.empty() ? std::nullopt : std::optional(charset);
  (void)lectern::parseJSONResponseBody(body, declared, lectern::JSONReadingOptions{fragments});
  (void)lectern::QKXAuthClient::convertToJSONFromQline(body);
  (void)lectern::QKXAuthClient::tokenPairFromResponseBody(body);
  (void)lectern::decodeText(body, charset);
  if (auto decoded = lectern::decodeText(body, "utf-8")) (void)lectern::encodeText(*decoded, charset);

  if (auto list = lectern::propertyListFromData(body)) {
    // Nulls have no property-list form, so only a value without them must come back whole.
    const std::string written = lectern::xmlPropertyListFromJSON(list->value);
    auto again = lectern::propertyListFromData(written);
    if (!again) lectern::fuzz::broken("a written property list does not read back", written);
    if (lectern::xmlPropertyListFromJSON(again->value) != written)
      lectern::fuzz::broken("a property list changes when written twice", written);
  }
  return 0;
}
