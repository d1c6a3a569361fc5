// A stateful stand-in for the Feedly cloud API v3 on loopback; speaks only the wire protocol.
#include "mocks/FeedlyMockServer.h"

#include <fmt/format.h>
#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <utility>

namespace lectern::mock {
namespace {

constexpr std::int64_t kDefaultExpiresIn = 604'800;                    // a week, like the service
constexpr std::int64_t kDeveloperTokenLifetimeMs = 30LL * 86'400'000;  // developer tokens last a month
constexpr std::int64_t kDefaultCount = 20;
constexpr std::int64_t kMaxCount = 10'000;
constexpr size_t kMaxMgetIds = 1000;
constexpr std::string_view kApiPrefix = "/v3/";

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Inside a path a '+' is itself, unlike in a query string: entry ids carry literal ones.
std::string segmentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 && hexDigit(text[i + 2]) >= 0) {
      decoded += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

// For values put into a redirect's query string.
std::string queryEncoded(std::string_view text) {
  std::string encoded;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      encoded += static_cast<char>(c);
    } else {
      encoded += fmt::format("%{:02X}", c);
    }
  }
  return encoded;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (true) {
    auto at = text.find(separator);
    parts.push_back(text.substr(0, at));
    if (at == std::string_view::npos) break;
    text.remove_prefix(at + 1);
  }
  return parts;
}

std::optional<std::string> parameter(const Query& query, const std::string& name) {
  auto found = query.find(name);
  if (found == query.end()) return std::nullopt;
  return found->second;
}

bool sendsJson(std::string_view contentType) {
  return equalsIgnoringCase(trimmed(contentType.substr(0, contentType.find(';'))), "application/json");
}

bool isWebAddress(std::string_view url) {
  for (std::string_view scheme : {"http://", "https://"}) {
    if (url.size() > scheme.size() && equalsIgnoringCase(url.substr(0, scheme.size()), scheme)) return true;
  }
  return false;
}

Answer emptyAnswer() { return {200, {}, {}, {}}; }

Answer textPage(int status, std::string text) {
  return {status, std::move(text), "text/plain; charset=utf-8", {}};
}

// A list of strings, or nothing when `value` is anything else.
std::optional<std::vector<std::string>> stringList(const Json& value) {
  if (!value.is_array()) return std::nullopt;
  std::vector<std::string> list;
  for (const auto& item : value) {
    if (!item.is_string()) return std::nullopt;
    list.push_back(item.get<std::string>());
  }
  return list;
}

struct Category {
  std::string id;
  std::string label;
};

struct Subscription {
  std::string id;  // "feed/<url>"
  std::string title;
  std::optional<std::string> website;
  std::vector<std::string> categoryIds;
  std::int64_t added = 0;
  std::int64_t updated = 0;
};

struct StoredEntry {
  FeedlyEntrySeed seed;
  bool unread = true;
  bool saved = false;
  std::int64_t sortMs = 0;  // crawled, else published, else when added: feed streams sort on it
  std::int64_t seq = 0;     // insertion order, breaks ties
  std::int64_t readAtMs = 0;
  std::int64_t savedAtMs = 0;
};

struct AccessToken {
  std::int64_t expiresAtMs = 0;
  std::int64_t issued = 0;  // issue order
  bool expired = false;
};

struct AuthorizationCode {
  std::string redirectUri;
  bool used = false;
};

struct Call {
  std::string_view method;
  std::vector<std::string_view> rawSegments;  // of the path after "/v3/", still encoded
  const Query& query;
  std::string_view body;
  std::string_view contentType;
  std::string_view authorization;

  std::string segment(size_t index) const { return segmentDecoded(rawSegments.at(index)); }
};

struct ArmedFault {
  std::string pathPrefix;
  Fault fault = Fault::kServerError;
  int remaining = 1;
  std::chrono::milliseconds delay{0};
};

// Which answers are lists, so that a wrong shape is an object there and a list elsewhere.
bool answersList(std::string_view method, std::string_view path) {
  return path == "/v3/categories" || path == "/v3/subscriptions" || path == "/v3/entries/.mget" ||
         (method == "GET" && path.starts_with("/v3/streams/"));
}

}  // namespace

struct FeedlyMockServer::State {
  std::string clientId;
  std::string clientSecret;
  std::string userId;
  std::string email = "me@example.org";

  mutable std::mutex mutex;          // guards every member below
  std::condition_variable stopping;  // wakes slow answers when the server shuts down
  bool stopped = false;
  std::mt19937_64 random{std::random_device{}()};
  Consent consent = Consent::kGrant;
  std::int64_t expiresIn = kDefaultExpiresIn;
  std::int64_t tokensIssued = 0;
  std::map<std::string, AccessToken> accessTokens;
  std::map<std::string, bool> refreshTokens;  // token → revoked
  std::map<std::string, AuthorizationCode> codes;
  std::string developerToken;
  int refreshGrants = 0;
  int codeGrants = 0;
  std::int64_t errorCount = 0;
  std::map<std::string, int> callsByToken;

  std::vector<Category> categories;
  std::vector<Subscription> subscriptions;
  std::map<std::string, StoredEntry> entries;
  std::int64_t nextSeq = 1;
  std::int64_t seededEntries = 0;

  std::vector<RecordedRequest> requests;
  std::vector<ArmedFault> faults;

  // ---- ids ----

