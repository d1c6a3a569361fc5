#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "net/HttpResponse.h"
#include "net/NetworkSession.h"

namespace lectern {

// Whether an answer outside 200-299 counts as a failure.
enum class DownloadStatusPolicy {
  kRequireSuccess,  // -1011 "Expected status code in (200-299), got N"
  kAcceptAny,       // the body of any answer, as a browser would show it
};

struct URLDownloadOptions {
  std::chrono::duration<double> timeout{60.0};
  DownloadStatusPolicy statusPolicy = DownloadStatusPolicy::kRequireSuccess;
  // A smaller cap than the session's: a longer body fails with -1103 as soon as it passes it.
  std::optional<std::uint64_t> maximumResponseSize = std::nullopt;
};

// One downloaded resource: the body and the response head (final URL after redirects, status,
// MIME type and charset).
struct URLDownload {
  std::string data;
  HttpResponse response;
};

// Fetches `url` with a plain GET through the network layer (the session's connection cache,
// cookies, redirects and size limit) and waits for it, at most `options.timeout`. For worker
// threads: it never needs the main thread. The error is the layer's own (-1000 for an address
// without scheme or host, -1002 for a scheme other than http and https, -1001 on timeout ...);
// callers put their own title on it.
Result<URLDownload> downloadURLSynchronously(NetworkSession& session, std::string_view url,
                                             const URLDownloadOptions& options = {});

}  // namespace lectern
