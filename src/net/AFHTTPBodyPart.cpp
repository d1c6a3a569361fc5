#include "net/AFHTTPBodyPart.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "net/URLError.h"

namespace lectern {
namespace {

constexpr std::string_view kCRLF = "\r\n";

}  // namespace

AFHTTPBodyPart::AFHTTPBodyPart(std::string boundary, HttpHeaders headers, Body body,
                               std::uint64_t bodyContentLength)
    : boundary_(std::move(boundary)),
      headers_(std::move(headers)),
      body_(std::move(body)),
      bodyContentLength_(bodyContentLength) {}

AFHTTPBodyPart::~AFHTTPBodyPart() {
  if (file_ != nullptr) std::fclose(file_);
}

AFHTTPBodyPart::AFHTTPBodyPart(AFHTTPBodyPart&& other) noexcept
    : boundary_(std::move(other.boundary_)),
      headers_(std::move(other.headers_)),
      body_(std::move(other.body_)),
      bodyContentLength_(other.bodyContentLength_),
      hasInitialBoundary_(other.hasInitialBoundary_),
      hasFinalBoundary_(other.hasFinalBoundary_),
      phase_(other.phase_),
      offset_(other.offset_),
      file_(other.file_) {
  other.file_ = nullptr;
}

std::string AFHTTPBodyPart::head() const {
  std::string out = hasInitialBoundary_ ? "--" + boundary_ + std::string(kCRLF)
                                        : std::string(kCRLF) + "--" + boundary_ + std::string(kCRLF);
  for (const auto& [name, value] : headers_) out += name + ": " + value + std::string(kCRLF);
  out += kCRLF;
  return out;
}

std::string AFHTTPBodyPart::tail() const {
  return hasFinalBoundary_ ? std::string(kCRLF) + "--" + boundary_ + "--" + std::string(kCRLF)
                           : std::string();
}

std::uint64_t AFHTTPBodyPart::contentLength() const {
  return head().size() + bodyContentLength_ + tail().size();
}

bool AFHTTPBodyPart::rewind() {
  phase_ = 0;
  offset_ = 0;
  if (file_ != nullptr) {
    std::fclose(file_);
    file_ = nullptr;
  }
  if (auto* stream = std::get_if<std::shared_ptr<InputStream>>(&body_)) return (*stream)->rewind();
  return true;
}

Result<size_t> AFHTTPBodyPart::readBody(char* buffer, size_t length) {
  const std::uint64_t left = bodyContentLength_ - offset_;
  length = static_cast<size_t>(std::min<std::uint64_t>(length, left));
  if (length == 0) return size_t{0};
  if (const auto* data = std::get_if<std::string>(&body_)) {
    std::memcpy(buffer, data->data() + offset_, length);
    return length;
  }
  if (const auto* path = std::get_if<std::filesystem::path>(&body_)) {
    if (file_ == nullptr) {
      file_ = std::fopen(path->c_str(), "rb");
      if (file_ == nullptr) {
        return fail(makeURLError(URLErrorCode::kFileDoesNotExist, "file://" + path->string(),
                                 "Cannot open " + path->string(), std::strerror(errno)));
      }
    }
    const size_t n = std::fread(buffer, 1, length, file_);
    if (n == 0) {
      return fail(makeURLError(URLErrorCode::kRequestBodyStreamExhausted, "file://" + path->string(),
                               "The file " + path->string() + " ended before its announced length"));
    }
    return n;
  }
  const auto* stream = std::get_if<std::shared_ptr<InputStream>>(&body_);
  if (stream == nullptr || !*stream) {
    return fail(
        makeURLError(URLErrorCode::kRequestBodyStreamExhausted, "", "A body part has no body to read"));
  }
  auto n = (*stream)->read(buffer, length);
  if (n && *n == 0) {
    return fail(makeURLError(URLErrorCode::kRequestBodyStreamExhausted, "",
                             "A body stream ended before its announced length"));
  }
  return n;
}

Result<size_t> AFHTTPBodyPart::read(char* buffer, size_t length) {
  while (phase_ < 3) {
    if (phase_ == 1) {
      auto n = readBody(buffer, length);
      if (!n) return n;
      if (*n > 0) {
        offset_ += *n;
        return n;
      }
    } else {
      const std::string text = phase_ == 0 ? head() : tail();
      if (offset_ < text.size()) {
        const size_t n = std::min<size_t>(length, text.size() - static_cast<size_t>(offset_));
        std::memcpy(buffer, text.data() + offset_, n);
        offset_ += n;
        return n;
      }
    }
    ++phase_;
    offset_ = 0;
  }
  return size_t{0};
}

}  // namespace lectern