  std::string randomText(size_t length) {
    static constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string text;
    for (size_t i = 0; i < length; ++i) text += kAlphabet[random() % kAlphabet.size()];
    return text;
  }

  std::string uuid() {
    auto hex = [&](int digits) {
      std::string text;
      for (int i = 0; i < digits; ++i) text += "0123456789abcdef"[random() % 16];
      return text;
    };
    return fmt::format("{}-{}-4{}-a{}-{}", hex(8), hex(4), hex(3), hex(3), hex(12));
  }

  std::string categoryPrefix() const { return fmt::format("user/{}/category/", userId); }
  std::string savedTag() const { return fmt::format("user/{}/tag/global.saved", userId); }
  std::string readTag() const { return fmt::format("user/{}/tag/global.read", userId); }

  // The service lets "user/-/" stand for the signed-in user.
  std::string normalized(std::string id) const {
    if (id.starts_with("user/-/")) id = fmt::format("user/{}/{}", userId, id.substr(7));
    return id;
  }

  // ---- errors ----

  Answer error(int status, const std::string& message) {
    return jsonAnswer(status, Json{{"errorCode", status},
                                   {"errorId", fmt::format("mock-sv1.{}.{}", nowMs() / 1000, ++errorCount)},
                                   {"errorMessage", message}});
  }

  // ---- tokens ----

  std::string issueAccessToken(std::int64_t lifetimeMs) {
    auto token = "AQAA" + randomText(60);
    accessTokens[token] = AccessToken{nowMs() + lifetimeMs, ++tokensIssued, false};
    return token;
  }

  bool valid(const AccessToken& token) const { return !token.expired && nowMs() < token.expiresAtMs; }

  std::string currentAccessToken() const {
    const std::pair<const std::string, AccessToken>* newest = nullptr;
    for (const auto& item : accessTokens) {
      if (valid(item.second) && (newest == nullptr || item.second.issued > newest->second.issued))
        newest = &item;
    }
    return newest == nullptr ? std::string() : newest->first;
  }

  // The token of an API call, or the 401 to answer instead.
  std::optional<Answer> checkAuthorization(std::string_view header, std::string& token) {
    header = trimmed(header);
    for (std::string_view scheme : {"OAuth ", "Bearer "}) {
      if (header.size() > scheme.size() && equalsIgnoringCase(header.substr(0, scheme.size()), scheme)) {
        token = std::string(trimmed(header.substr(scheme.size())));
      }
    }
    if (token.empty()) return error(401, "no valid authorization");
    auto found = accessTokens.find(token);
    const std::int64_t now = nowMs();
    if (found == accessTokens.end()) return error(401, fmt::format("token expired: {} (-1)", now));
    if (!valid(found->second)) {
      auto expiredAt = found->second.expiresAtMs;
      return error(401, fmt::format("token expired: {} ({})", expiredAt, expiredAt - now));
    }
    return std::nullopt;
  }

  Answer authorize(const Call& call) {
    if (call.method != "GET") return error(405, "method not allowed");
    auto value = [&](const char* name) { return parameter(call.query, name); };
    if (value("response_type").value_or("") != "code") {
      return textPage(400, "Bad request: response_type must be \"code\".\n");
    }
    if (value("client_id").value_or("") != clientId)
      return textPage(400, "Bad request: unknown client_id.\n");
    auto redirectUri = value("redirect_uri");
    if (!redirectUri || redirectUri->empty()) return textPage(400, "Bad request: missing redirect_uri.\n");
    auto state = value("state");
    std::string location = *redirectUri + (redirectUri->find('?') == std::string::npos ? "?" : "&");
    if (consent == Consent::kDecline) {
      location += "error=access_denied";
    } else {
      auto code = "AQAA" + randomText(40);
      codes[code] = AuthorizationCode{*redirectUri, false};
      location += "code=" + queryEncoded(code);
      if (consent == Consent::kWrongState) state = "not-the-state-you-sent";
    }
    if (state) location += "&state=" + queryEncoded(*state);
    return {302,
            fmt::format("<html><body>Redirecting to <a href=\"{0}\">{0}</a></body></html>", location),
            "text/html; charset=utf-8",
            {{"Location", location}}};
  }

  Answer token(const Call& call) {
    if (call.method != "POST") return error(405, "method not allowed");
    Query form;
    if (sendsJson(call.contentType)) {
      auto body = Json::parse(call.body, nullptr, /*allow_exceptions=*/false);
      if (!body.is_object()) return error(400, "Invalid JSON");
      for (const auto& [key, value] : body.items()) {
        if (value.is_string()) form.emplace(key, value.get<std::string>());
      }
    } else {
      form = parseQuery(call.body);
    }
    auto value = [&](const char* name) { return parameter(form, name).value_or(""); };
    const auto grantType = value("grant_type");
    if (grantType.empty()) return error(400, "missing grant_type");
    if (grantType != "authorization_code" && grantType != "refresh_token") {
      return error(400, "unsupported grant_type");
    }
    if (value("client_id") != clientId) return error(401, "invalid client_id");
    if (value("client_secret") != clientSecret) return error(401, "invalid client_secret");
    Json answer{{"id", userId}};
    if (grantType == "authorization_code") {
      auto code = codes.find(value("code"));
      if (value("code").empty()) return error(400, "missing code");
      if (code == codes.end() || code->second.used) return error(400, "invalid code");
      if (value("redirect_uri") != code->second.redirectUri) return error(400, "redirect_uri mismatch");
      code->second.used = true;
      auto refresh = "AQAA" + randomText(48);
      refreshTokens[refresh] = false;
      answer["access_token"] = issueAccessToken(expiresIn * 1000);
      answer["refresh_token"] = refresh;
      ++codeGrants;
    } else {
      if (value("refresh_token").empty()) return error(400, "missing refresh_token");
      auto refresh = refreshTokens.find(value("refresh_token"));
      if (refresh == refreshTokens.end()) return error(401, "bad refresh_token");
      if (refresh->second) return error(401, "revoked refresh_token");
      answer["access_token"] = issueAccessToken(expiresIn * 1000);
      ++refreshGrants;
    }
    answer["expires_in"] = expiresIn;
    answer["token_type"] = "Bearer";
    answer["plan"] = "standard";
    if (auto state = parameter(form, "state")) answer["state"] = *state;
    return jsonAnswer(200, answer);
  }

