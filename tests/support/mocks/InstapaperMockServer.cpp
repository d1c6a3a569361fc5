// A stateful stand-in for the Instapaper full API (version 1) on loopback; speaks only the wire protocol.
#include "mocks/InstapaperMockServer.h"

#include <fmt/format.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <random>
#include <set>
#include <string_view>
#include <utility>

#include "mocks/MockWire.h"

namespace lectern::mock {
namespace {

constexpr std::string_view kApiPrefix = "/api/1/";
constexpr std::string_view kArticlePrefix = "/articles/";
constexpr std::int64_t kFirstBookmarkId = 169'529'001;
constexpr std::int64_t kFirstFolderId = 1'121'001;
constexpr std::int64_t kUserId = 543'210;
constexpr std::int64_t kDefaultLimit = 25;
constexpr std::int64_t kMaxLimit = 500;

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// RFC 3986 escaping, as OAuth signs: everything but letters, digits and "-._~".
std::string oauthEscape(std::string_view text) {
  std::string escaped;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      escaped += static_cast<char>(c);
    } else {
      escaped += fmt::format("%{:02X}", c);
    }
  }
  return escaped;
}

// A qline value: form escaping, a space as "+".
std::string qlineEscape(std::string_view text) {
  std::string escaped;
  for (unsigned char c : text) {
    if (c == ' ') {
      escaped += '+';
    } else if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      escaped += static_cast<char>(c);
    } else {
      escaped += fmt::format("%{:02X}", c);
    }
  }
  return escaped;
}

std::string base64(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                      reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(std::max(written, 0)));
  return out;
}

std::string hmacSha1(std::string_view key, std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(data.data()),
       data.size(), digest, &length);
  return std::string(reinterpret_cast<const char*>(digest), length);
}

std::string randomHex(std::mt19937_64& random, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += fmt::format("{:02x}", static_cast<unsigned>(random() & 0xff));
  return text;
}

// The key="value" pairs of an "OAuth ..." header, values decoded; nothing when it is no such header.
std::optional<std::map<std::string, std::string>> oauthHeader(std::string_view header) {
  header = trimmed(header);
  if (header.size() < 6 || !equalsIgnoringCase(header.substr(0, 6), "OAuth ")) return std::nullopt;
  header.remove_prefix(6);
  std::map<std::string, std::string> pairs;
  while (!header.empty()) {
    const auto equals = header.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const std::string key(trimmed(header.substr(0, equals)));
    header.remove_prefix(equals + 1);
    if (header.empty() || header.front() != '"') return std::nullopt;
    const auto close = header.find('"', 1);
    if (close == std::string_view::npos) return std::nullopt;
    // Percent-escapes only: a "+" in a header value is a plus.
    std::string plusKept;
    for (char c : header.substr(1, close - 1)) plusKept += c == '+' ? std::string("%2B") : std::string(1, c);
    pairs[key] = percentDecoded(plusKept);
    header.remove_prefix(close + 1);
    header = trimmed(header);
    if (!header.empty() && header.front() == ',') header.remove_prefix(1);
    header = trimmed(header);
  }
  return pairs;
}

std::optional<std::string> parameter(const std::multimap<std::string, std::string>& query, const std::string& name) {
  auto found = query.find(name);
  if (found == query.end()) return std::nullopt;
  return found->second;
}

std::optional<double> parseNumber(std::string_view text) {
  const auto parsed = Json::parse(trimmed(text), nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_number()) return std::nullopt;
  return parsed.get<double>();
}

struct ArmedFault {
  std::string resource;
  InstapaperFault fault = InstapaperFault::kServerError;
  int remaining = 1;
};

