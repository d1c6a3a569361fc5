#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "net/HttpRequest.h"
#include "net/HttpResponse.h"

namespace lectern {

// What to do with a response whose head just arrived.
struct ResponseDisposition {
  std::optional<HttpRequest> restartWith;  // drop this answer and send this request instead
  std::optional<Error> failWith;           // stop the transfer with this error
  static ResponseDisposition allow() { return {}; }
};

// The party a transfer reports to. Calls come on the transport's thread, one at a time, and
// didComplete comes exactly once, last.
class TransferDelegate {
 public:
  virtual ~TransferDelegate() = default;
  // A redirect answer arrived. Returns the request to follow it with (the proposed one, changed,
  // or another), or nothing to take the redirect answer itself as the response.
  virtual std::optional<HttpRequest> willRedirect(HttpRequest proposed,
                                                  const HttpResponse& redirectResponse) {
    (void)redirectResponse;
    return proposed;
  }
  virtual ResponseDisposition didReceiveResponse(const HttpResponse& response) = 0;
  // An error stops the transfer; didComplete then receives it.
  virtual std::optional<Error> didReceiveData(std::string_view bytes) = 0;
  virtual void didSendBodyData(std::uint64_t bytesWritten, std::uint64_t totalBytesWritten,
                               std::int64_t totalBytesExpectedToWrite) {
    (void)bytesWritten, (void)totalBytesWritten, (void)totalBytesExpectedToWrite;
  }
  // Nothing on success; otherwise a URL-system error (cancelled is -999).
  virtual void didComplete(std::optional<Error> error) = 0;
};

// Counters for tests and benchmarks.
struct TransportStatistics {
  std::uint64_t transfersStarted = 0;
  std::uint64_t connectionsOpened = 0;  // new TCP connections; reused ones are not counted
};

// Moves HTTP requests over the wire: libcurl in the program, canned answers in unit tests.
// Thread-safe.
class Transport {
 public:
  using TransferId = std::uint64_t;
  virtual ~Transport() = default;

  // Starts sending `request`; `delegate` is kept until its didComplete has run.
  virtual TransferId start(HttpRequest request, std::shared_ptr<TransferDelegate> delegate) = 0;
  // Stops a transfer; its delegate hears didComplete with the cancelled error, unless it had
  // already completed.
  virtual void cancel(TransferId transfer) = 0;
  virtual TransportStatistics statistics() const = 0;

  // One request, waited for: the response head and the whole body. For tools and tests; service
  // code goes through operations.
  struct Exchange {
    HttpResponse response;
    std::string body;
  };
  Result<Exchange> send(const HttpRequest& request);
};

}  // namespace lectern
