// A stateful stand-in for the Pocket API v3 on loopback; speaks only the wire protocol.
#include "mocks/PocketMockServer.h"

#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include "mocks/MockWire.h"

namespace lectern::mock {
namespace {

using nlohmann::json;

constexpr std::string_view kApiPrefix = "/v3/";
constexpr std::string_view kArticlesPrefix = "/articles/";
// What a list answer holds at most when no count is asked.
constexpr size_t kDefaultPageLimit = 30;
constexpr std::int64_t kFirstItemId = 229'279'689;

std::int64_t wallClockSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A parameter as text: Pocket takes numbers and flags as either.
std::string textOf(const json& parameters, const std::string& name) {
  const auto found = parameters.find(name);
  if (found == parameters.end() || found->is_null()) return {};
  if (found->is_string()) return found->get<std::string>();
  return found->dump();
}

std::string flag(bool value) { return value ? "1" : "0"; }

// "a,b" or ["a", "b"]: the tag names, trimmed, empty ones dropped.
std::vector<std::string> tagsOf(const json& value) {
  std::vector<std::string> names;
  auto take = [&names](std::string_view name) {
    name = trimmed(name);
    if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end()) names.emplace_back(name);
  };
  if (value.is_array()) {
    for (const auto& name : value)
      if (name.is_string()) take(name.get<std::string>());
  } else if (value.is_string()) {
    std::string_view text = value.get_ref<const std::string&>();
    while (!text.empty()) {
      const auto comma = text.find(',');
      take(text.substr(0, comma));
      text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    }
  }
  return names;
}

Json itemJson(const PocketItem& item, bool complete) {
  if (item.status == 2) return Json{{"item_id", item.itemId}, {"status", "2"}};
  Json out{{"item_id", item.itemId},
           {"resolved_id", item.resolvedUrl.empty() ? "0" : item.itemId},
           {"given_url", item.givenUrl},
           {"given_title", item.givenTitle}};
  if (!item.resolvedUrl.empty()) out["resolved_url"] = item.resolvedUrl;
  out["resolved_title"] = item.resolvedTitle;
  out["favorite"] = flag(item.favorite);
  out["status"] = std::to_string(item.status);
  out["time_added"] = std::to_string(item.timeAdded);
  out["time_updated"] = std::to_string(item.timeUpdated);
  out["time_read"] = "0";
  out["time_favorited"] = "0";
  out["sort_id"] = 0;
  out["excerpt"] = item.excerpt;
  out["is_article"] = flag(item.isArticle);
  out["has_image"] = std::to_string(item.hasImage);
  out["has_video"] = std::to_string(item.hasVideo);
  out["word_count"] = "120";
  if (complete && !item.tags.empty()) {
    Json tags = Json::object();
    for (const auto& tag : item.tags) tags[tag] = Json{{"item_id", item.itemId}, {"tag", tag}};
    out["tags"] = tags;
  }
  if (complete && item.hasImage > 0) {
    out["images"] = Json{{"1", {{"item_id", item.itemId}, {"image_id", "1"}, {"src", item.resolvedUrl + ".jpg"}}}};
  }
  if (complete && item.hasVideo > 0) {
    out["videos"] = Json{{"1", {{"item_id", item.itemId}, {"video_id", "1"}, {"src", item.resolvedUrl + ".mp4"}}}};
  }
  return out;
}

// The item "add" answers with: the page as Pocket resolved it.
Json addedItemJson(const PocketItem& item) {
  return Json{{"item_id", item.itemId},
              {"normal_url", item.givenUrl},
              {"resolved_id", item.itemId},
              {"resolved_url", item.resolvedUrl},
              {"title", item.resolvedTitle},
              {"excerpt", item.excerpt},
              {"is_article", flag(item.isArticle)},
              {"has_image", std::to_string(item.hasImage)},
              {"has_video", std::to_string(item.hasVideo)},
              {"word_count", "120"}};
}

struct ArmedFault {
  std::string resource;
  PocketFault fault = PocketFault::kServerError;
  int remaining = 1;
};

// A request token and what became of it.
struct RequestToken {
  std::string redirectURI;
  enum class Decision { kPending, kGranted, kDeclined } decision = Decision::kPending;
};

std::string htmlEscaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace

std::string PocketRequest::parameter(const std::string& name) const { return textOf(parameters, name); }

json PocketRequest::actions() const {
  const auto found = parameters.find("actions");
  if (found == parameters.end()) return json();
  if (found->is_string()) return json::parse(found->get<std::string>(), nullptr, /*allow_exceptions=*/false);
  return *found;
}

// What one Pocket user has, and what the server answers. Every member is guarded by mutex.
struct PocketMockServer::State {
  State(std::string key, std::string user) : consumerKey(std::move(key)), username(std::move(user)) {}

