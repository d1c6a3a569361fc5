// A stateful stand-in for the Pinboard API v1 on loopback; speaks only the wire protocol.
#include "mocks/PinboardMockServer.h"

#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <ctime>
#include <mutex>
#include <utility>

#include "mocks/MockWire.h"

namespace lectern::mock {
namespace {

constexpr std::string_view kApiPrefix = "/v1/";
constexpr std::string_view kXmlType = "text/xml; charset=utf-8";
using SteadyTime = std::chrono::steady_clock::time_point;

std::string utcText(std::time_t at) {
  std::tm utc{};
  gmtime_r(&at, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     utc.tm_hour, utc.tm_min, utc.tm_sec);
}

std::optional<std::string> parameter(const Query& query, const std::string& name) {
  auto found = query.find(name);
  if (found == query.end()) return std::nullopt;
  return found->second;
}

Json postJson(const PinboardPost& post) {
  return {{"href", post.href},     {"description", post.description}, {"extended", post.extended},
          {"meta", post.meta},     {"hash", post.hash},               {"time", post.time},
          {"shared", post.shared ? "yes" : "no"}, {"toread", post.toread ? "yes" : "no"}, {"tags", post.tags}};
}

// "a  b+c" -> "a b c": tags arrive separated by spaces ("+" in a query is one too).
std::string normalisedTags(std::string_view text) {
  std::string tags;
  std::string tag;
  auto flush = [&] {
    if (tag.empty()) return;
    if (!tags.empty()) tags += ' ';
    tags += tag;
    tag.clear();
  };
  for (const char c : text) {
    if (c == ' ' || c == '+' || c == '\t') {
      flush();
    } else {
      tag += c;
    }
  }
  flush();
  return tags;
}

struct ArmedFault {
  std::string resource;
  PinboardFault fault = PinboardFault::kServerError;
  int remaining = 1;
};

Answer textAnswer(int status, std::string text) { return {status, std::move(text), "text/plain; charset=utf-8", {}}; }

Answer resultCode(std::string_view code, bool asJson) {
  if (!asJson) {
    return {200, fmt::format("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<result code=\"{}\" />\n", code),
            std::string(kXmlType), {}};
  }
  return jsonAnswer(200, Json{{"result_code", code}});
}

Answer faultAnswer(PinboardFault fault, std::string_view resource) {
  switch (fault) {
    case PinboardFault::kServerError:
      return textAnswer(500, "Internal Server Error");
    case PinboardFault::kResultError:
      return jsonAnswer(200, Json{{"result_code", "something went wrong"}});
    case PinboardFault::kWrongShape:
      if (resource == "posts/all") return jsonAnswer(200, Json{{"posts", Json::array()}});
      return jsonAnswer(200, Json::array({"not", "an", "object"}));
    case PinboardFault::kNotJson:
      return {200, "<html><body>Pinboard is down for maintenance</body></html>", "text/html", {}};
    case PinboardFault::kTooManyRequests:
      return textAnswer(429, "Too Many Requests");
    case PinboardFault::kDropConnection:
      break;
  }
  return textAnswer(500, "Internal Server Error");
}

}  // namespace

std::string PinboardRequest::parameter(const std::string& name) const {
  auto found = parameters.find(name);
  return found == parameters.end() ? std::string() : found->second;
}

// What one Pinboard user has, and what the server answers. Every member is guarded by mutex.
struct PinboardMockServer::State {
  State(std::string name, std::string secret) : username(std::move(name)), password(std::move(secret)) {}

  std::string token() const { return fmt::format("{:020X}", 0xA1B2C3D4E5F6A7ULL + tokenGeneration); }

  void store(PinboardPost post) {
    // An edit keeps the post's hash, even one that breaks its address (tests do).
    if (post.hash.empty()) post.hash = md5Hex(post.href);
    if (post.time.empty()) post.time = utcText(std::time(nullptr));
    // A new signature for every edit, as Pinboard's "meta".
    post.meta = md5Hex(fmt::format("{}#{}", post.href, ++edits));
    posts[post.href] = std::move(post);
  }

  std::vector<const PinboardPost*> newestFirst() const {
    std::vector<const PinboardPost*> list;
    for (const auto& [href, post] : posts) list.push_back(&post);
    std::stable_sort(list.begin(), list.end(), [](const auto* a, const auto* b) { return a->time > b->time; });
    return list;
  }

