#pragma once

#include <string_view>

#include "core/Error.h"
#include "feeds/RSSParser.h"
#include "net/NetworkSession.h"

namespace lectern {

// The URL form of RSSParser: the document is downloaded at once (blocking, so from a worker
// thread or the command line) and parsed by the returned parser's fetch(). A failed download
// gives the same "Failed to fetch feed: <url>" error as QKFeedParserClient.
Result<RSSParser> rssParserWithURL(NetworkSession& session, std::string_view url);

}  // namespace lectern