  mutable std::mutex mutex;
  const std::string consumerKey;
  const std::string username;
  const std::string accessToken = "5678defg-5678-defg-5678-defg56";
  std::string baseURL;
  int authorizations = 0;
  Consent consent = Consent::kGrant;
  int refusalStatus = 200;
  std::int64_t clock = wallClockSeconds();
  std::int64_t nextId = kFirstItemId;
  int nextCode = 1;
  std::map<std::string, PocketItem> items;
  std::map<std::string, RequestToken> codes;
  std::vector<PocketRequest> requests;
  std::vector<ArmedFault> faults;

  std::int64_t tick() { return ++clock; }

  std::optional<PocketFault> takeFault(std::string_view resource) {
    for (auto it = faults.begin(); it != faults.end(); ++it) {
      if (!it->resource.empty() && it->resource != resource) continue;
      if (--it->remaining > 0) continue;
      const auto fault = it->fault;
      faults.erase(it);
      return fault;
    }
    return std::nullopt;
  }

  Answer refusal(int code, std::string_view message) const {
    Answer answer{refusalStatus, std::string(message), "text/plain", {}};
    answer.headers = {{"X-Error-Code", std::to_string(code)}, {"X-Error", std::string(message)}};
    return answer;
  }

  std::optional<Answer> refuseUnlessSigned(const json& parameters) const {
    if (textOf(parameters, "consumer_key") != consumerKey) return refusal(152, "Invalid consumer key.");
    if (textOf(parameters, "access_token") != accessToken) return refusal(107, "Invalid access token.");
    return std::nullopt;
  }

  PocketItem& store(PocketItem item) {
    if (item.itemId.empty()) item.itemId = std::to_string(nextId++);
    if (item.timeAdded == 0) item.timeAdded = tick();
    item.timeUpdated = std::max(item.timeAdded, tick());
    auto& stored = items[item.itemId];
    stored = std::move(item);
    return stored;
  }

  PocketItem* find(const std::string& itemId) {
    auto found = items.find(itemId);
    return found == items.end() ? nullptr : &found->second;
  }

  PocketItem* findLiveByUrl(const std::string& url) {
    for (auto& [id, item] : items) {
      if (item.status != 2 && (urlKey(item.givenUrl) == urlKey(url) || urlKey(item.resolvedUrl) == urlKey(url)))
        return &item;
    }
    return nullptr;
  }

  // Newest first, as Pocket sorts by default.
  std::vector<const PocketItem*> sorted() const {
    std::vector<const PocketItem*> out;
    for (const auto& [id, item] : items) out.push_back(&item);
    std::sort(out.begin(), out.end(), [](const PocketItem* a, const PocketItem* b) {
      if (a->timeAdded != b->timeAdded) return a->timeAdded > b->timeAdded;
      return a->itemId > b->itemId;
    });
    return out;
  }

  Answer oauthRequest(const json& parameters, bool jsonWanted) {
    if (textOf(parameters, "consumer_key") != consumerKey) return refusal(152, "Invalid consumer key.");
    const std::string redirect = textOf(parameters, "redirect_uri");
    if (redirect.empty()) return refusal(140, "Missing redirect url.");
    const std::string code = fmt::format("dcba4321-dcba-4321-dcba-{:06d}", nextCode++);
    codes[code] = RequestToken{redirect};
    if (!jsonWanted) return Answer{200, "code=" + code, "application/x-www-form-urlencoded", {}};
    return jsonAnswer(200, Json{{"code", code}, {"state", nullptr}});
  }

