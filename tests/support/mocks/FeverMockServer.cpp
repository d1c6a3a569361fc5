// A server speaking the Fever API on loopback; only the wire protocol.
#include "mocks/FeverMockServer.h"

#include <fmt/format.h>
#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>

namespace lectern::mock {
namespace {

struct StoredItem {
  FeverItem item;
  bool read = false;
  bool saved = false;
};

std::string joined(const std::set<std::int64_t>& ids) {
  std::string text;
  for (auto id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  return text;
}

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

struct FeverMockServer::State {
  std::string apiKey;
  FeverFlavour flavour;
  mutable std::mutex mutex;  // guards every member below
  std::map<std::int64_t, FeverGroup> groups;
  std::map<std::int64_t, FeverFeed> feeds;
  std::map<std::int64_t, std::set<std::int64_t>> groupsOfFeed;
  std::map<std::int64_t, StoredItem> items;
  std::vector<RecordedRequest> requests;
  struct Armed {
    std::string word;
    Fault fault;
    int remaining;
  };
  std::vector<Armed> faults;

  bool textIds() const { return flavour == FeverFlavour::kTextIds; }
  Json id(std::int64_t value) const { return textIds() ? Json(std::to_string(value)) : Json(value); }
  Json flag(bool value) const { return textIds() ? Json(value ? "1" : "0") : Json(value ? 1 : 0); }

  Json base(bool authorized) const {
    Json answer{{"api_version", 3}, {"auth", authorized ? 1 : 0}};
    if (authorized) {
      answer["last_refreshed_on_time"] = textIds() ? Json(std::to_string(nowSeconds())) : Json(nowSeconds());
    }
    return answer;
  }

  Json feedsGroups() const {
    std::map<std::int64_t, std::set<std::int64_t>> feedsOfGroup;
    for (const auto& [feed, groupIds] : groupsOfFeed) {
      for (auto group : groupIds) feedsOfGroup[group].insert(feed);
    }
    Json list = Json::array();
    for (const auto& [group, feedIds] : feedsOfGroup)
      list.push_back({{"group_id", group}, {"feed_ids", joined(feedIds)}});
    return list;
  }

  Json itemJson(const StoredItem& stored) const {
    const auto& item = stored.item;
    return {{"id", id(item.id)},
            {"feed_id", item.feedId},
            {"title", item.title},
            {"author", item.author},
            {"html", item.html},
            {"url", item.url},
            {"is_saved", flag(stored.saved)},
            {"is_read", flag(stored.read)},
            {"created_on_time", item.createdOnTime}};
  }

  // Answers the query of one authorized read or write.
  Json answer(const Query& query, const Query& form) {
    Json result = base(true);
    auto has = [&](const char* word) { return query.contains(word); };
    if (form.contains("mark")) mark(form);
    if (has("groups")) {
      Json list = Json::array();
      for (const auto& [id, group] : groups) list.push_back({{"id", id}, {"title", group.title}});
      result["groups"] = list;
      result["feeds_groups"] = feedsGroups();
    }
    if (has("feeds")) {
      Json list = Json::array();
      for (const auto& [id, feed] : feeds) {
        list.push_back({{"id", id},
                        {"favicon_id", id},
                        {"title", feed.title},
                        {"url", feed.url},
                        {"site_url", feed.siteUrl ? Json(*feed.siteUrl) : Json(nullptr)},
                        {"is_spark", feed.isSpark ? 1 : 0},
                        {"last_updated_on_time", feed.lastUpdatedOnTime}});
      }
      result["feeds"] = list;
      result["feeds_groups"] = feedsGroups();
    }
    if (has("items")) result["items"] = itemPage(query);
    if (has("unread_item_ids") || has("saved_item_ids")) {
      std::set<std::int64_t> unread, saved;
      for (const auto& [id, stored] : items) {
        if (!stored.read) unread.insert(id);
        if (stored.saved) saved.insert(id);
      }
      if (has("unread_item_ids")) result["unread_item_ids"] = joined(unread);
      if (has("saved_item_ids")) result["saved_item_ids"] = joined(saved);
    }
    return result;
  }

  Json itemPage(const Query& query) const {
    Json page = Json::array();
    if (auto withIds = query.find("with_ids"); withIds != query.end()) {
      for (const auto& piece : splitIds(withIds->second)) {
        if (auto found = items.find(piece); found != items.end()) page.push_back(itemJson(found->second));
      }
      return page;
    }
    const auto sinceValue = query.find("since_id");
    const std::int64_t since = sinceValue == query.end() ? 0 : parseInteger(sinceValue->second).value_or(0);
    for (auto it = items.upper_bound(since); it != items.end() && page.size() < 50; ++it) {
      page.push_back(itemJson(it->second));
    }
    // This flavour leaves the first page unordered: its last item is not its largest.
    if (since == 0 && flavour == FeverFlavour::kNumbersAndToggledStars && page.size() > 1) {
      std::swap(page[0], page[page.size() - 1]);
    }
    return page;
  }

  static std::vector<std::int64_t> splitIds(const std::string& text) {
    std::vector<std::int64_t> ids;
    size_t start = 0;
    while (start <= text.size()) {
      auto end = text.find(',', start);
      if (end == std::string::npos) end = text.size();
      if (auto id = parseInteger(trimmed(std::string_view(text).substr(start, end - start))))
        ids.push_back(*id);
      start = end + 1;
    }
    return ids;
  }

  void mark(const Query& form) {
    auto value = [&](const char* key) {
      auto found = form.find(key);
      return found == form.end() ? std::string() : found->second;
    };
    if (value("mark") != "item") return;
    auto found = items.find(parseInteger(value("id")).value_or(-1));
    if (found == items.end()) return;  // unknown ids are no error
    const std::string as = value("as");
    if (as == "read") found->second.read = true;
    if (as == "unread") found->second.read = false;
    if (as == "saved" || as == "unsaved") {
      // One flavour toggles whatever it is asked.
      found->second.saved =
          flavour == FeverFlavour::kNumbersAndToggledStars ? !found->second.saved : as == "saved";
    }
  }

  std::optional<Fault> takeFault(const Query& query, const Query& form) {
    for (auto it = faults.begin(); it != faults.end(); ++it) {
      const bool matches =
          it->word.empty() || query.contains(it->word) || (it->word == "mark" && form.contains("mark"));
      if (matches && --it->remaining <= 0) {
        const Fault fault = it->fault;
        faults.erase(it);
        return fault;
      }
    }
    return std::nullopt;
  }
};

FeverMockServer::FeverMockServer(std::string username, std::string password, FeverFlavour flavour,
                                 std::string path, int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>()),
      path_(std::move(path)) {
  state_->flavour = flavour;
  // The key a client sends: the MD5 of "username:password" in lowercase hexadecimal.
  state_->apiKey = md5Hex(username + ":" + password);
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    route(request, response);
  };
  server_->Get(path_, handler);
  server_->Post(path_, handler);
  port_ = listenOnLoopback(*server_, port, thread_);
}

FeverMockServer::~FeverMockServer() {
  server_->stop();
  thread_.join();
}

std::string FeverMockServer::endpoint() const { return fmt::format("http://127.0.0.1:{}{}", port_, path_); }

void FeverMockServer::addGroup(FeverGroup group) {
  std::lock_guard lock(state_->mutex);
  state_->groups[group.id] = std::move(group);
}

void FeverMockServer::addFeed(FeverFeed feed, const std::vector<std::int64_t>& groupIds) {
  std::lock_guard lock(state_->mutex);
  state_->groupsOfFeed[feed.id] = std::set<std::int64_t>(groupIds.begin(), groupIds.end());
  state_->feeds[feed.id] = std::move(feed);
}

void FeverMockServer::removeFeed(std::int64_t feedId) {
  std::lock_guard lock(state_->mutex);
  state_->feeds.erase(feedId);
  state_->groupsOfFeed.erase(feedId);
}

void FeverMockServer::addItem(FeverItem item, bool read, bool saved) {
  std::lock_guard lock(state_->mutex);
  const auto id = item.id;
  state_->items[id] = StoredItem{std::move(item), read, saved};
}

void FeverMockServer::setRead(std::int64_t itemId, bool read) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->items.find(itemId); found != state_->items.end()) found->second.read = read;
}

