#include "net/AFHTTPRequestOperation.h"

#include "core/Strings.h"
#include "net/ExceptionBarrier.h"
#include "net/URL.h"
#include "net/URLError.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "AFHTTPRequestOperation";

// "200-299" or "200,204,300-302": runs of consecutive codes written as ranges.
std::string describeStatusCodes(const std::set<int>& codes) {
  std::vector<std::string> parts;
  for (auto it = codes.begin(); it != codes.end();) {
    const int first = *it;
    int last = first;
    ++it;
    while (it != codes.end() && *it == last + 1) last = *it++;
    parts.push_back(first == last ? std::to_string(first)
                                  : std::to_string(first) + "-" + std::to_string(last));
  }
  return join(parts, ",");
}

std::string describeContentTypes(const std::set<std::string>& types) {
  return "{(" + join(std::vector<std::string>(types.begin(), types.end()), ", ") + ")}";
}

}  // namespace

CallbackQueue callbackQueueFor(OperationQueue& queue) {
  return [&queue](std::function<void()> block) { queue.addOperation(std::move(block)); };
}

bool requestMatchesOperationClass(const HttpRequest& request, const std::set<std::string>& contentTypes,
                                  const std::set<std::string>& extensions) {
  if (const auto url = URL::parse(request.url); url && extensions.contains(url->pathExtension())) return true;
  const auto accept = request.headers.value("Accept");
  if (!accept) return false;
  for (const auto& range : split(*accept, ",")) {
    const std::string type = toLowerASCII(trimView(std::string_view(range).substr(0, range.find(';'))));
    if (!type.empty() && contentTypes.contains(type)) return true;
  }
  return false;
}

AFHTTPRequestOperation::AFHTTPRequestOperation(NetworkSession& session, HttpRequest request)
    : AFURLConnectionOperation(session, std::move(request)),
      acceptableStatusCodes_(defaultAcceptableStatusCodes()),
      acceptableContentTypes_(defaultAcceptableContentTypes()) {}

std::set<int> AFHTTPRequestOperation::defaultAcceptableStatusCodes() {
  std::set<int> codes;
  for (int code = 200; code < 300; ++code) codes.insert(code);
  return codes;
}

std::set<int> AFHTTPRequestOperation::acceptableStatusCodes() const {
  std::lock_guard lock(lock_);
  return acceptableStatusCodes_;
}

void AFHTTPRequestOperation::addAcceptableStatusCodes(const std::set<int>& codes) {
  std::lock_guard lock(lock_);
  acceptableStatusCodes_.insert(codes.begin(), codes.end());
}

std::optional<std::set<std::string>> AFHTTPRequestOperation::acceptableContentTypes() const {
  std::lock_guard lock(lock_);
  return acceptableContentTypes_;
}

void AFHTTPRequestOperation::addAcceptableContentTypes(const std::set<std::string>& types) {
  std::lock_guard lock(lock_);
  // Adding to "any" leaves it "any".
  if (acceptableContentTypes_) acceptableContentTypes_->insert(types.begin(), types.end());
}

void AFHTTPRequestOperation::setAcceptableContentTypes(std::optional<std::set<std::string>> types) {
  std::lock_guard lock(lock_);
  acceptableContentTypes_ = std::move(types);
}

bool AFHTTPRequestOperation::hasAcceptableStatusCode() const {
  const auto current = response();
  if (!current) return false;
  const int status = current->statusCode == 0 ? 200 : current->statusCode;
  std::lock_guard lock(lock_);
  return acceptableStatusCodes_.contains(status);
}

bool AFHTTPRequestOperation::hasAcceptableContentType() const {
  const auto current = response();
  if (!current) return false;
  std::string type = current->MIMEType();
  if (type.empty()) type = "application/octet-stream";
  std::lock_guard lock(lock_);
  return !acceptableContentTypes_ || acceptableContentTypes_->contains(type);
}

std::string AFHTTPRequestOperation::responseTextForError() const {
  if (auto text = responseString()) return *text;
  return sanitizeUTF8(responseData());
}

std::optional<Error> AFHTTPRequestOperation::error() const {
  std::lock_guard lock(lock_);
  if (computedError_) return *computedError_;
  auto transportError = AFURLConnectionOperation::error();
  if (!didFinish()) return transportError;
  if (transportError) {
    computedError_ = transportError;
    return transportError;
  }
  const auto current = response();
  std::optional<Error> validation;
  if (current && !hasAcceptableStatusCode()) {
    validation = Error::make(kAFNetworkingErrorDomain, URLErrorCode::kBadServerResponse,
                             "Expected status code in (" + describeStatusCodes(acceptableStatusCodes_) +
                                 "), got " + std::to_string(current->statusCode));
  } else if (current && totalBytesRead() > 0 && !hasAcceptableContentType()) {
    validation = Error::make(kAFNetworkingErrorDomain, URLErrorCode::kCannotDecodeContentData,
                             "Expected content type " + describeContentTypes(*acceptableContentTypes_) +
                                 ", got " + current->MIMEType());
  }
  if (validation) {
    validation->recoverySuggestion = responseTextForError();
    validation->userInfo[std::string(kFailingURLErrorKey)] = current->url;
    validation->userInfo[std::string(kFailingURLRequestErrorKey)] = request().description();
    validation->userInfo[std::string(kFailingURLResponseErrorKey)] = current->description();
    validation->userInfo[std::string(kHTTPStatusCodeErrorKey)] = std::to_string(current->statusCode);
  }
  computedError_ = validation;
  return validation;
}

