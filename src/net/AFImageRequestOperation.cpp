#include "net/AFImageRequestOperation.h"

#include "net/URLError.h"

namespace lectern {

std::string imageFormatOfData(std::string_view data) {
  using namespace std::string_view_literals;
  if (data.starts_with("\x89PNG\r\n\x1A\n"sv)) return "png";
  if (data.starts_with("\xFF\xD8\xFF"sv)) return "jpeg";
  if (data.starts_with("GIF87a"sv) || data.starts_with("GIF89a"sv)) return "gif";
  if (data.starts_with("II*\0"sv) || data.starts_with("MM\0*"sv)) return "tiff";
  if (data.starts_with("BM"sv)) return "bmp";
  // Icons and cursors share one layout, type 1 or 2.
  if (data.starts_with("\0\0\1\0"sv) || data.starts_with("\0\0\2\0"sv)) return "ico";
  return {};
}

AFImageRequestOperation::AFImageRequestOperation(NetworkSession& session, HttpRequest request)
    : AFHTTPRequestOperation(session, std::move(request)) {
  setAcceptableContentTypes(defaultAcceptableContentTypes());
}

Result<std::optional<ResponseImage>> AFImageRequestOperation::responseImage() {
  auto object = responseObject();
  if (!object) return std::unexpected(object.error());
  if (const auto* image = std::get_if<ResponseImage>(&*object)) return std::optional<ResponseImage>(*image);
  return std::optional<ResponseImage>();
}

Result<ResponseObject> AFImageRequestOperation::parseResponse() {
  std::string data = responseData();
  if (data.empty()) return ResponseObject();
  std::string format = imageFormatOfData(data);
  if (format.empty()) {
    Error error = Error::make(kAFNetworkingErrorDomain, URLErrorCode::kCannotDecodeContentData,
                              "The response is not an image of a known format");
    const auto current = response();
    if (current) error.userInfo[std::string(kFailingURLErrorKey)] = current->url;
    return std::unexpected(std::move(error));
  }
  return ResponseObject(ResponseImage{std::move(data), std::move(format)});
}

}  // namespace lectern
