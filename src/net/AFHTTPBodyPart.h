#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <variant>

#include "core/Error.h"
#include "net/HttpHeaders.h"
#include "net/Streams.h"

namespace lectern {

// One part of a multipart body: its boundary line, headers and body (bytes, a file read when
// reached, or a stream). Read by the network thread through AFMultipartBodyStream.
class AFHTTPBodyPart {
 public:
  using Body = std::variant<std::string, std::filesystem::path, std::shared_ptr<InputStream>>;

  AFHTTPBodyPart(std::string boundary, HttpHeaders headers, Body body, std::uint64_t bodyContentLength);
  ~AFHTTPBodyPart();
  AFHTTPBodyPart(AFHTTPBodyPart&& other) noexcept;
  AFHTTPBodyPart& operator=(AFHTTPBodyPart&&) = delete;
  AFHTTPBodyPart(const AFHTTPBodyPart&) = delete;
  AFHTTPBodyPart& operator=(const AFHTTPBodyPart&) = delete;

  const HttpHeaders& headers() const { return headers_; }
  std::uint64_t bodyContentLength() const { return bodyContentLength_; }
  bool hasInitialBoundary() const { return hasInitialBoundary_; }
  bool hasFinalBoundary() const { return hasFinalBoundary_; }
  void setHasInitialBoundary(bool value) { hasInitialBoundary_ = value; }
  void setHasFinalBoundary(bool value) { hasFinalBoundary_ = value; }

  // Boundary, headers, body and (for the last part) the closing boundary.
  std::uint64_t contentLength() const;
  // Up to `length` bytes; 0 once the part has been read whole.
  Result<size_t> read(char* buffer, size_t length);
  bool rewind();

 private:
  std::string head() const;
  std::string tail() const;
  Result<size_t> readBody(char* buffer, size_t length);

  std::string boundary_;
  HttpHeaders headers_;
  Body body_;
  std::uint64_t bodyContentLength_;
  bool hasInitialBoundary_ = false;
  bool hasFinalBoundary_ = false;

  int phase_ = 0;             // 0 head, 1 body, 2 tail, 3 done
  std::uint64_t offset_ = 0;  // within the current phase
  std::FILE* file_ = nullptr;
};

}  // namespace lectern
