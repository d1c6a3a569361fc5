#include "services/feedwrangler/QKFeedWranglerClient.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/Strings.h"
#include "net/QKJSONRequestOperation.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kAuthenticateFailed = "Failed to authenticate";
constexpr std::string_view kFetchSubscriptionsFailed = "Failed to fetch subscriptions";
constexpr std::string_view kFetchIdsFailed = "Failed to fetch unread ids";
constexpr std::string_view kFetchEntriesFailed = "Failed to fetch entries with ids";
constexpr std::string_view kFetchStreamsFailed = "Failed to fetch list of streams";
constexpr std::string_view kFetchStreamItemsFailed = "Failed to fetch feed_item_ids of streams";
constexpr std::string_view kMarkItemFailed = "Failed to mark item";
constexpr std::string_view kAddFeedFailed = "Failed to add feed";
constexpr std::string_view kDeleteSubscriptionFailed = "Failed to delete subscription";
// A failure in a successful answer is the server declining the call.
constexpr std::string_view kRefusedStatus = "400";

std::string flag(bool value) { return value ? "true" : "false"; }

std::string pageOffset(int page, int perPage) { return std::to_string(std::max(page - 1, 0) * perPage); }

// Feed Wrangler says "result": "error" with HTTP 200 for most failures: the JSON operation would
// take that for a success, so the answer fails here, before any caller sees it.
class QKFeedWranglerRequestOperation final : public QKCheckedJSONRequestOperation {
 public:
  static constexpr std::string_view kClassName = "QKFeedWranglerRequestOperation";
  using QKCheckedJSONRequestOperation::QKCheckedJSONRequestOperation;
  std::string_view className() const override { return kClassName; }

 protected:
  std::optional<Error> refusalIn(const json& answer) const override {
    if (!QKFeedWranglerClient::isResponseError(answer)) return std::nullopt;
    Error error =
        Error::make(QKFeedWranglerClient::kErrorDomain, QKFeedWranglerClient::kResponseErrorCode,
                    "Feed Wrangler answered with an error", safeStringValue(answer, "error").value_or(""));
    error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = kRefusedStatus;
    return error;
  }
};

}  // namespace

QKFeedWranglerClient::QKFeedWranglerClient(NetworkSession& session, std::string_view baseURL,
                                           std::string email, std::string password, std::string clientKey)
    : AFHTTPClient(session, baseURL),
      email_(std::move(email)),
      password_(std::move(password)),
      clientKey_(std::move(clientKey)) {
  setDefaultHeader("Accept", "text/json");
  registerHTTPOperationClass<QKFeedWranglerRequestOperation>();
}

QKFeedWranglerClient::QKFeedWranglerClient(NetworkSession& session, std::string_view baseURL,
                                           std::string accessToken)
    : AFHTTPClient(session, baseURL), accessToken_(std::move(accessToken)) {
  setDefaultHeader("Accept", "text/json");
  registerHTTPOperationClass<QKFeedWranglerRequestOperation>();
}

json QKFeedWranglerClient::defaultParameters() const {
  return {{"format", "json"}, {"access_token", accessToken_}};
}

std::string QKFeedWranglerClient::path(std::string_view resource) const {
  return fmt::format("api/v{}/{}", kApiVersion, resource);
}

json QKFeedWranglerClient::withDefaultParameters(json parameters) const {
  if (!parameters.is_object()) parameters = json::object();
  const json defaults = defaultParameters();
  for (const auto& [key, value] : defaults.items()) parameters[key] = value;
  return parameters;
}

bool QKFeedWranglerClient::isResponseError(const json& answer) {
  return answer.is_object() && safeStringValue(answer, "result") == "error";
}

Error QKFeedWranglerClient::errorFromResponseObject(const AFHTTPRequestOperation* operation,
                                                    const Error& error, std::string_view title) {
  const auto response = operation ? operation->response() : std::nullopt;
  if (error.domain == kErrorDomain && error.code == kResponseErrorCode) {
    Error refused = error;
    refused.description = std::string(title);
    return refused;
  }
  // An HTTP failure whose body still explains itself keeps its status (a 5xx is no refusal).
  if (operation) {
    const json answer = json::parse(operation->responseData(), nullptr, /*allow_exceptions=*/false);
    if (isResponseError(answer)) {
      Error explained = error;
      explained.description = std::string(title);
      explained.recoverySuggestion = safeStringValue(answer, "error").value_or("");
      if (response)
        explained.userInfo[std::string(kHTTPStatusCodeErrorKey)] = std::to_string(response->statusCode);
      return explained;
    }
  }
  return titledError(response, error, title);
}

Result<json> QKFeedWranglerClient::blockingGet(std::string_view resource, json parameters,
                                               std::string_view title) {
  auto response = synchronouslyGetPath(path(resource), withDefaultParameters(std::move(parameters)));
  if (response.error) return fail(errorFromResponseObject(response.operation.get(), *response.error, title));
  const json* body = response.json();
  return body ? *body : json();
}

void QKFeedWranglerClient::requestObject(std::string_view method, std::string_view resource, json parameters,
                                         std::string_view title, ObjectCompletion onCompleted) {
  auto request = requestWithMethod(method, path(resource), withDefaultParameters(std::move(parameters)));
  auto operation = HTTPRequestOperationWithRequest(
      std::move(request),
      [onCompleted](AFHTTPRequestOperation&, const ResponseObject& object) {
        const json* body = std::get_if<json>(&object);
        if (onCompleted) onCompleted(body ? *body : json());
      },
      [onCompleted, title = std::string(title)](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(fail(errorFromResponseObject(&operation, error, title)));
      });
  enqueueHTTPRequestOperation(std::move(operation));
}

