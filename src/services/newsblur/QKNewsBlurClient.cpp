#include "services/newsblur/QKNewsBlurClient.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/Strings.h"
#include "net/AFQueryStringPair.h"
#include "net/QKJSONRequestOperation.h"
#include "net/URLError.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLoginFailed = "Failed to login";
constexpr std::string_view kLogoutFailed = "Failed to logout";
constexpr std::string_view kInvalidCredentials = "Invalid user name or password";
constexpr std::string_view kRefreshFailed = "Failed to fetch unread stories of feed";
constexpr std::string_view kFetchFeedsFailed = "Failed to fetch feeds";
constexpr std::string_view kFetchUnreadHashesFailed = "Failed to fetch hashes of unread stories";
constexpr std::string_view kFetchStarredHashesFailed = "Failed to fetch hashes of starred stories";
constexpr std::string_view kFetchUnreadFailed = "Failed to fetch unread stories";
constexpr std::string_view kFetchStarredFailed = "Failed to fetch starred stories";
constexpr std::string_view kFetchRiverFailed = "Failed to fetch stories for feed";
constexpr std::string_view kUpdateItemFailed = "Failed to update feed item";
constexpr std::string_view kAddFeedFailed = "Failed to add feed";
constexpr std::string_view kAddFolderFailed = "Failed to add folder";
constexpr std::string_view kMoveFeedFailed = "Failed to move feed";
constexpr std::string_view kDeleteFeedFailed = "Failed to delete feed";
constexpr std::string_view kRenameFolderFailed = "Failed to rename folder";
constexpr std::string_view kDeleteFolderFailed = "Failed to delete folder";
// NewsBlur asks for plain text and answers JSON anyway; some of its proxies answer HTML otherwise.
constexpr std::string_view kAccept = "text/plain";
// A refusal said in a successful answer is the server declining the call.
constexpr std::string_view kRefusedStatus = "400";

// What the server said about a refusal: "message", else the texts of "errors" (a text, a list, or
// lists by field).
std::string serverMessage(const json& answer) {
  if (auto message = safeStringValue(answer, "message"); message && !message->empty()) return *message;
  const auto errors = answer.find("errors");
  if (errors == answer.end()) return {};
  std::vector<std::string> texts;
  auto collect = [&texts](const json& value, auto& self) -> void {
    if (value.is_string()) {
      texts.push_back(value.get<std::string>());
    } else if (value.is_array() || value.is_object()) {
      for (const auto& member : value) self(member, self);
    }
  };
  collect(*errors, collect);
  return join(texts, " ");
}

// NewsBlur answers most failures with HTTP 200: the JSON operation would take them for
// successes, so the answer fails here, before any caller sees it.
class QKNewsBlurRequestOperation final : public QKCheckedJSONRequestOperation {
 public:
  static constexpr std::string_view kClassName = "QKNewsBlurRequestOperation";
  using QKCheckedJSONRequestOperation::QKCheckedJSONRequestOperation;
  std::string_view className() const override { return kClassName; }

 protected:
  std::optional<Error> refusalIn(const json& answer) const override {
    if (!answer.is_object()) return std::nullopt;
    // Without a session, reads answer a default account's data: never take it for the person's.
    if (const auto authenticated = answer.find("authenticated");
        authenticated != answer.end() && authenticated->is_boolean() && !authenticated->get<bool>()) {
      return Error::make(QKNewsBlurClient::kErrorDomain, QKNewsBlurClient::kNotAuthenticatedCode,
                         "NewsBlur answered without a session", serverMessage(answer));
    }
    if (const auto code = answer.find("code"); code != answer.end() && code->is_number() && *code == -1) {
      Error error = Error::make(QKNewsBlurClient::kErrorDomain, QKNewsBlurClient::kRefusedCode,
                                "NewsBlur declined the call", serverMessage(answer));
      error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = kRefusedStatus;
      return error;
    }
    return std::nullopt;
  }
};

