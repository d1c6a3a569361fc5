#include "net/AFURLConnectionOperation.h"

#include "core/Strings.h"
#include "net/ExceptionBarrier.h"
#include "net/NetworkSession.h"
#include "net/TextEncoding.h"
#include "net/URL.h"
#include "net/URLError.h"

namespace lectern {

// The transport's view of the operation. It keeps the operation alive while a transfer runs, and
// its generation tells the current transfer's events from those of one stopped by a pause.
class AFURLConnectionOperation::Connection final : public TransferDelegate {
 public:
  Connection(std::shared_ptr<AFURLConnectionOperation> operation, std::uint64_t generation)
      : operation_(std::move(operation)), generation_(generation) {}

  std::optional<HttpRequest> willRedirect(HttpRequest proposed,
                                          const HttpResponse& redirectResponse) override {
    return operation_->transferWillRedirect(std::move(proposed), redirectResponse);
  }
  ResponseDisposition didReceiveResponse(const HttpResponse& response) override {
    return operation_->transferDidReceiveResponse(generation_, response);
  }
  std::optional<Error> didReceiveData(std::string_view bytes) override {
    return operation_->transferDidReceiveData(generation_, bytes);
  }
  void didSendBodyData(std::uint64_t bytes, std::uint64_t total, std::int64_t expected) override {
    operation_->transferDidSendBodyData(bytes, total, expected);
  }
  void didComplete(std::optional<Error> error) override {
    operation_->transferDidComplete(generation_, std::move(error));
  }

 private:
  std::shared_ptr<AFURLConnectionOperation> operation_;
  const std::uint64_t generation_;
};

namespace {

constexpr std::string_view kLogCategory = "AFURLConnectionOperation";

Error cancelledError(const std::string& url) {
  return makeURLError(URLErrorCode::kCancelled, url, "cancelled");
}

// "Basic realm="Lectern"" -> ("Basic", "Lectern").
std::pair<std::string, std::string> parseChallenge(std::string_view header) {
  header = trimView(header);
  const size_t space = header.find(' ');
  std::string method(header.substr(0, space));
  std::string realm;
  const size_t at = header.find("realm=");
  if (at != std::string_view::npos) {
    std::string_view rest = header.substr(at + 6);
    if (rest.starts_with('"')) {
      rest.remove_prefix(1);
      realm = std::string(rest.substr(0, rest.find('"')));
    } else {
      realm = std::string(trimView(rest.substr(0, rest.find(','))));
    }
  }
  return {method, realm};
}

}  // namespace

AFURLConnectionOperation::AFURLConnectionOperation(NetworkSession& session, HttpRequest request)
    : session_(session),
      request_(std::move(request)),
      outputStream_(std::make_shared<MemoryOutputStream>()),
      maximumResponseSize_(session.options().maximumResponseSize) {
  Operation::setCompletionBlock([this] { operationDidFinish(); });
}

AFURLConnectionOperation::~AFURLConnectionOperation() = default;

HttpRequest AFURLConnectionOperation::request() const {
  std::lock_guard lock(lock_);
  return request_;
}

std::optional<HttpResponse> AFURLConnectionOperation::response() const {
  std::lock_guard lock(lock_);
  return response_;
}

std::optional<Error> AFURLConnectionOperation::error() const {
  std::lock_guard lock(lock_);
  return transportError_;
}

std::string AFURLConnectionOperation::responseData() const {
  std::shared_ptr<OutputStream> stream = outputStream();
  const auto* memory = dynamic_cast<const MemoryOutputStream*>(stream.get());
  return memory != nullptr ? memory->data() : std::string();
}

std::string AFURLConnectionOperation::responseStringEncoding() const {
  std::lock_guard lock(lock_);
  if (!response_) return std::string(kUTF8Charset);
  if (auto charset = response_->textEncodingName()) return *charset;
  if (response_->MIMEType().starts_with("text/")) return std::string(kLatin1Charset);
  return std::string(kUTF8Charset);
}

std::optional<std::string> AFURLConnectionOperation::responseString() const {
  return decodeText(responseData(), responseStringEncoding());
}

std::uint64_t AFURLConnectionOperation::totalBytesRead() const {
  std::lock_guard lock(lock_);
  return totalBytesRead_;
}

void AFURLConnectionOperation::setOutputStream(std::shared_ptr<OutputStream> stream) {
  std::lock_guard lock(lock_);
  outputStream_ = stream ? std::move(stream) : std::make_shared<MemoryOutputStream>();
}

std::shared_ptr<OutputStream> AFURLConnectionOperation::outputStream() const {
  std::lock_guard lock(lock_);
  return outputStream_;
}

std::optional<HttpCredential> AFURLConnectionOperation::credential() const {
  std::lock_guard lock(lock_);
  return credential_;
}

void AFURLConnectionOperation::setCredential(std::optional<HttpCredential> credential) {
  std::lock_guard lock(lock_);
  credential_ = std::move(credential);
}

bool AFURLConnectionOperation::allowsInvalidSSLCertificate() const {
  std::lock_guard lock(lock_);
  return allowsInvalidSSLCertificate_;
}

void AFURLConnectionOperation::setAllowsInvalidSSLCertificate(bool allows) {
  std::lock_guard lock(lock_);
  allowsInvalidSSLCertificate_ = allows;
}

std::map<std::string, std::string> AFURLConnectionOperation::userInfo() const {
  std::lock_guard lock(lock_);
  return userInfo_;
}

void AFURLConnectionOperation::setUserInfo(std::map<std::string, std::string> userInfo) {
  std::lock_guard lock(lock_);
  userInfo_ = std::move(userInfo);
}

void AFURLConnectionOperation::setMaximumResponseSize(std::uint64_t bytes) {
  std::lock_guard lock(lock_);
  maximumResponseSize_ = bytes;
}

void AFURLConnectionOperation::setDefaultCookieJar(std::shared_ptr<const CookieJar> jar) {
  std::lock_guard lock(lock_);
  if (!request_.cookieJar) request_.cookieJar = std::move(jar);
}

void AFURLConnectionOperation::setUploadProgressBlock(ProgressBlock block) {
  std::lock_guard lock(lock_);
  uploadProgress_ = std::move(block);
}

void AFURLConnectionOperation::setDownloadProgressBlock(ProgressBlock block) {
  std::lock_guard lock(lock_);
  downloadProgress_ = std::move(block);
}

void AFURLConnectionOperation::setWillSendRequestForAuthenticationChallengeBlock(
    AuthenticationChallengeBlock block) {
  std::lock_guard lock(lock_);
  challengeBlock_ = std::move(block);
}

void AFURLConnectionOperation::setRedirectResponseBlock(RedirectResponseBlock block) {
  std::lock_guard lock(lock_);
  redirectBlock_ = std::move(block);
}

void AFURLConnectionOperation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard lock(lock_);
  completionBlock_ = std::move(block);
}

