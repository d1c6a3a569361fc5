#include "services/feedly/QKFeedlyClient.h"

#include <fmt/format.h>

#include <map>
#include <thread>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "net/NetworkSession.h"
#include "net/QKJSONRequestOperation.h"
#include "services/ServiceRequests.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLogCategory = "Feedly";
constexpr std::string_view kRefreshFailed = "Failed to refresh token";
constexpr std::string_view kCheckLogsSuggestion =
    "An unexpected error happened while trying to renew authentication token. Please check system logs for "
    "details.";
constexpr std::string_view kCredentialsSuggestion =
    "An unexpected error happened while trying to renew authentication token. Change your login credentials "
    "on "
    "the \"Accounts\" tab of preferences.";
constexpr std::string_view kFetchProfileFailed = "Failed to get profile info";
constexpr std::string_view kFetchCategoriesFailed = "Failed to fetch categories";
constexpr std::string_view kFetchSubscriptionsFailed = "Failed to fetch subscriptions";
constexpr std::string_view kFetchIdsFailed = "Failed to fetch entry ids";
constexpr std::string_view kFetchEntriesFailed = "Failed to fetch entries";
constexpr std::string_view kMarkFailed = "Failed to mark entry";
constexpr std::string_view kRenameFailed = "Failed to rename folder";
constexpr std::string_view kDeleteFailed = "Failed to delete feed";
constexpr std::string_view kAddFailed = "Failed to add feed";
constexpr std::string_view kMoveFailed = "Failed to move feed";
constexpr std::string_view kSignInFailed = "Failed to sign in to Feedly";

// When a token was last found good, for every Feedly client of the process.
std::mutex lastCheckMutex;
std::optional<Date> lastTokenCheck;

// Access tokens renewed in this process, by the refresh token of their grant: another client of
// the same account (the sync's and the window's) takes the new one instead of sending a dead one.
std::mutex sharedTokensMutex;
std::map<std::string, std::pair<std::string, std::optional<Date>>>& sharedTokens() {
  static std::map<std::string, std::pair<std::string, std::optional<Date>>> tokens;
  return tokens;
}

Error tokenError(std::string_view suggestion) {
  return Error::make(QKFeedlyClient::kTokenErrorDomain, QKFeedlyClient::kTokenErrorCode, kRefreshFailed,
                     suggestion);
}

// The error of an answer: a "message" is a refusal in its own words; otherwise the transport's
// error titled, with Feedly's "errorMessage" as the reason when it gives one.
Error answerError(const std::optional<HttpResponse>& response, const json* body, const Error* transport,
                  std::string_view title) {
  if (body && QKFeedlyClient::isResponseError(*body)) {
    return Error::make(transport ? std::string_view(transport->domain) : QKFeedlyClient::kMessageErrorDomain,
                       transport ? transport->code : QKFeedlyClient::kMessageErrorCode, title,
                       safeStringValue(*body, "message").value_or(""));
  }
  Error error =
      titledError(response, transport ? *transport : Error::make(kLecternErrorDomain, 0, title), title);
  if (body) {
    if (auto reason = safeStringValue(*body, "errorMessage"); reason && !reason->empty()) {
      error.recoverySuggestion = *reason;
    }
  }
  return error;
}

std::optional<Date> expiryAfter(const json& answer, const Clock& clock) {
  const auto seconds = safeStringValue(answer, "expires_in");
  if (!seconds) return std::nullopt;
  const auto parsed = json::parse(*seconds, nullptr, false);
  if (!parsed.is_number() || parsed.get<double>() <= 0) return std::nullopt;
  return clock.now() +
         std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(parsed.get<double>()));
}

}  // namespace

QKFeedlyClient::QKFeedlyClient(NetworkSession& session, std::string_view baseURL,
                               FeedlyApplication application, FeedlyTokens tokens, const Clock& clock)
    : AFHTTPClient(session, baseURL), application_(std::move(application)), clock_(clock) {
  setDefaultHeader("Accept", "text/json");
  registerHTTPOperationClass<QKJSONRequestOperation>();
  setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  setAccessToken(tokens.accessToken, tokens.expire);
  tokens_.refreshToken = std::move(tokens.refreshToken);
}

