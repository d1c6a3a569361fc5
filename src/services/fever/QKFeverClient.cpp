#include "services/fever/QKFeverClient.h"

#include <fmt/format.h>

#include "core/Strings.h"
#include "net/QKJSONRequestOperation.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLoginFailed = "Failed to login";
constexpr std::string_view kRefreshFailed = "Failed to refresh on server";
constexpr std::string_view kFetchGroupsFailed = "Failed to fetch groups";
constexpr std::string_view kFetchEntriesFailed = "Failed to fetch entries";
constexpr std::string_view kFetchUnreadFailed = "Failed to fetch unread entries";
constexpr std::string_view kMarkFailed = "Failed to mark item";
constexpr int kLoginFailedCode = 100;

}  // namespace

QKFeverClient::QKFeverClient(NetworkSession& session, std::string_view endpoint, std::string username,
                             std::string password)
    : AFHTTPClient(session, endpoint),
      endpoint_(trim(endpoint)),
      apiKey_(MD5Hash(fmt::format("{}:{}", username, password))) {
  setDefaultHeader("Accept", "text/json");
  registerHTTPOperationClass<QKJSONRequestOperation>();
  setParameterEncoding(AFHTTPClientParameterEncoding::kFormURLParameterEncoding);
}

json QKFeverClient::defaultParameters() const { return json{{"api_key", apiKey_}}; }

Result<void> QKFeverClient::isAuthenticated(const json& answer) {
  // An answer without "auth" (an empty body, a refresh page) says nothing about the key.
  if (!answer.is_object() || !answer.contains("auth") || safeBoolValue(answer["auth"])) return {};
  Error error =
      Error::make(kLecternErrorDomain, kLoginFailedCode, kLoginFailed, "Invalid user name or password");
  // The server refused the key: a change sent with it would be refused again.
  error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = "401";
  return fail(std::move(error));
}

std::string QKFeverClient::urlWithQuery(std::string_view query) const {
  // The endpoint is used as it stands (a trailing "/" after "fever.php" would be another address).
  return fmt::format("{}{}{}", endpoint_, endpoint_.find('?') == std::string::npos ? '?' : '&', query);
}

void QKFeverClient::login(Completion onCompleted) {
  postPath(
      urlWithQuery("api"), defaultParameters(),
      [onCompleted](AFHTTPRequestOperation&, const ResponseObject& object) {
        const json* answer = std::get_if<json>(&object);
        auto authenticated = answer ? isAuthenticated(*answer) : Result<void>{};
        if (onCompleted)
          onCompleted(authenticated ? std::nullopt : std::optional<Error>(authenticated.error()));
      },
      [onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(titledError(operation.response(), error, kLoginFailed));
      });
}

Result<json> QKFeverClient::blockingCall(std::string_view query, std::string_view title) {
  auto response = synchronouslyPostPath(urlWithQuery(query), defaultParameters());
  if (response.error) {
    return fail(titledError(response.operation ? response.operation->response() : std::nullopt,
                            *response.error, title));
  }
  const json* answer = response.json();
  if (!answer) return json();
  if (auto authenticated = isAuthenticated(*answer); !authenticated) return fail(authenticated.error());
  return *answer;
}

Result<void> QKFeverClient::refreshOnServer() {
  auto response =
      synchronouslyPerformRequest(requestWithMethod("GET", urlWithQuery("refresh")), kRefreshTimeout);
  if (!response.error) return {};
  return fail(titledError(response.operation ? response.operation->response() : std::nullopt, *response.error,
                          kRefreshFailed));
}

Result<json> QKFeverClient::getGroups() { return blockingCall("api&groups", kFetchGroupsFailed); }

Result<json> QKFeverClient::getFeeds() { return blockingCall("api&feeds", kFetchEntriesFailed); }

Result<json> QKFeverClient::getStoriesSinceId(std::string_view sinceId) {
  return blockingCall(fmt::format("api&items&since_id={}", sinceId), kFetchEntriesFailed);
}

Result<json> QKFeverClient::getStoriesWithIds(const std::vector<std::string>& ids) {
  return blockingCall(fmt::format("api&items&with_ids={}", join(ids, ",")), kFetchEntriesFailed);
}

Result<json> QKFeverClient::getUnreadStoryIds() {
  return blockingCall("api&unread_item_ids", kFetchUnreadFailed);
}

Result<json> QKFeverClient::getFavoriteStoryIds() {
  return blockingCall("api&saved_item_ids", kFetchUnreadFailed);
}

void QKFeverClient::markStory(const std::string& id, bool readed, Completion onCompleted) {
  markItem(id, readed ? "read" : "unread", std::move(onCompleted));
}

void QKFeverClient::markStoryStarred(const std::string& id, bool starred, Completion onCompleted) {
  markItem(id, starred ? "saved" : "unsaved", std::move(onCompleted));
}

void QKFeverClient::markItem(const std::string& id, std::string_view as, Completion onCompleted) {
  json parameters = defaultParameters();
  parameters["mark"] = "item";
  parameters["as"] = std::string(as);
  parameters["id"] = id;
  postPath(
      urlWithQuery("api"), parameters,
      [onCompleted](AFHTTPRequestOperation&, const ResponseObject& object) {
        const json* answer = std::get_if<json>(&object);
        auto authenticated = answer ? isAuthenticated(*answer) : Result<void>{};
        if (onCompleted)
          onCompleted(authenticated ? std::nullopt : std::optional<Error>(authenticated.error()));
      },
      [onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(titledError(operation.response(), error, kMarkFailed));
      });
}

}  // namespace lectern
