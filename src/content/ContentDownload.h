#pragma once

#include <string_view>

#include "content/QKContentParser.h"
#include "core/Error.h"
#include "net/NetworkSession.h"

namespace lectern {

// A page fetched for extraction: downloaded through the network layer (blocking: worker threads
// only), read with the response's charset and made into a parser whose domain is `url`; the
// extraction itself (fetchContent) is left to the caller. A failed download, an answer outside
// 200-299 included, gives contentDownloadError.
Result<QKContentParser> contentParserWithURL(NetworkSession& session, std::string_view url);

// "Failed to download page: <url>", with the network layer's code and its sentence.
Error contentDownloadError(const Error& networkError, std::string_view url);

}  // namespace lectern
