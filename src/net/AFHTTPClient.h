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

  // `baseURL` must be absolute (else InternalInconsistency "Invalid parameter not satisfying: url");
  // a non-empty path gets a trailing "/" so relative paths resolve under it. Starts reachability
  // monitoring of the base URL's host.
  AFHTTPClient(NetworkSession& session, std::string_view baseURL);
  // Stops monitoring, cancels queued operations and waits for running ones.
  virtual ~AFHTTPClient();
  AFHTTPClient(const AFHTTPClient&) = delete;
  AFHTTPClient& operator=(const AFHTTPClient&) = delete;

  NetworkSession& session() const { return session_; }
  std::string baseURL() const { return baseURL_.string(); }
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

  // `path` resolved against the base URL, the default headers, and the parameters (null for none):
  // in the query string for GET, HEAD and DELETE, else in the body by the parameter encoding.
  virtual HttpRequest requestWithMethod(std::string_view method, std::string_view path,
                                        const nlohmann::json& parameters = nullptr);
  // A multipart body of the parameters plus the parts the block adds. The method must not be GET
  // or HEAD (InternalInconsistency).
  HttpRequest multipartFormRequestWithMethod(std::string_view method, std::string_view path,
                                             const nlohmann::json& parameters,
                                             const std::function<void(AFStreamingMultipartFormData&)>& block);

  // An operation of the first registered class that takes the request (the plain HTTP operation
  // when none does), with the blocks, the default credential and the certificate setting.
  std::shared_ptr<AFHTTPRequestOperation> HTTPRequestOperationWithRequest(HttpRequest request,
                                                                          Success success, Failure failure);
  void enqueueHTTPRequestOperation(std::shared_ptr<AFHTTPRequestOperation> operation);
  // Cancels queued operations of `method` (any when nothing) whose URL path is `path`'s.
  void cancelAllHTTPOperationsWithMethod(const std::optional<std::string>& method, std::string_view path);
  // Progress gets (finished, total) on the main queue after each operation's own blocks; the
  // completion gets the operations on the main queue after the last.
  void enqueueBatchOfHTTPRequestOperationsWithRequests(const std::vector<HttpRequest>& requests,
                                                       BatchProgress progress, BatchCompletion completion);
  void enqueueBatchOfHTTPRequestOperations(std::vector<std::shared_ptr<AFHTTPRequestOperation>> operations,
                                           BatchProgress progress, BatchCompletion completion);

  std::shared_ptr<AFHTTPRequestOperation> getPath(std::string_view path, const nlohmann::json& parameters,
                                                  Success success, Failure failure);
  std::shared_ptr<AFHTTPRequestOperation> postPath(std::string_view path, const nlohmann::json& parameters,
                                                   Success success, Failure failure);
  std::shared_ptr<AFHTTPRequestOperation> putPath(std::string_view path, const nlohmann::json& parameters,
                                                  Success success, Failure failure);
  std::shared_ptr<AFHTTPRequestOperation> deletePath(std::string_view path, const nlohmann::json& parameters,
                                                     Success success, Failure failure);
  std::shared_ptr<AFHTTPRequestOperation> patchPath(std::string_view path, const nlohmann::json& parameters,
                                                    Success success, Failure failure);

  // Blocking calls for worker threads (sync operations): one request on this client's queue,
  // waited for at most `timeout` (zero: the session's default), then cancelled with -1001. They
  // never need the main thread, so they cannot deadlock against it.
  SynchronousResponse synchronouslyGetPath(std::string_view path, const nlohmann::json& parameters = nullptr,
                                           std::chrono::duration<double> timeout = {});
  SynchronousResponse synchronouslyPostPath(std::string_view path, const nlohmann::json& parameters = nullptr,
                                            std::chrono::duration<double> timeout = {});
  SynchronousResponse synchronouslyPutPath(std::string_view path, const nlohmann::json& parameters = nullptr,
                                           std::chrono::duration<double> timeout = {});
  SynchronousResponse synchronouslyDeletePath(std::string_view path,
                                              const nlohmann::json& parameters = nullptr,
                                              std::chrono::duration<double> timeout = {});
  SynchronousResponse synchronouslyPatchPath(std::string_view path,
                                             const nlohmann::json& parameters = nullptr,
                                             std::chrono::duration<double> timeout = {});
  SynchronousResponse synchronouslyPerformRequest(HttpRequest request,
                                                  std::chrono::duration<double> timeout = {});

  // Reachability of the base URL's host. The status starts unknown and follows the session's
  // Reachability; the block runs on the main queue after each change.
  ReachabilityStatus networkReachabilityStatus() const;
  void setReachabilityStatusChangeBlock(ReachabilityStatusBlock block);
  void startMonitoringNetworkReachability();
  void stopMonitoringNetworkReachability();
  // Asks now (blocking up to the probe's bound): the reachability error when the host cannot be
  // reached. For worker threads.
  Result<void> isNetworkEndpointReachable();

  // Writes the operation's response bytes and a description to the session's dump folder, only
  // when that folder exists. Failures are only logged.
  void dumpOperationWithError(const AFHTTPRequestOperation& operation, const Error& error) const;

 protected:
  // The request body and Content-Type for `parameters` by the parameter encoding.
  void encodeParametersIntoBody(HttpRequest& request, const nlohmann::json& parameters) const;

 private:
  struct ReachabilityState;

  std::shared_ptr<AFHTTPRequestOperation> enqueueRequest(std::string_view method, std::string_view path,
                                                         const nlohmann::json& parameters, Success success,
                                                         Failure failure);
  void registerOperationClass(AFHTTPOperationClass operationClass);
  void unregisterOperationClass(std::string_view name);
  static URL normalizedBaseURL(std::string_view baseURL);

  NetworkSession& session_;
  const URL baseURL_;
  mutable std::mutex mutex_;  // guards every member up to the queue
  std::string stringEncoding_;
  AFHTTPClientParameterEncoding parameterEncoding_ = AFHTTPClientParameterEncoding::kFormURLParameterEncoding;
  std::vector<AFHTTPOperationClass> operationClasses_;  // newest first
  HttpHeaders defaultHeaders_;
  std::optional<HttpCredential> defaultCredential_;
  bool allowsInvalidSSLCertificate_ = false;
  int reachabilityObserver_ = 0;
  std::shared_ptr<ReachabilityState> reachability_;
  // Last: destroyed first, so running operations end before the rest goes.
  OperationQueue operationQueue_;
};

}  // namespace lectern
