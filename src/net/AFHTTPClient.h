#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "core/OperationQueue.h"
#include "core/Reachability.h"
#include "net/AFHTTPRequestOperation.h"
#include "net/AFStreamingMultipartFormData.h"
#include "net/NetworkSession.h"
#include "net/URL.h"

namespace lectern {

enum class AFHTTPClientParameterEncoding {
  kFormURLParameterEncoding,
  kJSONParameterEncoding,
  kPropertyListParameterEncoding
};

// An operation class a client can choose for a request, by its name.
struct AFHTTPOperationClass {
  std::string name;
  std::function<bool(const HttpRequest&)> canProcessRequest;
  std::function<std::shared_ptr<AFHTTPRequestOperation>(NetworkSession&, HttpRequest)> make;
};

// What a blocking call hands back: the parsed body (even of a failed request, when it parsed),
// the finished operation (for its status) and the error, if any.
struct SynchronousResponse {
  ResponseObject responseObject;
  std::shared_ptr<AFHTTPRequestOperation> operation;
  std::optional<Error> error;

  // 0 when no response arrived.
  int statusCode() const;
  const nlohmann::json* json() const { return std::get_if<nlohmann::json>(&responseObject); }
};

// The base of every service client: requests built from paths under one base URL, run on its own queue.
// Owned by a service object; thread-safe; blocks run on the main queue unless an operation says otherwise.
class AFHTTPClient {
 public:
  using Success = AFHTTPRequestOperation::Success;
  using Failure = AFHTTPRequestOperation::Failure;
  using BatchProgress =
      std::function<void(size_t numberOfFinishedOperations, size_t totalNumberOfOperations)>;
  using BatchCompletion =
      std::function<void(const std::vector<std::shared_ptr<AFHTTPRequestOperation>>& operations)>;
  using ReachabilityStatusBlock = std::function<void(ReachabilityStatus status)>;

  // A non-empty path of `baseURL` gets a trailing "/" (before any query) so relative paths resolve
  // under it. Starts reachability monitoring of the base URL's host. A base URL that is not usable
  // (see isUsableBaseURL) does not throw: the client is made in an error state, baseURLError()
  // says why, and every request requestWithMethod builds has an empty URL and so fails with -1000
  // "bad URL" (NSURLErrorDomain). A request given with a URL of its own is sent as it is.
  AFHTTPClient(NetworkSession& session, std::string_view baseURL);
  // Stops monitoring, cancels queued operations and waits for running ones.
  virtual ~AFHTTPClient();
  AFHTTPClient(const AFHTTPClient&) = delete;
  AFHTTPClient& operator=(const AFHTTPClient&) = delete;

  // An absolute URL with a host (what a user types as an endpoint is checked with this first).
  static bool isUsableBaseURL(std::string_view baseURL);

  NetworkSession& session() const { return session_; }
  // The normalised base URL; for an unusable one, the text as given.
  std::string baseURL() const;
  // The -1000 error every request of a client with an unusable base URL fails with; nothing otherwise.
  const std::optional<Error>& baseURLError() const { return baseURLError_; }
  const URL& baseURLComponents() const { return baseURL_; }
  OperationQueue& operationQueue() { return operationQueue_; }

  // IANA name; "utf-8" by default.
  std::string stringEncoding() const;
  void setStringEncoding(std::string charset);
  AFHTTPClientParameterEncoding parameterEncoding() const;
  void setParameterEncoding(AFHTTPClientParameterEncoding encoding);

  // Newest first.
  std::vector<std::string> registeredHTTPOperationClassNames() const;
  // False unless T is an HTTP request operation; moves T to the front of the list.
  template <class T>
  bool registerHTTPOperationClass() {
    if constexpr (!std::is_base_of_v<AFHTTPRequestOperation, T>) {
      return false;
    } else {
      registerOperationClass(AFHTTPOperationClass{
          std::string(T::kClassName),
          [](const HttpRequest& request) { return T::canProcessRequest(request); },
          [](NetworkSession& session, HttpRequest request) -> std::shared_ptr<AFHTTPRequestOperation> {
            return std::make_shared<T>(session, std::move(request));
          }});
      return true;
    }
  }
  template <class T>
  void unregisterHTTPOperationClass() {
    unregisterOperationClass(T::kClassName);
  }

  std::optional<std::string> defaultValueForHeader(std::string_view header) const;
  // Nothing removes the header.
  void setDefaultHeader(std::string_view header, std::optional<std::string> value);
  HttpHeaders defaultHeaders() const;
  void setAuthorizationHeaderWithUsername(std::string_view username, std::string_view password);
  void setAuthorizationHeaderWithToken(std::string_view token);
  void clearAuthorizationHeader();
  std::optional<HttpCredential> defaultCredential() const;
  void setDefaultCredential(std::optional<HttpCredential> credential);
  bool allowsInvalidSSLCertificate() const;
  void setAllowsInvalidSSLCertificate(bool allows);
  // The largest body kept in memory for this client's operations (the session's when not set).
  void setMaximumResponseSize(std::uint64_t bytes);