  bool basicAuthorised(const std::string& authorization) const {
    if (!authorization.starts_with("Basic ")) return false;
    const auto decoded = base64Decoded(trimmed(std::string_view(authorization).substr(6)));
    return decoded && *decoded == username + ":" + password;
  }

  bool tokenAuthorised(const Query& query) const {
    return parameter(query, "auth_token") == username + ":" + token();
  }

  // Pinboard's pace, per user: a call too soon is refused and does not count.
  bool tooSoon(std::string_view resource) {
    const auto now = std::chrono::steady_clock::now();
    if (lastCall && now - *lastCall < limits.callInterval) return true;
    if (resource == "posts/all" && lastAllPosts && now - *lastAllPosts < limits.allPostsInterval) return true;
    lastCall = now;
    if (resource == "posts/all") lastAllPosts = now;
    return false;
  }

  std::optional<PinboardFault> takeFault(std::string_view resource) {
    for (auto item = faults.begin(); item != faults.end(); ++item) {
      if ((item->resource.empty() || item->resource == resource) && --item->remaining <= 0) {
        auto fault = item->fault;
        faults.erase(item);
        return fault;
      }
    }
    return std::nullopt;
  }

  // ---- calls ----

  Answer apiToken(bool asJson) const {
    if (!asJson) {
      return {200, fmt::format("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<result>{}</result>\n", token()),
              std::string(kXmlType), {}};
    }
    return jsonAnswer(200, Json{{"result", token()}});
  }

  Answer lastUpdate() const {
    std::string latest = "1970-01-01T00:00:00Z";
    for (const auto& [href, post] : posts) latest = std::max(latest, post.time);
    return jsonAnswer(200, Json{{"update_time", updateTime.empty() ? latest : updateTime}});
  }

  Answer allPosts(const Query& query) const {
    Json list = Json::array();
    const auto start = parseInteger(parameter(query, "start").value_or("0")).value_or(0);
    const auto results = parseInteger(parameter(query, "results").value_or("-1")).value_or(-1);
    std::int64_t index = 0;
    for (const auto* post : newestFirst()) {
      if (index++ < start) continue;
      if (results >= 0 && static_cast<std::int64_t>(list.size()) >= results) break;
      Json item = postJson(*post);
      // Without "meta" asked for, Pinboard may leave the signature out.
      if (!parameter(query, "meta")) item.erase("meta");
      list.push_back(std::move(item));
    }
    return jsonAnswer(200, list);
  }

  Answer getPosts(const Query& query) const {
    Json list = Json::array();
    std::string date = utcText(std::time(nullptr));
    if (auto url = parameter(query, "url")) {
      if (auto found = posts.find(*url); found != posts.end()) {
        list.push_back(postJson(found->second));
        date = found->second.time;
      }
    } else {
      // Without a url: the posts of the most recent day that has any.
      const auto newest = newestFirst();
      if (!newest.empty()) {
        const std::string day = newest.front()->time.substr(0, 10);
        date = newest.front()->time;
        for (const auto* post : newest) {
          if (post->time.starts_with(day)) list.push_back(postJson(*post));
        }
      }
    }
    return jsonAnswer(200, Json{{"date", date}, {"user", username}, {"posts", list}});
  }

  Answer addPost(const Query& query, bool asJson) {
    const auto url = parameter(query, "url");
    if (!url || trimmed(*url).empty()) return resultCode("missing url", asJson);
    const auto description = parameter(query, "description");
    if (!description || trimmed(*description).empty()) return resultCode("missing description", asJson);
    const auto existing = posts.find(*url);
    if (existing != posts.end() && parameter(query, "replace") == "no") {
      return resultCode("item already exists", asJson);
    }
    PinboardPost post;
    post.href = *url;
    post.description = *description;
    post.extended = parameter(query, "extended").value_or("");
    post.tags = normalisedTags(parameter(query, "tags").value_or(""));
    post.toread = parameter(query, "toread") == "yes";
    // New posts are public unless told otherwise, as for a user without "private by default".
    post.shared = parameter(query, "shared").value_or("yes") != "no";
    post.time = parameter(query, "dt").value_or("");
    store(std::move(post));
    updateTime = utcText(std::time(nullptr));
    return resultCode("done", asJson);
  }