std::function<void()> AFURLConnectionOperation::completionBlock() const {
  std::lock_guard lock(lock_);
  return completionBlock_;
}

AFOperationState AFURLConnectionOperation::state() const {
  if (isFinished()) return AFOperationState::kFinished;
  std::lock_guard lock(lock_);
  if (paused_) return AFOperationState::kPaused;
  return isExecuting() ? AFOperationState::kExecuting : AFOperationState::kReady;
}

bool AFURLConnectionOperation::isPaused() const {
  std::lock_guard lock(lock_);
  return paused_;
}

bool AFURLConnectionOperation::waitUntilFinished(std::chrono::duration<double> timeout) const {
  std::unique_lock lock(lock_);
  return finishedChanged_.wait_for(lock, timeout, [this] { return finished_; });
}

bool AFURLConnectionOperation::waitUntilFinishedOrCancelled(std::chrono::duration<double> timeout) const {
  std::unique_lock lock(lock_);
  return finishedChanged_.wait_for(lock, timeout,
                                   [this] { return finished_ || (isCancelled() && !isExecuting()); });
}

std::string AFURLConnectionOperation::description() const {
  static constexpr const char* kStates[] = {"ready", "executing", "paused", "finished"};
  const auto current = state();
  std::lock_guard lock(lock_);
  return "<" + std::string(className()) + " state: " + kStates[static_cast<int>(current)] +
         ", cancelled: " + (isCancelled() ? "YES" : "NO") + ", request: " + request_.description() +
         ", response: " + (response_ ? response_->description() : "(null)") + ">";
}

void AFURLConnectionOperation::main() {
  HttpRequest request;
  {
    std::lock_guard lock(lock_);
    request = request_;
    request.allowsInvalidSSLCertificate = request.allowsInvalidSSLCertificate || allowsInvalidSSLCertificate_;
  }
  startTransfer(std::move(request));
}

void AFURLConnectionOperation::startTransfer(HttpRequest request) {
  auto self = std::static_pointer_cast<AFURLConnectionOperation>(shared_from_this());
  std::uint64_t generation;
  {
    std::lock_guard lock(lock_);
    generation = ++generation_;
  }
  const auto id =
      session_.transport().start(std::move(request), std::make_shared<Connection>(self, generation));
  bool cancelNow = false;
  {
    std::lock_guard lock(lock_);
    if (generation_ == generation && !finished_) transferId_ = id;
    // A cancel that came while the transfer was being handed over found no transfer to stop.
    cancelNow = isCancelled();
  }
  if (cancelNow) session_.transport().cancel(id);
}

