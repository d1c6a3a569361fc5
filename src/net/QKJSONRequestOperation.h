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

// The JSON operation of a server that reports failures in answers of status 200: the answer a
// subclass reads as a refusal fails the operation, before any caller takes it for a success.
class QKCheckedJSONRequestOperation : public QKJSONRequestOperation {
 public:
  using QKJSONRequestOperation::QKJSONRequestOperation;

 protected:
  // The error an answer says, or nothing for an answer that says none.
  virtual std::optional<Error> refusalIn(const nlohmann::json& answer) const = 0;

  Result<ResponseObject> parseResponse() override {
    auto parsed = QKJSONRequestOperation::parseResponse();
    if (!parsed) return parsed;
    const nlohmann::json* answer = std::get_if<nlohmann::json>(&*parsed);
    if (!answer) return parsed;
    if (auto refusal = refusalIn(*answer)) return std::unexpected<Error>(std::move(*refusal));
    return parsed;
  }
};

}  // namespace lectern
