#include "services/feedbin/QKFeedbinClient.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <ctime>
#include <memory>

#include "core/Strings.h"
#include "net/QKJSONRequestOperation.h"
#include "net/URLError.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kAuthenticationFailed = "Authentication failed";
constexpr std::string_view kFetchSubscriptionsFailed = "Failed to fetch subscriptions";
constexpr std::string_view kFetchTagsFailed = "Failed to fetch tags";
constexpr std::string_view kFetchEntriesFailed = "Failed to fetch entries";
constexpr std::string_view kMarkEntryFailed = "Failed to mark entry";
constexpr std::string_view kAddSubscriptionFailed = "Failed to add subscription";
constexpr std::string_view kDeleteSubscriptionFailed = "Failed to delete subscription";
constexpr std::string_view kMoveFeedFailed = "Failed to move feed into folder";
// Tagging calls are short; one that hangs must not hold a move for the default minute.
constexpr std::chrono::seconds kTaggingTimeout{30};

Error titled(const AFHTTPRequestOperation& operation, const Error& error, std::string_view title) {
  return titledError(operation.response(), error, title);
}

// Entry and feed ids are numbers on the wire; a stored id that is not one goes as it is.
json wireId(const std::string& id) {
  std::int64_t number = 0;
  const auto* end = id.data() + id.size();
  if (!id.empty() && std::from_chars(id.data(), end, number).ptr == end) return number;
  return id;
}

json wireIds(const std::vector<std::string>& ids) {
  json list = json::array();
  for (const auto& id : ids) list.push_back(wireId(id));
  return list;
}

}  // namespace

QKFeedbinClient::QKFeedbinClient(NetworkSession& session, std::string_view baseURL, std::string username,
                                 std::string password)
    : AFHTTPClient(session, baseURL), username_(std::move(username)) {
  setDefaultHeader("Accept", "text/json");
  registerHTTPOperationClass<QKJSONRequestOperation>();
  setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  setAuthorizationHeaderWithUsername(username_, password);
}

std::string QKFeedbinClient::path(std::string_view resource) const {
  return fmt::format("v{}/{}", kApiVersion, resource);
}

std::string QKFeedbinClient::sinceString(Date date) {
  const auto sinceEpoch = date.time_since_epoch();
  auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  const auto tenthsOfMicroseconds =
      std::chrono::duration_cast<std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>>(sinceEpoch -
                                                                                                 seconds);
  const std::time_t time = seconds.count();
  std::tm utc{};
  gmtime_r(&time, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:07}Z", utc.tm_year + 1900, utc.tm_mon + 1,
                     utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, tenthsOfMicroseconds.count());
}

void QKFeedbinClient::authenticate(Completion onCompleted) {
  getPath(
      path("subscriptions.json"), nullptr,
      [onCompleted](AFHTTPRequestOperation&, const ResponseObject&) {
        if (onCompleted) onCompleted(std::nullopt);
      },
      [onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(titled(operation, error, kAuthenticationFailed));
      });
}

Result<json> QKFeedbinClient::blockingGet(std::string_view resource, const json& parameters,
                                          std::string_view title, bool notFoundEndsPaging) {
  auto response = synchronouslyGetPath(path(resource), parameters);
  const json* body = response.json();
  if (response.error) {
    if (notFoundEndsPaging && response.statusCode() == 404) return body ? *body : json();
    return fail(titledError(response.operation ? response.operation->response() : std::nullopt,
                            *response.error, title));
  }
  return body ? *body : json();
}

Result<json> QKFeedbinClient::getFeeds() {
  return blockingGet("subscriptions.json", nullptr, kFetchSubscriptionsFailed, false);
}

Result<json> QKFeedbinClient::getTags() {
  return blockingGet("taggings.json", nullptr, kFetchTagsFailed, false);
}

Result<json> QKFeedbinClient::getUnreadEntryIds() {
  return blockingGet("unread_entries.json", nullptr, kFetchEntriesFailed, false);
}

Result<json> QKFeedbinClient::getStarredEntryIds() {
  return blockingGet("starred_entries.json", nullptr, kFetchEntriesFailed, false);
}

Result<json> QKFeedbinClient::getEntriesWithIds(const std::vector<std::string>& ids, int page) {
  json parameters = {{"page", std::to_string(page)}, {"per_page", std::to_string(kEntriesPerPage)}};
  if (!ids.empty()) parameters["ids"] = join(ids, ",");
  return blockingGet("entries.json", parameters, kFetchEntriesFailed, true);
}

Result<json> QKFeedbinClient::getReadEntriesSince(std::optional<Date> since, int page) {
  json parameters = {
      {"page", std::to_string(page)}, {"per_page", std::to_string(kEntriesPerPage)}, {"read", "true"}};
  if (since) parameters["since"] = sinceString(*since);
  return blockingGet("entries.json", parameters, kFetchEntriesFailed, true);
}

