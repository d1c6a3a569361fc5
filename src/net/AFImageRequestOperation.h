#pragma once

#include <optional>
#include <set>
#include <string>

#include "net/AFHTTPRequestOperation.h"

namespace lectern {

// An HTTP operation whose body is an image. Nothing decodes it here: the bytes are checked for a
// known image signature and kept. Thread-safe.
class AFImageRequestOperation : public AFHTTPRequestOperation {
 public:
  static constexpr std::string_view kClassName = "AFImageRequestOperation";

  AFImageRequestOperation(NetworkSession& session, HttpRequest request);

  static std::optional<std::set<std::string>> defaultAcceptableContentTypes() {
    return std::set<std::string>{"image/tiff",      "image/jpeg",        "image/gif", "image/png",
                                 "image/ico",       "image/x-icon",      "image/bmp", "image/x-bmp",
                                 "image/x-xbitmap", "image/x-win-bitmap"};
  }
  static std::set<std::string> acceptablePathExtensions() {
    return {"tif", "tiff", "jpg", "jpeg", "gif", "png", "ico", "bmp", "cur"};
  }
  static bool canProcessRequest(const HttpRequest& request) {
    return requestMatchesOperationClass(request, *defaultAcceptableContentTypes(),
                                        acceptablePathExtensions());
  }

  // Nothing for an empty body; -1016 for bytes with no known image signature.
  Result<std::optional<ResponseImage>> responseImage();

  std::string_view className() const override { return kClassName; }

 protected:
  Result<ResponseObject> parseResponse() override;
  ResponseProcessing processingKind() const override { return ResponseProcessing::kImage; }
};

// "png", "jpeg", "gif", "tiff", "bmp" or "ico" from the first bytes; "" when none matches.
std::string imageFormatOfData(std::string_view data);

}  // namespace lectern
