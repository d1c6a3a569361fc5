#include "services/instapaper/QKInstapaperClient.h"

#include <fmt/format.h>

#include <utility>

#include "core/Strings.h"
#include "net/AFHTTPRequestOperation.h"
#include "net/NetworkSession.h"
#include "net/URLError.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLoginFailed = "Instapaper: Failed to login";
constexpr std::string_view kVerifyFailed = "Instapaper: Failed to verify credentials";
constexpr std::string_view kGetBookmarksFailed = "Instapaper: Failed to get bookmarks";
constexpr std::string_view kProgressFailed = "Instapaper: Failed to update read progress on bookmark";
constexpr std::string_view kAddBookmarkFailed = "Instapaper: Failed to add bookmark";
constexpr std::string_view kDeleteBookmarkFailed = "Instapaper: Failed to delete bookmark";
constexpr std::string_view kStarFailed = "Instapaper: Failed to favorite bookmark";
constexpr std::string_view kUnstarFailed = "Instapaper: Failed to unfavorite bookmark";
constexpr std::string_view kArchiveFailed = "Instapaper: Failed to archive bookmark";
constexpr std::string_view kUnarchiveFailed = "Instapaper: Failed to unarchive bookmark";
constexpr std::string_view kMoveFailed = "Instapaper: Failed to move bookmark";
constexpr std::string_view kGetTextFailed = "Instapaper: Failed to get article";
constexpr std::string_view kGetFoldersFailed = "Instapaper: Failed to get folders";
constexpr std::string_view kAddFolderFailed = "Instapaper: Failed to add folder";
constexpr std::string_view kDeleteFolderFailed = "Instapaper: Failed to delete folder";
constexpr std::string_view kSetOrderFailed = "Instapaper: Failed to set the order of folders";
// An error told in an answer of status 200 is the server declining the call all the same.
constexpr std::string_view kRefusedStatus = "400";
// A plain-text refusal longer than this is a page, not a sentence for a person.
constexpr std::size_t kLongestPlainMessage = 200;

json withFormat(json parameters) {
  if (!parameters.is_object()) parameters = json::object();
  parameters["format"] = "qline";
  return parameters;
}

// The "message" of the answer's first object, when it has one.
std::optional<std::string> serverMessage(std::string_view body) {
  const json objects = QKInstapaperClient::parseResponse(body);
  if (!objects.is_array() || objects.empty() || !objects.front().is_object()) return std::nullopt;
  auto message = safeStringValue(objects.front(), "message");
  if (message && trimView(*message).empty()) return std::nullopt;
  return message;
}

// The sign-in's refusal is one line of plain text ("Invalid xAuth credentials."): that line says
// more than the status sentence.
std::optional<std::string> plainSentence(std::string_view body) {
  const std::string_view text = trimView(body);
  if (text.empty() || text.size() > kLongestPlainMessage || !isValidUTF8(text)) return std::nullopt;
  if (text.find('\n') != std::string_view::npos || text.find('<') != std::string_view::npos ||
      text.find('=') != std::string_view::npos || text.front() == '[' || text.front() == '{') {
    return std::nullopt;
  }
  return std::string(text);
}

// The list call's JSON form is one object of lists; read as the objects its qline form gives: the
// user, the bookmarks, then a "meta" object with the deleted ids joined by ",".
json flattenedBookmarkList(const json& answer) {
  const auto bookmarks = answer.find("bookmarks");
  if (bookmarks == answer.end() || !bookmarks->is_array()) return json::array({answer});
  json objects = json::array();
  if (auto user = answer.find("user"); user != answer.end() && user->is_object()) objects.push_back(*user);
  for (const auto& bookmark : *bookmarks) objects.push_back(bookmark);
  if (auto deleted = answer.find("delete_ids"); deleted != answer.end() && deleted->is_array()) {
    std::vector<std::string> ids;
    for (const auto& id : *deleted) {
      if (auto text = safeStringValue(id)) ids.push_back(*text);
    }
    if (!ids.empty()) objects.push_back({{"type", "meta"}, {"delete_ids", join(ids, ",")}});
  }
  return objects;
}

}  // namespace

QKInstapaperClient::QKInstapaperClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                                       std::string consumerSecret, Credentials credentials)
    : QKXAuthClient(session, baseURL, std::move(consumerKey), std::move(consumerSecret), credentials.username,
                    credentials.password),
      signInPassword_(std::move(credentials.password)) {}

QKInstapaperClient::QKInstapaperClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                                       std::string consumerSecret, TokenPair pair)
    : QKXAuthClient(session, baseURL) {
  setConsumerKey(std::move(consumerKey), std::move(consumerSecret));
  setSignRequests(true);
  setDefaultHeader("Accept", "*/*");
  registerHTTPOperationClass<AFHTTPRequestOperation>();
  setAccessToken(std::move(pair.token), std::move(pair.secret));
}

