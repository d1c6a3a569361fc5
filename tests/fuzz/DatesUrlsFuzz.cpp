// Dates as feeds and services write them, and addresses: parsing, resolution, the feed address
// helpers. A parsed URL written out must parse back to the same URL, and a date written as RFC
// 3339 must read back to the same second.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "core/Dates.h"
#include "feeds/FeedLinks.h"
#include "feeds/FeedURLSplit.h"
#include "net/URL.h"

namespace {

constexpr const char* kBases[] = {"http://example.com/a/b/c?q#f", "https://user@[::1]:8443/", "file:///x"};

void checkDateWritesBack(std::optional<lectern::Date> date) {
  if (!date) return;
  const std::string written = lectern::rfc3339String(*date);
  const auto again = lectern::dateFromRFC3339String(written);
  if (!again) lectern::fuzz::broken("a written date does not read back", written);
  if (lectern::millisecondsSince1970(*again) / 1000 != lectern::millisecondsSince1970(*date) / 1000)
    lectern::fuzz::broken("a written date reads back as another second", written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lectern::fuzz::quietLog();
  lectern::fuzz::FuzzInput input(data, size);
  const std::string base = kBases[input.choose(std::size(kBases))];
  const std::string text(input.rest());

  checkDateWritesBack(lectern::dateFromRFC822String(text));
  checkDateWritesBack(lectern::dateFromRFC3339String(text));
  checkDateWritesBack(lectern::dateFromISO8601String(text));
  (void)lectern::dateFromInternetDateTimeString(text, lectern::DateFormatHint::kRFC822);
  (void)lectern::dateFromRFC822StringWithICU(text);
  (void)lectern::dateFromRFC3339StringWithICU(text);

  if (auto url = lectern::URL::parse(text)) {
    const std::string written = url->string();
    auto again = lectern::URL::parse(written);
    if (!again) lectern::fuzz::broken("a written URL does not parse", written);
    if (!(*again == *url)) lectern::fuzz::broken("a written URL parses as another URL", written);
    (void)url->pathExtension();
    if (url->isAbsolute()) (void)url->origin();
  }
  if (auto baseUrl = lectern::URL::parse(base)) (void)baseUrl->resolve(text);
  (void)lectern::removeDotSegments(text);
  (void)lectern::resolveLinkReference(base, text);
  (void)lectern::FeedURLSplit::fromURL(text);
  return 0;
}
