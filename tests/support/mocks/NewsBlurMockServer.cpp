// A stateful stand-in for NewsBlur's web API on loopback; speaks only the wire protocol.
#include "mocks/NewsBlurMockServer.h"

#include <fmt/format.h>
#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "mocks/MockWire.h"

namespace lectern::mock {
namespace {

constexpr std::string_view kSessionCookie = "newsblur_sessionid";
constexpr std::string_view kTopLevel = " ";
constexpr std::string_view kNestedSeparator = " - ";
constexpr std::int64_t kUserId = 430'911;
constexpr std::int64_t kFirstFeedId = 6'461'499;
// The most hashes one request takes; NewsBlur drops the rest without a word.
constexpr size_t kMaxHashes = 100;
// Stories older than this cannot be marked unread.
constexpr std::int64_t kUnreadCutoffSeconds = 30 * 86'400;

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string storyDate(std::int64_t timestamp) {
  const std::time_t time = static_cast<std::time_t>(timestamp);
  std::tm utc{};
  gmtime_r(&time, &utc);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     utc.tm_hour, utc.tm_min, utc.tm_sec);
}

int score(const NewsBlurIntelligence& intelligence) {
  const int best = std::max({intelligence.title, intelligence.author, intelligence.tags});
  if (best > 0) return best;
  const int worst = std::min({intelligence.title, intelligence.author, intelligence.tags, 0});
  return worst != 0 ? worst : intelligence.feed;
}

std::optional<std::string> parameter(const Query& query, const std::string& name) {
  auto found = query.find(name);
  if (found == query.end()) return std::nullopt;
  return found->second;
}

// Repeated keys, with or without the "[]" suffix.
std::vector<std::string> values(const Query& query, const std::string& name) {
  std::vector<std::string> found;
  for (const auto& [key, value] : query) {
    if (key == name || key == name + "[]") found.push_back(value);
  }
  return found;
}

Answer ok(Json fields = Json::object()) {
  Json answer = {{"result", "ok"}, {"authenticated", true}, {"user_id", kUserId}, {"code", 1}};
  for (auto& [key, value] : fields.items()) answer[key] = std::move(value);
  return jsonAnswer(200, answer);
}

// NewsBlur declines with HTTP 200.
Answer refused(std::string_view message) {
  return jsonAnswer(200, Json{{"result", "ok"}, {"authenticated", true}, {"code", -1}, {"message", message}});
}

std::string leafOf(const std::string& flat) {
  const auto split = flat.rfind(kNestedSeparator);
  return split == std::string::npos ? flat : flat.substr(split + kNestedSeparator.size());
}

struct ArmedFault {
  std::string path;
  NewsBlurFault fault = NewsBlurFault::kServerError;
  int remaining = 1;
};

}  // namespace

std::string NewsBlurRequest::parameter(const std::string& name) const {
  auto found = parameters.find(name);
  return found == parameters.end() ? std::string() : found->second;
}

std::vector<std::string> NewsBlurRequest::values(const std::string& name) const {
  return mock::values(parameters, name);
}

// What one NewsBlur user has, and what the server answers. Every member is guarded by mutex.
struct NewsBlurMockServer::State {
  State(std::string user, std::string secret) : username(std::move(user)), password(std::move(secret)) {}

  // ---- folders ----

  // The flat name of the folder NewsBlur calls `name` inside `parent`; " " for the top level.
  std::optional<std::string> flatName(const std::string& name, const std::string& parent) const {
    if (trimmed(name).empty()) return std::string(kTopLevel);
    if (!trimmed(parent).empty()) {
      if (auto outer = flatName(parent, ""); outer && *outer != kTopLevel) {
        const std::string nested = *outer + std::string(kNestedSeparator) + name;
        if (folders.contains(nested)) return nested;
      }
    }
    if (folders.contains(name)) return name;
    for (const auto& [flat, feeds] : folders) {
      if (leafOf(flat) == name) return flat;
    }
    return std::nullopt;
  }