  // ---- library ----

  Category* findCategory(const std::string& id) {
    auto found = std::ranges::find(categories, id, &Category::id);
    return found == categories.end() ? nullptr : &*found;
  }

  std::string ensureCategory(const std::string& id, const std::string& label) {
    if (findCategory(id) == nullptr) categories.push_back({id, label});
    return id;
  }

  Subscription* findSubscription(const std::string& id) {
    auto found = std::ranges::find(subscriptions, id, &Subscription::id);
    return found == subscriptions.end() ? nullptr : &*found;
  }

  Json subscriptionJson(const Subscription& subscription) {
    Json list = Json::array();
    for (const auto& id : subscription.categoryIds) {
      const auto* category = findCategory(id);
      list.push_back({{"id", id}, {"label", category ? category->label : std::string()}});
    }
    Json json{{"id", subscription.id}, {"title", subscription.title}};
    if (subscription.website) json["website"] = *subscription.website;
    json["categories"] = list;
    json["added"] = subscription.added;
    json["updated"] = subscription.updated;
    return json;
  }

  Json subscriptionList() {
    Json list = Json::array();
    for (const auto& subscription : subscriptions) list.push_back(subscriptionJson(subscription));
    return list;
  }

  Json categoryList() const {
    Json list = Json::array();
    for (const auto& category : categories) list.push_back({{"id", category.id}, {"label", category.label}});
    return list;
  }

  Subscription& putSubscription(const std::string& feedId, std::optional<std::string> title,
                                std::vector<std::string> categoryIds) {
    const auto now = nowMs();
    auto* subscription = findSubscription(feedId);
    if (subscription == nullptr) {
      subscriptions.push_back({feedId, feedId.substr(5), std::nullopt, {}, now, now});
      subscription = &subscriptions.back();
    }
    if (title) subscription->title = *title;
    subscription->categoryIds = std::move(categoryIds);
    subscription->updated = now;
    return *subscription;
  }

  void removeSubscription(const std::string& feedId) {
    std::erase_if(subscriptions, [&](const Subscription& item) { return item.id == feedId; });
    std::erase_if(entries,
                  [&](const auto& item) { return item.second.seed.feedId == feedId && !item.second.saved; });
  }

  void addEntry(FeedlyEntrySeed seed, bool unread, bool saved) {
    StoredEntry stored;
    stored.sortMs = seed.crawledMs.value_or(seed.publishedMs.value_or(nowMs()));
    stored.seq = nextSeq++;
    stored.unread = unread;
    stored.saved = saved;
    // Marked at seed time counts as marked when it arrived.
    stored.readAtMs = unread ? 0 : stored.sortMs;
    stored.savedAtMs = saved ? stored.sortMs : 0;
    auto id = seed.id;
    stored.seed = std::move(seed);
    entries.insert_or_assign(std::move(id), std::move(stored));
  }

  void setUnread(StoredEntry& entry, bool unread) {
    if (entry.unread == unread) return;
    entry.unread = unread;
    entry.readAtMs = unread ? 0 : nowMs();
  }

  void setSaved(StoredEntry& entry, bool saved) {
    if (entry.saved == saved) return;
    entry.saved = saved;
    entry.savedAtMs = saved ? nowMs() : 0;
  }

  Json entryJson(const StoredEntry& stored) {
    const auto& seed = stored.seed;
    Json json{{"id", seed.id}};
    auto text = [&](const char* name, const std::string& value) {
      if (!value.empty()) json[name] = value;
    };
    auto time = [&](const char* name, const std::optional<std::int64_t>& value) {
      if (value) json[name] = *value;
    };
    text("title", seed.title);
    text("author", seed.author);
    time("published", seed.publishedMs);
    time("crawled", seed.crawledMs);
    time("updated", seed.updatedMs);
    json["unread"] = stored.unread;
    Json origin{{"streamId", seed.feedId}};
    if (const auto* subscription = findSubscription(seed.feedId)) {
      origin["title"] = subscription->title;
      if (subscription->website) origin["htmlUrl"] = *subscription->website;
    }
    json["origin"] = origin;
    if (!seed.link.empty())
      json["alternate"] = Json::array({Json{{"href", seed.link}, {"type", "text/html"}}});
    if (!seed.summaryHtml.empty()) json["summary"] = {{"content", seed.summaryHtml}, {"direction", "ltr"}};
    if (!seed.contentHtml.empty()) json["content"] = {{"content", seed.contentHtml}, {"direction", "ltr"}};
    if (stored.saved) json["tags"] = Json::array({Json{{"id", savedTag()}, {"label", ""}}});
    return json;
  }

