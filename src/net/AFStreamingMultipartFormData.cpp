#include "net/AFStreamingMultipartFormData.h"

#include <filesystem>
#include <map>
#include <system_error>

#include "core/Strings.h"
#include "net/URL.h"
#include "net/URLError.h"

namespace lectern {

std::string mimeTypeForPathExtension(std::string_view extension) {
  static const std::map<std::string, std::string, std::less<>> kTypes = {
      {"bmp", "image/bmp"},       {"css", "text/css"},          {"csv", "text/csv"},
      {"gif", "image/gif"},       {"htm", "text/html"},         {"html", "text/html"},
      {"ico", "image/x-icon"},    {"jpeg", "image/jpeg"},       {"jpg", "image/jpeg"},
      {"js", "text/javascript"},  {"json", "application/json"}, {"m4a", "audio/mp4"},
      {"mov", "video/quicktime"}, {"mp3", "audio/mpeg"},        {"mp4", "video/mp4"},
      {"opml", "text/x-opml"},    {"pdf", "application/pdf"},   {"plist", "application/x-plist"},
      {"png", "image/png"},       {"svg", "image/svg+xml"},     {"tif", "image/tiff"},
      {"tiff", "image/tiff"},     {"txt", "text/plain"},        {"webp", "image/webp"},
      {"xml", "application/xml"}, {"zip", "application/zip"}};
  const auto it = kTypes.find(toLowerASCII(extension));
  return it == kTypes.end() ? "application/octet-stream" : it->second;
}

AFStreamingMultipartFormData::AFStreamingMultipartFormData(HttpRequest request)
    : request_(std::move(request)), bodyStream_(std::make_shared<AFMultipartBodyStream>()) {}

Result<void> AFStreamingMultipartFormData::appendPartWithFileURL(std::string_view fileURL,
                                                                 std::string_view name) {
  const auto url = URL::parse(fileURL);
  const std::string path = url ? percentUnescape(url->path()) : std::string();
  const std::string fileName = std::filesystem::path(path).filename().string();
  return appendPartWithFileURL(fileURL, name, fileName,
                               mimeTypeForPathExtension(url ? url->pathExtension() : ""));
}

Result<void> AFStreamingMultipartFormData::appendPartWithFileURL(std::string_view fileURL,
                                                                 std::string_view name,
                                                                 std::string_view fileName,
                                                                 std::string_view mimeType) {
  const auto url = URL::parse(fileURL);
  if (!url || !equalsIgnoringASCIICase(url->scheme(), "file")) {
    Error error = makeURLError(URLErrorCode::kBadURL, fileURL, "Expected URL to be a file URL");
    error.domain = kAFNetworkingErrorDomain;
    return fail(std::move(error));
  }
  const std::filesystem::path path = percentUnescape(url->path());
  std::error_code ec;
  const bool regular = std::filesystem::is_regular_file(path, ec);
  const auto size = regular ? std::filesystem::file_size(path, ec) : 0;
  if (!regular || ec) {
    Error error = makeURLError(URLErrorCode::kBadURL, fileURL, "File URL not reachable.");
    error.domain = kAFNetworkingErrorDomain;
    return fail(std::move(error));
  }
  HttpHeaders headers;
  headers.set("Content-Disposition",
              "form-data; name=\"" + std::string(name) + "\"; filename=\"" + std::string(fileName) + "\"");
  headers.set("Content-Type", std::string(mimeType));
  bodyStream_->appendHTTPBodyPart(
      AFHTTPBodyPart(std::string(kAFMultipartFormBoundary), std::move(headers), path, size));
  return {};
}

void AFStreamingMultipartFormData::appendPartWithInputStream(std::shared_ptr<InputStream> stream,
                                                             std::string_view name, std::string_view fileName,
                                                             std::uint64_t length,
                                                             std::string_view mimeType) {
  HttpHeaders headers;
  headers.set("Content-Disposition",
              "form-data; name=\"" + std::string(name) + "\"; filename=\"" + std::string(fileName) + "\"");
  headers.set("Content-Type", std::string(mimeType));
  bodyStream_->appendHTTPBodyPart(
      AFHTTPBodyPart(std::string(kAFMultipartFormBoundary), std::move(headers), std::move(stream), length));
}

void AFStreamingMultipartFormData::appendPartWithFileData(std::string data, std::string_view name,
                                                          std::string_view fileName,
                                                          std::string_view mimeType) {
  HttpHeaders headers;
  headers.set("Content-Disposition",
              "form-data; name=\"" + std::string(name) + "\"; filename=\"" + std::string(fileName) + "\"");
  headers.set("Content-Type", std::string(mimeType));
  appendPartWithHeaders(std::move(headers), std::move(data));
}

void AFStreamingMultipartFormData::appendPartWithFormData(std::string data, std::string_view name) {
  HttpHeaders headers;
  headers.set("Content-Disposition", "form-data; name=\"" + std::string(name) + "\"");
  appendPartWithHeaders(std::move(headers), std::move(data));
}

void AFStreamingMultipartFormData::appendPartWithHeaders(HttpHeaders headers, std::string body) {
  const auto length = body.size();
  bodyStream_->appendHTTPBodyPart(
      AFHTTPBodyPart(std::string(kAFMultipartFormBoundary), std::move(headers), std::move(body), length));
}

void AFStreamingMultipartFormData::throttleBandwidthWithPacketSize(size_t numberOfBytes,
                                                                   std::chrono::duration<double> delay) {
  bodyStream_->setNumberOfBytesInPacket(numberOfBytes);
  if (delay.count() > 0 && numberOfBytes > 0) {
    request_.maxSendBytesPerSecond =
        static_cast<std::uint64_t>(static_cast<double>(numberOfBytes) / delay.count());
  }
}

HttpRequest AFStreamingMultipartFormData::requestByFinalizingMultipartFormData() {
  if (bodyStream_->isEmpty()) return request_;
  bodyStream_->setInitialAndFinalBoundaries();
  request_.setValue("Content-Type", "multipart/form-data; boundary=" + std::string(kAFMultipartFormBoundary));
  request_.setValue("Content-Length", std::to_string(bodyStream_->contentLength()));
  request_.body.clear();
  request_.bodyStream = bodyStream_;
  return request_;
}

}  // namespace lectern