  Answer oauthAuthorize(const json& parameters) {
    if (textOf(parameters, "consumer_key") != consumerKey) return refusal(152, "Invalid consumer key.");
    const auto found = codes.find(textOf(parameters, "code"));
    if (found == codes.end()) return refusal(185, "Code not found.");
    const auto decision = found->second.decision;
    if (decision == RequestToken::Decision::kPending) return refusal(159, "User has not authorized the code.");
    codes.erase(found);  // used once, whatever came of it
    if (decision == RequestToken::Decision::kDeclined) return refusal(158, "User rejected code.");
    ++authorizations;
    return jsonAnswer(200, Json{{"access_token", accessToken}, {"username", username}});
  }

  Answer authorizationPage(const Query& query) {
    const auto token = query.find("request_token");
    const auto redirect = query.find("redirect_uri");
    auto found = token == query.end() ? codes.end() : codes.find(token->second);
    if (found == codes.end() || redirect == query.end())
      return Answer{400, "<p>This sign-in link is not valid.</p>", "text/html", {}};
    found->second.decision =
        consent == Consent::kGrant ? RequestToken::Decision::kGranted : RequestToken::Decision::kDeclined;
    return Answer{302, "", "text/html", {{"Location", redirect->second}}};
  }

  Answer get(const json& parameters) {
    if (auto refused = refuseUnlessSigned(parameters)) return *refused;
    const std::string state = textOf(parameters, "state").empty() ? "all" : textOf(parameters, "state");
    if (state != "all" && state != "unread" && state != "archive") return refusal(199, "Invalid state.");
    const std::string favorite = textOf(parameters, "favorite");
    const std::string tag = textOf(parameters, "tag");
    const auto since = parseInteger(textOf(parameters, "since"));
    const auto offset = parseInteger(textOf(parameters, "offset")).value_or(0);
    const auto count = parseInteger(textOf(parameters, "count"));
    const bool complete = textOf(parameters, "detailType") == "complete";
    const size_t limit = count && *count > 0 ? static_cast<size_t>(*count) : kDefaultPageLimit;

    std::vector<const PocketItem*> matching;
    for (const auto* item : sorted()) {
      if (since && item->timeUpdated <= *since) continue;
      if (item->status == 2) {
        if (since) matching.push_back(item);  // a deleted item is news only to a "since" request
        continue;
      }
      if (state == "unread" && item->status != 0) continue;
      if (state == "archive" && item->status != 1) continue;
      if (!favorite.empty() && flag(item->favorite) != favorite) continue;
      if (!tag.empty() && std::find(item->tags.begin(), item->tags.end(), tag) == item->tags.end()) continue;
      matching.push_back(item);
    }
    Json list = Json::object();
    for (size_t i = static_cast<size_t>(std::max<std::int64_t>(offset, 0)); i < matching.size() && list.size() < limit;
         ++i) {
      list[matching[i]->itemId] = itemJson(*matching[i], complete);
    }
    // Nothing (left) to return is an empty list, not an empty object.
    const bool empty = list.empty();
    return jsonAnswer(200, Json{{"status", empty ? 2 : 1},
                                {"complete", 1},
                                {"list", empty ? Json::array() : list},
                                {"error", nullptr},
                                {"search_meta", {{"search_type", "normal"}}},
                                {"since", clock}});
  }

  // Why `action` cannot be done; nothing when it can.
  std::optional<std::string> problemWith(const json& action) {
    if (!action.is_object()) return "Invalid action.";
    const std::string name = textOf(action, "action");
    static const std::vector<std::string> kWithItem = {"archive", "readd",       "favorite",   "unfavorite",
                                                      "delete",  "tags_add",    "tags_remove", "tags_replace",
                                                      "tags_clear"};
    if (name == "add") {
      if (textOf(action, "item_id").empty() && textOf(action, "url").empty()) return "Missing url.";
      if (!textOf(action, "item_id").empty() && !find(textOf(action, "item_id"))) return "Invalid item id.";
      return std::nullopt;
    }
    if (std::find(kWithItem.begin(), kWithItem.end(), name) == kWithItem.end())
      return fmt::format("Invalid action: {}.", name);
    const PocketItem* item = find(textOf(action, "item_id"));
    if (!item || item->status == 2) return "Invalid item id.";
    if (name.starts_with("tags_") && name != "tags_clear" && tagsOf(action.value("tags", json())).empty())
      return "Missing tags.";
    return std::nullopt;
  }