Result<ResponseObject> AFHTTPRequestOperation::parseResponse() { return ResponseObject(responseData()); }

Result<ResponseObject> AFHTTPRequestOperation::responseObject() {
  std::lock_guard lock(lock_);
  if (!parsed_) {
    // A parser of a subclass runs on a processing queue: what it throws becomes a parse failure.
    if (auto thrown = exceptionMessageFrom([&] { parsed_ = parseResponse(); })) {
      const auto current = response();
      Error error = makeURLError(URLErrorCode::kCannotParseResponse, current ? current->url : request().url,
                                 "The response could not be parsed.", *thrown);
      parsed_ = fail(std::move(error));
    }
  }
  return *parsed_;
}

void AFHTTPRequestOperation::setCompletionBlockWithSuccess(Success success, Failure failure) {
  {
    std::lock_guard lock(lock_);
    success_ = std::move(success);
    failure_ = std::move(failure);
  }
  setCompletionBlock([this] {
    if (processingKind() == ResponseProcessing::kNone) {
      deliver();
      return;
    }
    auto self = std::static_pointer_cast<AFHTTPRequestOperation>(shared_from_this());
    session().processingQueue(processingKind()).addOperation([self] { self->deliver(); });
  });
}

AFHTTPRequestOperation::Success AFHTTPRequestOperation::successBlock() const {
  std::lock_guard lock(lock_);
  return success_;
}

AFHTTPRequestOperation::Failure AFHTTPRequestOperation::failureBlock() const {
  std::lock_guard lock(lock_);
  return failure_;
}

void AFHTTPRequestOperation::setSuccessCallbackQueue(CallbackQueue queue) {
  std::lock_guard lock(lock_);
  successQueue_ = std::move(queue);
}

void AFHTTPRequestOperation::setFailureCallbackQueue(CallbackQueue queue) {
  std::lock_guard lock(lock_);
  failureQueue_ = std::move(queue);
}

// Runs on the processing queue (or the finishing thread for plain operations).
void AFHTTPRequestOperation::deliver() {
  auto self = std::static_pointer_cast<AFHTTPRequestOperation>(shared_from_this());
  Success success;
  Failure failure;
  CallbackQueue successQueue;
  CallbackQueue failureQueue;
  {
    std::lock_guard lock(lock_);
    // Taken, not copied: the blocks hold the callers' objects (a context's objects among them),
    // which must be let go where the blocks run, not on whichever thread drops the operation.
    success = std::move(success_);
    failure = std::move(failure_);
    auto& main = session().mainQueue();
    auto onMain = [&main](std::function<void()> block) { main.post(std::move(block)); };
    successQueue = successQueue_ ? successQueue_ : onMain;
    failureQueue = failureQueue_ ? failureQueue_ : onMain;
  }
  std::optional<Error> failed = error();
  ResponseObject object;
  if (!failed) {
    auto parsed = responseObject();
    if (parsed) {
      object = std::move(*parsed);
    } else {
      failed = parsed.error();
    }
  }
  // The blocks are the callers' code on the layer's queues: nothing they throw may leave them.
  // Both blocks travel with the one that runs, so that both are released on its queue.
  if (failed) {
    runLoggingExceptions(kLogCategory, "a failure callback queue", [&] {
      failureQueue([self, success = std::move(success), failure = std::move(failure), error = std::move(*failed)] {
        if (failure) runLoggingExceptions(kLogCategory, "a failure block", [&] { failure(*self, error); });
      });
    });
  } else {
    runLoggingExceptions(kLogCategory, "a success callback queue", [&] {
      successQueue([self, success = std::move(success), failure = std::move(failure), object = std::move(object)] {
        if (success) runLoggingExceptions(kLogCategory, "a success block", [&] { success(*self, object); });
      });
    });
  }
}

void AFHTTPRequestOperation::prepareRequestForResume(HttpRequest& request, std::uint64_t bytesRead,
                                                     const std::optional<HttpResponse>& previousResponse) {
  if (bytesRead == 0) return;
  request.setValue("Range", "bytes=" + std::to_string(bytesRead) + "-");
  if (previousResponse) {
    if (auto etag = previousResponse->headers.value("ETag")) request.setValue("If-Range", *etag);
  }
}

}  // namespace lectern