  // `path` resolved against the base URL, the default headers, and the parameters (null for none):
  // in the query string for GET, HEAD and DELETE ("&" after a query the URL already has), else in
  // the body by the parameter encoding. A path that does not parse or resolve gives an empty URL,
  // which the transport fails with -1000. Uses the client's parameter encoding. A subclass that
  // changes requests (signing, a fixed URL) overrides both forms: calls without an encoding of
  // their own reach this one, calls with one the next.
  virtual HttpRequest requestWithMethod(std::string_view method, std::string_view path,
                                        const nlohmann::json& parameters = nullptr);
  // The same with `encoding` for this request only (a token call of a JSON client sent as a form).
  virtual HttpRequest requestWithMethod(std::string_view method, std::string_view path,
                                        const nlohmann::json& parameters,
                                        AFHTTPClientParameterEncoding encoding);
  // A multipart body of the parameters plus the parts the block adds. The method must not be GET
  // or HEAD (InternalInconsistency).
  HttpRequest multipartFormRequestWithMethod(std::string_view method, std::string_view path,
                                             const nlohmann::json& parameters,
                                             const std::function<void(AFStreamingMultipartFormData&)>& block);

  // An operation of the first registered class that takes the request (the plain HTTP operation
  // when none does), with the blocks, the default credential and the certificate setting.
  std::shared_ptr<AFHTTPRequestOperation> HTTPRequestOperationWithRequest(HttpRequest request,
                                                                          Success success, Failure failure);
  // An operation whose request names no cookie jar is given this client's.
  void enqueueHTTPRequestOperation(std::shared_ptr<AFHTTPRequestOperation> operation);
  // Cancels queued operations of `method` (any when nothing) whose URL path is `path`'s.
  void cancelAllHTTPOperationsWithMethod(const std::optional<std::string>& method, std::string_view path);
  // Cancels every operation of this client, waiting or running: each fails with -999, and a blocking
  // call waiting on one returns at once.
  void cancelAllHTTPOperations();
  // Progress gets (finished, total) on the main queue after each operation's own blocks; the
  // completion gets the operations on the main queue after the last.
  void enqueueBatchOfHTTPRequestOperationsWithRequests(const std::vector<HttpRequest>& requests,
                                                       BatchProgress progress, BatchCompletion completion);
  void enqueueBatchOfHTTPRequestOperations(std::vector<std::shared_ptr<AFHTTPRequestOperation>> operations,
                                           BatchProgress progress, BatchCompletion completion);

  // The conveniences build the request (with `encoding` instead of the client's parameter encoding
  // when one is given), make the operation and enqueue it.
  std::shared_ptr<AFHTTPRequestOperation> getPath(std::string_view path, const nlohmann::json& parameters,
                                                  Success success, Failure failure,
                                                  std::optional<AFHTTPClientParameterEncoding> encoding = {});
  std::shared_ptr<AFHTTPRequestOperation> postPath(
      std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
      std::optional<AFHTTPClientParameterEncoding> encoding = {});
  std::shared_ptr<AFHTTPRequestOperation> putPath(std::string_view path, const nlohmann::json& parameters,
                                                  Success success, Failure failure,
                                                  std::optional<AFHTTPClientParameterEncoding> encoding = {});
  std::shared_ptr<AFHTTPRequestOperation> deletePath(
      std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
      std::optional<AFHTTPClientParameterEncoding> encoding = {});
  std::shared_ptr<AFHTTPRequestOperation> patchPath(
      std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
      std::optional<AFHTTPClientParameterEncoding> encoding = {});

