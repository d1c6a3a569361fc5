// A stateful stand-in for the Feed Wrangler API v2 on loopback; speaks only the wire protocol.
#include "mocks/FeedWranglerMockServer.h"

#include <fmt/format.h>
#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "mocks/MockWire.h"

namespace lectern::mock {
namespace {

constexpr std::string_view kApiPrefix = "/api/v2/";
constexpr std::int64_t kFirstFeedId = 2'001;
constexpr std::int64_t kFirstItemId = 9'911'201;
constexpr std::int64_t kFirstStreamId = 71;
// The most a page holds, whatever the client asks: item lists and id lists.
constexpr std::int64_t kMaxItemsPerPage = 100;
constexpr std::int64_t kMaxIdsPerPage = 1000;

Answer success(Json fields = Json::object()) {
  Json answer = {{"result", "success"}, {"error", nullptr}};
  for (auto& [key, value] : fields.items()) answer[key] = std::move(value);
  return jsonAnswer(200, answer);
}

// The service reports its failures in the body, with HTTP 200.
Answer failure(std::string_view message, int status = 200) {
  return jsonAnswer(status, Json{{"result", "error"}, {"error", message}});
}

Json optionalText(const std::optional<std::string>& value) { return value ? Json(*value) : Json(nullptr); }

Json feedJson(const FeedWranglerFeed& feed) {
  return {{"feed_id", feed.feedId},
          {"title", feed.title},
          {"feed_url", feed.feedUrl},
          {"site_url", optionalText(feed.siteUrl)}};
}

std::optional<std::string> parameter(const Query& query, const std::string& name) {
  auto found = query.find(name);
  if (found == query.end()) return std::nullopt;
  return found->second;
}

// "true" or "false", as the service writes its flags in parameters.
std::optional<bool> flagParameter(const Query& query, const std::string& name) {
  auto text = parameter(query, name);
  if (!text) return std::nullopt;
  if (equalsIgnoringCase(trimmed(*text), "true")) return true;
  if (equalsIgnoringCase(trimmed(*text), "false")) return false;
  return std::nullopt;
}

bool containsIgnoringCase(std::string_view text, std::string_view term) {
  if (term.empty()) return true;
  return std::search(text.begin(), text.end(), term.begin(), term.end(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
         }) != text.end();
}

// "1,2,3"; nothing when a part is no number.
std::optional<std::vector<std::int64_t>> idList(std::string_view text) {
  std::vector<std::int64_t> ids;
  for (text = trimmed(text); !text.empty();) {
    const auto comma = text.find(',');
    auto id = parseInteger(text.substr(0, comma));
    if (!id) return std::nullopt;
    ids.push_back(*id);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
  }
  return ids;
}

struct ArmedFault {
  std::string resource;
  FeedWranglerFault fault = FeedWranglerFault::kServerError;
  int remaining = 1;
};

// The key under which a resource answers its list (or its object).
std::string_view answerKey(std::string_view resource) {
  if (resource == "subscriptions/list") return "feeds";
  if (resource == "streams/list") return "streams";
  if (resource.starts_with("feed_items/") || resource.starts_with("streams/")) return "feed_items";
  return "feed";
}

Answer faultAnswer(FeedWranglerFault fault, std::string_view resource) {
  switch (fault) {
    case FeedWranglerFault::kServerError:
      return failure("Internal Server Error", 500);
    case FeedWranglerFault::kResultError:
      return failure("Something went wrong");
    case FeedWranglerFault::kWrongShape:
      return success(
          Json{{std::string(answerKey(resource)), Json{{"feed_item_id", 1}, {"title", "Not a list"}}}});
    case FeedWranglerFault::kNotJson:
      return {200, "<html><body>Maintenance</body></html>", "text/html", {}};
    case FeedWranglerFault::kDropConnection:
      break;
  }
  return failure("Internal Server Error", 500);
}

}  // namespace

std::string FeedWranglerRequest::parameter(const std::string& name) const {
  auto found = parameters.find(name);
  return found == parameters.end() ? std::string() : found->second;
}

// What one Feed Wrangler user has, and what the server answers. Every member is guarded by mutex.
struct FeedWranglerMockServer::State {
  State(std::string address, std::string secret, std::string key)
      : email(std::move(address)), password(std::move(secret)), clientKey(std::move(key)) {}

