#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "net/HttpHeaders.h"
#include "net/Streams.h"

namespace lectern {

// A user name and password for HTTP authentication challenges.
struct HttpCredential {
  std::string user;
  std::string password;
  bool operator==(const HttpCredential&) const = default;
};

// A cookie store's identity. Requests that name the same jar send the cookies any of them received;
// a jar's cookies live in memory only and end with the last request naming it. Each AFHTTPClient
// has one, so one account's session cookie never travels with another account's requests.
class CookieJar {
 public:
  static std::shared_ptr<const CookieJar> make() { return std::make_shared<const CookieJar>(); }
};

// One HTTP request as the network layer sends it. A plain value; build it on any thread.
struct HttpRequest {
  static constexpr std::chrono::duration<double> kDefaultTimeoutInterval{60.0};

  std::string method = "GET";
  std::string url;  // absolute; "" when a path could not be resolved (sending fails with -1000)
  HttpHeaders headers;
  std::string body;
  // A streamed body (multipart uploads); when set it is sent instead of `body`.
  std::shared_ptr<InputStream> bodyStream;
  // How long the transfer may stay idle (no byte sent or received) before it fails with -1001.
  std::chrono::duration<double> timeoutInterval = kDefaultTimeoutInterval;
  // Skips certificate verification for this request.
  bool allowsInvalidSSLCertificate = false;
  // Upload pacing of a throttled multipart body: bytes per second, 0 for no limit.
  std::uint64_t maxSendBytesPerSecond = 0;
  // Where its cookies come from and go to; none: the session's common jar.
  std::shared_ptr<const CookieJar> cookieJar;

  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return headers.value(name);
  }
  void setValue(std::string_view name, std::string value) { headers.set(name, std::move(value)); }
  // "<GET https://host/path>", for logs and error user info; secret query values are redacted.
  std::string description() const;
};

}  // namespace lectern