  // ---- API calls ----

  Answer profile() {
    return jsonAnswer(
        200, Json{{"id", userId}, {"email", email}, {"givenName", "Lectern"}, {"familyName", "Tester"}});
  }

  Answer category(const Call& call) {
    auto id = normalized(call.segment(1));
    auto* category = findCategory(id);
    if (category == nullptr) return error(404, "category not found");
    if (call.method == "DELETE") {
      for (auto& subscription : subscriptions) std::erase(subscription.categoryIds, id);
      std::erase_if(categories, [&](const Category& item) { return item.id == id; });
      return emptyAnswer();
    }
    if (call.method != "POST") return error(405, "method not allowed");
    auto body = Json::parse(call.body, nullptr, /*allow_exceptions=*/false);
    if (!body.is_object()) return error(400, "Invalid JSON");
    auto label = body.find("label");
    if (label == body.end() || !label->is_string() || trimmed(label->get_ref<const std::string&>()).empty()) {
      return error(400, "missing label");
    }
    category->label = label->get<std::string>();
    return emptyAnswer();
  }

  Answer subscribe(const Call& call) {
    auto body = Json::parse(call.body, nullptr, /*allow_exceptions=*/false);
    if (!body.is_object()) return error(400, "Invalid JSON");
    auto id = body.find("id");
    if (id == body.end() || !id->is_string()) return error(400, "invalid feed id");
    const auto& feedId = id->get_ref<const std::string&>();
    if (!feedId.starts_with("feed/") || !isWebAddress(std::string_view(feedId).substr(5))) {
      return error(400, "invalid feed id");
    }
    std::optional<std::string> title;
    if (auto found = body.find("title"); found != body.end() && found->is_string())
      title = found->get<std::string>();
    std::vector<std::pair<std::string, std::string>> wanted;  // id, label
    if (auto found = body.find("categories"); found != body.end() && !found->is_null()) {
      if (!found->is_array()) return error(400, "invalid categories");
      for (const auto& item : *found) {
        auto categoryId = item.is_object() ? item.find("id") : item.end();
        if (!item.is_object() || categoryId == item.end() || !categoryId->is_string()) {
          return error(400, "invalid category id");
        }
        auto normalizedId = normalized(categoryId->get<std::string>());
        auto name =
            std::string_view(normalizedId).substr(std::min(normalizedId.size(), categoryPrefix().size()));
        if (!normalizedId.starts_with(categoryPrefix()) || name.empty() || name.starts_with("global.")) {
          return error(400, "invalid category id");
        }
        auto label = item.find("label");
        wanted.emplace_back(normalizedId,
                            label != item.end() && label->is_string() && !label->get<std::string>().empty()
                                ? label->get<std::string>()
                                : std::string(name));
      }
    }
    std::vector<std::string> categoryIds;
    for (const auto& [categoryId, label] : wanted) {
      ensureCategory(categoryId, label);
      if (std::ranges::find(categoryIds, categoryId) == categoryIds.end()) categoryIds.push_back(categoryId);
    }
    const auto& subscription = putSubscription(feedId, title, std::move(categoryIds));
    return jsonAnswer(200, Json::array({subscriptionJson(subscription)}));
  }

  Answer unsubscribe(const Call& call) {
    if (call.method != "DELETE") return error(405, "method not allowed");
    auto feedId = call.segment(1);
    if (findSubscription(feedId) == nullptr) return error(404, "subscription not found");
    removeSubscription(feedId);
    return emptyAnswer();
  }

  // The entries of a stream with the time it sorts on, or nothing for an unknown stream.
  std::optional<std::vector<std::pair<std::int64_t, const StoredEntry*>>> stream(
      const std::string& streamId) {
    std::vector<std::pair<std::int64_t, const StoredEntry*>> list;
    auto all = [&](auto keep) {
      for (const auto& [id, stored] : entries) {
        if (keep(stored)) list.emplace_back(stored.sortMs, &stored);
      }
    };
    const auto prefix = categoryPrefix();
    if (streamId == prefix + "global.all") {
      all([](const StoredEntry&) { return true; });
    } else if (streamId == prefix + "global.uncategorized") {
      all([&](const StoredEntry& stored) {
        const auto* subscription = findSubscription(stored.seed.feedId);
        return subscription == nullptr || subscription->categoryIds.empty();
      });
    } else if (streamId == prefix + "global.must") {
      // Nothing is a Must Read here.
    } else if (streamId == savedTag()) {
      for (const auto& [id, stored] : entries) {
        if (stored.saved) list.emplace_back(stored.savedAtMs, &stored);
      }
    } else if (streamId == readTag()) {
      for (const auto& [id, stored] : entries) {
        if (!stored.unread) list.emplace_back(stored.readAtMs, &stored);
      }
    } else if (streamId.starts_with(prefix) && findCategory(streamId) != nullptr) {
      all([&](const StoredEntry& stored) {
        const auto* subscription = findSubscription(stored.seed.feedId);
        return subscription != nullptr &&
               std::ranges::find(subscription->categoryIds, streamId) != subscription->categoryIds.end();
      });
    } else if (streamId.starts_with("feed/")) {
      bool known = findSubscription(streamId) != nullptr;
      all([&](const StoredEntry& stored) {
        known = known || stored.seed.feedId == streamId;
        return stored.seed.feedId == streamId;
      });
      if (!known) return std::nullopt;
    } else {
      return std::nullopt;
    }
    std::ranges::sort(list, [](const auto& a, const auto& b) {
      return std::tie(a.first, a.second->seq) > std::tie(b.first, b.second->seq);
    });
    return list;
  }

