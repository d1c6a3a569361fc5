#pragma once

#include <memory>

#include "net/Transport.h"

namespace lectern {

struct CurlTransportOptions {
  bool verifyTLS = true;      // only tests turn certificate checks off
  int maximumRedirects = 16;  // one more fails with -1007
  long maximumCachedConnections = 32;
  size_t maximumHeaderCount = 500;  // a response with more fields fails with -1011
  size_t maximumHeaderBytes = 256 * 1024;
  // Cookies kept in memory, one store per cookie jar a request names (each client has one) and a
  // common one for requests that name none. Never read from or written to disk.
  bool acceptCookies = true;
};

// The real transport: one libcurl multi handle on one network thread ("AFNetworking"), so every client shares
// one connection cache. Owned by the NetworkSession; thread-safe.
class CurlTransport final : public Transport {
 public:
  explicit CurlTransport(CurlTransportOptions options = {});
  // Cancels what is still running (delegates hear -999) and stops the network thread.
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  TransferId start(HttpRequest request, std::shared_ptr<TransferDelegate> delegate) override;
  void cancel(TransferId transfer) override;
  TransportStatistics statistics() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace lectern