  std::string token() const { return fmt::format("{:016x}", 0x7c3b1a92e0f54d00 + tokenGeneration); }

  std::int64_t feedIdFor(const std::string& feedUrl) {
    auto [found, added] = feedIds.try_emplace(urlKey(feedUrl), nextFeedId);
    if (added) ++nextFeedId;
    return found->second;
  }

  FeedWranglerFeed& subscribe(FeedWranglerFeed feed) {
    if (feed.feedId == 0) {
      feed.feedId = feedIdFor(feed.feedUrl);
    } else {
      feedIds.try_emplace(urlKey(feed.feedUrl), feed.feedId);
      nextFeedId = std::max(nextFeedId, feed.feedId + 1);
    }
    // A feed once followed can be subscribed to again by its address.
    discoverable.try_emplace(urlKey(feed.feedUrl), feed);
    return subscriptions[feed.feedId] = std::move(feed);
  }

  FeedWranglerItem& addItem(FeedWranglerItem item) {
    if (item.id == 0) item.id = nextItemId;
    nextItemId = std::max(nextItemId, item.id + 1);
    if (item.createdAt == 0) item.createdAt = item.publishedAt;
    return items[item.id] = std::move(item);
  }

  // Items of subscribed feeds only, newest first.
  std::vector<const FeedWranglerItem*> visibleItems() const {
    std::vector<const FeedWranglerItem*> visible;
    for (const auto& [id, item] : items) {
      if (subscriptions.contains(item.feedId)) visible.push_back(&item);
    }
    std::sort(visible.begin(), visible.end(), [](const auto* a, const auto* b) {
      return std::pair(a->publishedAt, a->id) > std::pair(b->publishedAt, b->id);
    });
    return visible;
  }

  Json itemJson(const FeedWranglerItem& item) const {
    auto feed = subscriptions.find(item.feedId);
    return {{"feed_item_id", item.id},
            {"feed_id", item.feedId},
            {"feed_name", feed == subscriptions.end() ? Json(nullptr) : Json(feed->second.title)},
            {"title", item.title},
            {"url", item.url},
            {"author", optionalText(item.author)},
            {"body", item.body},
            {"published_at", item.publishedAt},
            {"created_at", item.createdAt},
            {"updated_at", item.createdAt},
            {"version_key", item.createdAt},
            {"read", item.read},
            {"starred", item.starred},
            {"read_later", false}};
  }

  // ---- calls ----

  Answer authorize(const Query& query) const {
    if (parameter(query, "client_key") != clientKey) return failure("Invalid client key");
    if (parameter(query, "email") != email || parameter(query, "password") != password) {
      return failure("Invalid email or password");
    }
    return success({{"access_token", token()}});
  }

  Answer listSubscriptions() const {
    Json feeds = Json::array();
    for (const auto& [id, feed] : subscriptions) feeds.push_back(feedJson(feed));
    return success({{"feeds", feeds}});
  }

  Answer addFeed(const Query& query) {
    auto address = parameter(query, "feed_url");
    if (!address || trimmed(*address).empty()) return failure("feed_url is required");
    const auto key = urlKey(*address);
    const FeedWranglerFeed* found = nullptr;
    for (const auto& [feedKey, feed] : discoverable) {
      if (feedKey == key || (feed.siteUrl && urlKey(*feed.siteUrl) == key)) found = &feed;
    }
    if (found == nullptr) return failure("Could not find a feed at that address");
    const auto feedId = feedIdFor(found->feedUrl);
    if (auto subscribed = subscriptions.find(feedId); subscribed != subscriptions.end()) {
      return success({{"feed", feedJson(subscribed->second)}});
    }
    FeedWranglerFeed feed = *found;
    feed.feedId = feedId;
    return success({{"feed", feedJson(subscribe(std::move(feed)))}});
  }

