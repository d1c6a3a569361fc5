#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "net/AFURLConnectionOperation.h"
#include "net/NetworkSession.h"
#include "net/ResponseObject.h"

namespace lectern {

// Where a completion block runs: a function that schedules its argument. Unset means the main queue.
using CallbackQueue = std::function<void(std::function<void()>)>;
CallbackQueue callbackQueueFor(OperationQueue& queue);

// An HTTP exchange that checks the status code and content type and turns the body into an
// object; success or failure is reported through a pair of blocks. Thread-safe.
class AFHTTPRequestOperation : public AFURLConnectionOperation {
 public:
  static constexpr std::string_view kClassName = "AFHTTPRequestOperation";
  using Success =
      std::function<void(AFHTTPRequestOperation& operation, const ResponseObject& responseObject)>;
  using Failure = std::function<void(AFHTTPRequestOperation& operation, const Error& error)>;

  AFHTTPRequestOperation(NetworkSession& session, HttpRequest request);

  // Whether this class is the one to handle `request`; the plain class takes anything.
  static bool canProcessRequest(const HttpRequest&) { return true; }
  // 200 to 299.
  static std::set<int> defaultAcceptableStatusCodes();
  // Any content type.
  static std::optional<std::set<std::string>> defaultAcceptableContentTypes() { return std::nullopt; }

  std::set<int> acceptableStatusCodes() const;
  void addAcceptableStatusCodes(const std::set<int>& codes);
  std::optional<std::set<std::string>> acceptableContentTypes() const;
  void addAcceptableContentTypes(const std::set<std::string>& types);
  // A response that did not come over HTTP counts as 200.
  bool hasAcceptableStatusCode() const;
  // A missing content type counts as "application/octet-stream".
  bool hasAcceptableContentType() const;

  // Once finished, computed once: the transport error; else -1011 for an unacceptable status;
  // else -1016 for a non-empty body of an unacceptable content type. Nothing before it finished.
  std::optional<Error> error() const override;

  // The parsed body, computed once (on the calling thread if the completion has not done it).
  Result<ResponseObject> responseObject();

  // Failure runs when error() is set or the body does not parse; otherwise success. Parsing runs
  // on the class's processing queue; the blocks run on the callback queues (main queue when unset).
  void setCompletionBlockWithSuccess(Success success, Failure failure);
  Success successBlock() const;
  Failure failureBlock() const;
  void setSuccessCallbackQueue(CallbackQueue queue);
  void setFailureCallbackQueue(CallbackQueue queue);

  std::string_view className() const override { return kClassName; }

 protected:
  // Turns the finished body into this class's object. The plain class gives the raw bytes.
  virtual Result<ResponseObject> parseResponse();
  virtual ResponseProcessing processingKind() const { return ResponseProcessing::kNone; }
  void prepareRequestForResume(HttpRequest& request, std::uint64_t bytesRead,
                               const std::optional<HttpResponse>& previousResponse) override;
  // For subclass constructors: the class's own acceptable content types.
  void setAcceptableContentTypes(std::optional<std::set<std::string>> types);
  // The body as text for error recovery suggestions (lossy when it is not valid text).
  std::string responseTextForError() const;

 private:
  void deliver();

  // Guarded by lock_.
  std::set<int> acceptableStatusCodes_;
  std::optional<std::set<std::string>> acceptableContentTypes_;
  mutable std::optional<std::optional<Error>> computedError_;
  std::optional<Result<ResponseObject>> parsed_;
  Success success_;
  Failure failure_;
  CallbackQueue successQueue_;
  CallbackQueue failureQueue_;
};

// True when the request's URL path extension is one of `extensions` or its "Accept" header names
// one of `contentTypes`: how the typed operation classes claim requests.
bool requestMatchesOperationClass(const HttpRequest& request, const std::set<std::string>& contentTypes,
                                  const std::set<std::string>& extensions);

}  // namespace lectern
