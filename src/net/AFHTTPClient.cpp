#include "net/AFHTTPClient.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>

#include "core/Log.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "net/AFQueryStringPair.h"
#include "net/DefaultHeaders.h"
#include "net/PropertyList.h"
#include "net/QKKindURLErrorMessage.h"
#include "net/TextEncoding.h"
#include "net/URLError.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "AFHTTPClient";

bool parametersGoInQuery(std::string_view method) {
  return method == "GET" || method == "HEAD" || method == "DELETE";
}

}  // namespace

struct AFHTTPClient::ReachabilityState {
  std::mutex mutex;  // guards status, block, monitoring
  ReachabilityStatus status = ReachabilityStatus::kUnknown;
  ReachabilityStatusBlock block;
  bool monitoring = false;
};

int SynchronousResponse::statusCode() const {
  if (!operation) return 0;
  const auto response = operation->response();
  return response ? response->statusCode : 0;
}

URL AFHTTPClient::normalizedBaseURL(std::string_view baseURL) {
  auto url = URL::parse(baseURL);
  if (!url || !url->isAbsolute()) throw InternalInconsistency("Invalid parameter not satisfying: url");
  // Without the slash, "v1" would be replaced rather than extended by relative paths.
  if (!url->path().empty() && !url->string().ends_with('/')) url->setPath(url->path() + "/");
  return *url;
}

AFHTTPClient::AFHTTPClient(NetworkSession& session, std::string_view baseURL)
    : session_(session),
      baseURL_(normalizedBaseURL(baseURL)),
      stringEncoding_(kUTF8Charset),
      reachability_(std::make_shared<ReachabilityState>()),
      operationQueue_("AFHTTPClient") {
  defaultHeaders_.set("Accept-Language", acceptLanguageHeaderValue(session.options().preferredLanguages));
  defaultHeaders_.set("User-Agent", userAgentHeaderValue(LECTERN_VERSION, session.options().systemRelease));
  startMonitoringNetworkReachability();
}

AFHTTPClient::~AFHTTPClient() {
  stopMonitoringNetworkReachability();
  operationQueue_.cancelAllOperations();
  operationQueue_.waitUntilAllOperationsAreFinished();
}

std::string AFHTTPClient::stringEncoding() const {
  std::lock_guard lock(mutex_);
  return stringEncoding_;
}

void AFHTTPClient::setStringEncoding(std::string charset) {
  std::lock_guard lock(mutex_);
  stringEncoding_ = toLowerASCII(charset);
}

AFHTTPClientParameterEncoding AFHTTPClient::parameterEncoding() const {
  std::lock_guard lock(mutex_);
  return parameterEncoding_;
}

void AFHTTPClient::setParameterEncoding(AFHTTPClientParameterEncoding encoding) {
  std::lock_guard lock(mutex_);
  parameterEncoding_ = encoding;
}

std::vector<std::string> AFHTTPClient::registeredHTTPOperationClassNames() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& operationClass : operationClasses_) names.push_back(operationClass.name);
  return names;
}

void AFHTTPClient::registerOperationClass(AFHTTPOperationClass operationClass) {
  std::lock_guard lock(mutex_);
  std::erase_if(operationClasses_, [&](const auto& c) { return c.name == operationClass.name; });
  operationClasses_.insert(operationClasses_.begin(), std::move(operationClass));
}

void AFHTTPClient::unregisterOperationClass(std::string_view name) {
  std::lock_guard lock(mutex_);
  std::erase_if(operationClasses_, [&](const auto& c) { return c.name == name; });
}

std::optional<std::string> AFHTTPClient::defaultValueForHeader(std::string_view header) const {
  std::lock_guard lock(mutex_);
  return defaultHeaders_.value(header);
}

void AFHTTPClient::setDefaultHeader(std::string_view header, std::optional<std::string> value) {
  std::lock_guard lock(mutex_);
  if (value) {
    defaultHeaders_.set(header, std::move(*value));
  } else {
    defaultHeaders_.remove(header);
  }
}