  void fileFeed(const std::string& flat, std::int64_t feedId) {
    auto& feedsIn = folders[flat];
    if (std::find(feedsIn.begin(), feedsIn.end(), feedId) == feedsIn.end()) feedsIn.push_back(feedId);
  }

  // A feed in no folder any more is no longer subscribed.
  void dropUnfiledFeeds() {
    for (auto feed = feeds.begin(); feed != feeds.end();) {
      const bool filed = std::any_of(folders.begin(), folders.end(), [&](const auto& folder) {
        return std::find(folder.second.begin(), folder.second.end(), feed->first) != folder.second.end();
      });
      feed = filed ? std::next(feed) : feeds.erase(feed);
    }
  }

  NewsBlurFeed& subscribe(NewsBlurFeed feed, const std::string& flat) {
    if (feed.id == 0) feed.id = nextFeedId;
    nextFeedId = std::max(nextFeedId, feed.id + 1);
    discoverable.try_emplace(urlKey(feed.address), feed);
    fileFeed(flat, feed.id);
    return feeds[feed.id] = std::move(feed);
  }

  NewsBlurStory& addStory(NewsBlurStory story) {
    if (story.hash.empty())
      story.hash = fmt::format("{}:{:06x}", story.feedId, (nextStory++ * 2'654'435'761u) & 0xffffff);
    if (story.id.empty()) story.id = fmt::format("https://example.com/?p={}", nextStory++);
    return stories[story.hash] = std::move(story);
  }

  // ---- answers ----

  Json feedJson(const NewsBlurFeed& feed) const {
    int unread = 0;
    for (const auto& [hash, story] : stories) {
      if (story.feedId == feed.id && !story.read) ++unread;
    }
    return {{"id", feed.id},
            {"feed_title", feed.title},
            {"feed_address", feed.address},
            {"feed_link", feed.link.empty() ? feed.address : feed.link},
            {"updated_seconds_ago", feed.updatedSecondsAgo},
            {"ps", 0},
            {"nt", unread},
            {"ng", 0},
            {"active", true}};
  }

  Json storyJson(const NewsBlurStory& story) const {
    Json json = {{"story_hash", story.hash},
                 {"id", story.id},
                 {"story_feed_id", story.feedId},
                 {"story_title", story.title},
                 {"story_authors", story.authors},
                 {"story_content", story.content},
                 {"story_permalink", story.permalink},
                 {"story_date", storyDate(story.timestamp)},
                 {"story_timestamp", std::to_string(story.timestamp)},
                 {"story_tags", Json::array()},
                 {"guid_hash", story.hash.substr(story.hash.find(':') + 1)},
                 {"read_status", story.read ? 1 : 0},
                 {"intelligence",
                  {{"feed", story.intelligence.feed},
                   {"author", story.intelligence.author},
                   {"tags", story.intelligence.tags},
                   {"title", story.intelligence.title}}},
                 {"score", score(story.intelligence)}};
    // Absent rather than false, as NewsBlur writes it.
    if (story.starred) json["starred"] = true;
    return json;
  }

  bool subscribed(const NewsBlurStory& story) const { return feeds.contains(story.feedId); }

  Answer readerFeeds(const Query& query, bool authenticated) const {
    Json flat = Json::object();
    Json feedList = Json::object();
    if (authenticated) {
      for (const auto& [name, ids] : folders) flat[name] = ids;
      for (const auto& [id, feed] : feeds) feedList[std::to_string(id)] = feedJson(feed);
    }
    Json answer = {
        {"result", "ok"}, {"authenticated", authenticated}, {"user_id", authenticated ? kUserId : 0}};
    if (parameter(query, "flat") == "true") {
      answer["flat_folders"] = flat;
    } else {
      answer["folders"] = Json::array();
    }
    answer["feeds"] = feedList;
    return jsonAnswer(200, answer);
  }

  Answer refreshFeeds() const {
    Json counts = Json::object();
    for (const auto& [id, feed] : feeds) counts[std::to_string(id)] = feedJson(feed);
    return ok({{"feeds", counts}});
  }

  Answer unreadHashes() const {
    Json byFeed = Json::object();
    for (const auto& [id, feed] : feeds) byFeed[std::to_string(id)] = Json::array();
    for (const auto& [hash, story] : stories) {
      if (!story.read && subscribed(story)) byFeed[std::to_string(story.feedId)].push_back(hash);
    }
    return ok({{"unread_feed_story_hashes", byFeed}});
  }

  Answer starredHashes() const {
    Json list = Json::array();
    for (const auto& [hash, story] : stories) {
      if (story.starred) list.push_back(hash);
    }
    return ok({{"starred_story_hashes", list}});
  }

  Answer storiesByHash(const Query& query, bool starredOnly) const {
    auto hashes = values(query, "h");
    if (hashes.size() > kMaxHashes) hashes.resize(kMaxHashes);
    Json list = Json::array();
    for (const auto& hash : hashes) {
      auto found = stories.find(hash);
      if (found == stories.end() || (starredOnly && !found->second.starred)) continue;
      list.push_back(storyJson(found->second));
    }
    return ok({{"stories", list}});
  }

  Answer riverPage(const Query& query) const {
    auto page = parseInteger(parameter(query, "page").value_or("1"));
    if (!page || *page < 1) return refused("Invalid page");
    const bool unreadOnly = parameter(query, "read_filter") == "unread";
    const bool includeHidden = parameter(query, "include_hidden") == "true";
    const bool oldest = parameter(query, "order") == "oldest";
    std::vector<const NewsBlurStory*> matching;
    for (const auto& [hash, story] : stories) {
      if (subscribed(story) && !(unreadOnly && story.read)) matching.push_back(&story);
    }
    std::sort(matching.begin(), matching.end(), [oldest](const auto* a, const auto* b) {
      return oldest ? std::pair(a->timestamp, a->hash) < std::pair(b->timestamp, b->hash)
                    : std::pair(a->timestamp, a->hash) > std::pair(b->timestamp, b->hash);
    });
    // A page is cut from every story; the hidden ones are then taken out of it, so a page can
    // come back short or empty while more follow.
    Json list = Json::array();
    int hidden = 0;
    const auto first = static_cast<size_t>((*page - 1) * pageSize);
    for (size_t index = first; index < matching.size() && index < first + static_cast<size_t>(pageSize);
         ++index) {
      if (!includeHidden && score(matching[index]->intelligence) < 0) {
        ++hidden;
        continue;
      }
      list.push_back(storyJson(*matching[index]));
    }
    return ok({{"stories", list}, {"hidden_stories_removed", hidden}});
  }

  NewsBlurStory* storyById(const std::string& feedId, const std::string& storyId) {
    auto feed = parseInteger(feedId);
    if (!feed) return nullptr;
    for (auto& [hash, story] : stories) {
      if (story.feedId == *feed && story.id == storyId) return &story;
    }
    return nullptr;
  }

  Answer markByIds(const Query& query, std::string_view action) {
    const auto feedId = parameter(query, "feed_id").value_or("");
    const auto ids = values(query, "story_id");
    if (ids.empty()) return refused("No story_id given");
    for (const auto& id : ids) {
      NewsBlurStory* story = storyById(feedId, id);
      if (story == nullptr) return refused(fmt::format("Story not found: {}", id));
      if (action == "unread" && story->timestamp < nowSeconds() - kUnreadCutoffSeconds) {
        return refused("Stories older than 30 days cannot be marked as unread.");
      }
    }
    for (const auto& id : ids) {
      NewsBlurStory* story = storyById(feedId, id);
      if (action == "read") story->read = true;
      if (action == "unread") story->read = false;
      if (action == "starred") story->starred = true;
      if (action == "unstarred") story->starred = false;
    }
    return ok({{"story_ids", ids}});
  }

  Answer markByHashes(const Query& query, std::string_view action) {
    const auto hashes = values(query, "story_hash");
    for (const auto& hash : hashes) {
      auto found = stories.find(hash);
      if (found == stories.end()) continue;
      if (action == "read") found->second.read = true;
      if (action == "unread") found->second.read = false;
      if (action == "starred") found->second.starred = true;
      if (action == "unstarred") found->second.starred = false;
    }
    return ok({{"story_hashes", hashes}});
  }

  Answer addUrl(const Query& query) {
    const auto address = parameter(query, "url").value_or("");
    if (trimmed(address).empty()) return refused("Please enter a URL.");
    const auto key = urlKey(address);
    const NewsBlurFeed* found = nullptr;
    for (const auto& [feedKey, feed] : discoverable) {
      if (feedKey == key || (!feed.link.empty() && urlKey(feed.link) == key)) found = &feed;
    }
    if (found == nullptr) return refused("There is no feed at that address.");
    // A folder named here that does not exist yet is made at the top level.
    const auto folderName = parameter(query, "folder").value_or("");
    const std::string flat = flatName(folderName, "").value_or(folderName);
    NewsBlurFeed feed = *found;
    if (auto existing = feeds.find(feed.id); existing != feeds.end()) {
      fileFeed(flat, feed.id);
      return ok({{"feed", feedJson(existing->second)}});
    }
    return ok({{"feed", feedJson(subscribe(std::move(feed), flat))}});
  }

  Answer deleteFeed(const Query& query) {
    auto feedId = parseInteger(parameter(query, "feed_id").value_or(""));
    auto flat = flatName(parameter(query, "in_folder").value_or(""), "");
    if (!feedId || !feeds.contains(*feedId) || !flat) return refused("Feed not found in that folder.");
    auto& inFolder = folders[*flat];
    inFolder.erase(std::remove(inFolder.begin(), inFolder.end(), *feedId), inFolder.end());
    dropUnfiledFeeds();
    return ok({{"message", "Feed deleted"}});
  }

  Answer moveFeed(const Query& query) {
    auto feedId = parseInteger(parameter(query, "feed_id").value_or(""));
    auto from = flatName(parameter(query, "in_folder").value_or(""), "");
    auto to = flatName(parameter(query, "to_folder").value_or(""), "");
    if (!feedId || !feeds.contains(*feedId)) return refused("Feed not found.");
    if (!from || !to) return refused("Folder not found.");
    auto& source = folders[*from];
    source.erase(std::remove(source.begin(), source.end(), *feedId), source.end());
    fileFeed(*to, *feedId);
    return ok();
  }

  Answer addFolderCall(const Query& query) {
    const auto name = parameter(query, "folder").value_or("");
    if (trimmed(name).empty()) return refused("Please enter a folder name.");
    const auto parentName = parameter(query, "parent_folder").value_or("");
    std::string flat = name;
    if (!trimmed(parentName).empty()) {
      auto parent = flatName(parentName, "");
      if (!parent) return refused("Parent folder not found.");
      if (*parent != kTopLevel) flat = *parent + std::string(kNestedSeparator) + name;
    }
    if (folders.contains(flat)) return refused("You already have a folder with that name.");
    folders[flat];
    return ok();
  }

  Answer renameFolder(const Query& query) {
    const auto name = parameter(query, "folder_to_rename").value_or("");
    const auto newName = parameter(query, "new_folder_name").value_or("");
    auto flat = flatName(name, parameter(query, "in_folder").value_or(""));
    if (!flat || *flat == kTopLevel || trimmed(newName).empty()) return refused("Folder not found.");
    const std::string renamed = flat->substr(0, flat->size() - leafOf(*flat).size()) + newName;
    std::map<std::string, std::vector<std::int64_t>> result;
    for (auto& [key, ids] : folders) {
      if (key == *flat) {
        result[renamed] = std::move(ids);
      } else if (key.starts_with(*flat + std::string(kNestedSeparator))) {
        result[renamed + key.substr(flat->size())] = std::move(ids);
      } else {
        result[key] = std::move(ids);
      }
    }
    folders = std::move(result);
    return ok();
  }

  Answer deleteFolderCall(const Query& query) {
    auto flat = flatName(parameter(query, "folder_to_delete").value_or(""),
                         parameter(query, "in_folder").value_or(""));
    if (!flat || *flat == kTopLevel) return refused("Folder not found.");
    for (auto folder = folders.begin(); folder != folders.end();) {
      const bool inside =
          folder->first == *flat || folder->first.starts_with(*flat + std::string(kNestedSeparator));
      folder = inside ? folders.erase(folder) : std::next(folder);
    }
    dropUnfiledFeeds();
    return ok();
  }

  Answer login(const Query& query, std::string& session) {
    if (parameter(query, "username") != username || parameter(query, "password").value_or("") != password) {
      return jsonAnswer(
          200, Json{{"authenticated", false},
                    {"code", -1},
                    {"result", "ok"},
                    {"errors", {{"__all__", Json::array({"Whoopsy-daisy, wrong password. Try again."})}}}});
    }
    session =
        fmt::format("{:08x}{:024x}", 0x5e551011u + sessionCount, 0xc0ffee00d15ea5e + sessionCount * 7919);
    ++sessionCount;
    sessions.insert(session);
    issued.push_back(session);
    Answer answer = jsonAnswer(200, Json{{"authenticated", true},
                                         {"code", 1},
                                         {"user_id", kUserId},
                                         {"errors", nullptr},
                                         {"result", "ok"}});
    answer.headers.emplace_back("Set-Cookie",
                                fmt::format("{}={}; Path=/; HttpOnly", kSessionCookie, session));
    return answer;
  }

  static bool isWrite(std::string_view path) {
    return path.starts_with("/reader/mark_") || path == "/reader/add_url" || path == "/reader/delete_feed" ||
           path == "/reader/move_feed_to_folder" || path == "/reader/add_folder" ||
           path == "/reader/rename_folder" || path == "/reader/delete_folder";
  }

  Answer dispatch(const std::string& method, std::string_view path, const Query& query, bool authenticated,
                  std::string& newSession) {
    if (path == "/api/login") {
      if (method != "POST")
        return jsonAnswer(200, Json{{"authenticated", false},
                                    {"code", -1},
                                    {"errors", {{"method", "Invalid method. Use POST. You used GET"}}}});
      return login(query, newSession);
    }
    if (path == "/api/logout") return ok();
    if (isWrite(path)) {
      if (!authenticated) return {403, "", "", {}};
      if (method != "POST") return refused("Invalid method. Use POST.");
      if (path == "/reader/mark_story_as_read") return markByIds(query, "read");
      if (path == "/reader/mark_story_as_unread") return markByIds(query, "unread");
      if (path == "/reader/mark_story_as_starred") return markByIds(query, "starred");
      if (path == "/reader/mark_story_as_unstarred") return markByIds(query, "unstarred");
      if (path == "/reader/mark_story_hashes_as_read") return markByHashes(query, "read");
      if (path == "/reader/mark_story_hash_as_unread") return markByHashes(query, "unread");
      if (path == "/reader/mark_story_hash_as_starred") return markByHashes(query, "starred");
      if (path == "/reader/mark_story_hash_as_unstarred") return markByHashes(query, "unstarred");
      if (path == "/reader/add_url") return addUrl(query);
      if (path == "/reader/delete_feed") return deleteFeed(query);
      if (path == "/reader/move_feed_to_folder") return moveFeed(query);
      if (path == "/reader/add_folder") return addFolderCall(query);
      if (path == "/reader/rename_folder") return renameFolder(query);
      if (path == "/reader/delete_folder") return deleteFolderCall(query);
      return {404, "", "", {}};
    }
    if (path == "/reader/feeds") return readerFeeds(query, authenticated);
    // Reads without a session do not fail: they say so, and show nothing of the person's.
    if (!authenticated) {
      return jsonAnswer(
          200, Json{{"result", "ok"}, {"authenticated", false}, {"user_id", 0}, {"stories", Json::array()}});
    }
    if (path == "/reader/refresh_feeds") return refreshFeeds();
    if (path == "/reader/unread_story_hashes") return unreadHashes();
    if (path == "/reader/starred_story_hashes") return starredHashes();
    if (path == "/reader/river_stories") {
      return query.contains("h") || query.contains("h[]") ? storiesByHash(query, false) : riverPage(query);
    }
    if (path == "/reader/starred_stories") return storiesByHash(query, true);
    return {404, "<html><body>Not found</body></html>", "text/html", {}};
  }

  Answer faultAnswer(NewsBlurFault fault, std::string_view path) const {
    switch (fault) {
      case NewsBlurFault::kServerError:
        return {500, "<html><body>Server Error</body></html>", "text/html", {}};
      case NewsBlurFault::kRefused:
        return refused("Something went wrong");
      case NewsBlurFault::kWrongShape:
        if (path == "/reader/feeds")
          return ok({{"flat_folders", Json::array({"Tech"})}, {"feeds", Json::array()}});
        if (path == "/reader/unread_story_hashes") return ok({{"unread_feed_story_hashes", Json::array()}});
        if (path == "/reader/starred_story_hashes") return ok({{"starred_story_hashes", Json::object()}});
        return ok({{"stories", Json{{"story_hash", "1:000000"}}}});
      case NewsBlurFault::kNotJson:
        return {200, "<html><body>Maintenance</body></html>", "text/html", {}};
      case NewsBlurFault::kDropConnection:
        break;
    }
    return {500, "", "", {}};
  }

  std::optional<NewsBlurFault> takeFault(std::string_view path) {
    for (auto item = faults.begin(); item != faults.end(); ++item) {
      if ((item->path.empty() || item->path == path) && --item->remaining <= 0) {
        auto fault = item->fault;
        faults.erase(item);
        return fault;
      }
    }
    return std::nullopt;
  }

  const std::string username;
  mutable std::mutex mutex;  // guards every member below
  std::string password;
  int pageSize = 12;
  std::uint64_t sessionCount = 0;
  std::set<std::string> sessions;
  std::vector<std::string> issued;
  std::int64_t nextFeedId = kFirstFeedId;
  std::uint32_t nextStory = 1;
  std::map<std::int64_t, NewsBlurFeed> feeds;
  std::map<std::string, std::vector<std::int64_t>> folders;  // flat name -> feed ids
  std::map<std::string, NewsBlurFeed> discoverable;          // by urlKey of the address
  std::map<std::string, NewsBlurStory> stories;              // by hash
  std::vector<NewsBlurRequest> requests;
  std::vector<ArmedFault> faults;
  std::set<std::string> expireOn;  // paths whose next request ends every session first
};

NewsBlurMockServer::NewsBlurMockServer(std::string username, std::string password, int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>(std::move(username), std::move(password))) {
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    route(request, response);
  };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  state_->folders[std::string(kTopLevel)];
  port_ = listenOnLoopback(*server_, port, thread_);
}

NewsBlurMockServer::~NewsBlurMockServer() {
  server_->stop();
  thread_.join();
}

std::string NewsBlurMockServer::baseURL() const { return fmt::format("http://127.0.0.1:{}/", port_); }

void NewsBlurMockServer::setPassword(std::string password) {
  std::lock_guard lock(state_->mutex);
  state_->password = std::move(password);
}

void NewsBlurMockServer::expireSessions() {
  std::lock_guard lock(state_->mutex);
  state_->sessions.clear();
}

void NewsBlurMockServer::expireSessionsOn(const std::string& path) {
  std::lock_guard lock(state_->mutex);
  state_->expireOn.insert(path);
}

std::vector<std::string> NewsBlurMockServer::sessionIds() const {
  std::lock_guard lock(state_->mutex);
  return state_->issued;
}

void NewsBlurMockServer::setRiverPageSize(int size) {
  std::lock_guard lock(state_->mutex);
  state_->pageSize = std::max(size, 1);
}

NewsBlurFeed NewsBlurMockServer::addFeed(NewsBlurFeed feed, const std::string& folder) {
  std::lock_guard lock(state_->mutex);
  return state_->subscribe(std::move(feed), folder);
}

void NewsBlurMockServer::removeFeed(std::int64_t feedId) {
  std::lock_guard lock(state_->mutex);
  for (auto& [name, ids] : state_->folders) ids.erase(std::remove(ids.begin(), ids.end(), feedId), ids.end());
  state_->feeds.erase(feedId);
}

void NewsBlurMockServer::addDiscoverableFeed(NewsBlurFeed feed) {
  std::lock_guard lock(state_->mutex);
  if (feed.id == 0) feed.id = state_->nextFeedId;
  state_->nextFeedId = std::max(state_->nextFeedId, feed.id + 1);
  state_->discoverable[urlKey(feed.address)] = std::move(feed);
}

void NewsBlurMockServer::addFolder(const std::string& flatName) {
  std::lock_guard lock(state_->mutex);
  state_->folders[flatName];
}

void NewsBlurMockServer::removeFolder(const std::string& flatName) {
  std::lock_guard lock(state_->mutex);
  state_->folders.erase(flatName);
}

NewsBlurStory NewsBlurMockServer::addStory(NewsBlurStory story) {
  std::lock_guard lock(state_->mutex);
  return state_->addStory(std::move(story));
}

void NewsBlurMockServer::setRead(const std::string& hash, bool read) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->stories.find(hash); found != state_->stories.end()) found->second.read = read;
}