void FeverMockServer::setSaved(std::int64_t itemId, bool saved) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->items.find(itemId); found != state_->items.end()) found->second.saved = saved;
}

std::set<std::int64_t> FeverMockServer::unreadItemIds() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::int64_t> ids;
  for (const auto& [id, stored] : state_->items) {
    if (!stored.read) ids.insert(id);
  }
  return ids;
}

std::set<std::int64_t> FeverMockServer::savedItemIds() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::int64_t> ids;
  for (const auto& [id, stored] : state_->items) {
    if (stored.saved) ids.insert(id);
  }
  return ids;
}

void FeverMockServer::seed(int feeds, int itemsPerFeed, int unread, int savedEvery) {
  const std::int64_t now = nowSeconds();
  std::lock_guard lock(state_->mutex);
  for (int f = 0; f < feeds; ++f) {
    const std::int64_t feedId = 100 + f;
    const std::int64_t groupId = 1 + f / 10;
    state_->groups[groupId] = FeverGroup{groupId, fmt::format("Group {}", groupId)};
    state_->feeds[feedId] = FeverFeed{feedId,
                                      fmt::format("Feed {}", f),
                                      fmt::format("https://feed{}.example/rss", f),
                                      fmt::format("https://feed{}.example/", f),
                                      false,
                                      now};
    state_->groupsOfFeed[feedId] = {groupId};
  }
  const int total = feeds * itemsPerFeed;
  for (int n = 0; n < total; ++n) {
    const std::int64_t id = 1'000 + n;
    const std::int64_t feedId = 100 + n % std::max(feeds, 1);
    // The largest ids are the newest.
    FeverItem item{id,
                   feedId,
                   fmt::format("Item {}", id),
                   "Someone",
                   fmt::format("<p>Item {} of feed {}, long enough to look like a story.</p>", id, feedId),
                   fmt::format("https://feed{}.example/{}", feedId - 100, id),
                   now - 60 * (total - n)};
    const bool saved = savedEvery > 0 && n % savedEvery == 0;
    state_->items[id] = StoredItem{std::move(item), n < total - unread, saved};
  }
}

