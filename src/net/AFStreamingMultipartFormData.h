#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "net/AFMultipartBodyStream.h"
#include "net/HttpRequest.h"

namespace lectern {

// The boundary of every multipart body Lectern sends: fixed, with no random part.
inline constexpr std::string_view kAFMultipartFormBoundary = "Boundary+0xAbCdEfGbOuNdArY";

// Builds a multipart/form-data body for one request; the caller's block appends parts to it.
// Used on one thread, then finalised into the request.
class AFStreamingMultipartFormData {
 public:
  explicit AFStreamingMultipartFormData(HttpRequest request);

  // The file at a "file://" URL, named by its last path component, its MIME type from its
  // extension. Fails with "Expected URL to be a file URL" or "File URL not reachable.".
  Result<void> appendPartWithFileURL(std::string_view fileURL, std::string_view name);
  Result<void> appendPartWithFileURL(std::string_view fileURL, std::string_view name,
                                     std::string_view fileName, std::string_view mimeType);
  void appendPartWithInputStream(std::shared_ptr<InputStream> stream, std::string_view name,
                                 std::string_view fileName, std::uint64_t length, std::string_view mimeType);
  void appendPartWithFileData(std::string data, std::string_view name, std::string_view fileName,
                              std::string_view mimeType);
  void appendPartWithFormData(std::string data, std::string_view name);
  void appendPartWithHeaders(HttpHeaders headers, std::string body);
  // Sends the body in packets of at most `numberOfBytes`, paced so that one packet goes per `delay`.
  void throttleBandwidthWithPacketSize(size_t numberOfBytes, std::chrono::duration<double> delay);

  // The request with "Content-Type" (multipart, the boundary), "Content-Length" and the body
  // stream; unchanged when no part was added.
  HttpRequest requestByFinalizingMultipartFormData();

 private:
  HttpRequest request_;
  std::shared_ptr<AFMultipartBodyStream> bodyStream_;
};

// The MIME type for a file name's extension; "application/octet-stream" when unknown.
std::string mimeTypeForPathExtension(std::string_view extension);

}  // namespace lectern
