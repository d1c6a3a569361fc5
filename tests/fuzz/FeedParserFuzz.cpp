// Any bytes through the feed reader's dictionary path and its stream parser. Neither may crash,
// hang or grow without bound; a feed or an error are both fine.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"

#include "feeds/FeedDocumentParser.h"
#include "feeds/RSSParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lectern::fuzz::quietLog();
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  (void)lectern::FeedDocumentParser::parseFeedData(bytes, lectern::Date{});
  (void)lectern::RSSParser::withData(bytes).fetch();
  return 0;
}
