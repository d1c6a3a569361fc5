#include "feeds/FeedURLSplit.h"

#include "core/Strings.h"
#include "feeds/FeedStrings.h"

namespace lectern {

FeedURLSplit FeedURLSplit::fromURL(std::string_view url) {
  FeedURLSplit split;
  split.origin = urlOrigin(url);
  split.path = replaceAll(url, split.origin, "");
  split.baseUrl = replaceAll(url, split.path, "");
  return split;
}

}  // namespace lectern
