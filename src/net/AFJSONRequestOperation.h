#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "net/AFHTTPRequestOperation.h"

namespace lectern {

struct JSONReadingOptions {
  bool allowFragments = false;  // accept a top-level value that is neither an object nor an array
};

// An HTTP operation whose body is JSON, handed on as nlohmann::json. Thread-safe.
class AFJSONRequestOperation : public AFHTTPRequestOperation {
 public:
  static constexpr std::string_view kClassName = "AFJSONRequestOperation";
  using JSONSuccess =
      std::function<void(const HttpRequest&, const std::optional<HttpResponse>&, const nlohmann::json&)>;
  using JSONFailure = std::function<void(const HttpRequest&, const std::optional<HttpResponse>&, const Error&,
                                         const nlohmann::json&)>;

  AFJSONRequestOperation(NetworkSession& session, HttpRequest request);

  static std::optional<std::set<std::string>> defaultAcceptableContentTypes() {
    return std::set<std::string>{"application/json", "text/json", "text/javascript"};
  }
  static std::set<std::string> acceptablePathExtensions() { return {"json"}; }
  static bool canProcessRequest(const HttpRequest& request) {
    return requestMatchesOperationClass(request, *defaultAcceptableContentTypes(),
                                        acceptablePathExtensions());
  }

  // An operation whose blocks get the request, the response and the parsed JSON (null when there
  // was none).
  static std::shared_ptr<AFJSONRequestOperation> JSONRequestOperationWithRequest(NetworkSession& session,
                                                                                 HttpRequest request,
                                                                                 JSONSuccess success,
                                                                                 JSONFailure failure);

  // Nothing for an empty body or a lone " "; an error for text that is not valid UTF-8 (-1016) or
  // not JSON ("NSCocoaErrorDomain" 3840).
  Result<std::optional<nlohmann::json>> responseJSON();
  JSONReadingOptions readingOptions() const;
  void setJSONReadingOptions(JSONReadingOptions options);

  std::string_view className() const override { return kClassName; }

 protected:
  Result<ResponseObject> parseResponse() override;
  ResponseProcessing processingKind() const override { return ResponseProcessing::kJSON; }

 private:
  JSONReadingOptions readingOptions_;  // guarded by lock_
};

// Reads a JSON body by the operation's rules, given the charset the response declared (if any).
Result<std::optional<nlohmann::json>> parseJSONResponseBody(std::string_view body,
                                                            const std::optional<std::string>& declaredCharset,
                                                            JSONReadingOptions options);

}  // namespace lectern