  Answer removeFeed(const Query& query) {
    auto feedId = parseInteger(parameter(query, "feed_id").value_or(""));
    if (!feedId || subscriptions.erase(*feedId) == 0) return failure("Feed not found");
    return success();
  }

  // read, starred and feed_id filter; limit and offset page.
  Answer listItems(const Query& query, bool idsOnly) const {
    const std::int64_t maxLimit = idsOnly ? kMaxIdsPerPage : kMaxItemsPerPage;
    auto limit = parseInteger(parameter(query, "limit").value_or(std::to_string(maxLimit)));
    auto offset = parseInteger(parameter(query, "offset").value_or("0"));
    if (!limit || !offset || *limit < 0 || *offset < 0) return failure("Invalid limit or offset");
    const auto read = flagParameter(query, "read");
    const auto starred = flagParameter(query, "starred");
    std::optional<std::int64_t> feedId;
    if (auto text = parameter(query, "feed_id")) {
      feedId = parseInteger(*text);
      if (!feedId) return failure("Invalid feed_id");
    }
    std::vector<const FeedWranglerItem*> matching;
    for (const auto* item : visibleItems()) {
      if ((read && item->read != *read) || (starred && item->starred != *starred) ||
          (feedId && item->feedId != *feedId)) {
        continue;
      }
      matching.push_back(item);
    }
    Json list = Json::array();
    const auto first = std::min<std::int64_t>(*offset, static_cast<std::int64_t>(matching.size()));
    const auto last = std::min<std::int64_t>(first + std::min(*limit, maxLimit),
                                             static_cast<std::int64_t>(matching.size()));
    for (auto index = first; index < last; ++index) {
      const auto& item = *matching[static_cast<size_t>(index)];
      list.push_back(idsOnly ? Json{{"feed_item_id", item.id}, {"updated_at", item.createdAt}}
                             : itemJson(item));
    }
    return success({{"count", list.size()}, {"feed_items", list}});
  }

  Answer getItems(const Query& query) const {
    auto ids = idList(parameter(query, "feed_item_ids").value_or(""));
    if (!ids) return failure("Invalid feed_item_ids");
    Json list = Json::array();
    for (auto id : *ids) {
      if (auto found = items.find(id); found != items.end()) list.push_back(itemJson(found->second));
    }
    return success({{"count", list.size()}, {"feed_items", list}});
  }

  Answer updateItem(const Query& query) {
    auto id = parseInteger(parameter(query, "feed_item_id").value_or(""));
    auto found = id ? items.find(*id) : items.end();
    if (found == items.end()) return failure("Feed item not found");
    if (auto read = flagParameter(query, "read")) found->second.read = *read;
    if (auto starred = flagParameter(query, "starred")) found->second.starred = *starred;
    return success({{"feed_items", Json::array({itemJson(found->second)})}});
  }

  Answer markAllRead(const Query& query) {
    if (auto text = parameter(query, "feed_item_ids")) {
      auto ids = idList(*text);
      if (!ids) return failure("Invalid feed_item_ids");
      for (auto id : *ids) {
        if (auto found = items.find(id); found != items.end()) found->second.read = true;
      }
      return success();
    }
    auto feedId = parseInteger(parameter(query, "feed_id").value_or(""));
    auto before = parseInteger(parameter(query, "created_on_before").value_or(""));
    if (!feedId || !before) return failure("feed_item_ids or feed_id and created_on_before are required");
    for (auto& [id, item] : items) {
      if (item.feedId == *feedId && item.createdAt < *before) item.read = true;
    }
    return success();
  }