std::string qlineLine(const Json& object) {
  std::vector<std::string> pairs;
  for (const auto& [key, value] : object.items()) {
    std::string text;
    if (value.is_string()) {
      text = value.get<std::string>();
    } else if (value.is_array()) {
      std::vector<std::string> parts;
      for (const auto& part : value) parts.push_back(part.is_string() ? part.get<std::string>() : part.dump());
      for (size_t i = 0; i < parts.size(); ++i) text += (i ? "," : "") + parts[i];
    } else if (!value.is_null()) {
      text = value.dump();
    }
    pairs.push_back(qlineEscape(key) + "=" + qlineEscape(text));
  }
  std::string line;
  for (size_t i = 0; i < pairs.size(); ++i) line += (i ? "&" : "") + pairs[i];
  return line;
}

Answer objectsAnswer(int status, const std::vector<Json>& objects, bool qline) {
  if (!qline) return jsonAnswer(status, Json(objects));
  std::string body;
  for (const auto& object : objects) body += qlineLine(object) + "\n";
  return {status, body, "text/plain; charset=utf-8", {}};
}

Answer errorAnswer(int status, int code, std::string_view message, bool qline) {
  return objectsAnswer(status, {Json{{"type", "error"}, {"error_code", code}, {"message", message}}}, qline);
}

}  // namespace

std::string InstapaperRequest::parameter(const std::string& name) const {
  auto found = parameters.find(name);
  return found == parameters.end() ? std::string() : found->second;
}

// What one Instapaper user has, and what the server answers. Every member is guarded by mutex.
struct InstapaperMockServer::State {
  State(std::string user, std::string secret, std::string key, std::string keySecret)
      : username(std::move(user)),
        password(std::move(secret)),
        consumerKey(std::move(key)),
        consumerSecret(std::move(keySecret)),
        random(std::random_device{}()),
        token(randomHex(random, 12)),
        tokenSecret(randomHex(random, 16)) {}

  static std::string hashOf(const InstapaperBookmark& bookmark) {
    const std::string digest = md5Hex(fmt::format("{}|{}|{}|{}|{}|{:.6f}|{}", bookmark.bookmarkId, bookmark.url,
                                                  bookmark.title, bookmark.description, bookmark.starred,
                                                  bookmark.progress, bookmark.progressTimestamp));
    return digest.substr(0, 8);
  }

  void touch(InstapaperBookmark& bookmark) { bookmark.hash = hashOf(bookmark); }

  InstapaperBookmark& add(InstapaperBookmark bookmark) {
    if (bookmark.bookmarkId == 0) bookmark.bookmarkId = nextBookmarkId;
    nextBookmarkId = std::max(nextBookmarkId, bookmark.bookmarkId + 1);
    if (bookmark.url.empty()) bookmark.url = articleURL(bookmark.bookmarkId);
    if (bookmark.time == 0) bookmark.time = nowSeconds();
    touch(bookmark);
    return bookmarks[bookmark.bookmarkId] = std::move(bookmark);
  }

  std::string articleURL(std::int64_t id) const { return fmt::format("{}articles/{}", baseURL, id); }

  Json bookmarkJson(const InstapaperBookmark& bookmark) const {
    // The value types as the service mixes them: starred and progress as text, times as numbers.
    return {{"type", "bookmark"},
            {"bookmark_id", bookmark.bookmarkId},
            {"url", bookmark.url},
            {"title", bookmark.title},
            {"description", bookmark.description},
            {"time", bookmark.time},
            {"starred", bookmark.starred ? "1" : "0"},
            {"private_source", ""},
            {"hash", bookmark.hash},
            {"progress", fmt::format("{}", bookmark.progress)},
            {"progress_timestamp", bookmark.progressTimestamp}};
  }

  Json folderJson(const InstapaperFolder& folder) const {
    return {{"type", "folder"},
            {"folder_id", folder.folderId},
            {"title", folder.title},
            {"sync_to_mobile", "1"},
            {"position", folder.position}};
  }

  Json userJson() const { return {{"type", "user"}, {"user_id", kUserId}, {"username", username}}; }

  bool inFolder(const InstapaperBookmark& bookmark, const std::string& folder) const {
    return folder == "starred" ? bookmark.starred : bookmark.folder == folder;
  }

  bool isUserFolder(const std::string& id) const {
    auto number = parseInteger(id);
    return number && folders.contains(*number);
  }