  Answer streamIds(const Call& call) {
    if (call.method != "GET") return error(405, "method not allowed");
    auto streamId = parameter(call.query, "streamId");
    if (!streamId || streamId->empty()) return error(400, "missing streamId");
    std::int64_t count = kDefaultCount;
    if (auto text = parameter(call.query, "count")) {
      auto parsed = parseInteger(*text);
      if (!parsed || *parsed < 1) return error(400, "invalid count");
      count = std::min(*parsed, kMaxCount);  // more is quietly reduced, as the service does
    }
    auto unreadOnly = parameter(call.query, "unreadOnly").value_or("false");
    if (unreadOnly != "true" && unreadOnly != "false") return error(400, "invalid unreadOnly");
    std::optional<std::int64_t> newerThan;
    if (auto text = parameter(call.query, "newerThan")) {
      newerThan = parseInteger(*text);
      if (!newerThan) return error(400, "invalid newerThan");
    }
    // A continuation names the first entry of the next page by its sort time and insertion order,
    // so that a page stays right when entries arrive while a client pages.
    std::optional<std::pair<std::int64_t, std::int64_t>> resume;
    if (auto text = parameter(call.query, "continuation"); text && !text->empty()) {
      auto parts = split(*text, '_');
      std::int64_t time = 0, seq = 0;
      auto hex = [](std::string_view part, std::int64_t& value) {
        if (part.empty() || part.size() > 15) return false;
        value = 0;
        for (char c : part) {
          if (hexDigit(c) < 0) return false;
          value = value * 16 + hexDigit(c);
        }
        return true;
      };
      if (parts.size() != 2 || !hex(parts[0], time) || !hex(parts[1], seq))
        return error(400, "invalid continuation");
      resume.emplace(time, seq);
    }
    auto list = stream(normalized(*streamId));
    if (!list) return error(404, fmt::format("stream not found: {}", *streamId));
    Json ids = Json::array();
    std::optional<std::string> continuation;
    for (const auto& [time, stored] : *list) {
      if (unreadOnly == "true" && !stored->unread) continue;
      if (newerThan && time <= *newerThan) continue;
      if (resume && std::pair(time, stored->seq) > *resume) continue;
      if (static_cast<std::int64_t>(ids.size()) == count) {
        continuation = fmt::format("{:x}_{:x}", time, stored->seq);
        break;
      }
      ids.push_back(stored->seed.id);
    }
    Json result{{"ids", ids}};
    if (continuation) result["continuation"] = *continuation;
    return jsonAnswer(200, result);
  }

  Answer mget(const Call& call) {
    if (call.method != "POST") return error(405, "method not allowed");
    auto body = Json::parse(call.body, nullptr, /*allow_exceptions=*/false);
    std::optional<std::vector<std::string>> ids;
    if (body.is_array()) {
      ids = stringList(body);
    } else if (body.is_object() && body.contains("ids")) {
      ids = stringList(body["ids"]);
    } else if (body.is_discarded()) {
      return error(400, "Invalid JSON");
    }
    if (!ids) return error(400, "expected a list of entry ids");
    if (ids->size() > kMaxMgetIds) return error(400, fmt::format("too many ids: at most {}", kMaxMgetIds));
    Json list = Json::array();
    std::set<std::string> seen;
    for (const auto& id : *ids) {
      auto found = entries.find(id);
      if (found != entries.end() && seen.insert(id).second) list.push_back(entryJson(found->second));
    }
    return jsonAnswer(200, list);
  }