  void apply(const json& action) {
    const std::string name = textOf(action, "action");
    if (name == "add" && textOf(action, "item_id").empty()) {
      PocketItem item;
      item.givenUrl = item.resolvedUrl = textOf(action, "url");
      item.givenTitle = item.resolvedTitle = textOf(action, "title");
      item.tags = tagsOf(action.value("tags", json()));
      store(std::move(item));
      return;
    }
    PocketItem& item = *find(textOf(action, "item_id"));
    if (name == "archive") item.status = 1;
    if (name == "readd" || name == "add") item.status = 0;
    if (name == "favorite" || name == "unfavorite") item.favorite = name == "favorite";
    if (name == "delete") item.status = 2;
    const auto tags = tagsOf(action.value("tags", json()));
    if (name == "tags_replace") item.tags = tags;
    if (name == "tags_clear") item.tags.clear();
    if (name == "tags_add") {
      for (const auto& tag : tags)
        if (std::find(item.tags.begin(), item.tags.end(), tag) == item.tags.end()) item.tags.push_back(tag);
    }
    if (name == "tags_remove") {
      std::erase_if(item.tags, [&](const std::string& tag) {
        return std::find(tags.begin(), tags.end(), tag) != tags.end();
      });
    }
    item.timeUpdated = tick();
  }

  Answer send(const PocketRequest& request) {
    if (auto refused = refuseUnlessSigned(request.parameters)) return *refused;
    const json actions = request.actions();
    if (!actions.is_array() || actions.empty()) return refusal(130, "Invalid actions.");
    // A refused send changes nothing.
    for (const auto& action : actions) {
      if (auto problem = problemWith(action)) return refusal(131, *problem);
    }
    Json results = Json::array();
    for (const auto& action : actions) {
      apply(action);
      results.push_back(true);
    }
    return jsonAnswer(200, Json{{"status", 1}, {"action_results", results}});
  }

  Answer add(const json& parameters) {
    if (auto refused = refuseUnlessSigned(parameters)) return *refused;
    const std::string url = textOf(parameters, "url");
    if (url.empty()) return refusal(130, "Missing url.");
    PocketItem* item = findLiveByUrl(url);
    if (item) {
      item->status = 0;
      item->timeUpdated = tick();
    } else {
      PocketItem added;
      added.givenUrl = added.resolvedUrl = url;
      added.givenTitle = textOf(parameters, "title");
      added.resolvedTitle = added.givenTitle.empty() ? "Resolved: " + url : added.givenTitle;
      added.tags = tagsOf(parameters.value("tags", json()));
      added.excerpt = "Saved from Lectern.";
      item = &store(std::move(added));
    }
    return jsonAnswer(200, Json{{"item", addedItemJson(*item)}, {"status", 1}});
  }