  std::optional<ArmedFault> takeFault(std::string_view resource) {
    for (auto item = faults.begin(); item != faults.end(); ++item) {
      if ((item->resource.empty() || item->resource == resource) && --item->remaining <= 0) {
        auto fault = *item;
        faults.erase(item);
        return fault;
      }
    }
    return std::nullopt;
  }

  // Checks the Authorization header of an API request: nothing when it is good, else why not.
  std::optional<std::string> checkSignature(const httplib::Request& request, const Query& parameters,
                                            bool tokenRequired) {
    auto header = oauthHeader(request.get_header_value("Authorization"));
    if (!header) return "Missing OAuth authorization";
    auto& oauth = *header;
    if (oauth["oauth_signature_method"] != "HMAC-SHA1") return "Unsupported signature method";
    if (oauth["oauth_version"] != "1.0") return "Unsupported OAuth version";
    if (oauth["oauth_consumer_key"] != consumerKey) return "Invalid consumer key";
    if (oauth["oauth_nonce"].empty() || !parseInteger(oauth["oauth_timestamp"])) return "Missing nonce or timestamp";
    const std::string givenToken = oauth.contains("oauth_token") ? oauth["oauth_token"] : std::string();
    if (tokenRequired && givenToken != token) return "Invalid token";
    if (!tokenRequired && !givenToken.empty() && givenToken != token) return "Invalid token";
    // The client signs one dictionary: request parameters, overwritten by the OAuth ones.
    std::map<std::string, std::string> signedPairs;
    for (const auto& [key, value] : parameters) signedPairs[oauthEscape(key)] = oauthEscape(value);
    for (const auto& [key, value] : oauth) {
      if (key == "realm" || key == "oauth_signature") continue;
      signedPairs[oauthEscape(key)] = oauthEscape(value);
    }
    std::string joined;
    for (const auto& [key, value] : signedPairs) joined += (joined.empty() ? "" : "&") + key + "=" + value;
    const std::string host = request.get_header_value("Host");
    std::string lowerHost;
    for (char c : host) lowerHost += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lowerHost.ends_with(":80")) lowerHost.resize(lowerHost.size() - 3);
    const std::string url = "http://" + lowerHost + request.path;
    const std::string base = request.method + "&" + oauthEscape(url) + "&" + oauthEscape(joined);
    const std::string key = oauthEscape(consumerSecret) + "&" + (givenToken.empty() ? "" : oauthEscape(tokenSecret));
    if (base64(hmacSha1(key, base)) != oauth["oauth_signature"]) return "Invalid signature";
    const std::string nonce = oauth["oauth_timestamp"] + ":" + oauth["oauth_nonce"];
    if (!nonces.insert(nonce).second) return "Nonce already used";
    return std::nullopt;
  }

  // ---- calls ----

  Answer accessToken(const Query& parameters) const {
    if (parameter(parameters, "x_auth_mode") != "client_auth") {
      return {401, "Invalid xAuth mode.", "text/plain; charset=utf-8", {}};
    }
    if (parameter(parameters, "x_auth_username") != username || parameter(parameters, "x_auth_password") != password) {
      return {401, "Invalid xAuth credentials.", "text/plain; charset=utf-8", {}};
    }
    return {200, fmt::format("oauth_token={}&oauth_token_secret={}", token, tokenSecret),
            "application/x-www-form-urlencoded", {}};
  }

  Answer listBookmarks(const Query& parameters, bool qline) {
    const std::string folder = parameter(parameters, "folder_id").value_or("unread");
    if (folder != "unread" && folder != "starred" && folder != "archive" && !isUserFolder(folder)) {
      return errorAnswer(400, 1242, "Invalid or missing folder_id", qline);
    }
    std::int64_t limit = kDefaultLimit;
    if (auto given = parameter(parameters, "limit")) {
      auto number = parseInteger(*given);
      if (!number || *number < 0) return errorAnswer(400, 1500, "Invalid limit", qline);
      limit = std::clamp<std::int64_t>(*number == 0 ? kDefaultLimit : *number, 1, kMaxLimit);
    }
    // What the client holds: id -> (hash, progress, timestamp).
    struct Held {
      std::optional<std::string> hash;
      std::optional<double> progress;
      std::int64_t timestamp = 0;
    };
    std::map<std::int64_t, Held> have;
    std::vector<std::int64_t> haveOrder;
    const std::string haveText = parameter(parameters, "have").value_or("");
    for (std::string_view text = haveText; !text.empty();) {
      const auto comma = text.find(',');
      const std::string_view entry = text.substr(0, comma);
      text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
      std::vector<std::string_view> fields;
      for (std::string_view rest = entry;;) {
        const auto colon = rest.find(':');
        fields.push_back(rest.substr(0, colon));
        if (colon == std::string_view::npos) break;
        rest = rest.substr(colon + 1);
      }
      auto id = parseInteger(fields[0]);
      if (!id) continue;
      Held held;
      if (fields.size() >= 2 && !fields[1].empty()) held.hash = std::string(fields[1]);
      if (fields.size() >= 4) {
        held.progress = parseNumber(fields[2]);
        held.timestamp = parseInteger(fields[3]).value_or(0);
      }
      if (have.emplace(*id, held).second) haveOrder.push_back(*id);
    }
    std::vector<InstapaperBookmark*> inFolderNow;
    for (auto& [id, bookmark] : bookmarks) {
      if (inFolder(bookmark, folder)) inFolderNow.push_back(&bookmark);
    }
    std::sort(inFolderNow.begin(), inFolderNow.end(),
              [](const auto* a, const auto* b) { return std::pair(a->time, a->bookmarkId) > std::pair(b->time, b->bookmarkId); });
    std::vector<Json> objects = {userJson()};
    std::int64_t sent = 0;
    for (auto* bookmark : inFolderNow) {
      auto held = have.find(bookmark->bookmarkId);
      if (held != have.end()) {
        // A newer reading position on the client's side wins, as at the service.
        if (held->second.progress && held->second.timestamp > bookmark->progressTimestamp) {
          bookmark->progress = *held->second.progress;
          bookmark->progressTimestamp = held->second.timestamp;
          touch(*bookmark);
        }
        const bool sameHash = !held->second.hash || *held->second.hash == bookmark->hash;
        const bool olderProgress = held->second.progress && held->second.timestamp < bookmark->progressTimestamp;
        if (sameHash && !olderProgress) continue;
      }
      if (sent == limit) break;
      objects.push_back(bookmarkJson(*bookmark));
      ++sent;
    }
    std::vector<std::string> deleted;
    for (auto id : haveOrder) {
      auto found = bookmarks.find(id);
      if (found == bookmarks.end() || !inFolder(found->second, folder)) deleted.push_back(std::to_string(id));
    }
    if (qline) {
      std::string ids;
      for (size_t i = 0; i < deleted.size(); ++i) ids += (i ? "," : "") + deleted[i];
      if (!ids.empty()) objects.push_back(Json{{"type", "meta"}, {"delete_ids", ids}});
      return objectsAnswer(200, objects, true);
    }
    Json list = Json::array();
    for (size_t i = 1; i < objects.size(); ++i) list.push_back(objects[i]);
    Json ids = Json::array();
    for (const auto& id : deleted) ids.push_back(std::stoll(id));
    return jsonAnswer(200, Json{{"user", userJson()}, {"bookmarks", list}, {"highlights", Json::array()}, {"delete_ids", ids}});
  }

  InstapaperBookmark* bookmarkOf(const Query& parameters) {
    auto id = parseInteger(parameter(parameters, "bookmark_id").value_or(""));
    if (!id) return nullptr;
    auto found = bookmarks.find(*id);
    return found == bookmarks.end() ? nullptr : &found->second;
  }

  Answer bookmarkAnswer(const InstapaperBookmark& bookmark, bool qline) const {
    return objectsAnswer(200, {bookmarkJson(bookmark)}, qline);
  }

  Answer dispatch(std::string_view resource, const Query& parameters, bool qline) {
    if (resource == "account/verify_credentials") return objectsAnswer(200, {userJson()}, qline);
    if (resource == "bookmarks/list") return listBookmarks(parameters, qline);
    if (resource == "folders/list") {
      std::vector<InstapaperFolder> sorted;
      for (const auto& [id, folder] : folders) sorted.push_back(folder);
      std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.position < b.position; });
      std::vector<Json> objects;
      for (const auto& folder : sorted) objects.push_back(folderJson(folder));
      return objectsAnswer(200, objects, qline);
    }
    if (resource == "folders/add") {
      const std::string title = std::string(trimmed(parameter(parameters, "title").value_or("")));
      if (title.empty()) return errorAnswer(400, 1250, "Invalid folder title", qline);
      for (const auto& [id, folder] : folders) {
        if (folder.title == title) return errorAnswer(400, 1251, "User already has a folder with this title", qline);
      }
      const InstapaperFolder added{nextFolderId++, title, nowSeconds()};
      folders[added.folderId] = added;
      return objectsAnswer(200, {folderJson(added)}, qline);
    }
    if (resource == "folders/delete") {
      auto id = parseInteger(parameter(parameters, "folder_id").value_or(""));
      if (!id || !folders.contains(*id)) return errorAnswer(400, 1242, "Invalid or missing folder_id", qline);
      folders.erase(*id);
      for (auto& [bookmarkId, bookmark] : bookmarks) {
        if (bookmark.folder == std::to_string(*id)) bookmark.folder = "archive";
      }
      return objectsAnswer(200, {}, qline);
    }
    if (resource == "folders/set_order") {
      const std::string orderText = parameter(parameters, "order").value_or("");
      for (std::string_view text = orderText; !text.empty();) {
        const auto comma = text.find(',');
        const std::string_view pair = text.substr(0, comma);
        text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
        const auto colon = pair.find(':');
        auto id = parseInteger(pair.substr(0, colon));
        auto position = colon == std::string_view::npos ? std::nullopt : parseInteger(pair.substr(colon + 1));
        if (!id || !position || !folders.contains(*id)) return errorAnswer(400, 1242, "Invalid or missing folder_id", qline);
        folders[*id].position = *position;
      }
      return dispatch("folders/list", {}, qline);
    }
    if (resource == "bookmarks/add") {
      const std::string url = parameter(parameters, "url").value_or("");
      if (!url.starts_with("http://") && !url.starts_with("https://")) {
        return errorAnswer(400, 1240, "Invalid URL specified", qline);
      }
      std::optional<std::string> folder = parameter(parameters, "folder_id");
      if (folder && !isUserFolder(*folder)) {
        return errorAnswer(400, 1252, "Cannot add bookmarks to this folder", qline);
      }
      // The same address saved again is the bookmark already kept.
      for (auto& [id, bookmark] : bookmarks) {
        if (bookmark.url == url) {
          if (folder) bookmark.folder = *folder;
          return bookmarkAnswer(bookmark, qline);
        }
      }
      InstapaperBookmark added;
      added.url = url;
      added.title = parameter(parameters, "title").value_or(url);
      added.description = parameter(parameters, "description").value_or("");
      added.folder = folder.value_or("unread");
      return bookmarkAnswer(add(std::move(added)), qline);
    }
    auto* bookmark = bookmarkOf(parameters);
    if (resource.starts_with("bookmarks/") && bookmark == nullptr) {
      return errorAnswer(400, 1241, "Invalid or missing bookmark_id", qline);
    }
    if (resource == "bookmarks/delete") {
      bookmarks.erase(bookmark->bookmarkId);
      return objectsAnswer(200, {}, qline);
    }
    if (resource == "bookmarks/star" || resource == "bookmarks/unstar") {
      bookmark->starred = resource == "bookmarks/star";
      touch(*bookmark);
      return bookmarkAnswer(*bookmark, qline);
    }
    if (resource == "bookmarks/archive" || resource == "bookmarks/unarchive") {
      bookmark->folder = resource == "bookmarks/archive" ? "archive" : "unread";
      return bookmarkAnswer(*bookmark, qline);
    }
    if (resource == "bookmarks/move") {
      const std::string folder = parameter(parameters, "folder_id").value_or("");
      if (!isUserFolder(folder)) return errorAnswer(400, 1242, "Invalid or missing folder_id", qline);
      bookmark->folder = folder;
      return bookmarkAnswer(*bookmark, qline);
    }
    if (resource == "bookmarks/update_read_progress") {
      auto progress = parseNumber(parameter(parameters, "progress").value_or(""));
      if (!progress || *progress < 0 || *progress > 1) return errorAnswer(400, 1243, "Invalid or missing progress", qline);
      auto timestamp = parseNumber(parameter(parameters, "progress_timestamp").value_or(""));
      if (!timestamp) return errorAnswer(400, 1244, "Invalid or missing progress_timestamp", qline);
      bookmark->progress = *progress;
      bookmark->progressTimestamp = static_cast<std::int64_t>(*timestamp);
      touch(*bookmark);
      return bookmarkAnswer(*bookmark, qline);
    }
    if (resource == "bookmarks/get_text") {
      return {200, articlePage(*bookmark), "text/html; charset=utf-8", {}};
    }
    return errorAnswer(404, 1500, "Not found", qline);
  }

  static std::string articlePage(const InstapaperBookmark& bookmark) {
    std::string paragraphs;
    for (int i = 1; i <= 6; ++i) {
      paragraphs += fmt::format(
          "<p>Paragraph {} of article {}: the reader keeps this text, written at length so that the page "
          "holds an article worth extracting, with sentences, commas, and a full stop.</p>\n",
          i, bookmark.bookmarkId);
    }
    return fmt::format(
        "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>{0}</title></head><body>"
        "<nav><a href=\"/\">Home</a></nav><article><h1>{0}</h1>\n{1}</article>"
        "<footer>Footer links</footer></body></html>",
        bookmark.title, paragraphs);
  }

  const std::string username;
  const std::string password;
  const std::string consumerKey;
  const std::string consumerSecret;
  mutable std::mutex mutex;  // guards every member below
  std::mt19937_64 random;
  std::string token;
  std::string tokenSecret;
  std::string baseURL;
  std::int64_t nextBookmarkId = kFirstBookmarkId;
  std::int64_t nextFolderId = kFirstFolderId;
  std::map<std::int64_t, InstapaperFolder> folders;
  std::map<std::int64_t, InstapaperBookmark> bookmarks;
  std::set<std::string> nonces;
  std::vector<InstapaperRequest> requests;
  std::vector<ArmedFault> faults;
  int articleRequests = 0;
};