std::vector<RecordedRequest> FeverMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<RecordedRequest> FeverMockServer::requests(const std::string& word) const {
  std::vector<RecordedRequest> found;
  for (auto& request : requests()) {
    const bool marks = word == "mark" && request.body.find("mark=") != std::string::npos;
    if (request.query.contains(word) || marks) found.push_back(std::move(request));
  }
  return found;
}

void FeverMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

void FeverMockServer::injectFault(const std::string& word, Fault fault, int occurrence) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back({word, fault, occurrence});
}

void FeverMockServer::route(const httplib::Request& request, httplib::Response& response) {
  auto question = request.target.find('?');
  const std::string_view rawQuery = question == std::string::npos
                                        ? std::string_view()
                                        : std::string_view(request.target).substr(question + 1);
  const Query query = parseQuery(rawQuery);
  const Query form = request.get_header_value("Content-Type").starts_with("application/x-www-form-urlencoded")
                         ? parseQuery(request.body)
                         : Query{};
  RecordedRequest recorded{request.method,
                           request.path,
                           query,
                           request.body,
                           request.get_header_value("Content-Type"),
                           request.get_header_value("Authorization"),
                           request.get_header_value("Accept"),
                           0};
  Answer answer;
  std::optional<Fault> fault;
  {
    std::unique_lock lock(state_->mutex);
    fault = state_->takeFault(query, form);
    if (fault == Fault::kSlow) {
      // Answered in full, late; other requests go on meanwhile.
      lock.unlock();
      std::this_thread::sleep_for(std::chrono::seconds(2));
      lock.lock();
      fault.reset();
    }
    auto key = form.find("api_key");
    const bool authorized = key != form.end() && key->second == state_->apiKey;
    if (fault == Fault::kServerError) {
      answer = jsonAnswer(500, Json{{"error_message", "internal error"}});
    } else if (fault == Fault::kNotJson) {
      answer = {200, "<html><body>Maintenance</body></html>", "text/html", {}};
    } else if (fault == Fault::kWrongShape) {
      answer = jsonAnswer(200, Json::array({1, 2, 3}));
    } else if (!fault) {
      // A wrong key is answered 200 with "auth": 0: only the answer says it.
      answer = jsonAnswer(200, authorized ? state_->answer(query, form) : state_->base(false));
    }
    recorded.status = fault == Fault::kDropConnection ? 0 : answer.status;
    state_->requests.push_back(std::move(recorded));
  }
  if (fault == Fault::kDropConnection) {
    // A promised body that never comes: the client sees a truncated transfer.
    response.status = 200;
    response.set_content_provider(64, std::string(kJsonType),
                                  [](size_t, size_t, httplib::DataSink&) { return false; });
    return;
  }
  response.status = answer.status;
  response.set_content(answer.body, answer.contentType);
}

}  // namespace lectern::mock