QKFeedlyClient::~QKFeedlyClient() {
  if (!checker_.joinable()) return;
  if (checker_.get_id() == std::this_thread::get_id()) {
    checker_.detach();  // the checking thread let go last; it ends right after
  } else {
    checker_.join();
  }
}

void QKFeedlyClient::setTokenDelegate(TokenDelegate delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void QKFeedlyClient::setProfileId(std::optional<std::string> profileId) {
  std::lock_guard lock(mutex_);
  if (profileId && !profileId->empty()) profileId_ = std::move(profileId);
}

void QKFeedlyClient::setProfileDelegate(std::function<void(const std::string& profileId)> delegate) {
  std::lock_guard lock(mutex_);
  profileDelegate_ = std::move(delegate);
}

FeedlyTokens QKFeedlyClient::tokens() const {
  std::lock_guard lock(mutex_);
  return tokens_;
}

void QKFeedlyClient::setAccessToken(const std::string& token, std::optional<Date> expire) {
  {
    std::lock_guard lock(mutex_);
    tokens_.accessToken = token;
    tokens_.expire = expire;
  }
  setDefaultHeader("Authorization", "OAuth " + token);
}

std::string QKFeedlyClient::path(std::string_view resource) const {
  return fmt::format("{}/{}", kApiVersion, resource);
}

std::string QKFeedlyClient::urlEncodedStringFromString(std::string_view text) {
  std::string out;
  out.reserve(text.size() * 3);
  static constexpr char kDigits[] = "0123456789ABCDEF";
  for (unsigned char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
        c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kDigits[c >> 4];
      out += kDigits[c & 0xF];
    }
  }
  return out;
}

bool QKFeedlyClient::isResponseError(const json& answer) {
  if (!answer.is_object()) return false;
  const auto message = safeStringValue(answer, "message");
  return message && !message->empty();
}

// ---- OAuth ----

std::string QKFeedlyClient::redirectURL() { return "lectern://feedly/auth"; }

std::string QKFeedlyClient::authorizationURL(std::string_view redirectURI, std::string_view state) {
  auto request = requestWithMethod("GET", path("auth/auth"),
                                   json{{"response_type", "code"},
                                        {"client_id", application_.clientId},
                                        {"redirect_uri", redirectURI},
                                        {"scope", application_.scope},
                                        {"state", state}});
  return request.url;
}

Result<json> QKFeedlyClient::tokenGrant(json form) {
  form["client_id"] = application_.clientId;
  form["client_secret"] = application_.clientSecret;
  // The token endpoint takes a form, whatever the client's encoding for the API.
  auto request = requestWithMethod("POST", path("auth/token"), form,
                                   AFHTTPClientParameterEncoding::kFormURLParameterEncoding);
  auto response = synchronouslyPerformRequest(std::move(request));
  const json* body = response.json();
  if (response.error || !body || !body->is_object()) {
    const Error transport = response.error
                                ? *response.error
                                : Error::make(kLecternErrorDomain, 0, "The answer was not understood.");
    return fail(answerError(response.operation ? response.operation->response() : std::nullopt, body,
                            &transport, kSignInFailed));
  }
  return *body;
}

Result<FeedlyTokens> QKFeedlyClient::convertAccessTokenFromAuthCode(std::string_view code,
                                                                    std::string_view redirectURI) {
  auto answer =
      tokenGrant(json{{"code", code}, {"redirect_uri", redirectURI}, {"grant_type", "authorization_code"}});
  if (!answer) return fail(answer.error());
  const auto token = safeStringValue(*answer, "access_token");
  if (!token || token->empty()) {
    return fail(kTokenErrorDomain, kTokenErrorCode, kSignInFailed, "Feedly's answer held no access token.");
  }
  setAccessToken(*token, expiryAfter(*answer, clock_));
  std::lock_guard lock(mutex_);
  tokens_.refreshToken = safeStringValue(*answer, "refresh_token");
  if (auto id = safeStringValue(*answer, "id")) profileId_ = id;
  return tokens_;
}

