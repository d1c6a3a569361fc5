#include "sync/WebClients.h"

#include "net/AFHTTPClient.h"
#include "net/URL.h"
#include "net/URLError.h"

namespace lectern {

Result<std::unique_ptr<AFHTTPClient>> makeClientForAddress(NetworkSession& session,
                                                           std::string_view address) {
  const auto url = URL::parse(address);
  const bool web = url && (url->scheme() == "http" || url->scheme() == "https") && !url->host().empty();
  if (!web) {
    return fail(makeURLError(URLErrorCode::kUnsupportedURL, address, "unsupported URL"));
  }
  return std::make_unique<AFHTTPClient>(session, url->origin());
}

}  // namespace lectern
