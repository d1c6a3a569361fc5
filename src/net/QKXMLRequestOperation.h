#pragma once

#include "net/AFXMLRequestOperation.h"

namespace lectern {

// The XML operation service clients register: it also takes feeds labelled as Atom or RSS.
// Thread-safe.
class QKXMLRequestOperation : public AFXMLRequestOperation {
 public:
  static constexpr std::string_view kClassName = "QKXMLRequestOperation";

  QKXMLRequestOperation(NetworkSession& session, HttpRequest request)
      : AFXMLRequestOperation(session, std::move(request)) {
    setAcceptableContentTypes(defaultAcceptableContentTypes());
  }

  static std::optional<std::set<std::string>> defaultAcceptableContentTypes() {
    return std::set<std::string>{"application/xml", "text/xml", "application/atom+xml",
                                 "application/rss+xml"};
  }
  static bool canProcessRequest(const HttpRequest& request) {
    return requestMatchesOperationClass(request, *defaultAcceptableContentTypes(),
                                        acceptablePathExtensions());
  }

  std::string_view className() const override { return kClassName; }
};

}  // namespace lectern
