#pragma once

#include <optional>
#include <set>
#include <string>

#include "net/AFHTTPRequestOperation.h"

namespace lectern {

// An HTTP operation whose XML body is handed on unparsed (XMLParserInput): the consumer's parser judges it,
// since the feed reader rescues some bodies its parser first rejects. Thread-safe.
class AFXMLRequestOperation : public AFHTTPRequestOperation {
 public:
  static constexpr std::string_view kClassName = "AFXMLRequestOperation";

  AFXMLRequestOperation(NetworkSession& session, HttpRequest request);

  static std::optional<std::set<std::string>> defaultAcceptableContentTypes() {
    return std::set<std::string>{"application/xml", "text/xml"};
  }
  static std::set<std::string> acceptablePathExtensions() { return {"xml"}; }
  static bool canProcessRequest(const HttpRequest& request) {
    return requestMatchesOperationClass(request, *defaultAcceptableContentTypes(),
                                        acceptablePathExtensions());
  }

  XMLParserInput responseXMLParser();

  std::string_view className() const override { return kClassName; }

 protected:
  Result<ResponseObject> parseResponse() override;
  ResponseProcessing processingKind() const override { return ResponseProcessing::kXML; }
};

}  // namespace lectern