  Answer markers(const Call& call) {
    if (call.method != "POST") return error(405, "method not allowed");
    auto body = Json::parse(call.body, nullptr, /*allow_exceptions=*/false);
    if (!body.is_object()) return error(400, "Invalid JSON");
    auto text = [&](const char* name) {
      auto found = body.find(name);
      return found != body.end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    if (text("type") != "entries") return error(400, "unsupported marker type");
    const auto action = text("action");
    if (action != "markAsRead" && action != "keepUnread" && action != "markAsSaved" &&
        action != "markAsUnsaved") {
      return error(400, "unsupported action");
    }
    auto ids = body.contains("entryIds") ? stringList(body["entryIds"]) : std::nullopt;
    if (!ids) return error(400, "entryIds must be a list of entry ids");
    for (const auto& id : *ids) {
      auto found = entries.find(id);
      if (found == entries.end()) continue;  // unknown ids are no error
      if (action == "markAsRead") setUnread(found->second, false);
      if (action == "keepUnread") setUnread(found->second, true);
      if (action == "markAsSaved") setSaved(found->second, true);
      if (action == "markAsUnsaved") setSaved(found->second, false);
    }
    return emptyAnswer();
  }

  // PUT /v3/tags/{tag ids} tags entries; DELETE /v3/tags/{tag ids}/{entry ids} untags them. Only
  // the saved tag exists here.
  Answer tags(const Call& call) {
    std::vector<std::string> tagIds;
    for (auto part : split(call.rawSegments[1], ',')) tagIds.push_back(normalized(segmentDecoded(part)));
    for (const auto& tagId : tagIds) {
      if (tagId != savedTag()) return error(404, fmt::format("tag not found: {}", tagId));
    }
    std::vector<std::string> ids;
    if (call.method == "PUT" && call.rawSegments.size() == 2) {
      auto body = Json::parse(call.body, nullptr, /*allow_exceptions=*/false);
      if (!body.is_object()) return error(400, "Invalid JSON");
      if (auto one = body.find("entryId"); one != body.end() && one->is_string())
        ids.push_back(one->get<std::string>());
      if (body.contains("entryIds")) {
        auto list = stringList(body["entryIds"]);
        if (!list) return error(400, "entryIds must be a list of entry ids");
        ids.insert(ids.end(), list->begin(), list->end());
      }
      if (ids.empty()) return error(400, "missing entryIds");
    } else if (call.method == "DELETE" && call.rawSegments.size() == 3) {
      for (auto part : split(call.rawSegments[2], ',')) {
        if (!part.empty()) ids.push_back(segmentDecoded(part));
      }
    } else if (call.method == "DELETE" && call.rawSegments.size() == 2) {
      return error(400, "global tags cannot be deleted");
    } else {
      return error(405, "method not allowed");
    }
    for (const auto& id : ids) {
      if (auto found = entries.find(id); found != entries.end())
        setSaved(found->second, call.method == "PUT");
    }
    return emptyAnswer();
  }

  Answer dispatch(const Call& call, const std::string& token) {
    const auto& parts = call.rawSegments;
    const auto& method = call.method;
    const auto resource = parts[0];
    if (parts.size() == 1) {
      if (resource == "profile") return method == "GET" ? profile() : error(405, "method not allowed");
      if (resource == "categories") {
        return method == "GET" ? jsonAnswer(200, categoryList()) : error(405, "method not allowed");
      }
      if (resource == "subscriptions") {
        if (method == "GET") return jsonAnswer(200, subscriptionList());
        if (method == "POST") return subscribe(call);
        return error(405, "method not allowed");
      }
      if (resource == "markers") return markers(call);
    }
    if (parts.size() == 2) {
      if (resource == "categories") return category(call);
      if (resource == "subscriptions") return unsubscribe(call);
      if (resource == "streams" && parts[1] == "ids") return streamIds(call);
      if (resource == "entries" && parts[1] == ".mget") return mget(call);
      if (resource == "auth" && parts[1] == "logout") {
        if (method != "POST") return error(405, "method not allowed");
        for (auto& [refresh, revoked] : refreshTokens) revoked = true;
        accessTokens.erase(token);
        return emptyAnswer();
      }
    }
    if ((parts.size() == 2 || parts.size() == 3) && resource == "tags") return tags(call);
    return error(404, "not found");
  }

  Answer answer(std::string_view rawPath, const Call& base) {
    if (!rawPath.starts_with(kApiPrefix)) return error(404, "not found");
    Call call = base;
    call.rawSegments = split(rawPath.substr(kApiPrefix.size()), '/');
    std::string token;
    Answer result;
    if (call.rawSegments.size() == 2 && call.rawSegments[0] == "auth" && call.rawSegments[1] == "auth") {
      result = authorize(call);
    } else if (call.rawSegments.size() == 2 && call.rawSegments[0] == "auth" &&
               call.rawSegments[1] == "token") {
      result = this->token(call);
    } else if (auto denied = checkAuthorization(call.authorization, token)) {
      result = std::move(*denied);
    } else {
      result = dispatch(call, token);
    }
    // Counted per token, as the service does; reset at midnight UTC.
    const int used = ++callsByToken[token];
    const std::int64_t seconds = nowMs() / 1000;
    result.headers.emplace_back("X-Ratelimit-Count", std::to_string(used));
    result.headers.emplace_back("X-Ratelimit-Reset", std::to_string(86'400 - seconds % 86'400));
    return result;
  }

  Answer faultAnswer(Fault fault, std::string_view method, std::string_view path) {
    switch (fault) {
      case Fault::kServerError:
        return error(500, "internal error");
      case Fault::kWrongShape:
        return answersList(method, path) ? jsonAnswer(200, Json{{"id", "not-a-list"}})
                                         : jsonAnswer(200, Json::array({Json{{"id", "a-list"}}}));
      case Fault::kNotJson:
        return {200, "<html><body>Maintenance</body></html>", "text/html", {}};
      case Fault::kSlow:
      case Fault::kDropConnection:
        break;
    }
    return error(500, "internal error");
  }

  std::optional<ArmedFault> takeFault(const std::string& path) {
    std::optional<ArmedFault> fired;
    for (auto item = faults.begin(); item != faults.end();) {
      if (path.starts_with(item->pathPrefix) && --item->remaining <= 0) {
        if (!fired) {
          fired = *item;
          item = faults.erase(item);
          continue;
        }
        item->remaining = 1;  // another fault due on this request plays on the next match
      }
      ++item;
    }
    return fired;
  }
};

FeedlyMockServer::FeedlyMockServer(std::string clientId, std::string clientSecret, int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>()),
      clientId_(std::move(clientId)),
      clientSecret_(std::move(clientSecret)) {
  state_->clientId = clientId_;
  state_->clientSecret = clientSecret_;
  state_->userId = state_->uuid();
  state_->developerToken = state_->issueAccessToken(kDeveloperTokenLifetimeMs);
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    route(request, response);
  };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  server_->Put(".*", handler);
  server_->Patch(".*", handler);
  server_->Delete(".*", handler);
  server_->Options(".*", handler);
  port_ = listenOnLoopback(*server_, port, thread_);
}