  // Blocking calls for worker threads (sync operations): one request on this client's queue. A zero
  // timeout sets no bound of its own: the transfer fails with -1001 only after the request's idle
  // timeout (the session's defaultTimeoutInterval) passes with no byte moving, so a long download
  // that keeps receiving never times out. A non-zero timeout is both the idle timeout and a bound on
  // the whole call, after which the operation is cancelled and -1001 returned. Cancelling the
  // operation (or all of the client's) ends the call at once with -999. They never need the main
  // thread, so they cannot deadlock against it.
  SynchronousResponse synchronouslyGetPath(std::string_view path, const nlohmann::json& parameters = nullptr,
                                           std::chrono::duration<double> timeout = {},
                                           std::optional<AFHTTPClientParameterEncoding> encoding = {});
  SynchronousResponse synchronouslyPostPath(std::string_view path, const nlohmann::json& parameters = nullptr,
                                            std::chrono::duration<double> timeout = {},
                                            std::optional<AFHTTPClientParameterEncoding> encoding = {});
  SynchronousResponse synchronouslyPutPath(std::string_view path, const nlohmann::json& parameters = nullptr,
                                           std::chrono::duration<double> timeout = {},
                                           std::optional<AFHTTPClientParameterEncoding> encoding = {});
  SynchronousResponse synchronouslyDeletePath(std::string_view path,
                                              const nlohmann::json& parameters = nullptr,
                                              std::chrono::duration<double> timeout = {},
                                              std::optional<AFHTTPClientParameterEncoding> encoding = {});
  SynchronousResponse synchronouslyPatchPath(std::string_view path,
                                             const nlohmann::json& parameters = nullptr,
                                             std::chrono::duration<double> timeout = {},
                                             std::optional<AFHTTPClientParameterEncoding> encoding = {});
  // A zero timeout keeps the request's own timeoutInterval as the idle timeout.
  SynchronousResponse synchronouslyPerformRequest(HttpRequest request,
                                                  std::chrono::duration<double> timeout = {});

  static constexpr size_t kMaximumURLBytes = 8192;
  // Splits the list under `key` of `parameters` into as few parameter objects as possible, in order,
  // each with every other parameter, such that the URL requestWithMethod builds for `method` and
  // `path` from each is at most `maxURLBytes` long: one request per batch keeps long id lists under
  // the limit servers put on URLs. Methods that send parameters in the body get one batch. Fails
  // with -1000 when one element (with the other parameters) alone is too long, or when `parameters`
  // is no object or `key` holds no list.
  Result<std::vector<nlohmann::json>> batchesOfListParameter(std::string_view method, std::string_view path,
                                                             const nlohmann::json& parameters,
                                                             std::string_view key,
                                                             size_t maxURLBytes = kMaximumURLBytes);

  // Reachability of the base URL's host. The status starts unknown and follows the session's
  // Reachability; the block runs on the main queue after each change.
  ReachabilityStatus networkReachabilityStatus() const;
  void setReachabilityStatusChangeBlock(ReachabilityStatusBlock block);
  void startMonitoringNetworkReachability();
  void stopMonitoringNetworkReachability();
  // Asks now (blocking up to the probe's bound): the reachability error when the host cannot be
  // reached, the -1000 error of an unusable base URL. For worker threads.
  Result<void> isNetworkEndpointReachable();

  // Writes the operation's response bytes and a description to the session's dump folder, only
  // when that folder exists. Failures are only logged. Secrets are redacted (Redaction.h): secret
  // query, form and JSON values, and Authorization and cookie header lines.
  void dumpOperationWithError(const AFHTTPRequestOperation& operation, const Error& error) const;

 protected:
  // The request body and Content-Type for `parameters` by the parameter encoding (the client's,
  // or the one given).
  void encodeParametersIntoBody(HttpRequest& request, const nlohmann::json& parameters) const;
  void encodeParametersIntoBody(HttpRequest& request, const nlohmann::json& parameters,
                                AFHTTPClientParameterEncoding encoding) const;

 private:
  struct ReachabilityState;

  std::shared_ptr<AFHTTPRequestOperation> enqueueRequest(
      std::string_view method, std::string_view path, const nlohmann::json& parameters, Success success,
      Failure failure, std::optional<AFHTTPClientParameterEncoding> encoding);
  HttpRequest requestWithOptionalEncoding(std::string_view method, std::string_view path,
                                          const nlohmann::json& parameters,
                                          std::optional<AFHTTPClientParameterEncoding> encoding);
  void registerOperationClass(AFHTTPOperationClass operationClass);
  void unregisterOperationClass(std::string_view name);
  static std::optional<URL> normalizedBaseURL(std::string_view baseURL);

  NetworkSession& session_;
  const std::string givenBaseURL_;
  const URL baseURL_;                        // empty when unusable
  const std::optional<Error> baseURLError_;  // set when unusable
  // This client's cookies: sent only with its own requests, never written anywhere.
  const std::shared_ptr<const CookieJar> cookieJar_ = CookieJar::make();
  mutable std::mutex mutex_;  // guards every member up to the queue
  std::string stringEncoding_;
  AFHTTPClientParameterEncoding parameterEncoding_ = AFHTTPClientParameterEncoding::kFormURLParameterEncoding;
  std::vector<AFHTTPOperationClass> operationClasses_;  // newest first
  HttpHeaders defaultHeaders_;
  std::optional<HttpCredential> defaultCredential_;
  bool allowsInvalidSSLCertificate_ = false;
  std::optional<std::uint64_t> maximumResponseSize_;
  int reachabilityObserver_ = 0;
  std::shared_ptr<ReachabilityState> reachability_;
  // Last: destroyed first, so running operations end before the rest goes.
  OperationQueue operationQueue_;
};

}  // namespace lectern