void NewsBlurMockServer::setStarred(const std::string& hash, bool starred) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->stories.find(hash); found != state_->stories.end())
    found->second.starred = starred;
}

std::map<std::string, std::vector<std::int64_t>> NewsBlurMockServer::flatFolders() const {
  std::lock_guard lock(state_->mutex);
  return state_->folders;
}

std::set<std::int64_t> NewsBlurMockServer::feedIds() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::int64_t> ids;
  for (const auto& [id, feed] : state_->feeds) ids.insert(id);
  return ids;
}

std::set<std::string> NewsBlurMockServer::unreadHashes() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::string> hashes;
  for (const auto& [hash, story] : state_->stories) {
    if (!story.read) hashes.insert(hash);
  }
  return hashes;
}

std::set<std::string> NewsBlurMockServer::starredHashes() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::string> hashes;
  for (const auto& [hash, story] : state_->stories) {
    if (story.starred) hashes.insert(hash);
  }
  return hashes;
}

void NewsBlurMockServer::seed(int feeds, int storiesPerFeed, int unread, int starredEvery) {
  std::lock_guard lock(state_->mutex);
  auto& state = *state_;
  std::vector<std::int64_t> ids;
  for (int index = 1; index <= feeds; ++index) {
    NewsBlurFeed feed;
    feed.title = fmt::format("Feed {}", index);
    feed.address = fmt::format("https://feed{}.example.com/feed.xml", index);
    feed.link = fmt::format("https://feed{}.example.com/", index);
    std::string folder(kTopLevel);
    if (feeds >= 3 && index == feeds) {
      folder = "Tech - Apple";
      state.folders["Tech"];
    } else if (index <= feeds / 2) {
      folder = "Tech";
    }
    ids.push_back(state.subscribe(std::move(feed), folder).id);
  }
  if (ids.empty() || storiesPerFeed <= 0) return;
  const auto total = static_cast<std::int64_t>(feeds) * storiesPerFeed;
  const auto now = nowSeconds();
  for (std::int64_t age = total - 1; age >= 0; --age) {
    const auto index = total - 1 - age;  // 0 the oldest
    const auto feedIndex = static_cast<size_t>(age % feeds);
    NewsBlurStory story;
    story.feedId = ids[feedIndex];
    story.title = fmt::format("Story {} of feed {}", age / feeds + 1, feedIndex + 1);
    story.authors = fmt::format("Author {}", feedIndex + 1);
    story.id = fmt::format("https://feed{}.example.com/?p={}", feedIndex + 1, index);
    story.permalink = story.id;
    story.content = fmt::format("<p>Body of story {}.</p>", index);
    story.timestamp = now - age * 60;
    story.read = age >= unread;
    story.starred = starredEvery > 0 && (index + 1) % starredEvery == 0;
    state.addStory(std::move(story));
  }
}

