#include "services/pocket/QKPocketClient.h"

#include <fmt/format.h>

#include "core/Strings.h"
#include "net/QKJSONRequestOperation.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kGetBookmarksFailed = "Pocket: Failed to get bookmarks";
constexpr std::string_view kUpdateBookmarkFailed = "Pocket: Failed to update bookmark";
constexpr std::string_view kDeleteBookmarkFailed = "Pocket: Failed to delete bookmark";
constexpr std::string_view kUpdateTagsFailed = "Pocket: Failed to update bookmark tags";
constexpr std::string_view kAddBookmarkFailed = "Pocket: Failed to add bookmark";
constexpr std::string_view kSignInFailed = "Pocket: Failed to sign in";
// A failure said in a successful answer is Pocket declining the call.
constexpr std::string_view kRefusedStatus = "400";

std::optional<std::string> errorHeaderOf(const std::optional<HttpResponse>& response) {
  if (!response) return std::nullopt;
  return response->headers.value(QKPocketClient::kErrorHeader);
}

// Pocket says a failure in the "X-Error" header, sometimes with status 200: the JSON operation
// would take that for a success, so the answer fails here, before any caller sees it.
class QKPocketRequestOperation final : public QKJSONRequestOperation {
 public:
  static constexpr std::string_view kClassName = "QKPocketRequestOperation";
  using QKJSONRequestOperation::QKJSONRequestOperation;
  std::string_view className() const override { return kClassName; }

 protected:
  Result<ResponseObject> parseResponse() override {
    if (auto said = errorHeaderOf(response())) {
      Error refused = Error::make(QKPocketClient::kErrorDomain, QKPocketClient::kResponseErrorCode,
                                  "Pocket answered with an error", *said);
      refused.userInfo[std::string(kHTTPStatusCodeErrorKey)] = kRefusedStatus;
      return std::unexpected<Error>(std::move(refused));
    }
    return QKJSONRequestOperation::parseResponse();
  }
};

Error signInError(const Error& error) {
  Error titled = error;
  titled.description = std::string(kSignInFailed);
  return titled;
}

}  // namespace

QKPocketClient::QKPocketClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                               const Clock& clock)
    : AFHTTPClient(session, baseURL), consumerKey_(std::move(consumerKey)), clock_(clock) {
  registerHTTPOperationClass<QKPocketRequestOperation>();
  setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  setDefaultHeader("Accept", "*/*");
  // Pocket's sign-in calls answer a form unless asked for JSON.
  setDefaultHeader("X-Accept", "application/json");
}

QKPocketClient::QKPocketClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                               std::string accessToken, const Clock& clock)
    : QKPocketClient(session, baseURL, std::move(consumerKey), clock) {
  accessToken_ = std::move(accessToken);
  signRequests_ = true;
}

bool QKPocketClient::signRequests() const {
  std::lock_guard lock(signMutex_);
  return signRequests_;
}

void QKPocketClient::setSignRequests(bool sign) {
  std::lock_guard lock(signMutex_);
  signRequests_ = sign;
}

json QKPocketClient::signedParameters(const json& parameters) const {
  if (!signRequests()) return parameters;
  json signedOnes = parameters.is_object() ? parameters : json::object();
  if (!signedOnes.contains("consumer_key")) signedOnes["consumer_key"] = consumerKey_;
  if (!signedOnes.contains("access_token")) signedOnes["access_token"] = accessToken_;
  return signedOnes;
}

HttpRequest QKPocketClient::requestWithMethod(std::string_view method, std::string_view path,
                                              const json& parameters) {
  return AFHTTPClient::requestWithMethod(method, path, signedParameters(parameters));
}

HttpRequest QKPocketClient::requestWithMethod(std::string_view method, std::string_view path,
                                              const json& parameters, AFHTTPClientParameterEncoding encoding) {
  return AFHTTPClient::requestWithMethod(method, path, signedParameters(parameters), encoding);
}

std::string QKPocketClient::path(std::string_view resource) const {
  return fmt::format("{}/{}", kApiVersion, resource);
}

Error QKPocketClient::errorFromResponse(const std::optional<HttpResponse>& response, const Error& error,
                                        std::string_view title) {
  const auto said = errorHeaderOf(response);
  if (!said) return titledError(response, error, title);
  Error explained = Error::make(kErrorDomain, kResponseErrorCode, title, *said);
  const bool refusedWithSuccess = response->statusCode >= 200 && response->statusCode < 300;
  explained.userInfo[std::string(kHTTPStatusCodeErrorKey)] =
      refusedWithSuccess ? std::string(kRefusedStatus) : std::to_string(response->statusCode);
  return explained;
}

Result<json> QKPocketClient::blockingPost(std::string_view resource, json parameters, std::string_view title) {
  auto response = synchronouslyPostPath(path(resource), parameters);
  const auto httpResponse = response.operation ? response.operation->response() : std::nullopt;
  if (response.error) return fail(errorFromResponse(httpResponse, *response.error, title));
  const json* body = response.json();
  if (!body || !body->is_object()) {
    return fail(errorFromResponse(httpResponse,
                                  Error::make(kLecternErrorDomain, 0, "Pocket's answer was not understood."),
                                  title));
  }
  return *body;
}

void QKPocketClient::post(std::string_view resource, json parameters, std::string_view title,
                          ObjectCompletion onCompleted) {
  auto request = requestWithMethod("POST", path(resource), parameters);
  auto operation = HTTPRequestOperationWithRequest(
      std::move(request),
      [onCompleted](AFHTTPRequestOperation&, const ResponseObject& object) {
        const json* body = std::get_if<json>(&object);
        if (onCompleted) onCompleted(body ? *body : json());
      },
      [onCompleted, title = std::string(title)](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(fail(errorFromResponse(operation.response(), error, title)));
      });
  enqueueHTTPRequestOperation(std::move(operation));
}