  Answer deletePost(const Query& query, bool asJson) {
    const auto url = parameter(query, "url");
    if (!url || trimmed(*url).empty()) return resultCode("missing url", asJson);
    if (posts.erase(*url) == 0) return resultCode("item not found", asJson);
    updateTime = utcText(std::time(nullptr));
    return resultCode("done", asJson);
  }

  Answer dispatch(std::string_view resource, const Query& query, const std::string& authorization) {
    const bool asJson = parameter(query, "format") == "json";
    if (resource == "user/api_token/" || resource == "user/api_token") {
      if (!basicAuthorised(authorization) && !tokenAuthorised(query)) return textAnswer(401, "401 Forbidden");
      if (tooSoon(resource)) return textAnswer(429, "Too Many Requests");
      return apiToken(asJson);
    }
    if (!tokenAuthorised(query)) return textAnswer(401, "401 Forbidden");
    if (tooSoon(resource)) return textAnswer(429, "Too Many Requests");
    if (!asJson) {
      // The client forgot "format=json": what it gets is Pinboard's default, XML.
      return {200, "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<posts user=\"" + username + "\"></posts>\n",
              std::string(kXmlType), {}};
    }
    if (resource == "posts/update") return lastUpdate();
    if (resource == "posts/all") return allPosts(query);
    if (resource == "posts/get") return getPosts(query);
    if (resource == "posts/add") return addPost(query, asJson);
    if (resource == "posts/delete") return deletePost(query, asJson);
    return textAnswer(404, "Not Found");
  }

  const std::string username;
  const std::string password;
  mutable std::mutex mutex;  // guards every member below
  std::int64_t tokenGeneration = 0;
  std::int64_t edits = 0;
  std::string updateTime;
  Limits limits{std::chrono::milliseconds(0), std::chrono::milliseconds(0)};
  std::optional<SteadyTime> lastCall;
  std::optional<SteadyTime> lastAllPosts;
  std::map<std::string, PinboardPost> posts;  // by href
  std::map<std::string, std::string> pages;   // by path
  std::vector<PinboardRequest> requests;
  std::vector<ArmedFault> faults;
};

PinboardMockServer::PinboardMockServer(std::string username, std::string password, int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>(std::move(username), std::move(password))) {
  server_->Get(".*", [this](const httplib::Request& request, httplib::Response& response) { route(request, response); });
  port_ = listenOnLoopback(*server_, port, thread_);
}

PinboardMockServer::~PinboardMockServer() {
  server_->stop();
  thread_.join();
}

std::string PinboardMockServer::baseURL() const { return fmt::format("http://127.0.0.1:{}/", port_); }

std::string PinboardMockServer::apiToken() const {
  std::lock_guard lock(state_->mutex);
  return state_->token();
}

void PinboardMockServer::resetApiToken() {
  std::lock_guard lock(state_->mutex);
  ++state_->tokenGeneration;
}

void PinboardMockServer::setLimits(Limits limits) {
  std::lock_guard lock(state_->mutex);
  state_->limits = limits;
}

PinboardPost PinboardMockServer::addPost(PinboardPost post) {
  std::lock_guard lock(state_->mutex);
  const std::string href = post.href;
  post.hash.clear();
  state_->store(std::move(post));
  return state_->posts.at(href);
}

bool PinboardMockServer::editPost(const std::string& href, const std::function<void(PinboardPost&)>& edit) {
  std::lock_guard lock(state_->mutex);
  auto found = state_->posts.find(href);
  if (found == state_->posts.end()) return false;
  PinboardPost post = found->second;
  edit(post);
  state_->posts.erase(found);
  state_->store(std::move(post));
  return true;
}

void PinboardMockServer::removePost(const std::string& href) {
  std::lock_guard lock(state_->mutex);
  state_->posts.erase(href);
}

std::optional<PinboardPost> PinboardMockServer::post(const std::string& href) const {
  std::lock_guard lock(state_->mutex);
  auto found = state_->posts.find(href);
  if (found == state_->posts.end()) return std::nullopt;
  return found->second;
}

std::vector<PinboardPost> PinboardMockServer::posts() const {
  std::lock_guard lock(state_->mutex);
  std::vector<PinboardPost> list;
  for (const auto& [href, post] : state_->posts) list.push_back(post);
  return list;
}

void PinboardMockServer::addPage(const std::string& path, std::string html) {
  std::lock_guard lock(state_->mutex);
  state_->pages[path] = std::move(html);
}

void PinboardMockServer::seed(int count, int unread, int sharedEvery) {
  const std::time_t now = std::time(nullptr);
  for (int index = 0; index < count; ++index) {
    const std::string path = fmt::format("/articles/{}", index + 1);
    std::string paragraphs;
    for (int paragraph = 1; paragraph <= 4; ++paragraph) {
      paragraphs += fmt::format(
          "<p>Paragraph {} of article {}. It says enough, in full sentences, for a reader to find the article "
          "on the page and keep it, with a few more words to make the paragraph long enough.</p>",
          paragraph, index + 1);
    }
    addPage(path, fmt::format("<html><head><title>Article {0}</title></head><body><nav>Home | About</nav>"
                              "<article><h1>Article {0}</h1>{1}</article><footer>Footer</footer></body></html>",
                              index + 1, paragraphs));
    PinboardPost post;
    post.href = baseURL() + path.substr(1);
    post.description = fmt::format("Article {}", index + 1);
    post.extended = fmt::format("Notes on article {}", index + 1);
    post.tags = index % 2 == 0 ? "reading later" : "reference";
    post.toread = index < unread;
    post.shared = sharedEvery > 0 && (index + 1) % sharedEvery == 0;
    post.time = utcText(now - index * 60);
    addPost(std::move(post));
  }
}

std::vector<PinboardRequest> PinboardMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<PinboardRequest> PinboardMockServer::requests(const std::string& resource) const {
  std::lock_guard lock(state_->mutex);
  std::vector<PinboardRequest> matching;
  const std::string path = std::string(kApiPrefix) + resource;
  for (const auto& request : state_->requests) {
    if (request.path == path) matching.push_back(request);
  }
  return matching;
}

void PinboardMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

void PinboardMockServer::injectFault(const std::string& resource, PinboardFault fault, int occurrence) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back({resource, fault, std::max(occurrence, 1)});
}