InstapaperMockServer::InstapaperMockServer(std::string username, std::string password, std::string consumerKey,
                                           std::string consumerSecret, int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>(std::move(username), std::move(password), std::move(consumerKey),
                                     std::move(consumerSecret))) {
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    if (std::string_view(request.path).starts_with(kArticlePrefix)) {
      serveArticle(request, response);
    } else {
      route(request, response);
    }
  };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  port_ = listenOnLoopback(*server_, port, thread_);
  std::lock_guard lock(state_->mutex);
  state_->baseURL = baseURL();
}

InstapaperMockServer::~InstapaperMockServer() {
  server_->stop();
  thread_.join();
}

std::string InstapaperMockServer::baseURL() const { return fmt::format("http://127.0.0.1:{}/", port_); }

std::string InstapaperMockServer::consumerKey() const { return state_->consumerKey; }
std::string InstapaperMockServer::consumerSecret() const { return state_->consumerSecret; }

std::string InstapaperMockServer::issuedToken() const {
  std::lock_guard lock(state_->mutex);
  return state_->token;
}

std::string InstapaperMockServer::issuedTokenSecret() const {
  std::lock_guard lock(state_->mutex);
  return state_->tokenSecret;
}

std::string InstapaperMockServer::articleURL(std::int64_t bookmarkId) const {
  std::lock_guard lock(state_->mutex);
  return state_->articleURL(bookmarkId);
}

