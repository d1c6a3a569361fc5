#include "feeds/URLDownload.h"

#include <set>

#include "net/AFHTTPClient.h"
#include "net/URLError.h"

namespace lectern {

Result<URLDownload> downloadURLSynchronously(NetworkSession& session, std::string_view url,
                                             const URLDownloadOptions& options) {
  const auto parsed = URL::parse(url);
  if (!parsed || !parsed->isAbsolute() || !parsed->hasAuthority() || parsed->host().empty()) {
    return fail(makeURLError(URLErrorCode::kBadURL, url, "The URL is not valid."));
  }
  AFHTTPClient client(session, parsed->origin());
  // One request, no one to tell about the host's reachability.
  client.stopMonitoringNetworkReachability();
  if (options.maximumResponseSize) client.setMaximumResponseSize(*options.maximumResponseSize);
  HttpRequest request = client.requestWithMethod("GET", url);
  request.timeoutInterval = options.timeout;
  auto operation = client.HTTPRequestOperationWithRequest(std::move(request), nullptr, nullptr);
  if (options.statusPolicy == DownloadStatusPolicy::kAcceptAny) {
    std::set<int> every;
    for (int code = 100; code < 600; ++code) every.insert(code);
    operation->addAcceptableStatusCodes(every);
  }
  client.enqueueHTTPRequestOperation(operation);
  if (!operation->waitUntilFinished(options.timeout)) {
    operation->cancel();
    operation->waitUntilFinished(std::chrono::seconds(5));
    return fail(makeURLError(URLErrorCode::kTimedOut, url, "The request timed out."));
  }
  if (auto error = operation->error()) return fail(std::move(*error));
  URLDownload download;
  download.data = operation->responseData();
  download.response = operation->response().value_or(HttpResponse{});
  return download;
}

}  // namespace lectern