void AFURLConnectionOperation::cancel() {
  if (isFinished()) return;
  Operation::cancel();
  std::optional<Transport::TransferId> toCancel;
  bool finishNow = false;
  {
    std::lock_guard lock(lock_);
    if (paused_) {
      paused_ = false;
      transportError_ = cancelledError(request_.url);
      finishNow = true;
    } else {
      toCancel = transferId_;
    }
  }
  if (toCancel) session_.transport().cancel(*toCancel);
  if (finishNow) finishOperation();
  {
    // Under the lock, so a waiter cannot miss it between its check and its wait.
    std::lock_guard lock(lock_);
    finishedChanged_.notify_all();
  }
}

void AFURLConnectionOperation::pause() {
  std::optional<Transport::TransferId> toCancel;
  {
    std::lock_guard lock(lock_);
    if (paused_ || finished_ || !transferId_ || isCancelled()) return;
    paused_ = true;
    // From here on the stopped transfer's bytes are refused, so what was read stays what resume asks after.
    ++generation_;
    toCancel = transferId_;
    transferId_.reset();
  }
  session_.transport().cancel(*toCancel);
}

void AFURLConnectionOperation::resume() {
  HttpRequest request;
  bool complete = false;
  {
    std::lock_guard lock(lock_);
    if (!paused_ || finished_) return;
    paused_ = false;
    // Everything had arrived before the pause took effect: nothing is left to ask for.
    const auto expected = response_ ? response_->expectedContentLength() : -1;
    complete = response_ && response_->statusCode == 200 && expected >= 0 &&
               totalBytesRead_ >= static_cast<std::uint64_t>(expected);
    if (!complete) {
      request = request_;
      request.allowsInvalidSSLCertificate =
          request.allowsInvalidSSLCertificate || allowsInvalidSSLCertificate_;
      prepareRequestForResume(request, totalBytesRead_, response_);
    }
  }
  if (complete) {
    finishOperation();
    return;
  }
  startTransfer(std::move(request));
}

void AFURLConnectionOperation::prepareRequestForResume(HttpRequest&, std::uint64_t,
                                                       const std::optional<HttpResponse>&) {}

void AFURLConnectionOperation::finishOperation() { finish(); }

void AFURLConnectionOperation::operationDidFinish() {
  std::function<void()> block;
  std::shared_ptr<OutputStream> stream;
  {
    std::lock_guard lock(lock_);
    // Cancelled before it ever started: no transfer reported anything.
    if (!transportError_ && !response_ && isCancelled()) transportError_ = cancelledError(request_.url);
    stream = outputStream_;
  }
  Result<void> closed;
  if (auto thrown = exceptionMessageFrom([&] { closed = stream->close(); })) {
    closed = fail(makeURLError(URLErrorCode::kCannotWriteToFile, request().url,
                               "The response could not be stored.", *thrown));
  }
  {
    std::lock_guard lock(lock_);
    if (!closed && !transportError_) transportError_ = closed.error();
    finished_ = true;
    transferId_.reset();
    block = completionBlock_;
  }
  finishedChanged_.notify_all();
  // Usually on the network thread, which must outlive whatever a block does.
  if (block) runLoggingExceptions(kLogCategory, "a completion block", block);
}

std::optional<HttpRequest> AFURLConnectionOperation::transferWillRedirect(HttpRequest proposed,
                                                                          const HttpResponse& response) {
  RedirectResponseBlock block;
  {
    std::lock_guard lock(lock_);
    block = redirectBlock_;
  }
  if (!block) return proposed;
  return block(proposed, response);
}

