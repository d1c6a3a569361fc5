#pragma once

#include <memory>
#include <string_view>

#include "core/Error.h"

namespace lectern {

class AFHTTPClient;
class NetworkSession;

// A client for one absolute http(s) address (an article page, a picture), for the blocking calls
// of sync threads. An address that is not absolute http(s) is refused with -1002, so the client's
// constructor never sees a bad base URL.
Result<std::unique_ptr<AFHTTPClient>> makeClientForAddress(NetworkSession& session, std::string_view address);

}  // namespace lectern
