#include "services/pinboard/QKPinboardClient.h"

#include <fmt/format.h>

#include "core/Strings.h"
#include "net/QKJSONRequestOperation.h"
#include "net/URLError.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLoginFailed = "Pinboard: Failed to login";
constexpr std::string_view kGetLastUpdateFailed = "Pinboard: Failed to get last update";
constexpr std::string_view kGetBookmarksFailed = "Pinboard: Failed to get bookmarks";
constexpr std::string_view kGetBookmarkFailed = "Pinboard: Failed to get bookmark";
constexpr std::string_view kAddBookmarkFailed = "Pinboard: Failed to add bookmark";
constexpr std::string_view kDeleteBookmarkFailed = "Pinboard: Failed to delete bookmark";
// A failure said in a successful answer is Pinboard declining the call.
constexpr std::string_view kRefusedStatus = "400";
constexpr int kTooManyRequests = 429;
// A body quoted in an error is cut here: an HTML page would bury the message.
constexpr size_t kQuotedBodyLength = 200;

std::string yesNo(bool value) { return value ? "yes" : "no"; }

Error pinboardSaid(std::string_view title, std::string_view said) {
  return Error::make(QKPinboardClient::kErrorDomain, QKPinboardClient::kResponseErrorCode, title,
                     fmt::format("Pinboard said: {}", said));
}

std::string quoted(std::string_view body) {
  std::string text = sanitizeUTF8(trimView(body));
  if (text.size() > kQuotedBodyLength) {
    text.resize(kQuotedBodyLength);
    text = sanitizeUTF8(text) + "...";
  }
  return text;
}

// Pinboard answers most failures with HTTP 200 and a "result_code" other than "done": the JSON
// operation would take that for a success, so the answer fails here.
class QKPinboardRequestOperation final : public QKCheckedJSONRequestOperation {
 public:
  static constexpr std::string_view kClassName = "QKPinboardRequestOperation";
  using QKCheckedJSONRequestOperation::QKCheckedJSONRequestOperation;
  std::string_view className() const override { return kClassName; }

 protected:
  std::optional<Error> refusalIn(const json& answer) const override {
    if (!QKPinboardClient::isResponseError(answer)) return std::nullopt;
    Error error = pinboardSaid("Pinboard answered with an error", safeStringValue(answer, "result_code").value_or(""));
    error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = kRefusedStatus;
    return error;
  }
};

// Runs before a request on the client's serial queue: the request starts once Pinboard allows it.
class PacedTurn final : public Operation {
 public:
  PacedTurn(std::shared_ptr<PinboardPacer> pacer, PinboardPacer::Call kind,
            std::weak_ptr<AFHTTPRequestOperation> request)
      : pacer_(std::move(pacer)), kind_(kind), request_(std::move(request)) {}

 protected:
  void main() override {
    if (pacer_->takeTurn(kind_, [this] { return isCancelled(); })) return;
    if (auto request = request_.lock()) request->cancel();
  }

 private:
  std::shared_ptr<PinboardPacer> pacer_;
  const PinboardPacer::Call kind_;
  std::weak_ptr<AFHTTPRequestOperation> request_;
};

}  // namespace

QKPinboardClient::QKPinboardClient(NetworkSession& session, std::string_view baseURL, std::string username,
                                   std::string password, std::shared_ptr<PinboardPacer> pacer)
    : AFHTTPClient(session, baseURL),
      username_(std::move(username)),
      password_(std::move(password)),
      pacer_(std::move(pacer)) {
  setDefaultHeader("Accept", "text/plain");
  registerHTTPOperationClass<QKPinboardRequestOperation>();
}

QKPinboardClient::QKPinboardClient(NetworkSession& session, std::string_view baseURL, std::string username,
                                   ApiToken token, std::shared_ptr<PinboardPacer> pacer)
    : AFHTTPClient(session, baseURL),
      username_(std::move(username)),
      pacer_(std::move(pacer)),
      apiToken_(std::move(token.value)) {
  setDefaultHeader("Accept", "text/json");
  registerHTTPOperationClass<QKPinboardRequestOperation>();
}