FeedlyMockServer::~FeedlyMockServer() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopped = true;
  }
  state_->stopping.notify_all();
  server_->stop();
  thread_.join();
}

std::string FeedlyMockServer::endpoint() const { return fmt::format("http://127.0.0.1:{}/", port_); }

std::string FeedlyMockServer::userId() const { return state_->userId; }

std::string FeedlyMockServer::email() const {
  std::lock_guard lock(state_->mutex);
  return state_->email;
}

std::string FeedlyMockServer::developerToken() const {
  std::lock_guard lock(state_->mutex);
  auto found = state_->accessTokens.find(state_->developerToken);
  if (found == state_->accessTokens.end() || !state_->valid(found->second)) {
    state_->developerToken = state_->issueAccessToken(kDeveloperTokenLifetimeMs);
  }
  return state_->developerToken;
}

void FeedlyMockServer::setExpiresIn(std::int64_t seconds) {
  std::lock_guard lock(state_->mutex);
  state_->expiresIn = seconds;
}

void FeedlyMockServer::expireAccessTokens() {
  std::lock_guard lock(state_->mutex);
  const auto now = nowMs();
  for (auto& [token, access] : state_->accessTokens) {
    if (!access.expired) access.expiresAtMs = std::min(access.expiresAtMs, now);
    access.expired = true;
  }
}

void FeedlyMockServer::revokeRefreshTokens() {
  std::lock_guard lock(state_->mutex);
  for (auto& [token, revoked] : state_->refreshTokens) revoked = true;
}

int FeedlyMockServer::refreshGrants() const {
  std::lock_guard lock(state_->mutex);
  return state_->refreshGrants;
}

int FeedlyMockServer::codeGrants() const {
  std::lock_guard lock(state_->mutex);
  return state_->codeGrants;
}

std::string FeedlyMockServer::currentAccessToken() const {
  std::lock_guard lock(state_->mutex);
  return state_->currentAccessToken();
}

void FeedlyMockServer::setConsent(Consent consent) {
  std::lock_guard lock(state_->mutex);
  state_->consent = consent;
}

std::string FeedlyMockServer::addCategory(const std::string& label) {
  std::lock_guard lock(state_->mutex);
  return state_->ensureCategory(state_->categoryPrefix() + label, label);
}

void FeedlyMockServer::addSubscription(const std::string& feedUrl, const std::string& title,
                                       std::optional<std::string> website,
                                       std::vector<std::string> categoryIds) {
  std::lock_guard lock(state_->mutex);
  std::vector<std::string> ids;
  for (auto& id : categoryIds) {
    id = state_->normalized(std::move(id));
    auto slash = id.rfind('/');
    state_->ensureCategory(id, slash == std::string::npos ? id : id.substr(slash + 1));
    ids.push_back(id);
  }
  auto& subscription = state_->putSubscription("feed/" + feedUrl, title, std::move(ids));
  subscription.website = std::move(website);
}

void FeedlyMockServer::removeSubscription(const std::string& feedId) {
  std::lock_guard lock(state_->mutex);
  state_->removeSubscription(feedId);
}

void FeedlyMockServer::addEntry(FeedlyEntrySeed entry, bool unread, bool saved) {
  std::lock_guard lock(state_->mutex);
  state_->addEntry(std::move(entry), unread, saved);
}

void FeedlyMockServer::setUnread(const std::string& entryId, bool unread) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->entries.find(entryId); found != state_->entries.end()) {
    state_->setUnread(found->second, unread);
  }
}

void FeedlyMockServer::setSaved(const std::string& entryId, bool saved) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->entries.find(entryId); found != state_->entries.end()) {
    state_->setSaved(found->second, saved);
  }
}

std::set<std::string> FeedlyMockServer::unreadIds() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::string> ids;
  for (const auto& [id, stored] : state_->entries) {
    if (stored.unread) ids.insert(id);
  }
  return ids;
}

std::set<std::string> FeedlyMockServer::savedIds() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::string> ids;
  for (const auto& [id, stored] : state_->entries) {
    if (stored.saved) ids.insert(id);
  }
  return ids;
}

size_t FeedlyMockServer::entryCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->entries.size();
}

nlohmann::json FeedlyMockServer::subscriptionsJson() const {
  std::lock_guard lock(state_->mutex);
  return nlohmann::json::parse(jsonText(state_->subscriptionList()));
}

nlohmann::json FeedlyMockServer::categoriesJson() const {
  std::lock_guard lock(state_->mutex);
  return nlohmann::json::parse(jsonText(state_->categoryList()));
}