Result<void> QKFeedlyClient::refreshToken() {
  const auto refresh = tokens().refreshToken;
  if (!refresh || refresh->empty()) {
    return fail(kTokenErrorDomain, kTokenErrorCode, kRefreshFailed, "The account has no refresh token.");
  }
  auto answer = tokenGrant(json{{"refresh_token", *refresh}, {"grant_type", "refresh_token"}});
  if (!answer) return fail(answer.error());
  const auto token = safeStringValue(*answer, "access_token");
  if (!token || token->empty()) {
    return fail(kTokenErrorDomain, kTokenErrorCode, kRefreshFailed, "Feedly's answer held no access token.");
  }
  const auto expire = expiryAfter(*answer, clock_);
  setAccessToken(*token, expire);
  std::lock_guard lock(sharedTokensMutex);
  sharedTokens()[*refresh] = {*token, expire};
  return {};
}

void QKFeedlyClient::resetLastTokenCheck() {
  std::lock_guard lock(lastCheckMutex);
  lastTokenCheck.reset();
}

void QKFeedlyClient::adoptSharedToken() {
  const auto current = tokens();
  if (!current.refreshToken) return;
  std::pair<std::string, std::optional<Date>> shared;
  {
    std::lock_guard lock(sharedTokensMutex);
    auto found = sharedTokens().find(*current.refreshToken);
    if (found == sharedTokens().end() || found->second.first == current.accessToken) return;
    shared = found->second;
  }
  setAccessToken(shared.first, shared.second);
}

bool QKFeedlyClient::tokenCheckDue(std::optional<Date> expire) const {
  const Date now = clock_.now();
  std::lock_guard lock(lastCheckMutex);
  // A developer token has no expiry: it is good until the server says otherwise.
  const bool lastsADay = !expire || *expire > now + kTokenMargin;
  return !(lastTokenCheck && *lastTokenCheck > now - kTokenCheckInterval && lastsADay);
}

std::optional<Error> QKFeedlyClient::checkTokenAndRefreshIfNeeded() { return checkToken(false); }

std::optional<Error> QKFeedlyClient::checkToken(bool notifyOnMainQueue) {
  adoptSharedToken();
  if (!tokenCheckDue(tokens().expire)) return std::nullopt;
  try {
    auto response = synchronouslyGetPath(path("profile"));
    const json* body = response.json();
    const bool rejected = body && body->is_object() && safeStringValue(*body, "errorCode") == "401";
    if (!rejected) {
      if (response.error) {
        logError(kLogCategory, "Failed to check token status: {}", response.error->message());
        return tokenError(kCheckLogsSuggestion);
      }
      if (!body) {
        logError(kLogCategory, "Failed to decode response: {}", "the profile answer is not JSON");
        return tokenError(kCheckLogsSuggestion);
      }
    } else {
      logInfo(kLogCategory, "Token refresh required!");
      if (auto refreshed = refreshToken(); !refreshed) {
        logError(kLogCategory, "Failed to refresh token: {}", refreshed.error().message());
        return tokenError(kCredentialsSuggestion);
      }
      logInfo(kLogCategory, "Token refresh completed!");
      const auto renewed = tokens();
      TokenDelegate delegate;
      {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
      }
      if (delegate) {
        const Date expire = renewed.expire.value_or(clock_.now() + kTokenMargin);
        if (notifyOnMainQueue) {
          session().mainQueue().post(
              [delegate, token = renewed.accessToken, expire] { delegate(token, expire); });
        } else {
          delegate(renewed.accessToken, expire);
        }
      }
    }
    std::lock_guard lock(lastCheckMutex);
    lastTokenCheck = clock_.now();
    return std::nullopt;
  } catch (const std::exception& exception) {
    logError(kLogCategory, "Unexpected error happened: {}", exception.what());
    return tokenError(kCheckLogsSuggestion);
  }
}

