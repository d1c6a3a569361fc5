#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "net/AFHTTPRequestOperation.h"
#include "net/PropertyList.h"

namespace lectern {

// An HTTP operation whose body is an XML property list, handed on as nlohmann::json. Thread-safe.
class AFPropertyListRequestOperation : public AFHTTPRequestOperation {
 public:
  static constexpr std::string_view kClassName = "AFPropertyListRequestOperation";

  AFPropertyListRequestOperation(NetworkSession& session, HttpRequest request);

  static std::optional<std::set<std::string>> defaultAcceptableContentTypes() {
    return std::set<std::string>{"application/x-plist"};
  }
  static std::set<std::string> acceptablePathExtensions() { return {"plist"}; }
  static bool canProcessRequest(const HttpRequest& request) {
    return requestMatchesOperationClass(request, *defaultAcceptableContentTypes(),
                                        acceptablePathExtensions());
  }

  // Nothing for an empty body.
  Result<std::optional<nlohmann::json>> responsePropertyList();
  // The format of the list read; XML until one was read.
  PropertyListFormat propertyListFormat() const;

  std::string_view className() const override { return kClassName; }

 protected:
  Result<ResponseObject> parseResponse() override;
  ResponseProcessing processingKind() const override { return ResponseProcessing::kPropertyList; }

 private:
  PropertyListFormat format_ = PropertyListFormat::kXML;  // guarded by lock_
};

}  // namespace lectern