  Answer listStreams() const {
    Json list = Json::array();
    for (const auto& [id, stream] : streams) {
      Json feeds = Json::array();
      for (auto feedId : stream.feedIds) {
        auto feed = subscriptions.find(feedId);
        feeds.push_back(
            {{"feed_id", feedId}, {"title", feed == subscriptions.end() ? "" : feed->second.title}});
      }
      list.push_back({{"stream_id", stream.streamId},
                      {"title", stream.title},
                      {"search_term", optionalText(stream.searchTerm)},
                      {"only_unread", stream.onlyUnread},
                      {"all_feeds", stream.allFeeds},
                      {"feeds", feeds}});
    }
    return success({{"streams", list}});
  }

  Answer streamItemIds(const Query& query) const {
    auto id = parseInteger(parameter(query, "stream_id").value_or(""));
    auto found = id ? streams.find(*id) : streams.end();
    if (found == streams.end()) return failure("Stream not found");
    const auto& stream = found->second;
    Json list = Json::array();
    for (const auto* item : visibleItems()) {
      const bool inFeeds =
          stream.allFeeds || std::ranges::find(stream.feedIds, item->feedId) != stream.feedIds.end();
      const bool matches = !stream.searchTerm || containsIgnoringCase(item->title, *stream.searchTerm) ||
                           containsIgnoringCase(item->body, *stream.searchTerm);
      if (inFeeds && matches && !(stream.onlyUnread && item->read))
        list.push_back({{"feed_item_id", item->id}});
    }
    return success({{"count", list.size()}, {"feed_items", list}});
  }

  Answer dispatch(std::string_view resource, const Query& query) {
    if (auto format = parameter(query, "format"); format && *format != "json")
      return failure("Unsupported format");
    if (resource == "users/authorize") return authorize(query);
    if (parameter(query, "access_token") != token()) return failure("Invalid access token");
    if (resource == "subscriptions/list") return listSubscriptions();
    if (resource == "subscriptions/add_feed_and_wait") return addFeed(query);
    if (resource == "subscriptions/remove_feed") return removeFeed(query);
    if (resource == "feed_items/list") return listItems(query, /*idsOnly=*/false);
    if (resource == "feed_items/list_ids") return listItems(query, /*idsOnly=*/true);
    if (resource == "feed_items/get") return getItems(query);
    if (resource == "feed_items/update") return updateItem(query);
    if (resource == "feed_items/mark_all_read") return markAllRead(query);
    if (resource == "streams/list") return listStreams();
    if (resource == "streams/stream_item_ids") return streamItemIds(query);
    return failure("Not found", 404);
  }

  // The fault this request plays, if its turn has come.
  std::optional<FeedWranglerFault> takeFault(std::string_view resource) {
    for (auto item = faults.begin(); item != faults.end(); ++item) {
      if ((item->resource.empty() || item->resource == resource) && --item->remaining <= 0) {
        auto fault = item->fault;
        faults.erase(item);
        return fault;
      }
    }
    return std::nullopt;
  }

  const std::string email;
  const std::string password;
  const std::string clientKey;
  mutable std::mutex mutex;  // guards every member below
  std::int64_t tokenGeneration = 0;
  std::int64_t nextFeedId = kFirstFeedId;
  std::int64_t nextItemId = kFirstItemId;
  std::int64_t nextStreamId = kFirstStreamId;
  std::map<std::int64_t, FeedWranglerFeed> subscriptions;
  std::map<std::string, FeedWranglerFeed> discoverable;  // by urlKey of the feed address
  std::map<std::string, std::int64_t> feedIds;           // by urlKey of the feed address
  std::map<std::int64_t, FeedWranglerItem> items;
  std::map<std::int64_t, FeedWranglerStream> streams;
  std::vector<FeedWranglerRequest> requests;
  std::vector<ArmedFault> faults;
};

FeedWranglerMockServer::FeedWranglerMockServer(std::string email, std::string password, std::string clientKey,
                                               int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>(std::move(email), std::move(password), std::move(clientKey))) {
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    route(request, response);
  };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  port_ = listenOnLoopback(*server_, port, thread_);
}

FeedWranglerMockServer::~FeedWranglerMockServer() {
  server_->stop();
  thread_.join();
}

