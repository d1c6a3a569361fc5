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

// `address` as two subscriptions are compared: surrounding white space dropped, scheme and host in
// lower case. Nothing else changes (path, query, port, user): those can tell different feeds apart.
std::string comparableFeedAddress(std::string_view address);

// Runs feed discovery (QKFeedLinkParser) on normalizedFeedAddress(typed) and waits for it. One
// candidate means the address is (or names exactly) one feed; several are for the user to choose
// from, in page order. Errors: the download's own, or QKFeedLinkParserErrorDomain's. On the main
// thread it runs the main queue while it waits; on another thread the main queue must be running.
// Every candidate's URL is absolute (see chooseCandidateAddress); choosing may download a
// candidate on the calling thread.
Result<std::vector<QKFeedLinkItem>> discoverFeeds(NetworkSession& session, std::string_view typed);

// The feeds to offer for a typed address: discovery's answer, or the address itself when it
// answered with something that is not a page but may still be a feed (served as "text/plain" or
// "application/octet-stream"): subscribing then tries it as one.
Result<std::vector<QKFeedLinkItem>> subscriptionCandidates(NetworkSession& session, std::string_view typed);

// The address a page's candidate is subscribed at. The address discovery has always built comes
// first (a relative href resolved against `pageAddress`); when the browser's reading of the href
// (item.resolvedURL) differs from it and it does not answer with a feed, the browser's reading is
// taken. Blocks the calling thread for that one download.
std::string chooseCandidateAddress(NetworkSession& session, std::string_view pageAddress,
                                   const QKFeedLinkItem& item);

// True when `url` answers 2xx with a feed: a feed MIME type, or a body that parses as RSS or Atom.
bool answersWithFeed(NetworkSession& session, std::string_view url);

}  // namespace lectern