std::string encodedPairs(const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::vector<std::string> parts;
  parts.reserve(pairs.size());
  for (const auto& [key, value] : pairs)
    parts.push_back(percentEscapedQueryStringKey(key) + "=" + percentEscapedQueryStringValue(value));
  return join(parts, "&");
}

Error cancelledError(std::string_view title) {
  return titledError(std::nullopt, makeURLError(URLErrorCode::kCancelled, "", "cancelled"), title);
}

}  // namespace

// One asynchronous call that needs the session: it logs in first when there is none, and once
// more when the answer says the session ended. Holds the client weakly between answers.
struct QKNewsBlurClient::SessionCall : std::enable_shared_from_this<SessionCall> {
  std::weak_ptr<QKNewsBlurClient> client;
  HttpRequest request;
  std::string title;
  ObjectCompletion onCompleted;
  bool loggedIn = false;

  void finish(Result<json> outcome) {
    auto done = std::move(onCompleted);
    if (done) done(std::move(outcome));
  }

  void start() {
    auto held = client.lock();
    if (!held) return finish(fail(cancelledError(title)));
    if (held->hasSession()) return sendNow(*held);
    logIn(*held);
  }

  void logIn(QKNewsBlurClient& held) {
    loggedIn = true;
    held.login([self = shared_from_this()](std::optional<Error> error) {
      if (error) return self->finish(fail(*error));
      auto again = self->client.lock();
      if (!again) return self->finish(fail(cancelledError(self->title)));
      self->sendNow(*again);
    });
  }

  void sendNow(QKNewsBlurClient& held) {
    auto self = shared_from_this();
    auto operation = held.HTTPRequestOperationWithRequest(
        request,
        [self](AFHTTPRequestOperation&, const ResponseObject& object) {
          const json* body = std::get_if<json>(&object);
          self->finish(body ? *body : json());
        },
        [self](AFHTTPRequestOperation& operation, const Error& failure) {
          Error error = errorFromResponse(&operation, failure, self->title);
          auto again = self->client.lock();
          if (again && isSessionError(error) && !self->loggedIn) {
            again->hasSession_ = false;
            return self->logIn(*again);
          }
          self->finish(fail(std::move(error)));
        });
    held.enqueueHTTPRequestOperation(std::move(operation));
  }
};

QKNewsBlurClient::QKNewsBlurClient(NetworkSession& session, std::string_view baseURL, std::string username,
                                   std::string password)
    : AFHTTPClient(session, baseURL), username_(std::move(username)), password_(std::move(password)) {
  setDefaultHeader("Accept", std::string(kAccept));
  setParameterEncoding(AFHTTPClientParameterEncoding::kFormURLParameterEncoding);
  registerHTTPOperationClass<QKNewsBlurRequestOperation>();
}

HttpRequest QKNewsBlurClient::request(std::string_view method, std::string_view resource,
                                      const Pairs& pairs) {
  const std::string encoded = encodedPairs(pairs);
  const bool inQuery = method == "GET";
  HttpRequest built = requestWithMethod(
      method, inQuery && !encoded.empty() ? fmt::format("{}?{}", resource, encoded) : std::string(resource));
  if (!inQuery) {
    built.body = encoded;
    built.headers.set("Content-Type", "application/x-www-form-urlencoded; charset=utf-8");
  }
  // Set on every request, whatever the defaults became meanwhile.
  built.headers.set("Accept", std::string(kAccept));
  return built;
}

bool QKNewsBlurClient::isSessionError(const Error& error) {
  if (error.domain == kErrorDomain && error.code == kNotAuthenticatedCode) return true;
  // Writes without a session are answered 403 with an empty body.
  return error.domain != kErrorDomain && error.info(kHTTPStatusCodeErrorKey) == "403";
}