void PinboardMockServer::route(const httplib::Request& request, httplib::Response& response) {
  const auto question = request.target.find('?');
  const std::string_view rawQuery =
      question == std::string::npos ? std::string_view() : std::string_view(request.target).substr(question + 1);
  PinboardRequest recorded{request.method, request.path, parseQuery(rawQuery),
                           request.get_header_value("Authorization"), request.get_header_value("Accept"), 0};
  const std::string_view path = request.path;

  std::lock_guard lock(state_->mutex);
  if (!path.starts_with(kApiPrefix)) {
    // The web: the pages the posts point at. Not recorded: tests count what reached the API.
    if (auto page = state_->pages.find(request.path); page != state_->pages.end()) {
      response.status = 200;
      response.set_content(page->second, "text/html; charset=utf-8");
    } else {
      response.status = 404;
      response.set_content("Not Found", "text/plain");
    }
    return;
  }
  const std::string_view resource = path.substr(kApiPrefix.size());
  const auto fault = state_->takeFault(resource);
  Answer answer;
  if (fault == PinboardFault::kDropConnection) {
    answer.status = 0;  // recorded as no answer
  } else if (fault) {
    answer = faultAnswer(*fault, resource);
  } else {
    answer = state_->dispatch(resource, recorded.parameters, recorded.authorization);
  }
  // Recorded before the answer leaves, so a test that has its answer sees the request.
  recorded.status = answer.status;
  state_->requests.push_back(std::move(recorded));

  if (fault == PinboardFault::kDropConnection) {
    response.status = 200;
    response.set_content_provider(64, std::string(kJsonType), [](size_t, size_t, httplib::DataSink&) { return false; });
    return;
  }
  response.status = answer.status;
  for (auto& [name, value] : answer.headers) response.set_header(name, value);
  if (!answer.body.empty() || !answer.contentType.empty()) response.set_content(answer.body, answer.contentType);
}

}  // namespace lectern::mock