InstapaperFolder InstapaperMockServer::addFolder(std::string title, std::int64_t position) {
  std::lock_guard lock(state_->mutex);
  InstapaperFolder folder{state_->nextFolderId++, std::move(title), position};
  if (folder.position == 0) folder.position = nowSeconds() + folder.folderId % 1000;
  return state_->folders[folder.folderId] = folder;
}

void InstapaperMockServer::removeFolder(std::int64_t folderId) {
  std::lock_guard lock(state_->mutex);
  state_->folders.erase(folderId);
  for (auto& [id, bookmark] : state_->bookmarks) {
    if (bookmark.folder == std::to_string(folderId)) bookmark.folder = "archive";
  }
}

InstapaperBookmark InstapaperMockServer::addBookmark(InstapaperBookmark bookmark) {
  std::lock_guard lock(state_->mutex);
  return state_->add(std::move(bookmark));
}

void InstapaperMockServer::removeBookmark(std::int64_t bookmarkId) {
  std::lock_guard lock(state_->mutex);
  state_->bookmarks.erase(bookmarkId);
}

void InstapaperMockServer::setStarred(std::int64_t bookmarkId, bool starred) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->bookmarks.find(bookmarkId); found != state_->bookmarks.end()) {
    found->second.starred = starred;
    state_->touch(found->second);
  }
}