std::vector<NewsBlurRequest> NewsBlurMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<NewsBlurRequest> NewsBlurMockServer::requests(const std::string& path) const {
  std::lock_guard lock(state_->mutex);
  std::vector<NewsBlurRequest> matching;
  for (const auto& request : state_->requests) {
    if (request.path == path) matching.push_back(request);
  }
  return matching;
}

void NewsBlurMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

void NewsBlurMockServer::injectFault(const std::string& path, NewsBlurFault fault, int occurrence) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back({path, fault, std::max(occurrence, 1)});
}

void NewsBlurMockServer::route(const httplib::Request& request, httplib::Response& response) {
  const auto question = request.target.find('?');
  const std::string_view rawQuery = question == std::string::npos
                                        ? std::string_view()
                                        : std::string_view(request.target).substr(question + 1);
  NewsBlurRequest recorded{request.method,
                           request.path,
                           parseQuery(rawQuery),
                           request.get_header_value("Accept"),
                           request.get_header_value("Cookie"),
                           false,
                           0};
  const std::string contentType = request.get_header_value("Content-Type");
  if (equalsIgnoringCase(trimmed(std::string_view(contentType).substr(0, contentType.find(';'))),
                         "application/x-www-form-urlencoded")) {
    for (auto& [key, value] : parseQuery(request.body)) recorded.parameters.emplace(key, value);
  }
  // The session cookie among the "; "-separated cookies.
  std::string session;
  for (std::string_view cookies = recorded.cookie; !cookies.empty();) {
    const auto end = cookies.find(';');
    const auto part = trimmed(cookies.substr(0, end));
    cookies.remove_prefix(end == std::string_view::npos ? cookies.size() : end + 1);
    const auto equals = part.find('=');
    if (equals != std::string_view::npos && part.substr(0, equals) == kSessionCookie)
      session = std::string(part.substr(equals + 1));
  }

  std::lock_guard lock(state_->mutex);
  if (state_->expireOn.erase(request.path) > 0) state_->sessions.clear();
  recorded.authenticated = !session.empty() && state_->sessions.contains(session);
  const auto fault = state_->takeFault(request.path);
  Answer answer;
  std::string newSession;
  if (fault == NewsBlurFault::kDropConnection) {
    answer.status = 0;  // recorded as no answer
  } else if (fault) {
    answer = state_->faultAnswer(*fault, request.path);
  } else {
    answer = state_->dispatch(request.method, request.path, recorded.parameters, recorded.authenticated,
                              newSession);
    if (request.path == "/api/logout") state_->sessions.erase(session);
  }
  // Recorded before the answer leaves, so a test that has its answer sees the request.
  recorded.status = answer.status;
  state_->requests.push_back(std::move(recorded));

  if (fault == NewsBlurFault::kDropConnection) {
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
