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
#include "net/ExceptionBarrier.h"
#include "net/PropertyList.h"
#include "net/QKKindURLErrorMessage.h"
#include "net/Redaction.h"
#include "net/TextEncoding.h"
#include "net/URLError.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "AFHTTPClient";

bool parametersGoInQuery(std::string_view method) {
  return method == "GET" || method == "HEAD" || method == "DELETE";
}

Error badURLError(std::string_view url, std::string_view reason) {
  return makeURLError(URLErrorCode::kBadURL, url, "The URL is not valid.", reason);
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

std::optional<URL> AFHTTPClient::normalizedBaseURL(std::string_view baseURL) {
  auto url = URL::parse(baseURL);
  if (!url || !url->isAbsolute() || !url->hasAuthority() || url->host().empty()) return std::nullopt;
  // Without the slash, "v1" would be replaced rather than extended by relative paths. It ends the
  // path, before any query: "https://host/fever?api" becomes "https://host/fever/?api".
  if (!url->path().empty() && !url->path().ends_with('/')) url->setPath(url->path() + "/");
  return url;
}

bool AFHTTPClient::isUsableBaseURL(std::string_view baseURL) {
  return normalizedBaseURL(baseURL).has_value();
}

AFHTTPClient::AFHTTPClient(NetworkSession& session, std::string_view baseURL)
    : session_(session),
      givenBaseURL_(baseURL),
      baseURL_(normalizedBaseURL(baseURL).value_or(URL())),
      baseURLError_(isUsableBaseURL(baseURL)
                        ? std::nullopt
                        : std::optional<Error>(badURLError(baseURL, "Not an absolute URL with a host"))),
      stringEncoding_(kUTF8Charset),
      reachability_(std::make_shared<ReachabilityState>()),
      operationQueue_("AFHTTPClient") {
  defaultHeaders_.set("Accept-Language", acceptLanguageHeaderValue(session.options().preferredLanguages));
  defaultHeaders_.set("User-Agent", userAgentHeaderValue(LECTERN_VERSION, session.options().systemRelease));
  startMonitoringNetworkReachability();
}

std::string AFHTTPClient::baseURL() const { return baseURLError_ ? givenBaseURL_ : baseURL_.string(); }

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
  encodeParametersIntoBody(request, parameters, parameterEncoding());
}

void AFHTTPClient::encodeParametersIntoBody(HttpRequest& request, const nlohmann::json& parameters,
                                            AFHTTPClientParameterEncoding encoding) const {
  const std::string charset = stringEncoding();
  switch (encoding) {
    case AFHTTPClientParameterEncoding::kFormURLParameterEncoding:
      request.setValue("Content-Type", "application/x-www-form-urlencoded; charset=" + charset);
      request.body = queryStringFromParameters(parameters, charset);
      break;
    case AFHTTPClientParameterEncoding::kJSONParameterEncoding:
      request.setValue("Content-Type", "application/json; charset=" + charset);
      // Bytes that are not UTF-8 become U+FFFD rather than failing the whole body.
      request.body = parameters.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
      break;
    case AFHTTPClientParameterEncoding::kPropertyListParameterEncoding:
      request.setValue("Content-Type", "application/x-plist; charset=" + charset);
      request.body = xmlPropertyListFromJSON(parameters);
      break;
  }
}

HttpRequest AFHTTPClient::requestWithMethod(std::string_view method, std::string_view path,
                                            const nlohmann::json& parameters) {
  // Not virtual here: a subclass calling this base form gets the base request, never its own override.
  return AFHTTPClient::requestWithMethod(method, path, parameters, parameterEncoding());
}