std::string QKInstapaperClient::path(std::string_view resource) {
  return fmt::format("api/{}/{}", kApiVersion, resource);
}

json QKInstapaperClient::parseResponse(std::string_view body) {
  json parsed = json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_array()) return parsed;
  if (parsed.is_object()) return flattenedBookmarkList(parsed);
  return convertToJSONFromQline(body);
}

bool QKInstapaperClient::isResponseError(std::string_view body) {
  const json objects = parseResponse(body);
  return objects.is_array() && !objects.empty() && objects.front().is_object() &&
         safeStringValue(objects.front(), "type") == "error";
}

Error QKInstapaperClient::errorFromResponseData(std::string_view responseData, const std::optional<Error>& error,
                                                std::string_view titleMessage) const {
  Error built = QKXAuthClient::errorFromResponseData(responseData, error, titleMessage);
  if (auto message = serverMessage(responseData)) {
    Error explained = Error::make(built.domain, built.code, titleMessage, *message);
    if (error) {
      if (auto status = error->info(kHTTPStatusCodeErrorKey); !status.empty())
        explained.userInfo[std::string(kHTTPStatusCodeErrorKey)] = status;
    }
    return explained;
  }
  return built;
}

Error QKInstapaperClient::errorForOperation(const AFHTTPRequestOperation* operation, const std::optional<Error>& error,
                                            std::string_view title) const {
  const std::string body = operation ? operation->responseData() : std::string();
  const auto response = operation ? operation->response() : std::nullopt;
  if (serverMessage(body)) {
    Error explained = errorFromResponseData(body, error, title);
    if (response) {
      explained.userInfo[std::string(kHTTPStatusCodeErrorKey)] =
          error ? std::to_string(response->statusCode) : std::string(kRefusedStatus);
    }
    return explained;
  }
  if (!error) {
    Error refused = errorFromResponseData(body, error, title);
    refused.userInfo[std::string(kHTTPStatusCodeErrorKey)] = kRefusedStatus;
    return refused;
  }
  Error titled = titledError(response, *error, title);
  if (response && response->statusCode >= 400 && response->statusCode < 500) {
    if (auto sentence = plainSentence(body)) titled.recoverySuggestion = *sentence;
  }
  return titled;
}

Result<json> QKInstapaperClient::handleResponseOperation(const AFHTTPRequestOperation& operation,
                                                         std::string_view title) const {
  const std::string body = operation.responseData();
  if (isResponseError(body)) return fail(errorForOperation(&operation, std::nullopt, title));
  return parseResponse(body);
}

void QKInstapaperClient::post(std::string_view resource, json parameters, std::string_view title,
                              ListCompletion onComplete) {
  auto weak = weak_from_this();
  postResourceWithUrl(
      path(resource), withFormat(std::move(parameters)), {},
      [weak, title = std::string(title), onComplete](AFHTTPRequestOperation& operation, const ResponseObject&) {
        auto self = weak.lock();
        if (!onComplete) return;
        if (!self) {
          onComplete(fail(titledError(std::nullopt, makeURLError(URLErrorCode::kCancelled, "", "cancelled"), title)));
          return;
        }
        onComplete(self->handleResponseOperation(operation, title));
      },
      [weak, title = std::string(title), onComplete](AFHTTPRequestOperation& operation, const Error& error) {
        auto self = weak.lock();
        if (!onComplete) return;
        onComplete(fail(self ? self->errorForOperation(&operation, error, title) : titledError(std::nullopt, error, title)));
      });
}

Result<json> QKInstapaperClient::blockingPost(std::string_view resource, json parameters, std::string_view title) {
  auto response = synchronouslyPostPath(path(resource), withFormat(std::move(parameters)));
  if (response.error) return fail(errorForOperation(response.operation.get(), response.error, title));
  if (!response.operation) return json::array();
  auto answer = handleResponseOperation(*response.operation, title);
  if (!answer) return answer;
  // Every object of a list answer says what it is: anything else (a maintenance page) is no
  // answer, and an empty list read from it would change what the library holds.
  for (const auto& object : *answer) {
    if (!object.is_object() || !safeStringValue(object, "type")) {
      Error unreadable = Error::make(kLecternLowercaseErrorDomain, 100, title, "Instapaper's answer could not be read.");
      unreadable.userInfo[std::string(kHTTPStatusCodeErrorKey)] = std::to_string(response.statusCode());
      return fail(std::move(unreadable));
    }
  }
  return answer;
}