HttpHeaders AFHTTPClient::defaultHeaders() const {
  std::lock_guard lock(mutex_);
  return defaultHeaders_;
}

void AFHTTPClient::setAuthorizationHeaderWithUsername(std::string_view username, std::string_view password) {
  setDefaultHeader("Authorization",
                   "Basic " + base64Encode(std::string(username) + ":" + std::string(password)));
}

void AFHTTPClient::setAuthorizationHeaderWithToken(std::string_view token) {
  setDefaultHeader("Authorization", "Token token=\"" + std::string(token) + "\"");
}

void AFHTTPClient::clearAuthorizationHeader() { setDefaultHeader("Authorization", std::nullopt); }

std::optional<HttpCredential> AFHTTPClient::defaultCredential() const {
  std::lock_guard lock(mutex_);
  return defaultCredential_;
}

void AFHTTPClient::setDefaultCredential(std::optional<HttpCredential> credential) {
  std::lock_guard lock(mutex_);
  defaultCredential_ = std::move(credential);
}

bool AFHTTPClient::allowsInvalidSSLCertificate() const {
  std::lock_guard lock(mutex_);
  return allowsInvalidSSLCertificate_;
}

void AFHTTPClient::setAllowsInvalidSSLCertificate(bool allows) {
  std::lock_guard lock(mutex_);
  allowsInvalidSSLCertificate_ = allows;
}

void AFHTTPClient::encodeParametersIntoBody(HttpRequest& request, const nlohmann::json& parameters) const {
  std::string charset;
  AFHTTPClientParameterEncoding encoding;
  {
    std::lock_guard lock(mutex_);
    charset = stringEncoding_;
    encoding = parameterEncoding_;
  }
  switch (encoding) {
    case AFHTTPClientParameterEncoding::kFormURLParameterEncoding:
      request.setValue("Content-Type", "application/x-www-form-urlencoded; charset=" + charset);
      request.body = queryStringFromParameters(parameters, charset);
      break;
    case AFHTTPClientParameterEncoding::kJSONParameterEncoding:
      request.setValue("Content-Type", "application/json; charset=" + charset);
      try {
        request.body = parameters.dump();
      } catch (const nlohmann::json::type_error& error) {
        // Text that is not UTF-8 cannot be written as JSON; the request goes out without a body.
        logError(kLogCategory, "{} {}: {}", "AFHTTPClient",
                 "requestWithMethod:path:parameters:", error.what());
        request.body.clear();
      }
      break;
    case AFHTTPClientParameterEncoding::kPropertyListParameterEncoding:
      request.setValue("Content-Type", "application/x-plist; charset=" + charset);
      request.body = xmlPropertyListFromJSON(parameters);
      break;
  }
}

HttpRequest AFHTTPClient::requestWithMethod(std::string_view method, std::string_view path,
                                            const nlohmann::json& parameters) {
  HttpRequest request;
  request.method = std::string(method);
  const auto resolved = baseURL_.resolve(path);
  request.url = resolved ? resolved->string() : std::string();
  request.timeoutInterval = session_.options().defaultTimeoutInterval;
  std::string charset;
  {
    std::lock_guard lock(mutex_);
    request.headers = defaultHeaders_;
    charset = stringEncoding_;
  }
  if (parameters.is_null()) return request;
  if (parametersGoInQuery(method)) {
    if (!request.url.empty()) {
      request.url += (path.find('?') == std::string_view::npos ? "?" : "&") +
                     queryStringFromParameters(parameters, charset);
    }
  } else {
    encodeParametersIntoBody(request, parameters);
  }
  return request;
}