std::optional<std::string> QKPinboardClient::apiToken() const {
  std::lock_guard lock(tokenMutex_);
  return apiToken_;
}

json QKPinboardClient::defaultParameters() const {
  json parameters = {{"format", "json"}};
  if (auto token = apiToken(); token && !token->empty()) {
    parameters["auth_token"] = fmt::format("{}:{}", username_, *token);
  }
  return parameters;
}

std::string QKPinboardClient::path(std::string_view resource) const {
  return fmt::format("v{}/{}", kApiVersion, resource);
}

json QKPinboardClient::withDefaultParameters(json parameters) const {
  if (!parameters.is_object()) parameters = json::object();
  const json defaults = defaultParameters();
  for (const auto& [key, value] : defaults.items()) parameters[key] = value;
  return parameters;
}

bool QKPinboardClient::isResponseError(const json& answer) {
  if (!answer.is_object()) return false;
  const auto code = answer.find("result_code");
  return code != answer.end() && safeStringValue(*code) != "done";
}

Error QKPinboardClient::errorFromResponseData(std::string_view body, std::string_view title) {
  const json answer = json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (answer.is_discarded()) {
    if (!trimView(body).empty()) return pinboardSaid(title, quoted(body));
  } else if (answer.is_object() && answer.contains("result_code")) {
    return pinboardSaid(title, safeStringValue(answer, "result_code").value_or(""));
  }
  return Error::make(kUnknownErrorDomain, kResponseErrorCode, title, "Pinboard: Unknown API error");
}

Error QKPinboardClient::errorFromOperation(const AFHTTPRequestOperation* operation, const Error& error,
                                           std::string_view title) {
  if (error.domain == kErrorDomain && error.code == kResponseErrorCode) {
    Error refused = error;
    refused.description = std::string(title);
    return refused;
  }
  const auto response = operation ? operation->response() : std::nullopt;
  const int status = response ? response->statusCode : 0;
  if (status >= 200 && status < 300) {
    // The request went through but its answer is not what was asked (XML, a page, a truncated body).
    Error unread = errorFromResponseData(operation->responseData(), title);
    return unread;
  }
  Error titled = titledError(response, error, title);
  if (status == kTooManyRequests) {
    titled.recoverySuggestion = fmt::format(
        "Pinboard allows one call every {} and the full list once every {}: try again later.",
        describeWait(PinboardPacer::Intervals{}.call), describeWait(PinboardPacer::Intervals{}.allPosts));
  }
  return titled;
}

void QKPinboardClient::enqueuePaced(PinboardPacer::Call kind, std::shared_ptr<AFHTTPRequestOperation> operation) {
  auto turn = std::make_shared<PacedTurn>(pacer_, kind, operation);
  operation->addDependency(turn);
  operationQueue().addOperation(turn);
  enqueueHTTPRequestOperation(std::move(operation));
}

void QKPinboardClient::request(PinboardPacer::Call kind, std::string_view resource, json parameters,
                               std::string_view title, ObjectCompletion onCompleted) {
  auto httpRequest = requestWithMethod("GET", path(resource), withDefaultParameters(std::move(parameters)));
  auto operation = HTTPRequestOperationWithRequest(
      std::move(httpRequest),
      [onCompleted](AFHTTPRequestOperation&, const ResponseObject& object) {
        const json* body = std::get_if<json>(&object);
        if (onCompleted) onCompleted(body ? *body : json());
      },
      [onCompleted, title = std::string(title)](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(fail(errorFromOperation(&operation, error, title)));
      });
  enqueuePaced(kind, std::move(operation));
}

void QKPinboardClient::write(std::string_view resource, json parameters, std::string_view title,
                             Completion onCompleted) {
  request(PinboardPacer::Call::kAny, resource, std::move(parameters), title,
          [onCompleted, title = std::string(title)](Result<json> answer) {
            if (!onCompleted) return;
            if (!answer) return onCompleted(answer.error());
            // A write says "done"; any other answer is no proof that it happened.
            if (safeStringValue(*answer, "result_code") != "done") {
              return onCompleted(errorFromResponseData(answer->dump(), title));
            }
            onCompleted(std::nullopt);
          });
}