Error QKNewsBlurClient::errorFromResponse(const AFHTTPRequestOperation* operation, const Error& error,
                                          std::string_view title) {
  if (error.domain == kErrorDomain &&
      (error.code == kRefusedCode || error.code == kNotAuthenticatedCode || error.code == kLoginFailedCode)) {
    Error titled = error;
    titled.description = std::string(title);
    return titled;
  }
  return titledError(operation ? operation->response() : std::nullopt, error, title);
}

Error QKNewsBlurClient::loginError(const std::optional<HttpResponse>& response, const Error& error) {
  // The server answered, and not with a session: the credentials are wrong.
  if (error.domain == kErrorDomain)
    return Error::make(kErrorDomain, kLoginFailedCode, kLoginFailed, kInvalidCredentials);
  return titledError(response, error, kLoginFailed);
}

void QKNewsBlurClient::login(Completion onCompleted) {
  auto operation = HTTPRequestOperationWithRequest(
      request("POST", "api/login", {{"username", username_}, {"password", password_}}),
      // Weakly held: a client must never be dropped from inside its own operation's callback.
      [weak = weak_from_this(), onCompleted](AFHTTPRequestOperation&, const ResponseObject& object) {
        const json* answer = std::get_if<json>(&object);
        const bool authenticated = answer && answer->is_object() && safeBoolValue(*answer, "authenticated");
        if (auto self = weak.lock()) self->hasSession_ = authenticated;
        if (!onCompleted) return;
        onCompleted(authenticated ? std::nullopt
                                  : std::optional<Error>(Error::make(kErrorDomain, kLoginFailedCode,
                                                                     kLoginFailed, kInvalidCredentials)));
      },
      [weak = weak_from_this(), onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (auto self = weak.lock()) self->hasSession_ = false;
        if (onCompleted) onCompleted(loginError(operation.response(), error));
      });
  enqueueHTTPRequestOperation(std::move(operation));
}

Result<void> QKNewsBlurClient::loginSynchronously() {
  auto response = synchronouslyPerformRequest(
      request("POST", "api/login", {{"username", username_}, {"password", password_}}));
  hasSession_ = false;
  if (response.error) {
    return fail(
        loginError(response.operation ? response.operation->response() : std::nullopt, *response.error));
  }
  const json* answer = response.json();
  if (!answer || !answer->is_object() || !safeBoolValue(*answer, "authenticated"))
    return fail(kErrorDomain, kLoginFailedCode, kLoginFailed, kInvalidCredentials);
  hasSession_ = true;
  return {};
}

void QKNewsBlurClient::logout(Completion onCompleted) {
  auto operation = HTTPRequestOperationWithRequest(
      request("POST", "api/logout", {}),
      [weak = weak_from_this(), onCompleted](AFHTTPRequestOperation&, const ResponseObject&) {
        if (auto self = weak.lock()) self->hasSession_ = false;
        if (onCompleted) onCompleted(std::nullopt);
      },
      [onCompleted](AFHTTPRequestOperation& operation, const Error& error) {
        if (onCompleted) onCompleted(errorFromResponse(&operation, error, kLogoutFailed));
      });
  enqueueHTTPRequestOperation(std::move(operation));
}

Result<void> QKNewsBlurClient::logoutSynchronously() {
  auto answer = perform(request("POST", "api/logout", {}), kLogoutFailed);
  if (!answer) return fail(answer.error());
  hasSession_ = false;
  return {};
}

Result<json> QKNewsBlurClient::perform(const HttpRequest& built, std::string_view title) {
  auto response = synchronouslyPerformRequest(built);
  if (response.error) return fail(errorFromResponse(response.operation.get(), *response.error, title));
  const json* body = response.json();
  return body ? *body : json();
}