// ---- blocking calls ----

Result<json> QKFeedlyClient::blockingCall(const std::function<HttpRequest()>& makeRequest,
                                          std::string_view title, bool notFoundIsAnswer) {
  if (auto error = checkTokenAndRefreshIfNeeded()) return fail(*error);
  // Built after the check: a renewed token goes with it.
  auto response = synchronouslyPerformRequest(makeRequest());
  const json* body = response.json();
  const auto httpResponse = response.operation ? response.operation->response() : std::nullopt;
  if (response.error) {
    if (notFoundIsAnswer && response.statusCode() == 404) return body ? *body : json();
    return fail(answerError(httpResponse, body, &*response.error, title));
  }
  if (body && isResponseError(*body)) return fail(answerError(httpResponse, body, nullptr, title));
  return body ? *body : json();
}

Result<json> QKFeedlyClient::getProfile() {
  return blockingCall([this] { return requestWithMethod("GET", path("profile")); }, kFetchProfileFailed,
                      false);
}

Result<std::string> QKFeedlyClient::profileId() {
  {
    std::lock_guard lock(mutex_);
    if (profileId_) return *profileId_;
  }
  auto profile = getProfile();
  if (!profile) return fail(profile.error());
  auto id = safeStringValue(*profile, "id");
  if (!id || id->empty()) {
    return fail(kMessageErrorDomain, kMessageErrorCode, kFetchProfileFailed, "The profile has no id.");
  }
  std::function<void(const std::string&)> delegate;
  {
    std::lock_guard lock(mutex_);
    profileId_ = id;
    delegate = profileDelegate_;
  }
  if (delegate) delegate(*id);
  return *id;
}

Result<std::string> QKFeedlyClient::streamId(std::string_view suffix) {
  auto id = profileId();
  if (!id) return fail(id.error());
  return fmt::format("user/{}/{}", *id, suffix);
}

Result<json> QKFeedlyClient::getCategories() {
  return blockingCall([this] { return requestWithMethod("GET", path("categories")); }, kFetchCategoriesFailed,
                      false);
}

Result<json> QKFeedlyClient::getSubscriptions() {
  return blockingCall([this] { return requestWithMethod("GET", path("subscriptions")); },
                      kFetchSubscriptionsFailed, false);
}

Result<json> QKFeedlyClient::getStreamIds(std::string_view suffix, json parameters) {
  auto stream = streamId(suffix);
  if (!stream) return fail(stream.error());
  parameters["streamId"] = *stream;
  parameters["count"] = std::to_string(kIdsPerStream);
  return blockingCall(
      [this, &parameters] { return requestWithMethod("GET", path("streams/ids"), parameters); },
      kFetchIdsFailed, false);
}

Result<json> QKFeedlyClient::getUnreadEntryIds() {
  return getStreamIds("category/global.all", json{{"unreadOnly", "true"}});
}

Result<json> QKFeedlyClient::getStarredEntryIds() { return getStreamIds("tag/global.saved", json::object()); }

Result<json> QKFeedlyClient::getReadEntryIdsSince(Date since) {
  const auto seconds = std::chrono::duration<double>(since.time_since_epoch()).count();
  return getStreamIds("tag/global.read", json{{"newerThan", fmt::format("{:.0f}000", seconds)}});
}

Result<json> QKFeedlyClient::getEntriesWithIds(const std::vector<std::string>& ids) {
  return blockingCall(
      [this, &ids] {
        return requestWithMethod("POST", path("entries/.mget"), json{{"ids", ids}});
      },
      kFetchEntriesFailed, true);
}

// ---- calls that complete on the main queue ----

std::optional<std::string> QKFeedlyClient::knownProfileId() const {
  std::lock_guard lock(mutex_);
  return profileId_;
}

std::optional<std::string> QKFeedlyClient::categoryIdForLabel(const std::string& label) const {
  auto id = knownProfileId();
  if (!id) return std::nullopt;
  return fmt::format("user/{}/category/{}", *id, label);
}