HttpRequest AFHTTPClient::requestWithMethod(std::string_view method, std::string_view path,
                                            const nlohmann::json& parameters,
                                            AFHTTPClientParameterEncoding encoding) {
  HttpRequest request;
  request.method = std::string(method);
  std::optional<URL> resolved;
  if (!baseURLError_) resolved = baseURL_.resolve(path);
  // "http:x" or "//" resolve, but to nothing that can be sent.
  if (resolved && (!resolved->hasAuthority() || resolved->host().empty())) resolved.reset();
  request.timeoutInterval = session_.options().defaultTimeoutInterval;
  request.cookieJar = cookieJar_;
  std::string charset;
  {
    std::lock_guard lock(mutex_);
    request.headers = defaultHeaders_;
    charset = stringEncoding_;
  }
  if (!parameters.is_null() && parametersGoInQuery(method) && resolved) {
    // After the query the URL already has ("https://host/fever/?api" gives "?api&x=y"), before any fragment.
    const std::string query = queryStringFromParameters(parameters, charset);
    const auto& existing = resolved->query();
    if (!existing) {
      resolved->setQuery(query);
    } else if (!query.empty()) {
      resolved->setQuery(*existing + "&" + query);
    }
  }
  request.url = resolved ? resolved->string() : std::string();
  if (!parameters.is_null() && !parametersGoInQuery(method))
    encodeParametersIntoBody(request, parameters, encoding);
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
  std::optional<std::uint64_t> maximum;
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
    maximum = maximumResponseSize_;
  }
  if (!operation) operation = std::make_shared<AFHTTPRequestOperation>(session_, std::move(request));
  operation->setDefaultCookieJar(cookieJar_);
  // Blocking calls pass no blocks and read the outcome themselves; nothing is sent to the main queue.
  if (success || failure) operation->setCompletionBlockWithSuccess(std::move(success), std::move(failure));
  operation->setCredential(std::move(credential));
  operation->setAllowsInvalidSSLCertificate(allowsInvalid);
  if (maximum) operation->setMaximumResponseSize(*maximum);
  return operation;
}

void AFHTTPClient::setMaximumResponseSize(std::uint64_t bytes) {
  std::lock_guard lock(mutex_);
  maximumResponseSize_ = bytes;
}

void AFHTTPClient::enqueueHTTPRequestOperation(std::shared_ptr<AFHTTPRequestOperation> operation) {
  operation->setDefaultCookieJar(cookieJar_);
  operationQueue_.addOperation(std::move(operation));
}

