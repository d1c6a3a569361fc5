#pragma once

#include "net/AFJSONRequestOperation.h"

namespace lectern {

// The JSON operation service clients register: it also takes JSON labelled "text/plain",
// "text/html" or "*/*", which several services send. Thread-safe.
class QKJSONRequestOperation : public AFJSONRequestOperation {
 public:
  static constexpr std::string_view kClassName = "QKJSONRequestOperation";

  QKJSONRequestOperation(NetworkSession& session, HttpRequest request)
      : AFJSONRequestOperation(session, std::move(request)) {
    setAcceptableContentTypes(defaultAcceptableContentTypes());
  }

  static std::optional<std::set<std::string>> defaultAcceptableContentTypes() {
    return std::set<std::string>{"application/json", "text/json", "text/javascript",
                                 "text/plain",       "text/html", "*/*"};
  }
  static bool canProcessRequest(const HttpRequest& request) {
    return requestMatchesOperationClass(request, *defaultAcceptableContentTypes(),
                                        acceptablePathExtensions());
  }

  std::string_view className() const override { return kClassName; }
};

}  // namespace lectern
