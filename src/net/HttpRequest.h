#pragma once

#include <chrono>
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

  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return headers.value(name);
  }
  void setValue(std::string_view name, std::string value) { headers.set(name, std::move(value)); }
  // "<GET https://host/path>", for logs and error user info.
  std::string description() const { return "<" + method + " " + url + ">"; }
};

}  // namespace lectern