std::string FeedWranglerMockServer::baseURL() const { return fmt::format("http://127.0.0.1:{}/", port_); }

std::string FeedWranglerMockServer::accessToken() const {
  std::lock_guard lock(state_->mutex);
  return state_->token();
}

void FeedWranglerMockServer::revokeAccessTokens() {
  std::lock_guard lock(state_->mutex);
  ++state_->tokenGeneration;
}

FeedWranglerFeed FeedWranglerMockServer::addSubscription(FeedWranglerFeed feed) {
  std::lock_guard lock(state_->mutex);
  return state_->subscribe(std::move(feed));
}

void FeedWranglerMockServer::removeSubscription(std::int64_t feedId) {
  std::lock_guard lock(state_->mutex);
  state_->subscriptions.erase(feedId);
}

void FeedWranglerMockServer::addDiscoverableFeed(FeedWranglerFeed feed) {
  std::lock_guard lock(state_->mutex);
  auto key = urlKey(feed.feedUrl);
  if (feed.feedId != 0) {
    state_->feedIds.try_emplace(key, feed.feedId);
    state_->nextFeedId = std::max(state_->nextFeedId, feed.feedId + 1);
  }
  state_->discoverable[key] = std::move(feed);
}

FeedWranglerItem FeedWranglerMockServer::addItem(FeedWranglerItem item) {
  std::lock_guard lock(state_->mutex);
  return state_->addItem(std::move(item));
}

void FeedWranglerMockServer::setRead(std::int64_t itemId, bool read) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->items.find(itemId); found != state_->items.end()) found->second.read = read;
}

void FeedWranglerMockServer::setStarred(std::int64_t itemId, bool starred) {
  std::lock_guard lock(state_->mutex);
  if (auto found = state_->items.find(itemId); found != state_->items.end()) found->second.starred = starred;
}

FeedWranglerStream FeedWranglerMockServer::addStream(FeedWranglerStream stream) {
  std::lock_guard lock(state_->mutex);
  if (stream.streamId == 0) stream.streamId = state_->nextStreamId;
  state_->nextStreamId = std::max(state_->nextStreamId, stream.streamId + 1);
  return state_->streams[stream.streamId] = std::move(stream);
}

void FeedWranglerMockServer::removeStream(std::int64_t streamId) {
  std::lock_guard lock(state_->mutex);
  state_->streams.erase(streamId);
}

std::vector<FeedWranglerFeed> FeedWranglerMockServer::subscriptions() const {
  std::lock_guard lock(state_->mutex);
  std::vector<FeedWranglerFeed> list;
  for (const auto& [id, feed] : state_->subscriptions) list.push_back(feed);
  return list;
}

std::set<std::int64_t> FeedWranglerMockServer::unreadItemIds() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::int64_t> ids;
  for (const auto& [id, item] : state_->items) {
    if (!item.read) ids.insert(id);
  }
  return ids;
}

std::set<std::int64_t> FeedWranglerMockServer::starredItemIds() const {
  std::lock_guard lock(state_->mutex);
  std::set<std::int64_t> ids;
  for (const auto& [id, item] : state_->items) {
    if (item.starred) ids.insert(id);
  }
  return ids;
}

size_t FeedWranglerMockServer::itemCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->items.size();
}