void QKPinboardClient::authenticate(TokenCompletion onCompleted) {
  setDefaultHeader("Accept", "text/plain");
  setAuthorizationHeaderWithUsername(username_, password_);
  auto httpRequest = requestWithMethod("GET", path("user/api_token/"), withDefaultParameters(nullptr));
  // The request carries the header now; no later call of this client sends the password.
  clearAuthorizationHeader();
  auto self = weak_from_this();
  auto operation = HTTPRequestOperationWithRequest(
      std::move(httpRequest),
      [self, onCompleted](AFHTTPRequestOperation& operation, const ResponseObject& object) {
        const json* body = std::get_if<json>(&object);
        const auto token = body ? safeStringValue(*body, "result") : std::nullopt;
        if (!token || trimView(*token).empty()) {
          if (onCompleted) onCompleted(fail(errorFromResponseData(operation.responseData(), kLoginFailed)));
          return;
        }
        if (auto client = self.lock()) {
          std::lock_guard lock(client->tokenMutex_);
          client->apiToken_ = trim(*token);
        }
        if (onCompleted) onCompleted(trim(*token));
      },
      [onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(fail(errorFromOperation(&operation, error, kLoginFailed)));
      });
  enqueuePaced(PinboardPacer::Call::kAny, std::move(operation));
}

void QKPinboardClient::getLastUpdate(ObjectCompletion onCompleted) {
  request(PinboardPacer::Call::kAny, "posts/update", nullptr, kGetLastUpdateFailed, std::move(onCompleted));
}

Result<json> QKPinboardClient::getAllBookmarksWithParams(json parameters, const std::function<bool()>& isCancelled) {
  if (!pacer_->takeTurn(PinboardPacer::Call::kAllPosts, isCancelled)) {
    return fail(titledError(std::nullopt, makeURLError(URLErrorCode::kCancelled, "", "cancelled"), kGetBookmarksFailed));
  }
  auto response = synchronouslyGetPath(path("posts/all"), withDefaultParameters(std::move(parameters)));
  if (response.error) return fail(errorFromOperation(response.operation.get(), *response.error, kGetBookmarksFailed));
  const json* body = response.json();
  if (!body || !body->is_array()) {
    return fail(errorFromResponseData(response.operation ? response.operation->responseData() : std::string(),
                                      kGetBookmarksFailed));
  }
  return *body;
}

void QKPinboardClient::getBookmarksWithParams(json parameters, ObjectCompletion onCompleted) {
  request(PinboardPacer::Call::kAny, "posts/get", std::move(parameters), kGetBookmarkFailed, std::move(onCompleted));
}

void QKPinboardClient::addBookmarkWithUrl(const PinboardPostFields& post, Completion onCompleted) {
  json parameters = {{"url", post.url}, {"shared", yesNo(post.isShared)}, {"toread", yesNo(!post.isArchive)}};
  if (post.title) parameters["description"] = *post.title;
  if (post.description) parameters["extended"] = *post.description;
  // The library keeps tags comma-separated; Pinboard separates them with spaces.
  std::vector<std::string> tags;
  for (const auto& tag : split(post.tags, ",")) {
    if (auto name = trim(tag); !name.empty()) tags.push_back(std::move(name));
  }
  if (!tags.empty() || post.replace) parameters["tags"] = join(tags, " ");
  if (post.time) parameters["dt"] = *post.time;
  if (post.replace) parameters["replace"] = "yes";
  write("posts/add", std::move(parameters), kAddBookmarkFailed, std::move(onCompleted));
}

void QKPinboardClient::deleteBookmarkWithUrl(const std::string& url, Completion onCompleted) {
  write("posts/delete", {{"url", url}}, kDeleteBookmarkFailed, std::move(onCompleted));
}

}  // namespace lectern