json QKFeedlyClient::categoryOf(const std::optional<std::string>& folderId,
                                const std::optional<std::string>& folderName) const {
  const std::string label = folderName.value_or("");
  return json{{"id", folderId ? *folderId : categoryIdForLabel(label).value_or("")}, {"label", label}};
}

void QKFeedlyClient::afterTokenCheck(bool needsProfileId, std::function<void(std::optional<Error>)> then) {
  adoptSharedToken();
  {
    std::unique_lock lock(mutex_);
    if (checking_) {
      waiting_.push_back(std::move(then));
      return;
    }
    if (!tokenCheckDue(tokens_.expire) && (!needsProfileId || profileId_)) {
      lock.unlock();
      then(std::nullopt);
      return;
    }
    checking_ = true;
    waiting_.push_back(std::move(then));
  }
  // The check may ask the server (and renew the token), as may the profile id: never on the main
  // thread.
  // A check that ended earlier is joined first: one runs at a time.
  if (checker_.joinable()) checker_.join();
  checker_ = std::thread([self = shared_from_this(), needsProfileId]() mutable {
    auto error = self->checkToken(/*notifyOnMainQueue=*/true);
    if (!error && needsProfileId) {
      if (auto id = self->profileId(); !id) error = id.error();
    }
    std::vector<std::function<void(std::optional<Error>)>> waiting;
    {
      std::lock_guard lock(self->mutex_);
      self->checking_ = false;
      waiting.swap(self->waiting_);
    }
    // The client goes with the answers: its last hold is dropped on the main thread (whose
    // destructor joins this thread), never here.
    MainQueue& mainQueue = self->session().mainQueue();
    mainQueue.post([self = std::move(self), waiting = std::move(waiting), error] {
      for (const auto& then : waiting) then(error);
    });
  });
}

void QKFeedlyClient::send(std::function<HttpRequest()> makeRequest, std::string title,
                          JSONCompletion onComplete, bool needsProfileId) {
  afterTokenCheck(needsProfileId, [weak = weak_from_this(), makeRequest = std::move(makeRequest),
                                   title = std::move(title), onComplete](std::optional<Error> error) {
    auto self = weak.lock();
    if (!self && !error) error = Error::make(kLecternErrorDomain, 0, title, "cancelled");
    if (error) {
      if (onComplete) onComplete(fail(*error));
      return;
    }
    auto operation = self->HTTPRequestOperationWithRequest(
        makeRequest(),
        [onComplete, title](AFHTTPRequestOperation& operation, const ResponseObject& object) {
          const json* body = std::get_if<json>(&object);
          if (body && isResponseError(*body)) {
            if (onComplete) onComplete(fail(answerError(operation.response(), body, nullptr, title)));
            return;
          }
          if (onComplete) onComplete(body ? *body : json());
        },
        [onComplete, title](AFHTTPRequestOperation& operation, const Error& failure) {
          const auto parsed = operation.responseObject();
          const json* body = parsed ? std::get_if<json>(&*parsed) : nullptr;
          if (onComplete) onComplete(fail(answerError(operation.response(), body, &failure, title)));
        });
    self->enqueueHTTPRequestOperation(std::move(operation));
  });
}

namespace {
QKFeedlyClient::JSONCompletion ignoringAnswer(QKFeedlyClient::Completion onComplete) {
  return [onComplete](Result<json> answer) {
    if (onComplete) onComplete(answer ? std::nullopt : std::optional<Error>(answer.error()));
  };
}
}  // namespace

void QKFeedlyClient::markStories(const std::vector<std::string>& ids, bool readed, Completion onComplete) {
  send(
      [this, ids, readed] {
        return requestWithMethod(
            "POST", path("markers"),
            json{{"action", readed ? "markAsRead" : "keepUnread"}, {"type", "entries"}, {"entryIds", ids}});
      },
      std::string(kMarkFailed), ignoringAnswer(std::move(onComplete)));
}