Result<std::vector<HttpRequest>> QKFeedbinClient::markRequests(std::string_view method,
                                                               std::string_view resource,
                                                               std::string_view key,
                                                               const std::vector<std::string>& ids) {
  std::vector<HttpRequest> requests;
  if (method == "DELETE") {
    // The ids travel in the query string; a long list is split so that every URL stays short.
    auto batches = batchesOfListParameter(method, path(resource), json{{key, wireIds(ids)}}, key);
    if (!batches) return fail(batches.error());
    for (const auto& parameters : *batches)
      requests.push_back(requestWithMethod(method, path(resource), parameters));
    return requests;
  }
  for (size_t first = 0; first < ids.size(); first += kMaximumIdsPerMark) {
    const auto last = std::min(ids.size(), first + kMaximumIdsPerMark);
    std::vector<std::string> batch(ids.begin() + static_cast<std::ptrdiff_t>(first),
                                   ids.begin() + static_cast<std::ptrdiff_t>(last));
    requests.push_back(requestWithMethod(method, path(resource), json{{key, wireIds(batch)}}));
  }
  return requests;
}

void QKFeedbinClient::sendInOrder(std::vector<HttpRequest> requests, std::string_view title,
                                  Completion onCompleted) {
  lectern::sendInOrder(shared_from_this(), std::move(requests), std::string(title), std::move(onCompleted));
}

void QKFeedbinClient::markStories(const std::vector<std::string>& ids, bool readed, Completion onCompleted) {
  auto requests = markRequests(readed ? "DELETE" : "POST", "unread_entries.json", "unread_entries", ids);
  if (!requests) {
    if (onCompleted) onCompleted(titledError(std::nullopt, requests.error(), kMarkEntryFailed));
    return;
  }
  sendInOrder(std::move(*requests), kMarkEntryFailed, std::move(onCompleted));
}

void QKFeedbinClient::markStory(const std::string& id, bool readed, Completion onCompleted) {
  markStories({id}, readed, std::move(onCompleted));
}

void QKFeedbinClient::markStoryStarred(const std::string& id, bool starred, Completion onCompleted) {
  auto requests = markRequests(starred ? "POST" : "DELETE", "starred_entries.json", "starred_entries", {id});
  if (!requests) {
    if (onCompleted) onCompleted(titledError(std::nullopt, requests.error(), kMarkEntryFailed));
    return;
  }
  sendInOrder(std::move(*requests), kMarkEntryFailed, std::move(onCompleted));
}

void QKFeedbinClient::addFeedWithUrl(const std::string& url, SubscriptionCompletion onCompleted) {
  postPath(
      path("subscriptions.json"), json{{"feed_url", url}},
      [onCompleted](AFHTTPRequestOperation&, const ResponseObject& object) {
        const json* body = std::get_if<json>(&object);
        if (onCompleted) onCompleted(body ? *body : json());
      },
      [onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(fail(titled(operation, error, kAddSubscriptionFailed)));
      });
}

void QKFeedbinClient::deleteFeed(const std::string& subscriptionId, Completion onCompleted) {
  sendInOrder({requestWithMethod("DELETE", path(fmt::format("subscriptions/{}.json", subscriptionId)))},
              kDeleteSubscriptionFailed, std::move(onCompleted));
}

void QKFeedbinClient::createTaggingWithFeedId(const std::string& feedId, const std::string& folderName,
                                              Completion onCompleted) {
  auto request = requestWithMethod("POST", path("taggings.json"),
                                   json{{"feed_id", wireId(feedId)}, {"name", folderName}});
  sendInOrder({std::move(request)}, kMoveFeedFailed, std::move(onCompleted));
}

void QKFeedbinClient::moveFeed(const std::string& feedId, const std::optional<std::string>& folderName,
                               Completion onCompleted) {
  auto request = requestWithMethod("GET", path("taggings.json"));
  request.timeoutInterval = kTaggingTimeout;
  auto operation = HTTPRequestOperationWithRequest(
      std::move(request),
      [weakClient = weak_from_this(), feedId, folderName, onCompleted](AFHTTPRequestOperation&,
                                                                       const ResponseObject& object) {
        auto client = weakClient.lock();
        if (!client) {
          if (onCompleted) {
            onCompleted(titledError(std::nullopt, makeURLError(URLErrorCode::kCancelled, "", "cancelled"),
                                    kMoveFeedFailed));
          }
          return;
        }
        // The feed's taggings go first (a feed belongs to one folder after a move), then the new one.
        std::vector<HttpRequest> requests;
        if (const json* taggings = std::get_if<json>(&object); taggings && taggings->is_array()) {
          for (const auto& tagging : *taggings) {
            if (safeStringValue(tagging, "feed_id") != feedId) continue;
            const auto id = safeStringValue(tagging, "id");
            if (!id) continue;
            auto untag =
                client->requestWithMethod("DELETE", client->path(fmt::format("taggings/{}.json", *id)));
            untag.timeoutInterval = kTaggingTimeout;
            requests.push_back(std::move(untag));
          }
        }
        if (folderName) {
          requests.push_back(
              client->requestWithMethod("POST", client->path("taggings.json"),
                                        json{{"feed_id", wireId(feedId)}, {"name", *folderName}}));
        }
        client->sendInOrder(std::move(requests), kMoveFeedFailed, onCompleted);
      },
      [onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(titled(operation, error, kMoveFeedFailed));
      });
  enqueueHTTPRequestOperation(std::move(operation));
}

}  // namespace lectern
