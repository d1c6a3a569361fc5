#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace lectern::mock {

// One request as the mock received it, for tests that assert what reached the server.
struct FeedWranglerRequest {
  std::string method;
  std::string path;  // "/api/v2/feed_items/list_ids"
  // Decoded parameters of the query string and of a form body, in that order.
  std::multimap<std::string, std::string> parameters;
  std::string accept;
  int status = 0;  // what the mock answered
  // The first value of a parameter, "" when the request carried none.
  std::string parameter(const std::string& name) const;
};

// A failure the mock plays instead of answering one chosen request. Nothing changes on the
// server when it does.
enum class FeedWranglerFault {
  kServerError,     // 500 with {"result": "error"}
  kResultError,     // 200 with {"result": "error", "error": "Something went wrong"}
  kWrongShape,      // 200 with a success whose list is an object
  kNotJson,         // 200 with an HTML page
  kDropConnection,  // headers, then the connection closes without the body
};

struct FeedWranglerFeed {
  std::int64_t feedId = 0;
  std::string title;
  std::string feedUrl;
  std::optional<std::string> siteUrl;  // null on the wire when absent
};

struct FeedWranglerItem {
  std::int64_t id = 0;  // feed_item_id
  std::int64_t feedId = 0;
  std::string title;
  std::string url;
  std::optional<std::string> author;
  std::string body;
  std::int64_t publishedAt = 0;  // seconds since 1970
  std::int64_t createdAt = 0;
  bool read = false;
  bool starred = false;
};

struct FeedWranglerStream {
  std::int64_t streamId = 0;
  std::string title;
  std::optional<std::string> searchTerm;  // matched in titles and bodies
  bool allFeeds = false;
  bool onlyUnread = false;
  std::vector<std::int64_t> feedIds;
};

// A stateful Feed Wrangler API v2 server on 127.0.0.1 (an ephemeral port unless one is given):
// sign-in by e-mail, password and client key for an access token checked on every other call;
// subscriptions, items with read and starred flags paged by limit and offset, smart streams.
// Every answer is JSON with "result"; parameters come in the query or a form body, by GET or
// POST alike. Every request is recorded; a fault can be played on a chosen one. Thread-safe;
// serves until destroyed.
class FeedWranglerMockServer {
 public:
  FeedWranglerMockServer(std::string email = "me@example.org", std::string password = "secret",
                         std::string clientKey = "lectern-client-key", int port = 0);
  ~FeedWranglerMockServer();
  FeedWranglerMockServer(const FeedWranglerMockServer&) = delete;
  FeedWranglerMockServer& operator=(const FeedWranglerMockServer&) = delete;

  // "http://127.0.0.1:PORT/": the API lives under "api/v2/" below it.
  std::string baseURL() const;
  int port() const { return port_; }
  // The token every sign-in answers with.
  std::string accessToken() const;
  // Sign-ins from now on get a new token; the old ones are refused.
  void revokeAccessTokens();

  // ---- state ----
  // Ids given as 0 are assigned (increasing). Answers the stored value.
  FeedWranglerFeed addSubscription(FeedWranglerFeed feed);
  void removeSubscription(std::int64_t feedId);
  // A feed add_feed_and_wait finds by its address or its site's.
  void addDiscoverableFeed(FeedWranglerFeed feed);
  FeedWranglerItem addItem(FeedWranglerItem item);
  void setRead(std::int64_t itemId, bool read);
  void setStarred(std::int64_t itemId, bool starred);
  FeedWranglerStream addStream(FeedWranglerStream stream);
  void removeStream(std::int64_t streamId);

  std::vector<FeedWranglerFeed> subscriptions() const;
  std::set<std::int64_t> unreadItemIds() const;
  std::set<std::int64_t> starredItemIds() const;
  size_t itemCount() const;

  // A test account: `feeds` subscriptions of `itemsPerFeed` items each, the newest `unread` of all
  // items unread and every `starredEvery`-th starred (0: none), items a minute apart back from
  // now; a stream of the first half of the feeds, one of all feeds and one that searches.
  void seed(int feeds, int itemsPerFeed, int unread, int starredEvery);

  // ---- what was asked ----
  std::vector<FeedWranglerRequest> requests() const;
  // Requests whose path (below "/api/v2/") is `resource` ("feed_items/list_ids").
  std::vector<FeedWranglerRequest> requests(const std::string& resource) const;
  void clearRequests();

  // The `occurrence`-th request from now (1 = the next) to `resource` (below "/api/v2/"; "" for
  // any) plays `fault` instead of its answer.
  void injectFault(const std::string& resource, FeedWranglerFault fault, int occurrence = 1);

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace lectern::mock