std::optional<ResponseDisposition> AFURLConnectionOperation::answerChallenge(const HttpResponse& response) {
  if (response.statusCode != 401 && response.statusCode != 407) return std::nullopt;
  const auto header =
      response.headers.value(response.statusCode == 401 ? "WWW-Authenticate" : "Proxy-Authenticate");
  if (!header) return std::nullopt;
  AuthenticationChallenge challenge;
  AuthenticationChallengeBlock block;
  HttpRequest retry;
  {
    std::lock_guard lock(lock_);
    const auto url = URL::parse(response.url);
    challenge.host = url ? url->host() : std::string();
    std::tie(challenge.authenticationMethod, challenge.realm) = parseChallenge(*header);
    challenge.previousFailureCount = authenticationFailures_;
    challenge.proposedCredential = credential_;
    challenge.failureResponse = response;
    block = challengeBlock_;
    retry = request_;
    retry.url = response.url;
  }
  AuthenticationChallengeResponse answer;
  if (block) answer = block(challenge);
  std::optional<HttpCredential> use;
  switch (answer.disposition) {
    case AuthenticationChallengeDisposition::kUseCredential:
      use = answer.credential;
      break;
    case AuthenticationChallengeDisposition::kPerformDefaultHandling:
      // The operation's credential is tried once; a second refusal is the answer.
      if (challenge.previousFailureCount == 0) use = challenge.proposedCredential;
      break;
    case AuthenticationChallengeDisposition::kCancelAuthenticationChallenge: {
      ResponseDisposition disposition;
      disposition.failWith = makeURLError(URLErrorCode::kUserCancelledAuthentication, response.url,
                                          "The user cancelled authentication.");
      return disposition;
    }
    case AuthenticationChallengeDisposition::kContinueWithoutCredential:
      break;
  }
  if (!use) return std::nullopt;
  {
    std::lock_guard lock(lock_);
    ++authenticationFailures_;
  }
  retry.setValue(response.statusCode == 401 ? "Authorization" : "Proxy-Authorization",
                 "Basic " + base64Encode(use->user + ":" + use->password));
  ResponseDisposition disposition;
  disposition.restartWith = std::move(retry);
  return disposition;
}

ResponseDisposition AFURLConnectionOperation::transferDidReceiveResponse(std::uint64_t generation,
                                                                         const HttpResponse& response) {
  {
    std::lock_guard lock(lock_);
    if (generation != generation_) return ResponseDisposition{std::nullopt, cancelledError(response.url)};
  }
  if (auto challenge = answerChallenge(response)) return *challenge;

  std::lock_guard lock(lock_);
  const auto expected = response.expectedContentLength();
  if (outputStream_->isInMemory() && expected > 0 &&
      static_cast<std::uint64_t>(expected) > maximumResponseSize_) {
    return ResponseDisposition{
        std::nullopt, makeURLError(URLErrorCode::kDataLengthExceedsMaximum, response.url,
                                   "The response is larger than " + std::to_string(maximumResponseSize_) +
                                       " bytes, the most Lectern accepts.")};
  }
  // A resumed download the server sends whole again starts over.
  if (totalBytesRead_ > 0 && response.statusCode != 206) {
    if (auto truncated = outputStream_->truncate(); !truncated) {
      return ResponseDisposition{std::nullopt, truncated.error()};
    }
    totalBytesRead_ = 0;
  }
  // Within the limit above for a body kept in memory.
  if (expected > 0) outputStream_->expectLength(totalBytesRead_ + static_cast<std::uint64_t>(expected));
  response_ = response;
  return ResponseDisposition::allow();
}

std::optional<Error> AFURLConnectionOperation::transferDidReceiveData(std::uint64_t generation,
                                                                      std::string_view bytes) {
  ProgressBlock progress;
  std::uint64_t total;
  std::int64_t expected;
  {
    std::lock_guard lock(lock_);
    if (generation != generation_) return cancelledError(request_.url);
    if (outputStream_->isInMemory() && totalBytesRead_ + bytes.size() > maximumResponseSize_) {
      return makeURLError(URLErrorCode::kDataLengthExceedsMaximum, response_ ? response_->url : request_.url,
                          "The response is larger than " + std::to_string(maximumResponseSize_) +
                              " bytes, the most Lectern accepts.");
    }
    if (auto written = outputStream_->write(bytes); !written) return written.error();
    totalBytesRead_ += bytes.size();
    total = totalBytesRead_;
    expected = response_ ? response_->expectedContentLength() : -1;
    progress = downloadProgress_;
  }
  if (progress) {
    session_.mainQueue().post([progress, n = bytes.size(), total, expected] {
      runLoggingExceptions(kLogCategory, "a download progress block", [&] { progress(n, total, expected); });
    });
  }
  return std::nullopt;
}

void AFURLConnectionOperation::transferDidSendBodyData(std::uint64_t bytes, std::uint64_t total,
                                                       std::int64_t expected) {
  ProgressBlock progress;
  {
    std::lock_guard lock(lock_);
    progress = uploadProgress_;
  }
  if (progress) {
    session_.mainQueue().post([progress, bytes, total, expected] {
      runLoggingExceptions(kLogCategory, "an upload progress block",
                           [&] { progress(bytes, total, expected); });
    });
  }
}

void AFURLConnectionOperation::transferDidComplete(std::uint64_t generation, std::optional<Error> error) {
  {
    std::lock_guard lock(lock_);
    if (generation != generation_ || finished_) return;
    transferId_.reset();
    paused_ = false;
    transportError_ = std::move(error);
  }
  finishOperation();
}

}  // namespace lectern