void QKPocketClient::send(std::vector<json> actions, std::string_view title, Completion onCompleted) {
  // One action per send, in order: a failure names the change it belongs to, and the changes
  // before it stay made.
  std::vector<HttpRequest> requests;
  for (auto& action : actions)
    requests.push_back(requestWithMethod("POST", path("send"), json{{"actions", json::array({std::move(action)})}}));
  lectern::sendInOrder(shared_from_this(), std::move(requests), std::string(title), std::move(onCompleted),
                       [](const AFHTTPRequestOperation& operation, const Error& error, std::string_view title) {
                         return errorFromResponse(operation.response(), error, title);
                       });
}

json QKPocketClient::action(std::string_view name, const std::string& itemId) const {
  return json{{"action", name},
              {"item_id", itemId},
              {"time", fmt::format("{:.0f}", secondsSince1970(clock_.now()))}};
}

std::string QKPocketClient::redirectURL() { return "lectern://pocket/auth"; }

Result<std::string> QKPocketClient::fetchRequestToken(std::string_view redirectURI) {
  setSignRequests(false);
  auto answer = blockingPost("oauth/request", json{{"consumer_key", consumerKey_}, {"redirect_uri", redirectURI}},
                             kSignInFailed);
  if (!answer) return fail(answer.error());
  const auto code = safeStringValue(*answer, "code");
  if (!code || code->empty())
    return fail(kErrorDomain, kResponseErrorCode, kSignInFailed, "Pocket's answer held no request token.");
  return *code;
}

std::string QKPocketClient::authorizationURL(std::string_view webBaseURL, std::string_view requestToken,
                                             std::string_view redirectURI) {
  std::string base(trimView(webBaseURL));
  if (!base.ends_with('/')) base += '/';
  // Query values: every reserved character escaped, so that the redirect's own ":" and "/" stay in it.
  constexpr std::string_view kReserved = ":/?#@!$&'()*+,;=";
  return fmt::format("{}auth/authorize?request_token={}&redirect_uri={}", base,
                     percentEscape(requestToken, kReserved), percentEscape(redirectURI, kReserved));
}

Result<PocketAuthorization> QKPocketClient::convertRequestTokenToAccessToken(std::string_view requestToken) {
  setSignRequests(false);
  auto answer = blockingPost("oauth/authorize", json{{"consumer_key", consumerKey_}, {"code", requestToken}},
                             kSignInFailed);
  if (!answer) return fail(signInError(answer.error()));
  const auto token = safeStringValue(*answer, "access_token");
  if (!token || token->empty())
    return fail(kErrorDomain, kResponseErrorCode, kSignInFailed, "Pocket's answer held no access token.");
  const auto username = safeStringValue(*answer, "username");
  if (!username || trim(*username).empty())
    return fail(kErrorDomain, kResponseErrorCode, kSignInFailed, "Pocket's answer names no account.");
  return PocketAuthorization{*token, trim(*username)};
}

Result<json> QKPocketClient::getBookmarksWithParams(json parameters) {
  return blockingPost("get", std::move(parameters), kGetBookmarksFailed);
}

void QKPocketClient::markBookmarkWithIdFavorited(const std::string& itemId, bool favorited, Completion onCompleted) {
  send({action(favorited ? "favorite" : "unfavorite", itemId)}, kUpdateBookmarkFailed, std::move(onCompleted));
}

void QKPocketClient::markBookmarksWithIdsArchived(const std::vector<std::string>& itemIds, bool archived,
                                                  Completion onCompleted) {
  std::vector<json> actions;
  for (const auto& id : itemIds) actions.push_back(action(archived ? "archive" : "add", id));
  send(std::move(actions), kUpdateBookmarkFailed, std::move(onCompleted));
}

void QKPocketClient::deleteBookmarkWithId(const std::string& itemId, Completion onCompleted) {
  send({action("delete", itemId)}, kDeleteBookmarkFailed, std::move(onCompleted));
}

void QKPocketClient::checkAccessToken(Completion onCompleted) {
  post("get", json{{"count", "1"}, {"detailType", "simple"}}, kSignInFailed,
       [onCompleted](Result<json> answer) {
         if (onCompleted) onCompleted(answer ? std::nullopt : std::optional<Error>(answer.error()));
       });
}

void QKPocketClient::updateBookmarkWithIdTags(const std::string& itemId, std::string_view tags,
                                              Completion onCompleted) {
  std::vector<std::string> names;
  for (const auto& tag : split(tags, ",")) {
    if (auto name = trim(tag); !name.empty()) names.push_back(std::move(name));
  }
  json change = action(names.empty() ? "tags_clear" : "tags_replace", itemId);
  if (!names.empty()) change["tags"] = names;
  send({std::move(change)}, kUpdateTagsFailed, std::move(onCompleted));
}

void QKPocketClient::addBookmarkWithUrl(const std::string& url, const std::optional<std::string>& title,
                                        const std::optional<std::string>& tags, ObjectCompletion onCompleted) {
  json parameters{{"url", url}};
  if (title && !title->empty()) parameters["title"] = *title;
  if (tags && !tags->empty()) parameters["tags"] = *tags;
  post("add", std::move(parameters), kAddBookmarkFailed, std::move(onCompleted));
}

}  // namespace lectern
