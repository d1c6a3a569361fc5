#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "feeds/QKFeedLinkItem.h"
#include "net/NetworkSession.h"

namespace lectern {

// What subscribing by a typed address needs: the address made whole, then the feeds it stands for.

// True when `text` starts with a URL scheme and "://" ("https://", "feed://").
bool hasURLScheme(std::string_view text);

// What the user typed as an address, made a full URL: surrounding white space dropped and
// "https://" put before an address without a scheme ("example.com/blog" -> "https://example.com/blog").
std::string normalizedFeedAddress(std::string_view typed);

// Runs feed discovery (QKFeedLinkParser) on normalizedFeedAddress(typed) and waits for it. One
// candidate means the address is (or names exactly) one feed; several are for the user to choose
// from, in page order. Errors: the download's own, or QKFeedLinkParserErrorDomain's. On the main
// thread it runs the main queue while it waits; on another thread the main queue must be running.
Result<std::vector<QKFeedLinkItem>> discoverFeeds(NetworkSession& session, std::string_view typed);

}  // namespace lectern