void InstapaperMockServer::moveBookmark(std::int64_t bookmarkId, const std::string& folder) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->bookmarks.find(bookmarkId); found != state_->bookmarks.end()) found->second.folder = folder;
}

void InstapaperMockServer::setProgress(std::int64_t bookmarkId, double progress, std::int64_t timestamp) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->bookmarks.find(bookmarkId); found != state_->bookmarks.end()) {
    found->second.progress = progress;
    found->second.progressTimestamp = timestamp;
    state_->touch(found->second);
  }
}

std::optional<InstapaperBookmark> InstapaperMockServer::bookmark(std::int64_t bookmarkId) const {
  std::lock_guard lock(state_->mutex);
  auto found = state_->bookmarks.find(bookmarkId);
  if (found == state_->bookmarks.end()) return std::nullopt;
  return found->second;
}

std::vector<InstapaperBookmark> InstapaperMockServer::bookmarks() const {
  std::lock_guard lock(state_->mutex);
  std::vector<InstapaperBookmark> list;
  for (const auto& [id, bookmark] : state_->bookmarks) list.push_back(bookmark);
  return list;
}

std::vector<InstapaperFolder> InstapaperMockServer::folders() const {
  std::lock_guard lock(state_->mutex);
  std::vector<InstapaperFolder> list;
  for (const auto& [id, folder] : state_->folders) list.push_back(folder);
  return list;
}