Result<json> QKNewsBlurClient::blocking(std::string_view method, std::string_view resource,
                                        const Pairs& pairs, std::string_view title) {
  bool loggedIn = false;
  if (!hasSession_) {
    if (auto opened = loginSynchronously(); !opened) return fail(opened.error());
    loggedIn = true;
  }
  auto answer = perform(request(method, resource, pairs), title);
  if (answer || loggedIn || !isSessionError(answer.error())) return answer;
  // The cookie expired since the last call: one new login, then the call once more.
  if (auto opened = loginSynchronously(); !opened) return fail(opened.error());
  return perform(request(method, resource, pairs), title);
}

Result<json> QKNewsBlurClient::refreshFeeds() {
  return blocking("GET", "reader/refresh_feeds", {}, kRefreshFailed);
}

Result<json> QKNewsBlurClient::getReaderFeeds() {
  return blocking("GET", "reader/feeds",
                  {{"flat", "true"}, {"include_favicons", "false"}, {"update_counts", "false"}},
                  kFetchFeedsFailed);
}

Result<json> QKNewsBlurClient::getUnreadStoryHashes() {
  return blocking("GET", "reader/unread_story_hashes", {}, kFetchUnreadHashesFailed);
}

Result<json> QKNewsBlurClient::getStarredStoryHashes() {
  return blocking("GET", "reader/starred_story_hashes", {}, kFetchStarredHashesFailed);
}

Result<json> QKNewsBlurClient::getUnreadStoriesWithHashes(const std::vector<std::string>& hashes) {
  Pairs pairs;
  for (const auto& hash : hashes) pairs.emplace_back("h", hash);
  return blocking("GET", "reader/river_stories", pairs, kFetchUnreadFailed);
}

Result<json> QKNewsBlurClient::getStarredStoriesWithHashes(const std::vector<std::string>& hashes) {
  Pairs pairs;
  for (const auto& hash : hashes) pairs.emplace_back("h", hash);
  return blocking("GET", "reader/starred_stories", pairs, kFetchStarredFailed);
}

Result<json> QKNewsBlurClient::getRiverStoriesOfPage(int page, bool unreadOnly) {
  return blocking("GET", "reader/river_stories",
                  {{"page", fmt::format("{}", page)},
                   {"order", "newest"},
                   {"read_filter", unreadOnly ? "unread" : "all"}},
                  kFetchRiverFailed);
}

void QKNewsBlurClient::send(HttpRequest built, std::string_view title, ObjectCompletion onCompleted) {
  auto call = std::make_shared<SessionCall>();
  call->client = weak_from_this();
  call->request = std::move(built);
  call->title = std::string(title);
  call->onCompleted = std::move(onCompleted);
  call->start();
}

void QKNewsBlurClient::sendInOrder(std::vector<HttpRequest> requests, std::string_view title,
                                   Completion onCompleted) {
  if (requests.empty()) {
    if (onCompleted) onCompleted(std::nullopt);
    return;
  }
  HttpRequest first = std::move(requests.front());
  requests.erase(requests.begin());
  send(std::move(first), title,
       [weak = weak_from_this(), rest = std::move(requests), title = std::string(title),
        onCompleted](Result<json> answer) mutable {
         if (!answer) {
           if (onCompleted) onCompleted(answer.error());
           return;
         }
         auto held = weak.lock();
         if (!held) {
           if (onCompleted) onCompleted(cancelledError(title));
           return;
         }
         held->sendInOrder(std::move(rest), title, std::move(onCompleted));
       });
}

void QKNewsBlurClient::markStories(const std::vector<StoryRef>& stories, bool readed,
                                   Completion onCompleted) {
  std::vector<HttpRequest> requests;
  if (readed) {
    // One request per feed, its stories in the order given.
    std::vector<std::string> feeds;
    for (const auto& story : stories) {
      if (std::find(feeds.begin(), feeds.end(), story.feedId) == feeds.end()) feeds.push_back(story.feedId);
    }
    for (const auto& feed : feeds) {
      Pairs pairs;
      for (const auto& story : stories) {
        if (story.feedId == feed) pairs.emplace_back("story_id", story.storyId);
      }
      pairs.emplace_back("feed_id", feed);
      requests.push_back(request("POST", "reader/mark_story_as_read", pairs));
    }
  } else {
    for (const auto& story : stories) {
      requests.push_back(request("POST", "reader/mark_story_as_unread",
                                 {{"story_id", story.storyId}, {"feed_id", story.feedId}}));
    }
  }
  sendInOrder(std::move(requests), kUpdateItemFailed, std::move(onCompleted));
}