HttpRequest AFHTTPClient::multipartFormRequestWithMethod(
    std::string_view method, std::string_view path, const nlohmann::json& parameters,
    const std::function<void(AFStreamingMultipartFormData&)>& block) {
  if (method == "GET" || method == "HEAD") {
    throw InternalInconsistency("Invalid parameter not satisfying: method != \"GET\" && method != \"HEAD\"");
  }
  AFStreamingMultipartFormData formData(AFHTTPClient::requestWithMethod(method, path, nullptr));
  const std::string charset = stringEncoding();
  if (!parameters.is_null()) {
    for (const auto& pair : queryStringPairsFromDictionary(parameters)) {
      std::string data = pair.value ? encodeText(*pair.value, charset).value_or(*pair.value) : std::string();
      formData.appendPartWithFormData(std::move(data), pair.field);
    }
  }
  if (block) block(formData);
  return formData.requestByFinalizingMultipartFormData();
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::HTTPRequestOperationWithRequest(HttpRequest request,
                                                                                      Success success,
                                                                                      Failure failure) {
  std::shared_ptr<AFHTTPRequestOperation> operation;
  std::optional<HttpCredential> credential;
  bool allowsInvalid;
  {
    std::lock_guard lock(mutex_);
    for (const auto& operationClass : operationClasses_) {
      if (operationClass.canProcessRequest(request)) {
        operation = operationClass.make(session_, request);
        break;
      }
    }
    credential = defaultCredential_;
    allowsInvalid = allowsInvalidSSLCertificate_;
  }
  if (!operation) operation = std::make_shared<AFHTTPRequestOperation>(session_, std::move(request));
  // Blocking calls pass no blocks and read the outcome themselves; nothing is sent to the main queue.
  if (success || failure) operation->setCompletionBlockWithSuccess(std::move(success), std::move(failure));
  operation->setCredential(std::move(credential));
  operation->setAllowsInvalidSSLCertificate(allowsInvalid);
  return operation;
}

void AFHTTPClient::enqueueHTTPRequestOperation(std::shared_ptr<AFHTTPRequestOperation> operation) {
  operationQueue_.addOperation(std::move(operation));
}

void AFHTTPClient::cancelAllHTTPOperationsWithMethod(const std::optional<std::string>& method,
                                                     std::string_view path) {
  const auto target = URL::parse(AFHTTPClient::requestWithMethod("GET", path, nullptr).url);
  const std::string targetPath = target ? target->path() : std::string();
  for (const auto& operation : operationQueue_.operations()) {
    auto http = std::dynamic_pointer_cast<AFHTTPRequestOperation>(operation);
    if (!http) continue;
    const HttpRequest request = http->request();
    const auto url = URL::parse(request.url);
    if ((!method || request.method == *method) && url && url->path() == targetPath) http->cancel();
  }
}

void AFHTTPClient::enqueueBatchOfHTTPRequestOperationsWithRequests(const std::vector<HttpRequest>& requests,
                                                                   BatchProgress progress,
                                                                   BatchCompletion completion) {
  std::vector<std::shared_ptr<AFHTTPRequestOperation>> operations;
  for (const auto& request : requests)
    operations.push_back(HTTPRequestOperationWithRequest(request, nullptr, nullptr));
  enqueueBatchOfHTTPRequestOperations(std::move(operations), std::move(progress), std::move(completion));
}

void AFHTTPClient::enqueueBatchOfHTTPRequestOperations(
    std::vector<std::shared_ptr<AFHTTPRequestOperation>> operations, BatchProgress progress,
    BatchCompletion completion) {
  struct Batch {
    MainQueue* main;
    std::atomic<size_t> finished{0};
    size_t total = 0;
    BatchProgress progress;
    BatchCompletion completion;
    std::mutex mutex;  // guards operations
    // Held until the last operation reports; then handed to the completion, which breaks the
    // cycle of operations holding the batch through their blocks.
    std::vector<std::shared_ptr<AFHTTPRequestOperation>> operations;
  };
  auto batch = std::make_shared<Batch>();
  batch->main = &session_.mainQueue();
  batch->total = operations.size();
  batch->progress = std::move(progress);
  batch->completion = std::move(completion);
  batch->operations = operations;
  if (operations.empty()) {
    batch->main->post([batch] {
      if (batch->completion) batch->completion({});
    });
    return;
  }
  auto tick = [batch] {
    const size_t finished = ++batch->finished;
    batch->main->post([batch, finished] {
      if (batch->progress) batch->progress(finished, batch->total);
    });
    if (finished == batch->total) {
      std::vector<std::shared_ptr<AFHTTPRequestOperation>> all;
      {
        std::lock_guard lock(batch->mutex);
        all.swap(batch->operations);
      }
      batch->main->post([completion = batch->completion, all] {
        if (completion) completion(all);
      });
    }
  };
  for (auto& operation : operations) {
    auto success = operation->successBlock();
    auto failure = operation->failureBlock();
    operation->setCompletionBlockWithSuccess(
        [success, tick](AFHTTPRequestOperation& op, const ResponseObject& object) {
          if (success) success(op, object);
          tick();
        },
        [failure, tick](AFHTTPRequestOperation& op, const Error& error) {
          if (failure) failure(op, error);
          tick();
        });
  }
  for (auto& operation : operations) enqueueHTTPRequestOperation(operation);
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::enqueueRequest(std::string_view method,
                                                                     std::string_view path,
                                                                     const nlohmann::json& parameters,
                                                                     Success success, Failure failure) {
  auto operation = HTTPRequestOperationWithRequest(requestWithMethod(method, path, parameters),
                                                   std::move(success), std::move(failure));
  enqueueHTTPRequestOperation(operation);
  return operation;
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::getPath(std::string_view path,
                                                              const nlohmann::json& parameters,
                                                              Success success, Failure failure) {
  return enqueueRequest("GET", path, parameters, std::move(success), std::move(failure));
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::postPath(std::string_view path,
                                                               const nlohmann::json& parameters,
                                                               Success success, Failure failure) {
  return enqueueRequest("POST", path, parameters, std::move(success), std::move(failure));
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::putPath(std::string_view path,
                                                              const nlohmann::json& parameters,
                                                              Success success, Failure failure) {
  return enqueueRequest("PUT", path, parameters, std::move(success), std::move(failure));
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::deletePath(std::string_view path,
                                                                 const nlohmann::json& parameters,
                                                                 Success success, Failure failure) {
  return enqueueRequest("DELETE", path, parameters, std::move(success), std::move(failure));
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::patchPath(std::string_view path,
                                                                const nlohmann::json& parameters,
                                                                Success success, Failure failure) {
  return enqueueRequest("PATCH", path, parameters, std::move(success), std::move(failure));
}

SynchronousResponse AFHTTPClient::synchronouslyPerformRequest(HttpRequest request,
                                                              std::chrono::duration<double> timeout) {
  const auto limit = timeout.count() > 0 ? timeout : session_.options().defaultTimeoutInterval;
  request.timeoutInterval = limit;
  const std::string url = request.url;
  SynchronousResponse result;
  result.operation = HTTPRequestOperationWithRequest(std::move(request), nullptr, nullptr);
  enqueueHTTPRequestOperation(result.operation);
  if (!result.operation->waitUntilFinished(limit)) {
    result.operation->cancel();
    result.operation->waitUntilFinished(std::chrono::seconds(5));
    result.error = makeURLError(URLErrorCode::kTimedOut, url, "The request timed out.");
    return result;
  }
  result.error = result.operation->error();
  if (result.operation->totalBytesRead() > 0 || !result.error) {
    auto parsed = result.operation->responseObject();
    if (parsed) {
      result.responseObject = std::move(*parsed);
    } else if (!result.error) {
      result.error = parsed.error();
    }
  }
  return result;
}

SynchronousResponse AFHTTPClient::synchronouslyGetPath(std::string_view path,
                                                       const nlohmann::json& parameters,
                                                       std::chrono::duration<double> timeout) {
  return synchronouslyPerformRequest(requestWithMethod("GET", path, parameters), timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyPostPath(std::string_view path,
                                                        const nlohmann::json& parameters,
                                                        std::chrono::duration<double> timeout) {
  return synchronouslyPerformRequest(requestWithMethod("POST", path, parameters), timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyPutPath(std::string_view path,
                                                       const nlohmann::json& parameters,
                                                       std::chrono::duration<double> timeout) {
  return synchronouslyPerformRequest(requestWithMethod("PUT", path, parameters), timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyDeletePath(std::string_view path,
                                                          const nlohmann::json& parameters,
                                                          std::chrono::duration<double> timeout) {
  return synchronouslyPerformRequest(requestWithMethod("DELETE", path, parameters), timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyPatchPath(std::string_view path,
                                                         const nlohmann::json& parameters,
                                                         std::chrono::duration<double> timeout) {
  return synchronouslyPerformRequest(requestWithMethod("PATCH", path, parameters), timeout);
}

ReachabilityStatus AFHTTPClient::networkReachabilityStatus() const {
  std::lock_guard lock(reachability_->mutex);
  return reachability_->status;
}

void AFHTTPClient::setReachabilityStatusChangeBlock(ReachabilityStatusBlock block) {
  std::lock_guard lock(reachability_->mutex);
  reachability_->block = std::move(block);
}

void AFHTTPClient::startMonitoringNetworkReachability() {
  stopMonitoringNetworkReachability();
  {
    std::lock_guard lock(reachability_->mutex);
    reachability_->monitoring = true;
  }
  // Probes may wait on name resolution, so they run on the session's background queue; the
  // outcome is applied on the main queue.
  auto evaluate = [weak = std::weak_ptr<ReachabilityState>(reachability_), session = &session_,
                   host = baseURL_.host()] {
    session->backgroundQueue().addOperation([weak, session, host] {
      {
        auto state = weak.lock();
        if (!state) return;
        std::lock_guard lock(state->mutex);
        if (!state->monitoring) return;
      }
      const ReachabilityStatus status = session->reachability().status(host);
      session->mainQueue().post([weak, status] {
        auto state = weak.lock();
        if (!state) return;
        ReachabilityStatusBlock block;
        {
          std::lock_guard lock(state->mutex);
          if (!state->monitoring || state->status == status) return;
          state->status = status;
          block = state->block;
        }
        if (block) block(status);
      });
    });
  };
  const int token = session_.reachability().addObserver([evaluate](ReachabilityStatus) { evaluate(); });
  {
    std::lock_guard lock(mutex_);
    reachabilityObserver_ = token;
  }
  evaluate();
}

void AFHTTPClient::stopMonitoringNetworkReachability() {
  int token;
  {
    std::lock_guard lock(mutex_);
    token = std::exchange(reachabilityObserver_, 0);
  }
  if (token != 0) session_.reachability().removeObserver(token);
  std::lock_guard lock(reachability_->mutex);
  reachability_->monitoring = false;
}

Result<void> AFHTTPClient::isNetworkEndpointReachable() {
  const std::string host = baseURL_.host();
  if (session_.reachability().isReachable(host)) return {};
  const bool internet = session_.reachability().isReachable();
  const int code = internet ? URLErrorCode::kCannotFindHost : URLErrorCode::kNotConnectedToInternet;
  Error error = makeURLError(code, baseURL_.string(), "Cannot reach " + host);
  error.recoverySuggestion = std::string(QKKindURLErrorMessage::messageForURLErrorCode(code).value_or(""));
  return fail(std::move(error));
}

void AFHTTPClient::dumpOperationWithError(const AFHTTPRequestOperation& operation, const Error& error) const {
  namespace fs = std::filesystem;
  const fs::path& folder = session_.options().dumpFolder;
  std::error_code ec;
  if (folder.empty() || !fs::is_directory(folder, ec)) return;
  const std::string name = UUIDString();
  const HttpRequest request = operation.request();
  const std::string text = fmt::format(
      "Error: {}\nOperation: {}\nRequest: {}\nResponse encoding: {}\nResponse string: {}", error.message(),
      operation.description(), sanitizeUTF8(request.body),
      stringEncodingNumber(operation.responseStringEncoding()), operation.responseString().value_or(""));
  for (const auto& [file, contents] : {std::pair{folder / (name + ".raw"), operation.responseData()},
                                       std::pair{folder / (name + ".txt"), text}}) {
    if (auto written = writeFileAtomically(file, contents); !written) {
      logError(kLogCategory, "Failed to dump request into the 'dump' directory: {}",
               written.error().message());
      return;
    }
  }
}

}  // namespace lectern