void QKFeedWranglerClient::sendInOrder(std::vector<HttpRequest> requests, std::string_view title,
                                       Completion onCompleted) {
  lectern::sendInOrder(
      shared_from_this(), std::move(requests), std::string(title), std::move(onCompleted),
      [](const AFHTTPRequestOperation& operation, const Error& error, std::string_view title) {
        return errorFromResponseObject(&operation, error, title);
      });
}

void QKFeedWranglerClient::authenticate(TokenCompletion onCompleted) {
  requestObject("GET", "users/authorize",
                json{{"email", email_}, {"password", password_}, {"client_key", clientKey_}},
                kAuthenticateFailed, [onCompleted](Result<json> answer) {
                  if (!onCompleted) return;
                  if (!answer) return onCompleted(fail(answer.error()));
                  const auto token = safeStringValue(*answer, "access_token");
                  if (!token || token->empty()) {
                    return onCompleted(fail(kErrorDomain, kResponseErrorCode, kAuthenticateFailed,
                                            "Feed Wrangler answered without an access token."));
                  }
                  onCompleted(*token);
                });
}

Result<json> QKFeedWranglerClient::getFeeds() {
  return blockingGet("subscriptions/list", nullptr, kFetchSubscriptionsFailed);
}

Result<json> QKFeedWranglerClient::getUnreadStoryIdsOnPage(int page) {
  return blockingGet("feed_items/list_ids",
                     {{"read", flag(false)},
                      {"limit", std::to_string(kIdsPerPage)},
                      {"offset", pageOffset(page, kIdsPerPage)}},
                     kFetchIdsFailed);
}

Result<json> QKFeedWranglerClient::getStarredStoryIdsOnPage(int page) {
  return blockingGet("feed_items/list_ids",
                     {{"starred", flag(true)},
                      {"limit", std::to_string(kIdsPerPage)},
                      {"offset", pageOffset(page, kIdsPerPage)}},
                     kFetchIdsFailed);
}

Result<json> QKFeedWranglerClient::getStoriesReadStatus(bool read, int page) {
  // Titled like the subscriptions call on purpose: the message Lectern has always shown for it.
  return blockingGet("feed_items/list",
                     {{"read", flag(read)},
                      {"limit", std::to_string(kItemsPerPage)},
                      {"offset", pageOffset(page, kItemsPerPage)}},
                     kFetchSubscriptionsFailed);
}

Result<json> QKFeedWranglerClient::getEntriesWithIds(const std::vector<std::string>& ids) {
  return blockingGet("feed_items/get", {{"feed_item_ids", join(ids, ",")}}, kFetchEntriesFailed);
}

Result<json> QKFeedWranglerClient::getListOfStreams() {
  return blockingGet("streams/list", nullptr, kFetchStreamsFailed);
}

Result<json> QKFeedWranglerClient::getItemIdsOfStream(const std::string& streamId) {
  return blockingGet("streams/stream_item_ids", {{"stream_id", streamId}}, kFetchStreamItemsFailed);
}

HttpRequest QKFeedWranglerClient::updateRequest(const std::string& id, std::string_view key, bool value) {
  return requestWithMethod("POST", path("feed_items/update"),
                           withDefaultParameters({{"feed_item_id", id}, {std::string(key), flag(value)}}));
}

void QKFeedWranglerClient::markStories(const std::vector<std::string>& ids, bool readed,
                                       Completion onCompleted) {
  std::vector<HttpRequest> requests;
  if (readed) {
    for (size_t first = 0; first < ids.size(); first += kIdsPerPage) {
      const auto last = std::min(ids.size(), first + kIdsPerPage);
      const std::vector<std::string> batch(ids.begin() + static_cast<std::ptrdiff_t>(first),
                                           ids.begin() + static_cast<std::ptrdiff_t>(last));
      requests.push_back(requestWithMethod("POST", path("feed_items/mark_all_read"),
                                           withDefaultParameters({{"feed_item_ids", join(batch, ",")}})));
    }
  } else {
    for (const auto& id : ids) requests.push_back(updateRequest(id, "read", false));
  }
  sendInOrder(std::move(requests), kMarkItemFailed, std::move(onCompleted));
}

void QKFeedWranglerClient::markStory(const std::string& id, bool readed, Completion onCompleted) {
  sendInOrder({updateRequest(id, "read", readed)}, kMarkItemFailed, std::move(onCompleted));
}

void QKFeedWranglerClient::markStoryStarred(const std::string& id, bool starred, Completion onCompleted) {
  sendInOrder({updateRequest(id, "starred", starred)}, kMarkItemFailed, std::move(onCompleted));
}

void QKFeedWranglerClient::addFeedWithUrl(const std::string& url, ObjectCompletion onCompleted) {
  requestObject("GET", "subscriptions/add_feed_and_wait", {{"feed_url", url}, {"choose_first", flag(true)}},
                kAddFeedFailed, std::move(onCompleted));
}

void QKFeedWranglerClient::deleteFeed(const std::string& feedId, Completion onCompleted) {
  sendInOrder({requestWithMethod("GET", path("subscriptions/remove_feed"),
                                 withDefaultParameters({{"feed_id", feedId}}))},
              kDeleteSubscriptionFailed, std::move(onCompleted));
}

}  // namespace lectern