void QKNewsBlurClient::markStory(const StoryRef& story, bool readed, Completion onCompleted) {
  markStories({story}, readed, std::move(onCompleted));
}

void QKNewsBlurClient::markStoryStarred(const StoryRef& story, bool starred, Completion onCompleted) {
  sendInOrder({request("POST", starred ? "reader/mark_story_as_starred" : "reader/mark_story_as_unstarred",
                       {{"story_id", story.storyId}, {"feed_id", story.feedId}})},
              kUpdateItemFailed, std::move(onCompleted));
}

void QKNewsBlurClient::addFeedWithUrl(const std::string& url, const std::string& folderName,
                                      ObjectCompletion onCompleted) {
  send(request("POST", "reader/add_url", {{"url", url}, {"folder", folderName}}), kAddFeedFailed,
       std::move(onCompleted));
}

void QKNewsBlurClient::addFolder(const std::string& folder, const std::string& parentFolder,
                                 Completion onCompleted) {
  Pairs pairs{{"folder", folder}};
  if (!parentFolder.empty()) pairs.emplace_back("parent_folder", parentFolder);
  sendInOrder({request("POST", "reader/add_folder", pairs)}, kAddFolderFailed, std::move(onCompleted));
}

void QKNewsBlurClient::moveFeed(const std::string& feedId, const std::string& fromFolder,
                                const std::string& toFolder, Completion onCompleted) {
  sendInOrder({request("POST", "reader/move_feed_to_folder",
                       {{"feed_id", feedId}, {"in_folder", fromFolder}, {"to_folder", toFolder}})},
              kMoveFeedFailed, std::move(onCompleted));
}

void QKNewsBlurClient::deleteFeed(const std::string& feedId, const std::string& fromFolder,
                                  Completion onCompleted) {
  sendInOrder({request("POST", "reader/delete_feed", {{"feed_id", feedId}, {"in_folder", fromFolder}})},
              kDeleteFeedFailed, std::move(onCompleted));
}

void QKNewsBlurClient::deleteFeedFromFolders(const std::string& feedId,
                                             const std::vector<std::string>& folders,
                                             Completion onCompleted) {
  std::vector<HttpRequest> requests;
  for (const auto& folder : folders)
    requests.push_back(request("POST", "reader/delete_feed", {{"feed_id", feedId}, {"in_folder", folder}}));
  sendInOrder(std::move(requests), kDeleteFeedFailed, std::move(onCompleted));
}

void QKNewsBlurClient::renameFolder(const std::string& folder, const std::string& title,
                                    const std::string& inFolder, Completion onCompleted) {
  sendInOrder({request("POST", "reader/rename_folder",
                       {{"folder_to_rename", folder}, {"new_folder_name", title}, {"in_folder", inFolder}})},
              kRenameFolderFailed, std::move(onCompleted));
}

void QKNewsBlurClient::deleteFolder(const std::string& folder, const std::string& fromFolder,
                                    const std::vector<std::string>& feedIds, Completion onCompleted) {
  Pairs pairs{{"folder_to_delete", folder}, {"in_folder", fromFolder}};
  for (const auto& feedId : feedIds) pairs.emplace_back("feed_id", feedId);
  sendInOrder({request("POST", "reader/delete_folder", pairs)}, kDeleteFolderFailed, std::move(onCompleted));
}

}  // namespace lectern