void FeedWranglerMockServer::seed(int feeds, int itemsPerFeed, int unread, int starredEvery) {
  std::lock_guard lock(state_->mutex);
  auto& state = *state_;
  std::vector<std::int64_t> feedIds;
  for (int feed = 1; feed <= feeds; ++feed) {
    FeedWranglerFeed added;
    added.title = fmt::format("Feed {}", feed);
    added.feedUrl = fmt::format("https://feed{}.example.com/feed.xml", feed);
    added.siteUrl = fmt::format("https://feed{}.example.com/", feed);
    feedIds.push_back(state.subscribe(std::move(added)).feedId);
  }
  if (!feedIds.empty()) {
    FeedWranglerStream firstHalf{state.nextStreamId++, "First half", std::nullopt, false, false, {}};
    firstHalf.feedIds.assign(feedIds.begin(),
                             feedIds.begin() + static_cast<std::ptrdiff_t>((feedIds.size() + 1) / 2));
    state.streams[firstHalf.streamId] = firstHalf;
    const auto everything = state.nextStreamId++;
    state.streams[everything] = {everything, "Everything", std::nullopt, true, false, {}};
    const auto search = state.nextStreamId++;
    state.streams[search] = {search, "Story 1", "Story 1 ", true, false, {}};
  }
  if (feedIds.empty() || itemsPerFeed <= 0) return;
  // Item k (0 the newest) is k minutes old; ids grow with time, as the server's do.
  const auto total = static_cast<std::int64_t>(feeds) * itemsPerFeed;
  const auto now =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  for (std::int64_t age = total - 1; age >= 0; --age) {
    const auto index = total - 1 - age;  // 0 the oldest
    const auto feedIndex = static_cast<size_t>(age % feeds);
    FeedWranglerItem item;
    item.feedId = feedIds[feedIndex];
    item.title = fmt::format("Story {} of feed {}", age / feeds + 1, feedIndex + 1);
    if (index % 3 != 0) item.author = fmt::format("Author {}", feedIndex + 1);  // some null, as feeds omit it
    item.url = fmt::format("https://feed{}.example.com/stories/{}", feedIndex + 1, state.nextItemId);
    item.body = fmt::format("<p>Body of story {}.</p>", state.nextItemId);
    item.createdAt = now - age * 60;
    item.publishedAt = item.createdAt - 30;
    item.read = age >= unread;
    item.starred = starredEvery > 0 && (index + 1) % starredEvery == 0;
    state.addItem(std::move(item));
  }
}

std::vector<FeedWranglerRequest> FeedWranglerMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<FeedWranglerRequest> FeedWranglerMockServer::requests(const std::string& resource) const {
  std::lock_guard lock(state_->mutex);
  std::vector<FeedWranglerRequest> matching;
  const std::string path = std::string(kApiPrefix) + resource;
  for (const auto& request : state_->requests) {
    if (request.path == path) matching.push_back(request);
  }
  return matching;
}

void FeedWranglerMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

void FeedWranglerMockServer::injectFault(const std::string& resource, FeedWranglerFault fault,
                                         int occurrence) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back({resource, fault, std::max(occurrence, 1)});
}

void FeedWranglerMockServer::route(const httplib::Request& request, httplib::Response& response) {
  const auto question = request.target.find('?');
  const std::string_view rawQuery = question == std::string::npos
                                        ? std::string_view()
                                        : std::string_view(request.target).substr(question + 1);
  FeedWranglerRequest recorded{request.method, request.path, parseQuery(rawQuery),
                               request.get_header_value("Accept"), 0};
  const std::string contentType = request.get_header_value("Content-Type");
  if (equalsIgnoringCase(trimmed(std::string_view(contentType).substr(0, contentType.find(';'))),
                         "application/x-www-form-urlencoded")) {
    for (auto& [key, value] : parseQuery(request.body)) recorded.parameters.emplace(key, value);
  }
  const std::string_view path = request.path;
  const std::string_view resource = path.starts_with(kApiPrefix) ? path.substr(kApiPrefix.size()) : path;

  std::lock_guard lock(state_->mutex);
  const auto fault = state_->takeFault(resource);
  Answer answer;
  if (fault == FeedWranglerFault::kDropConnection) {
    answer.status = 0;  // recorded as no answer
  } else if (fault) {
    answer = faultAnswer(*fault, resource);
  } else if (!path.starts_with(kApiPrefix)) {
    answer = failure("Not found", 404);
  } else {
    answer = state_->dispatch(resource, recorded.parameters);
  }
  // Recorded before the answer leaves, so a test that has its answer sees the request.
  recorded.status = answer.status;
  state_->requests.push_back(std::move(recorded));

  if (fault == FeedWranglerFault::kDropConnection) {
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
