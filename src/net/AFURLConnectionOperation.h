#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/Error.h"
#include "core/OperationQueue.h"
#include "net/HttpRequest.h"
#include "net/HttpResponse.h"
#include "net/Streams.h"
#include "net/Transport.h"

namespace lectern {

class NetworkSession;

enum class AFOperationState { kReady, kExecuting, kPaused, kFinished };

// A server asking for credentials (a 401 or 407 answer naming an authentication scheme).
struct AuthenticationChallenge {
  std::string host;
  std::string authenticationMethod;  // "Basic", "Digest" ... as the server names it
  std::string realm;
  int previousFailureCount = 0;
  std::optional<HttpCredential> proposedCredential;
  HttpResponse failureResponse;
};

enum class AuthenticationChallengeDisposition {
  kUseCredential,                  // send again with the given credential (as Basic authorization)
  kPerformDefaultHandling,         // the operation's credential, once
  kCancelAuthenticationChallenge,  // fail with -1012
  kContinueWithoutCredential,      // take the 401 as the answer
};

struct AuthenticationChallengeResponse {
  AuthenticationChallengeDisposition disposition =
      AuthenticationChallengeDisposition::kPerformDefaultHandling;
  std::optional<HttpCredential> credential;
};

// One HTTP exchange run as a queue operation: the transport streams the body into its output stream.
// Made by a client on any thread, run by the client's operation queue; thread-safe.
class AFURLConnectionOperation : public Operation {
 public:
  // Progress: bytes in this step, bytes so far, bytes expected in all (-1 when unknown).
  using ProgressBlock = std::function<void(std::uint64_t, std::uint64_t, std::int64_t)>;
  using AuthenticationChallengeBlock =
      std::function<AuthenticationChallengeResponse(const AuthenticationChallenge& challenge)>;
  // Returns the request to follow the redirect with, or nothing to take the redirect answer as final.
  using RedirectResponseBlock = std::function<std::optional<HttpRequest>(
      const HttpRequest& proposed, const HttpResponse& redirectResponse)>;

  AFURLConnectionOperation(NetworkSession& session, HttpRequest request);
  ~AFURLConnectionOperation() override;

  HttpRequest request() const;
  std::optional<HttpResponse> response() const;
  // The transport's error (the cancelled error for a cancelled operation); HTTP operations add
  // their own validation.
  virtual std::optional<Error> error() const;
  // The body, when it went to the default in-memory output stream.
  std::string responseData() const;
  // The body as text in responseStringEncoding(); nothing when it is not valid in it.
  std::optional<std::string> responseString() const;
  // The declared charset; Latin-1 for "text/*" without one; UTF-8 otherwise.
  std::string responseStringEncoding() const;
  std::uint64_t totalBytesRead() const;

  // Before the operation starts: where the body goes (memory by default).
  void setOutputStream(std::shared_ptr<OutputStream> stream);
  std::shared_ptr<OutputStream> outputStream() const;
  std::optional<HttpCredential> credential() const;
  void setCredential(std::optional<HttpCredential> credential);
  bool allowsInvalidSSLCertificate() const;
  void setAllowsInvalidSSLCertificate(bool allows);
  std::map<std::string, std::string> userInfo() const;
  void setUserInfo(std::map<std::string, std::string> userInfo);
  // Bodies kept in memory beyond this fail with -1103; the session's limit by default.
  void setMaximumResponseSize(std::uint64_t bytes);
  // Before it starts: a request that names no cookie jar uses `jar` (that of the client running it).
  void setDefaultCookieJar(std::shared_ptr<const CookieJar> jar);

  // Progress blocks run on the main queue; the challenge and redirect blocks on the network
  // thread, where they must not block.
  void setUploadProgressBlock(ProgressBlock block);
  void setDownloadProgressBlock(ProgressBlock block);
  void setWillSendRequestForAuthenticationChallengeBlock(AuthenticationChallengeBlock block);
  void setRedirectResponseBlock(RedirectResponseBlock block);
  // Runs once after the operation finished, on the thread that finished it (usually the network
  // thread): keep it short and hand real work elsewhere.
  void setCompletionBlock(std::function<void()> block);
  std::function<void()> completionBlock() const;

  // Before start: the operation finishes without a connection. During a transfer: the transfer
  // stops and the operation finishes with the cancelled error (-999) carrying the URL.
  void cancel() override;
  // Stops the transfer and keeps what was read; resume() asks for the rest.
  void pause();
  void resume();
  bool isPaused() const;
  AFOperationState state() const;
  // Waits at most `timeout` for the operation to finish; true when it did.
  bool waitUntilFinished(std::chrono::duration<double> timeout) const;
  // Waits at most `timeout` for the operation to finish or to be cancelled before it started (its
  // queue finishes it without a transfer when its turn comes, which may be long behind a hanging
  // operation). True when either happened.
  bool waitUntilFinishedOrCancelled(std::chrono::duration<double> timeout) const;
  using Operation::waitUntilFinished;

  virtual std::string_view className() const { return "AFURLConnectionOperation"; }
  std::string description() const;

 protected:
  void main() override;
  bool isAsynchronous() const override { return true; }
  NetworkSession& session() const { return session_; }
  // Finished and every outcome recorded (isFinished() turns true a moment earlier).
  bool didFinish() const {
    std::lock_guard lock(lock_);
    return finished_;
  }
  // Adjusts a request sent again after a pause; the base sends it unchanged.
  virtual void prepareRequestForResume(HttpRequest& request, std::uint64_t bytesRead,
                                       const std::optional<HttpResponse>& previousResponse);
  // Guards the state of this operation and of its subclasses (the computed error).
  mutable std::recursive_mutex lock_;

 private:
  class Connection;
  friend class Connection;

  void startTransfer(HttpRequest request);
  void finishOperation();
  void operationDidFinish();
  // Transfer events, on the network thread; `generation` tells a stale transfer from the current one.
  std::optional<HttpRequest> transferWillRedirect(HttpRequest proposed, const HttpResponse& response);
  ResponseDisposition transferDidReceiveResponse(std::uint64_t generation, const HttpResponse& response);
  std::optional<Error> transferDidReceiveData(std::uint64_t generation, std::string_view bytes);
  void transferDidSendBodyData(std::uint64_t bytes, std::uint64_t total, std::int64_t expected);
  void transferDidComplete(std::uint64_t generation, std::optional<Error> error);
  std::optional<ResponseDisposition> answerChallenge(const HttpResponse& response);

  NetworkSession& session_;
  // Everything below is guarded by lock_.
  HttpRequest request_;
  std::optional<HttpResponse> response_;
  std::optional<Error> transportError_;
  std::shared_ptr<OutputStream> outputStream_;
  std::uint64_t totalBytesRead_ = 0;
  std::uint64_t maximumResponseSize_;
  std::optional<HttpCredential> credential_;
  bool allowsInvalidSSLCertificate_ = false;
  std::map<std::string, std::string> userInfo_;
  ProgressBlock uploadProgress_;
  ProgressBlock downloadProgress_;
  AuthenticationChallengeBlock challengeBlock_;
  RedirectResponseBlock redirectBlock_;
  std::function<void()> completionBlock_;
  int authenticationFailures_ = 0;
  bool paused_ = false;
  bool finished_ = false;
  std::uint64_t generation_ = 0;  // of the current transfer
  std::optional<Transport::TransferId> transferId_;
  mutable std::condition_variable_any finishedChanged_;
};

}  // namespace lectern