void QKFeedlyClient::markStoriesStarred(const std::vector<std::string>& ids, Completion onComplete) {
  send(
      [this, ids] {
        auto tag = streamId("tag/global.saved");
        return requestWithMethod("PUT",
                                 path(fmt::format("tags/{}", urlEncodedStringFromString(tag.value_or("")))),
                                 json{{"entryIds", ids}});
      },
      std::string(kMarkFailed), ignoringAnswer(std::move(onComplete)), /*needsProfileId=*/true);
}

void QKFeedlyClient::markStoriesUnstarred(const std::vector<std::string>& ids, Completion onComplete) {
  send(
      [this, ids] {
        auto tag = streamId("tag/global.saved");
        std::vector<std::string> encoded;
        for (const auto& id : ids) encoded.push_back(urlEncodedStringFromString(id));
        return requestWithMethod("DELETE",
                                 path(fmt::format("tags/{}/{}", urlEncodedStringFromString(tag.value_or("")),
                                                  join(encoded, ","))));
      },
      std::string(kMarkFailed), ignoringAnswer(std::move(onComplete)), /*needsProfileId=*/true);
}

void QKFeedlyClient::markStory(const std::string& id, bool starred, Completion onComplete) {
  if (starred) {
    markStoriesStarred({id}, std::move(onComplete));
  } else {
    markStoriesUnstarred({id}, std::move(onComplete));
  }
}

void QKFeedlyClient::authenticate(Completion onComplete) {
  send([this] { return requestWithMethod("GET", path("profile")); }, std::string(kFetchProfileFailed),
       [weak = weak_from_this(), onComplete](Result<json> profile) {
         if (profile) {
           const auto id = safeStringValue(*profile, "id");
           auto self = weak.lock();
           if (self && id && !id->empty()) {
             std::lock_guard lock(self->mutex_);
             self->profileId_ = id;
           }
         }
         if (onComplete) onComplete(profile ? std::nullopt : std::optional<Error>(profile.error()));
       });
}

void QKFeedlyClient::renameFolder(const std::string& categoryId, const std::string& title,
                                  Completion onComplete) {
  send(
      [this, categoryId, title] {
        return requestWithMethod("POST",
                                 path(fmt::format("categories/{}", urlEncodedStringFromString(categoryId))),
                                 json{{"label", title}});
      },
      std::string(kRenameFailed), ignoringAnswer(std::move(onComplete)));
}

void QKFeedlyClient::deleteFeed(const std::string& feedId, Completion onComplete) {
  send(
      [this, feedId] {
        return requestWithMethod("DELETE",
                                 path(fmt::format("subscriptions/{}", urlEncodedStringFromString(feedId))));
      },
      std::string(kDeleteFailed), ignoringAnswer(std::move(onComplete)));
}

void QKFeedlyClient::addFeedWithUrl(const std::string& url, const std::optional<std::string>& folderId,
                                    const std::optional<std::string>& folderName, JSONCompletion onComplete) {
  json body{{"id", "feed/" + url}};
  send(
      [this, body, folderId, folderName]() mutable {
        if (folderId || folderName) body["categories"] = json::array({categoryOf(folderId, folderName)});
        return requestWithMethod("POST", path("subscriptions"), body);
      },
      std::string(kAddFailed), std::move(onComplete), /*needsProfileId=*/!folderId && folderName);
}

void QKFeedlyClient::moveFeed(const std::string& feedId, const std::optional<std::string>& title,
                              const std::optional<std::string>& folderId,
                              const std::optional<std::string>& folderName, Completion onComplete) {
  json body{{"id", feedId}};
  if (title) body["title"] = *title;
  send(
      [this, body, folderId, folderName]() mutable {
        // The categories replace the feed's: an empty list leaves it in none.
        body["categories"] = json::array();
        if (folderId || folderName) body["categories"].push_back(categoryOf(folderId, folderName));
        return requestWithMethod("POST", path("subscriptions"), body);
      },
      std::string(kMoveFailed), ignoringAnswer(std::move(onComplete)),
      /*needsProfileId=*/!folderId && folderName);
}

}  // namespace lectern