  Answer dispatch(std::string_view resource, const PocketRequest& request) {
    if (request.method != "POST") return Answer{405, "", "", {}};
    if (resource == "oauth/request") return oauthRequest(request.parameters, request.xAccept == "application/json");
    if (resource == "oauth/authorize") return oauthAuthorize(request.parameters);
    if (resource == "get") return get(request.parameters);
    if (resource == "send") return send(request);
    if (resource == "add") return add(request.parameters);
    return Answer{404, "", "", {}};
  }
};

PocketMockServer::PocketMockServer(std::string consumerKey, std::string username, int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>(std::move(consumerKey), std::move(username))) {
  auto handler = [this](const httplib::Request& request, httplib::Response& response) { route(request, response); };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  port_ = listenOnLoopback(*server_, port, thread_);
  state_->baseURL = baseURL();
}

PocketMockServer::~PocketMockServer() {
  server_->stop();
  thread_.join();
}

std::string PocketMockServer::baseURL() const { return fmt::format("http://127.0.0.1:{}/", port_); }

std::string PocketMockServer::consumerKey() const { return state_->consumerKey; }
std::string PocketMockServer::username() const { return state_->username; }
std::string PocketMockServer::accessToken() const { return state_->accessToken; }

int PocketMockServer::authorizations() const {
  std::lock_guard lock(state_->mutex);
  return state_->authorizations;
}

void PocketMockServer::setConsent(Consent consent) {
  std::lock_guard lock(state_->mutex);
  state_->consent = consent;
}

void PocketMockServer::setRefusalStatus(int status) {
  std::lock_guard lock(state_->mutex);
  state_->refusalStatus = status;
}

std::int64_t PocketMockServer::now() const {
  std::lock_guard lock(state_->mutex);
  return state_->clock;
}

PocketItem PocketMockServer::addItem(PocketItem item) {
  std::lock_guard lock(state_->mutex);
  return state_->store(std::move(item));
}

bool PocketMockServer::setStatus(const std::string& itemId, int status) {
  std::lock_guard lock(state_->mutex);
  PocketItem* item = state_->find(itemId);
  if (!item) return false;
  item->status = status;
  item->timeUpdated = state_->tick();
  return true;
}

bool PocketMockServer::setFavorite(const std::string& itemId, bool favorite) {
  std::lock_guard lock(state_->mutex);
  PocketItem* item = state_->find(itemId);
  if (!item) return false;
  item->favorite = favorite;
  item->timeUpdated = state_->tick();
  return true;
}

bool PocketMockServer::setTitle(const std::string& itemId, const std::string& title) {
  std::lock_guard lock(state_->mutex);
  PocketItem* item = state_->find(itemId);
  if (!item) return false;
  item->resolvedTitle = title;
  item->timeUpdated = state_->tick();
  return true;
}

std::optional<PocketItem> PocketMockServer::item(const std::string& itemId) const {
  std::lock_guard lock(state_->mutex);
  const auto found = state_->items.find(itemId);
  if (found == state_->items.end()) return std::nullopt;
  return found->second;
}

std::vector<PocketItem> PocketMockServer::items() const {
  std::lock_guard lock(state_->mutex);
  std::vector<PocketItem> out;
  for (const auto* item : state_->sorted())
    if (item->status != 2) out.push_back(*item);
  return out;
}

std::string PocketMockServer::articleURL(const std::string& name) const {
  return fmt::format("{}articles/{}", baseURL(), name);
}

void PocketMockServer::seed(int unread, int archived, int favoriteEvery) {
  const int total = unread + archived;
  for (int i = 0; i < total; ++i) {
    PocketItem item;
    const std::string name = fmt::format("story-{}", i + 1);
    item.givenUrl = articleURL(name) + "?utm_source=lectern";
    item.resolvedUrl = articleURL(name);
    item.givenTitle = fmt::format("Saved story {}", i + 1);
    item.resolvedTitle = fmt::format("Story {}", i + 1);
    item.status = i < unread ? 0 : 1;
    item.favorite = favoriteEvery > 0 && (i + 1) % favoriteEvery == 0;
    item.hasImage = (i + 1) % 3 == 0 ? 1 : 0;
    item.hasVideo = (i + 1) % 5 == 0 ? 2 : 0;
    item.isArticle = item.hasVideo == 0;
    if ((i + 1) % 4 == 0) item.tags = {"reading", fmt::format("batch-{}", (i / 10) + 1)};
    item.excerpt = fmt::format("The first lines of story {}.", i + 1);
    addItem(std::move(item));
  }
}

std::vector<PocketRequest> PocketMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<PocketRequest> PocketMockServer::requests(const std::string& resource) const {
  std::lock_guard lock(state_->mutex);
  std::vector<PocketRequest> out;
  const std::string path = std::string(kApiPrefix) + resource;
  for (const auto& request : state_->requests)
    if (request.path == path) out.push_back(request);
  return out;
}

void PocketMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

void PocketMockServer::injectFault(const std::string& resource, PocketFault fault, int occurrence) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back(ArmedFault{resource, fault, std::max(occurrence, 1)});
}