void FeedlyMockServer::seed(int feeds, int entriesPerFeed, int unread, int savedEvery) {
  std::lock_guard lock(state_->mutex);
  auto& state = *state_;
  std::vector<std::string> feedIds;
  for (int feed = 1; feed <= feeds; ++feed) {
    // Some addresses carry a query, so that their ids need '?', '&' and '=' encoded.
    auto url = feed % 5 == 0 ? fmt::format("https://feed{}.example.com/index.php?format=rss&lang=en", feed)
                             : fmt::format("https://feed{}.example.com/feed.xml", feed);
    auto label = fmt::format("Folder {}", (feed - 1) / 10 + 1);
    auto categoryId = state.ensureCategory(state.categoryPrefix() + label, label);
    auto& subscription = state.putSubscription("feed/" + url, fmt::format("Feed {}", feed), {categoryId});
    subscription.website = fmt::format("https://feed{}.example.com/", feed);
    feedIds.push_back(subscription.id);
  }
  if (feedIds.empty() || entriesPerFeed <= 0) return;
  // Entry k (0 the newest) was crawled k minutes ago.
  const auto total = static_cast<std::int64_t>(feeds) * entriesPerFeed;
  const auto now = nowMs();
  for (std::int64_t age = total - 1; age >= 0; --age) {
    const auto index = total - 1 - age;  // 0 the oldest
    const auto feedIndex = static_cast<size_t>(age % feeds);
    const auto number = ++state.seededEntries;
    const auto crawled = now - age * 60'000;
    // Shaped like the service's ids, '/', '+', '=' and ':' included.
    const auto hash = md5Hex(fmt::format("{}:{}", state.userId, number));
    FeedlyEntrySeed entry;
    entry.id = fmt::format("{}/{}+{}=_{:x}:{:x}:{}", hash.substr(0, 10), hash.substr(10, 12),
                           hash.substr(22, 10), crawled, number, hash.substr(0, 8));
    entry.feedId = feedIds[feedIndex];
    entry.title = fmt::format("Story {} of feed {}", age / feeds + 1, feedIndex + 1);
    if (index % 3 != 0) entry.author = fmt::format("Author {}", feedIndex + 1);  // feeds often omit it
    if (index % 11 != 0)
      entry.link = fmt::format("https://feed{}.example.com/stories/{}", feedIndex + 1, number);
    if (index % 2 == 0)
      entry.contentHtml = fmt::format("<p>Body of story {}, long enough to read.</p>", number);
    if (index % 2 == 1 || index % 3 == 0)
      entry.summaryHtml = fmt::format("<p>Story {} in short.</p>", number);
    if (index % 7 != 0) entry.publishedMs = crawled - 30'000;  // missing now and then: clients fall back
    if (index % 4 == 0) entry.updatedMs = crawled;
    entry.crawledMs = crawled;
    const bool saved = savedEvery > 0 && (index + 1) % savedEvery == 0;
    state.addEntry(std::move(entry), /*unread=*/age < unread, saved);
  }
}

std::vector<RecordedRequest> FeedlyMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<RecordedRequest> FeedlyMockServer::requests(const std::string& pathPrefix) const {
  std::lock_guard lock(state_->mutex);
  std::vector<RecordedRequest> matching;
  for (const auto& request : state_->requests) {
    if (request.path.starts_with(pathPrefix)) matching.push_back(request);
  }
  return matching;
}

void FeedlyMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

void FeedlyMockServer::injectFault(const std::string& pathPrefix, Fault fault, int occurrence,
                                   std::chrono::milliseconds delay) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back({pathPrefix, fault, std::max(occurrence, 1), delay});
}

void FeedlyMockServer::route(const httplib::Request& request, httplib::Response& response) {
  const std::string_view target = request.target;
  const auto question = target.find('?');
  const std::string_view rawPath = target.substr(0, question);
  const std::string_view rawQuery =
      question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  RecordedRequest recorded{request.method,
                           request.path,
                           parseQuery(rawQuery),
                           request.body,
                           request.get_header_value("Content-Type"),
                           request.get_header_value("Authorization"),
                           request.get_header_value("Accept"),
                           0};

  std::optional<ArmedFault> fault;
  Answer answer;
  {
    std::unique_lock lock(state_->mutex);
    fault = state_->takeFault(request.path);
    if (fault && fault->fault == Fault::kSlow) {
      // Waiting releases the mutex, so other requests proceed meanwhile.
      state_->stopping.wait_for(lock, fault->delay, [this] { return state_->stopped; });
      fault.reset();
    }
    if (fault && fault->fault == Fault::kDropConnection) {
      answer.status = 0;  // recorded as no answer
    } else if (fault) {
      // A faulted request changes nothing: it stands for a failure before the account was reached.
      answer = state_->faultAnswer(fault->fault, request.method, request.path);
    } else {
      Call call{request.method,        {}, recorded.query, request.body, recorded.contentType,
                recorded.authorization};
      answer = state_->answer(rawPath, call);
    }
    // Recorded before the answer leaves, so a test that has its answer sees the request.
    recorded.status = answer.status;
    state_->requests.push_back(std::move(recorded));
  }

  if (fault && fault->fault == Fault::kDropConnection) {
    // Headers promising a body that never comes: the client sees a truncated transfer.
    response.status = 200;
    response.set_content_provider(64, std::string(kJsonType),
                                  [](size_t, size_t, httplib::DataSink&) { return false; });
    return;
  }
  response.status = answer.status;
  for (auto& [name, value] : answer.headers) response.set_header(name, value);
  if (!answer.body.empty() || !answer.contentType.empty())
    response.set_content(answer.body, answer.contentType);
}

}  // namespace lectern::mock