void QKInstapaperClient::authenticate(TokenCompletion onCompleted) {
  // The password travels once, in this form and the signed header; the client keeps no copy after.
  const json form = {{"x_auth_username", username().value_or("")},
                     {"x_auth_password", std::exchange(signInPassword_, std::string())},
                     {"x_auth_mode", "client_auth"}};
  auto weak = weak_from_this();
  // The session keeps the exchange's blocks for the whole program; once one has run they are let
  // go, so that nothing they hold (the account being added) outlives the sign-in.
  NetworkSession* session = &this->session();
  QKXAuthClient::authenticate(
      path("oauth/access_token"), form,
      [session, onCompleted](std::optional<std::string> token, std::optional<std::string> secret) {
        session->setPendingXAuthCallbacks(XAuthCallbacks{});
        if (!onCompleted) return;
        if (!token || !secret || token->empty() || secret->empty()) {
          onCompleted(fail(Error::make(kLecternLowercaseErrorDomain, 100, kLoginFailed,
                                       "Instapaper answered without an access token.")));
          return;
        }
        onCompleted(std::make_pair(std::move(*token), std::move(*secret)));
      },
      [session, weak, onCompleted](const Error& error) {
        session->setPendingXAuthCallbacks(XAuthCallbacks{});
        if (!onCompleted) return;
        auto self = weak.lock();
        // The transport keeps the refused answer's body as the error's recovery suggestion.
        const std::string body = error.recoverySuggestion;
        if (self && serverMessage(body)) {
          onCompleted(fail(self->errorFromResponseData(body, error, kLoginFailed)));
          return;
        }
        Error titled = titledError(std::nullopt, error, kLoginFailed);
        if (error.info(kHTTPStatusCodeErrorKey).starts_with("4")) {
          if (auto sentence = plainSentence(body)) titled.recoverySuggestion = *sentence;
        }
        onCompleted(fail(std::move(titled)));
      });
}

void QKInstapaperClient::verifyCredentials(ListCompletion onCompleted) {
  auto weak = weak_from_this();
  postResourceWithUrl(
      path("account/verify_credentials"), json::object(), {},
      [weak, onCompleted](AFHTTPRequestOperation& operation, const ResponseObject&) {
        auto self = weak.lock();
        if (self && onCompleted) onCompleted(self->handleResponseOperation(operation, kVerifyFailed));
      },
      [weak, onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        auto self = weak.lock();
        if (self && onCompleted) onCompleted(fail(self->errorForOperation(&operation, error, kVerifyFailed)));
      });
}

Result<json> QKInstapaperClient::getBookmarksInFolder(const std::string& folderId, std::size_t limit,
                                                      const std::string& have) {
  return blockingPost("bookmarks/list",
                      {{"limit", fmt::format("{}", limit)}, {"have", have}, {"folder_id", folderId}},
                      kGetBookmarksFailed);
}

Result<json> QKInstapaperClient::getFolderList() {
  return blockingPost("folders/list", json::object(), kGetFoldersFailed);
}

void QKInstapaperClient::updateReadProgressOfBookmark(const std::string& bookmarkId, double progress,
                                                      double progressTimestamp, ListCompletion onComplete) {
  post("bookmarks/update_read_progress",
       {{"bookmark_id", bookmarkId},
        {"progress", fmt::format("{:.6f}", progress)},
        {"progress_timestamp", fmt::format("{:.0f}", progressTimestamp)}},
       kProgressFailed, std::move(onComplete));
}

void QKInstapaperClient::addBookmarkWithUrl(const std::string& url, const std::optional<std::string>& title,
                                            const std::optional<std::string>& description,
                                            const std::optional<std::string>& folderId, ListCompletion onComplete) {
  json parameters = {{"url", url}};
  if (title) parameters["title"] = *title;
  if (description) parameters["description"] = *description;
  if (folderId) parameters["folder_id"] = *folderId;
  post("bookmarks/add", std::move(parameters), kAddBookmarkFailed, std::move(onComplete));
}

void QKInstapaperClient::deleteBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete) {
  post("bookmarks/delete", {{"bookmark_id", bookmarkId}}, kDeleteBookmarkFailed, std::move(onComplete));
}

void QKInstapaperClient::starBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete) {
  post("bookmarks/star", {{"bookmark_id", bookmarkId}}, kStarFailed, std::move(onComplete));
}

void QKInstapaperClient::unstarBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete) {
  post("bookmarks/unstar", {{"bookmark_id", bookmarkId}}, kUnstarFailed, std::move(onComplete));
}

void QKInstapaperClient::archiveBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete) {
  post("bookmarks/archive", {{"bookmark_id", bookmarkId}}, kArchiveFailed, std::move(onComplete));
}