void PocketMockServer::route(const httplib::Request& request, httplib::Response& response) {
  const auto question = request.target.find('?');
  const std::string_view rawQuery =
      question == std::string::npos ? std::string_view() : std::string_view(request.target).substr(question + 1);
  const Query query = parseQuery(rawQuery);
  PocketRequest recorded{request.method,
                         request.path,
                         json::object(),
                         request.get_header_value("Content-Type"),
                         request.get_header_value("Accept"),
                         request.get_header_value("X-Accept"),
                         0};
  for (const auto& [key, value] : query) recorded.parameters[key] = value;
  const std::string_view mediaType =
      trimmed(std::string_view(recorded.contentType).substr(0, recorded.contentType.find(';')));
  bool unreadableBody = false;
  if (equalsIgnoringCase(mediaType, "application/json")) {
    const json body = json::parse(request.body, nullptr, /*allow_exceptions=*/false);
    if (body.is_object()) {
      for (const auto& [key, value] : body.items()) recorded.parameters[key] = value;
    } else {
      unreadableBody = true;
    }
  } else if (equalsIgnoringCase(mediaType, "application/x-www-form-urlencoded")) {
    for (const auto& [key, value] : parseQuery(request.body)) recorded.parameters[key] = value;
  }
  const std::string_view path = request.path;
  const bool api = path.starts_with(kApiPrefix);
  const std::string_view resource = api ? path.substr(kApiPrefix.size()) : path;

  std::lock_guard lock(state_->mutex);
  const auto fault = api ? state_->takeFault(resource) : std::nullopt;
  Answer answer;
  if (fault == PocketFault::kDropConnection) {
    answer.status = 0;  // recorded as no answer
  } else if (fault == PocketFault::kServerError) {
    answer = Answer{503, "Service Unavailable", "text/plain",
                    {{"X-Error", "Pocket's server is down for scheduled maintenance."}, {"X-Error-Code", "199"}}};
  } else if (fault == PocketFault::kWrongShape) {
    answer = jsonAnswer(200, Json::array({Json{{"item_id", "1"}}}));
  } else if (fault == PocketFault::kNotJson) {
    answer = Answer{200, "<html><body>Maintenance</body></html>", "text/html", {}};
  } else if (unreadableBody) {
    answer = state_->refusal(130, "Invalid request body.");
  } else if (path == "/auth/authorize" && request.method == "GET") {
    answer = state_->authorizationPage(query);
  } else if (path.starts_with(kArticlesPrefix) && request.method == "GET") {
    const std::string name(path.substr(kArticlesPrefix.size()));
    const std::string title = htmlEscaped(name);
    answer = Answer{200,
                    fmt::format("<!doctype html><html><head><title>{0}</title></head><body><article><h1>{0}</h1>"
                                "<p>This is the text of {0}, kept by the Pocket mock so that Lectern has an "
                                "article to read offline. It runs long enough to count as one.</p><p>A second "
                                "paragraph of {0} follows, with a few more sentences. Readers like text that "
                                "goes on for a while.</p></article></body></html>",
                                title),
                    "text/html; charset=utf-8",
                    {}};
  } else if (!api) {
    answer = Answer{404, "Not found", "text/plain", {}};
  } else if (fault == PocketFault::kErrorHeader) {
    // A body that looks like success, and the failure said in the header only.
    answer = jsonAnswer(200, Json{{"status", 1}, {"list", Json::array()}, {"since", state_->clock}});
    answer.headers = {{"X-Error", "Something went wrong"}, {"X-Error-Code", "199"}};
  } else {
    answer = state_->dispatch(resource, recorded);
  }
  recorded.status = answer.status;
  state_->requests.push_back(std::move(recorded));

  if (fault == PocketFault::kDropConnection) {
    // Headers promising a body that never comes: the client sees a truncated transfer.
    response.status = 200;
    response.set_content_provider(64, std::string(kJsonType), [](size_t, size_t, httplib::DataSink&) { return false; });
    return;
  }
  response.status = answer.status;
  for (auto& [name, value] : answer.headers) response.set_header(name, value);
  if (!answer.body.empty() || !answer.contentType.empty()) response.set_content(answer.body, answer.contentType);
}

}  // namespace lectern::mock