void InstapaperMockServer::seed(int folders, int bookmarks, int starredEvery) {
  std::vector<std::string> places = {"unread", "archive"};
  for (int i = 1; i <= folders; ++i) {
    places.push_back(std::to_string(addFolder(fmt::format("Folder {}", i), 1'300'000'000 + i).folderId));
  }
  const auto now = nowSeconds();
  for (int i = 0; i < bookmarks; ++i) {
    InstapaperBookmark bookmark;
    bookmark.title = fmt::format("Article {}", i + 1);
    bookmark.description = fmt::format("Saved page {}", i + 1);
    bookmark.time = now - i * 60;
    bookmark.starred = starredEvery > 0 && (i + 1) % starredEvery == 0;
    bookmark.folder = places[static_cast<size_t>(i) % places.size()];
    addBookmark(std::move(bookmark));
  }
}

std::vector<InstapaperRequest> InstapaperMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<InstapaperRequest> InstapaperMockServer::requests(const std::string& resource) const {
  std::lock_guard lock(state_->mutex);
  std::vector<InstapaperRequest> matching;
  const std::string path = std::string(kApiPrefix) + resource;
  for (const auto& request : state_->requests) {
    if (request.path == path) matching.push_back(request);
  }
  return matching;
}

int InstapaperMockServer::articleRequests() const {
  std::lock_guard lock(state_->mutex);
  return state_->articleRequests;
}

void InstapaperMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
  state_->articleRequests = 0;
}

void InstapaperMockServer::injectFault(const std::string& resource, InstapaperFault fault, int occurrence) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back({resource, fault, std::max(occurrence, 1)});
}

void InstapaperMockServer::serveArticle(const httplib::Request& request, httplib::Response& response) {
  std::lock_guard lock(state_->mutex);
  ++state_->articleRequests;
  auto id = parseInteger(std::string_view(request.path).substr(kArticlePrefix.size()));
  auto found = id ? state_->bookmarks.find(*id) : state_->bookmarks.end();
  if (found == state_->bookmarks.end()) {
    response.status = 404;
    response.set_content("<html><body>Not found</body></html>", "text/html");
    return;
  }
  response.set_content(State::articlePage(found->second), "text/html; charset=utf-8");
}

void InstapaperMockServer::route(const httplib::Request& request, httplib::Response& response) {
  const auto question = request.target.find('?');
  const std::string_view rawQuery =
      question == std::string::npos ? std::string_view() : std::string_view(request.target).substr(question + 1);
  InstapaperRequest recorded{request.method, request.path, parseQuery(rawQuery),
                             request.get_header_value("Authorization"), 0};
  const std::string contentType = request.get_header_value("Content-Type");
  if (equalsIgnoringCase(trimmed(std::string_view(contentType).substr(0, contentType.find(';'))),
                         "application/x-www-form-urlencoded")) {
    for (auto& [key, value] : parseQuery(request.body)) recorded.parameters.emplace(key, value);
  }
  const std::string_view path = request.path;
  const std::string_view resource = path.starts_with(kApiPrefix) ? path.substr(kApiPrefix.size()) : path;
  const bool qline = recorded.parameter("format") == "qline";

  std::lock_guard lock(state_->mutex);
  const auto fault = state_->takeFault(resource);
  Answer answer;
  if (fault && fault->fault == InstapaperFault::kDropConnection) {
    answer.status = 0;  // recorded as no answer
  } else if (fault) {
    switch (fault->fault) {
      case InstapaperFault::kServerError:
        answer = errorAnswer(500, 1500, "Encountered an unexpected error. Please try again later.", qline);
        break;
      case InstapaperFault::kRateLimited:
        answer = errorAnswer(400, 1040, "Rate-limit exceeded", qline);
        break;
      case InstapaperFault::kErrorInSuccess:
        answer = errorAnswer(200, 1500, "Encountered an unexpected error. Please try again later.", qline);
        break;
      case InstapaperFault::kNotQline:
      case InstapaperFault::kDropConnection:
        answer = {200, "<html><body><h1>Down for maintenance</h1></body></html>", "text/html", {}};
        break;
    }
  } else if (!path.starts_with(kApiPrefix)) {
    answer = errorAnswer(404, 1500, "Not found", qline);
  } else if (request.method != "POST") {
    // Every call is a POST: parameters anywhere else would be left out of the signature.
    answer = errorAnswer(405, 1500, "Use POST", qline);
  } else if (auto refused = state_->checkSignature(request, recorded.parameters, resource != "oauth/access_token")) {
    answer = errorAnswer(401, 401, *refused, qline);
  } else if (resource == "oauth/access_token") {
    answer = state_->accessToken(recorded.parameters);
  } else {
    answer = state_->dispatch(resource, recorded.parameters, qline);
  }
  recorded.status = answer.status;
  state_->requests.push_back(std::move(recorded));

  if (fault && fault->fault == InstapaperFault::kDropConnection) {
    response.status = 200;
    response.set_content_provider(64, "text/plain", [](size_t, size_t, httplib::DataSink&) { return false; });
    return;
  }
  response.status = answer.status;
  for (auto& [name, value] : answer.headers) response.set_header(name, value);
  if (!answer.body.empty() || !answer.contentType.empty()) response.set_content(answer.body, answer.contentType);
}

}  // namespace lectern::mock
