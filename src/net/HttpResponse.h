#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "net/HttpHeaders.h"

namespace lectern {

// The head of an HTTP response. A plain value.
struct HttpResponse {
  int statusCode = 0;  // 0 for a response that did not come over HTTP
  std::string url;     // after redirects
  HttpHeaders headers;

  // Lower-cased "type/subtype" of "Content-Type"; "" when there is none.
  std::string MIMEType() const;
  // The "charset" parameter of "Content-Type", lower-cased, without quotes.
  std::optional<std::string> textEncodingName() const;
  // "Content-Length", or -1 when unknown.
  std::int64_t expectedContentLength() const;
  // "<200 https://host/path>", for logs and error user info.
  std::string description() const;
};

}  // namespace lectern