void QKInstapaperClient::unarchiveBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete) {
  post("bookmarks/unarchive", {{"bookmark_id", bookmarkId}}, kUnarchiveFailed, std::move(onComplete));
}

void QKInstapaperClient::markBookmarkWithId(const std::string& bookmarkId, bool favorited, ListCompletion onComplete) {
  if (favorited) {
    starBookmarkWithId(bookmarkId, std::move(onComplete));
  } else {
    unstarBookmarkWithId(bookmarkId, std::move(onComplete));
  }
}

void QKInstapaperClient::markBookmarkArchived(const std::string& bookmarkId, bool archived,
                                              ListCompletion onComplete) {
  if (archived) {
    archiveBookmarkWithId(bookmarkId, std::move(onComplete));
  } else {
    unarchiveBookmarkWithId(bookmarkId, std::move(onComplete));
  }
}

void QKInstapaperClient::moveBookmarkWithId(const std::string& bookmarkId, const std::string& folderId,
                                            ListCompletion onComplete) {
  post("bookmarks/move", {{"bookmark_id", bookmarkId}, {"folder_id", folderId}}, kMoveFailed, std::move(onComplete));
}

void QKInstapaperClient::getTextOfBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete) {
  auto weak = weak_from_this();
  postResourceWithUrl(
      path("bookmarks/get_text"), withFormat({{"bookmark_id", bookmarkId}}), {},
      [onComplete](AFHTTPRequestOperation& operation, const ResponseObject&) {
        if (!onComplete) return;
        const std::string body = operation.responseData();
        // The text is a whole HTML page; only an error list is anything else.
        if (isResponseError(body)) {
          onComplete(fail(Error::make(kLecternLowercaseErrorDomain, 100, kGetTextFailed,
                                      serverMessage(body).value_or("Unknown error"))));
          return;
        }
        onComplete(json::array({{{"type", "text"}, {"html", sanitizeUTF8(body)}}}));
      },
      [weak, onComplete](AFHTTPRequestOperation& operation, const Error& error) {
        auto self = weak.lock();
        if (self && onComplete) onComplete(fail(self->errorForOperation(&operation, error, kGetTextFailed)));
      });
}

void QKInstapaperClient::addFolderWithTitle(const std::string& title, ListCompletion onComplete) {
  post("folders/add", {{"title", title}}, kAddFolderFailed, std::move(onComplete));
}

void QKInstapaperClient::deleteFolderWithId(const std::string& folderId, ListCompletion onComplete) {
  post("folders/delete", {{"folder_id", folderId}}, kDeleteFolderFailed, std::move(onComplete));
}

std::string QKInstapaperClient::folderOrderString(const std::vector<std::pair<std::string, std::int64_t>>& order) {
  std::vector<std::string> parts;
  parts.reserve(order.size());
  for (const auto& [folderId, position] : order) parts.push_back(fmt::format("{}:{}", folderId, position));
  return join(parts, ",");
}

void QKInstapaperClient::setFoldersOrder(const std::vector<std::pair<std::string, std::int64_t>>& order,
                                         ListCompletion onComplete) {
  post("folders/set_order", {{"order", folderOrderString(order)}}, kSetOrderFailed, std::move(onComplete));
}

void QKInstapaperClient::markBookmarksArchived(std::vector<std::string> bookmarkIds, bool archived,
                                               Completion onComplete) {
  struct Chain {
    std::weak_ptr<QKInstapaperClient> client;
    std::vector<std::string> ids;
    std::size_t next = 0;
    bool archived = false;
    Completion onComplete;
    static void step(const std::shared_ptr<Chain>& chain) {
      if (chain->next == chain->ids.size()) {
        if (chain->onComplete) chain->onComplete(std::nullopt);
        return;
      }
      auto client = chain->client.lock();
      if (!client) {
        if (chain->onComplete) {
          chain->onComplete(titledError(std::nullopt, makeURLError(URLErrorCode::kCancelled, "", "cancelled"),
                                        chain->archived ? kArchiveFailed : kUnarchiveFailed));
        }
        return;
      }
      client->markBookmarkArchived(chain->ids[chain->next++], chain->archived, [chain](Result<json> answer) {
        if (!answer) {
          if (chain->onComplete) chain->onComplete(answer.error());
          return;
        }
        step(chain);
      });
    }
  };
  auto chain = std::make_shared<Chain>();
  chain->client = weak_from_this();
  chain->ids = std::move(bookmarkIds);
  chain->archived = archived;
  chain->onComplete = std::move(onComplete);
  Chain::step(chain);
}

}  // namespace lectern