void AFHTTPClient::cancelAllHTTPOperations() { operationQueue_.cancelAllOperations(); }

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
      if (batch->completion) {
        runLoggingExceptions(kLogCategory, "a batch completion block", [&] { batch->completion({}); });
      }
    });
    return;
  }
  auto tick = [batch] {
    const size_t finished = ++batch->finished;
    batch->main->post([batch, finished] {
      if (batch->progress) {
        runLoggingExceptions(kLogCategory, "a batch progress block",
                             [&] { batch->progress(finished, batch->total); });
      }
    });
    if (finished == batch->total) {
      std::vector<std::shared_ptr<AFHTTPRequestOperation>> all;
      {
        std::lock_guard lock(batch->mutex);
        all.swap(batch->operations);
      }
      batch->main->post([completion = batch->completion, all] {
        if (completion)
          runLoggingExceptions(kLogCategory, "a batch completion block", [&] { completion(all); });
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

HttpRequest AFHTTPClient::requestWithOptionalEncoding(std::string_view method, std::string_view path,
                                                      const nlohmann::json& parameters,
                                                      std::optional<AFHTTPClientParameterEncoding> encoding) {
  // Without an encoding of its own the call goes exactly where it always went (subclasses that
  // override only the three-argument form keep working).
  return encoding ? requestWithMethod(method, path, parameters, *encoding)
                  : requestWithMethod(method, path, parameters);
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::enqueueRequest(
    std::string_view method, std::string_view path, const nlohmann::json& parameters, Success success,
    Failure failure, std::optional<AFHTTPClientParameterEncoding> encoding) {
  auto operation =
      HTTPRequestOperationWithRequest(requestWithOptionalEncoding(method, path, parameters, encoding),
                                      std::move(success), std::move(failure));
  enqueueHTTPRequestOperation(operation);
  return operation;
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::getPath(
    std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return enqueueRequest("GET", path, parameters, std::move(success), std::move(failure), encoding);
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::postPath(
    std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return enqueueRequest("POST", path, parameters, std::move(success), std::move(failure), encoding);
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::putPath(
    std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return enqueueRequest("PUT", path, parameters, std::move(success), std::move(failure), encoding);
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::deletePath(
    std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return enqueueRequest("DELETE", path, parameters, std::move(success), std::move(failure), encoding);
}

std::shared_ptr<AFHTTPRequestOperation> AFHTTPClient::patchPath(
    std::string_view path, const nlohmann::json& parameters, Success success, Failure failure,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return enqueueRequest("PATCH", path, parameters, std::move(success), std::move(failure), encoding);
}

SynchronousResponse AFHTTPClient::synchronouslyPerformRequest(HttpRequest request,
                                                              std::chrono::duration<double> timeout) {
  const bool bounded = timeout.count() > 0;
  if (bounded) request.timeoutInterval = timeout;
  const std::string url = request.url;
  SynchronousResponse result;
  result.operation = HTTPRequestOperationWithRequest(std::move(request), nullptr, nullptr);
  enqueueHTTPRequestOperation(result.operation);
  if (bounded) {
    if (!result.operation->waitUntilFinishedOrCancelled(timeout)) {
      result.operation->cancel();
      result.operation->waitUntilFinished(std::chrono::seconds(5));
      result.error = makeURLError(URLErrorCode::kTimedOut, url, "The request timed out.");
      return result;
    }
  } else {
    // No bound of our own: the transport fails a transfer that stays idle for its timeout, and a
    // cancel ends it at once, so this wait ends.
    while (!result.operation->waitUntilFinishedOrCancelled(std::chrono::hours(1))) {
    }
  }
  if (!result.operation->waitUntilFinished(std::chrono::seconds(0))) {
    // Cancelled while still waiting for its turn: no need to wait for the operations ahead of it.
    result.error = makeURLError(URLErrorCode::kCancelled, url, "cancelled");
    return result;
  }
  result.error = result.operation->error();
  // A transfer that broke off (cut short, too large, timed out) left part of a body: parsing it
  // would tell nothing and cost a copy of up to the size cap.
  const bool transferFailed = result.operation->AFURLConnectionOperation::error().has_value();
  if (!transferFailed && (result.operation->totalBytesRead() > 0 || !result.error)) {
    auto parsed = result.operation->responseObject();
    if (parsed) {
      result.responseObject = std::move(*parsed);
    } else if (!result.error) {
      result.error = parsed.error();
    }
  }
  return result;
}

SynchronousResponse AFHTTPClient::synchronouslyGetPath(
    std::string_view path, const nlohmann::json& parameters, std::chrono::duration<double> timeout,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return synchronouslyPerformRequest(requestWithOptionalEncoding("GET", path, parameters, encoding), timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyPostPath(
    std::string_view path, const nlohmann::json& parameters, std::chrono::duration<double> timeout,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return synchronouslyPerformRequest(requestWithOptionalEncoding("POST", path, parameters, encoding),
                                     timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyPutPath(
    std::string_view path, const nlohmann::json& parameters, std::chrono::duration<double> timeout,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return synchronouslyPerformRequest(requestWithOptionalEncoding("PUT", path, parameters, encoding), timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyDeletePath(
    std::string_view path, const nlohmann::json& parameters, std::chrono::duration<double> timeout,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return synchronouslyPerformRequest(requestWithOptionalEncoding("DELETE", path, parameters, encoding),
                                     timeout);
}

SynchronousResponse AFHTTPClient::synchronouslyPatchPath(
    std::string_view path, const nlohmann::json& parameters, std::chrono::duration<double> timeout,
    std::optional<AFHTTPClientParameterEncoding> encoding) {
  return synchronouslyPerformRequest(requestWithOptionalEncoding("PATCH", path, parameters, encoding),
                                     timeout);
}

Result<std::vector<nlohmann::json>> AFHTTPClient::batchesOfListParameter(std::string_view method,
                                                                         std::string_view path,
                                                                         const nlohmann::json& parameters,
                                                                         std::string_view key,
                                                                         size_t maxURLBytes) {
  if (baseURLError_) return fail(*baseURLError_);
  const std::string listKey(key);
  const auto found = parameters.is_object() ? parameters.find(listKey) : parameters.end();
  if (found == parameters.end() || !found->is_array()) {
    return fail(badURLError(baseURL(), "No list under \"" + listKey + "\" to split"));
  }
  const nlohmann::json& list = *found;
  if (!parametersGoInQuery(method) || list.empty()) return std::vector<nlohmann::json>{parameters};

  // The base form builds the URL: a signing subclass would spend a nonce on every measurement.
  const AFHTTPClientParameterEncoding encoding = parameterEncoding();
  auto urlFor = [&](const nlohmann::json& list) {
    nlohmann::json batch = parameters;
    batch[listKey] = list;
    return AFHTTPClient::requestWithMethod(method, path, batch, encoding).url;
  };
  // The list's pairs sit together in the sorted query, so each element adds its own pair and one "&".
  const std::string charset = stringEncoding();
  std::vector<size_t> pairLengths;
  pairLengths.reserve(list.size());
  for (const auto& element : list) {
    nlohmann::json single = nlohmann::json::object();
    single[listKey] = nlohmann::json::array({element});
    pairLengths.push_back(queryStringFromParameters(single, charset).size());
  }
  const std::string first = urlFor(nlohmann::json::array({list[0]}));
  if (first.empty()) return fail(badURLError(path, "The path does not resolve against the base URL"));
  const size_t prefix = first.size() - pairLengths[0];

  std::vector<nlohmann::json> batches;
  nlohmann::json current = nlohmann::json::array();
  size_t length = 0;
  for (size_t i = 0; i < list.size(); ++i) {
    if (prefix + pairLengths[i] > maxURLBytes) {
      return fail(
          badURLError(baseURL(), fmt::format("Element {} of \"{}\" alone makes a URL longer than {} bytes", i,
                                             listKey, maxURLBytes)));
    }
    if (!current.empty() && length + 1 + pairLengths[i] > maxURLBytes) {
      nlohmann::json batch = parameters;
      batch[listKey] = std::exchange(current, nlohmann::json::array());
      batches.push_back(std::move(batch));
    }
    length = current.empty() ? prefix + pairLengths[i] : length + 1 + pairLengths[i];
    current.push_back(list[i]);
  }
  nlohmann::json last = parameters;
  last[listKey] = std::move(current);
  batches.push_back(std::move(last));
  for (const auto& batch : batches) {
    if (urlFor(*batch.find(listKey)).size() > maxURLBytes) {
      return fail(
          badURLError(baseURL(), "A batch came out longer than " + std::to_string(maxURLBytes) + " bytes"));
    }
  }
  return batches;
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
  if (baseURLError_) return;  // no host to watch
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
      ReachabilityStatus status = ReachabilityStatus::kUnknown;
      if (auto thrown = exceptionMessageFrom([&] { status = session->reachability().status(host); })) {
        logError(kLogCategory, "Exception in a reachability probe: {}", *thrown);
        return;
      }
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
        if (block) runLoggingExceptions(kLogCategory, "a reachability block", [&] { block(status); });
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
  if (baseURLError_) return fail(*baseURLError_);
  const std::string host = baseURL_.host();
  bool reachable = false;
  bool internet = false;
  // The probe is the program's code, called here on a sync operation's worker thread.
  if (auto thrown = exceptionMessageFrom([&] {
        reachable = session_.reachability().isReachable(host);
        if (!reachable) internet = session_.reachability().isReachable();
      })) {
    return fail(makeURLError(URLErrorCode::kUnknown, baseURL_.string(), "Cannot reach " + host, *thrown));
  }
  if (reachable) return {};
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
  // Dumps are read by people and attached to reports: no password, token or cookie may reach them.
  Error shown = error;
  shown.description = redactedText(error.description);
  shown.recoverySuggestion = redactedText(error.recoverySuggestion);
  const std::string text = fmt::format(
      "Error: {}\nOperation: {}\nRequest: {}\nResponse encoding: {}\nResponse string: {}", shown.message(),
      redactedText(operation.description()), redactedText(sanitizeUTF8(request.body)),
      stringEncodingNumber(operation.responseStringEncoding()),
      redactedText(operation.responseString().value_or("")));
  // The raw bytes stay raw unless they are text with a secret in them.
  std::string raw = operation.responseData();
  if (isValidUTF8(raw)) raw = redactedText(raw);
  for (const auto& [file, contents] :
       {std::pair{folder / (name + ".raw"), raw}, std::pair{folder / (name + ".txt"), text}}) {
    if (auto written = writeFileAtomically(file, contents); !written) {
      logError(kLogCategory, "Failed to dump request into the 'dump' directory: {}",
               written.error().message());
      return;
    }
  }
}

}  // namespace lectern
