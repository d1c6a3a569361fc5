#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mocks/MockWire.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace lectern::mock {

struct FeedbinSubscription {
  std::int64_t id = 0;      // the subscription id (unsubscribe uses it)
  std::int64_t feedId = 0;  // the feed id (entries and taggings refer to it)
  std::string title;
  std::string feedUrl;
  std::optional<std::string> siteUrl;  // null on the wire when absent
  std::string createdAt = "2024-01-01T00:00:00.000000Z";
};

struct FeedbinTagging {
  std::int64_t id = 0;
  std::int64_t feedId = 0;
  std::string name;
};

struct FeedbinEntry {
  std::int64_t id = 0;
  std::int64_t feedId = 0;
  std::optional<std::string> title;
  std::optional<std::string> author;
  std::string url;
  std::optional<std::string> content;
  std::optional<std::string> summary;
  std::string published;  // ISO 8601 with six fractional digits, as the server writes it
  std::string createdAt;  // when the server first saw it; `since` filters on this
};

// A feed the server can subscribe to by address (POST subscriptions.json).
struct FeedbinDiscoverableFeed {
  std::string feedUrl;
  std::string title;
  std::optional<std::string> siteUrl;
};

// A stateful Feedbin API v2 server on 127.0.0.1 (an ephemeral port unless one is given), written
// from the service's public documentation: HTTP Basic on every request, subscriptions, taggings,
// unread and starred id sets, paged entries that answer 404 past the last page. Every request is
// recorded; a fault can be played on a chosen request. Thread-safe; serves until destroyed.
class FeedbinMockServer {
 public:
  explicit FeedbinMockServer(std::string username = "me@example.org", std::string password = "secret",
                             int port = 0);
  ~FeedbinMockServer();
  FeedbinMockServer(const FeedbinMockServer&) = delete;
  FeedbinMockServer& operator=(const FeedbinMockServer&) = delete;

  // "http://127.0.0.1:PORT/": the API lives under "v2/" below it.
  std::string baseURL() const;
  int port() const { return port_; }

  // ---- state ----
  // Ids given as 0 are assigned (increasing). Answers the stored value.
  FeedbinSubscription addSubscription(FeedbinSubscription subscription);
  void removeSubscription(std::int64_t subscriptionId);
  FeedbinTagging addTagging(std::int64_t feedId, const std::string& name);
  // Every tagging named `from` is renamed `to`.
  void renameTag(const std::string& from, const std::string& to);
  FeedbinEntry addEntry(FeedbinEntry entry, bool unread, bool starred);
  void setUnread(std::int64_t entryId, bool unread);
  void setStarred(std::int64_t entryId, bool starred);
  void addDiscoverableFeed(FeedbinDiscoverableFeed feed);
  // POSTing this address answers 300 with these choices.
  void addPageWithSeveralFeeds(const std::string& pageUrl, std::vector<FeedbinDiscoverableFeed> feeds);

  std::vector<FeedbinSubscription> subscriptions() const;
  std::vector<FeedbinTagging> taggings() const;
  std::set<std::int64_t> unreadEntryIds() const;
  std::set<std::int64_t> starredEntryIds() const;
  size_t entryCount() const;

  // A test account: `feeds` subscriptions of `entriesPerFeed` entries each, the newest `unread` of
  // all entries unread and every `starredEvery`-th starred (0: none); a tag per ten feeds.
  // Entries are dated one minute apart back from now.
  void seed(int feeds, int entriesPerFeed, int unread, int starredEvery);

  // ---- what was asked ----
  std::vector<RecordedRequest> requests() const;
  // Requests whose method and path equal these ("" matches any method).
  std::vector<RecordedRequest> requests(const std::string& method, const std::string& path) const;
  void clearRequests();

  // The `occurrence`-th request from now (1 = the next) whose method and path match plays `fault`
  // instead of its answer ("" matches any method; a path of "" matches any path).
  void injectFault(const std::string& method, const std::string& path, Fault fault, int occurrence = 1,
                   std::chrono::milliseconds delay = std::chrono::milliseconds(2000));

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace lectern::mock
