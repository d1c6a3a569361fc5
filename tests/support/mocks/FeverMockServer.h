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

#include "mocks/MockWire.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace lectern::mock {

// How a server that speaks the Fever API writes its answers: they differ where clients slip.
enum class FeverFlavour {
  // Numbers everywhere, `auth` 1, a page for since_id=0 in no order, and "saved"/"unsaved"
  // toggling the star (asked twice, an item ends as it was).
  kNumbersAndToggledStars,
  // Item ids, flags and the refresh time as text, and stars set as asked.
  kTextIds,
};

struct FeverGroup {
  std::int64_t id = 0;
  std::string title;
};

struct FeverFeed {
  std::int64_t id = 0;
  std::string title;
  std::string url;
  std::optional<std::string> siteUrl;
  bool isSpark = false;
  std::int64_t lastUpdatedOnTime = 0;
};

struct FeverItem {
  std::int64_t id = 0;
  std::int64_t feedId = 0;
  std::string title;
  std::string author;
  std::string html;
  std::string url;
  std::int64_t createdOnTime = 0;  // seconds since 1970
};

// A server speaking the Fever API on 127.0.0.1 at `path` (an ephemeral port unless one is given),
// written from the API's public description: one endpoint, every call a POST with the api_key in
// its body and the query word choosing the call; a wrong key is answered 200 with "auth": 0.
// Records every request and plays a fault on a chosen one. Thread-safe; serves until destroyed.
class FeverMockServer {
 public:
  FeverMockServer(std::string username = "me", std::string password = "secret",
                  FeverFlavour flavour = FeverFlavour::kNumbersAndToggledStars, std::string path = "/fever/",
                  int port = 0);
  ~FeverMockServer();
  FeverMockServer(const FeverMockServer&) = delete;
  FeverMockServer& operator=(const FeverMockServer&) = delete;

  // The endpoint a person enters: "http://127.0.0.1:PORT/fever/".
  std::string endpoint() const;
  int port() const { return port_; }

  void addGroup(FeverGroup group);
  void addFeed(FeverFeed feed, const std::vector<std::int64_t>& groupIds);
  void removeFeed(std::int64_t feedId);
  void addItem(FeverItem item, bool read, bool saved);
  void setRead(std::int64_t itemId, bool read);
  void setSaved(std::int64_t itemId, bool saved);
  std::set<std::int64_t> unreadItemIds() const;
  std::set<std::int64_t> savedItemIds() const;

  // `feeds` feeds of `itemsPerFeed` items, the newest `unread` of all unread, every
  // `savedEvery`-th saved (0: none), a group per ten feeds; items a minute apart back from now.
  void seed(int feeds, int itemsPerFeed, int unread, int savedEvery);

  std::vector<RecordedRequest> requests() const;
  // Requests whose query names `word` ("groups", "items", "unread_item_ids", "refresh"; "mark"
  // matches mark calls by their body).
  std::vector<RecordedRequest> requests(const std::string& word) const;
  void clearRequests();
  // The `occurrence`-th request from now whose query names `word` ("" any) plays `fault`.
  void injectFault(const std::string& word, Fault fault, int occurrence = 1);

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
  std::string path_;
};

}  // namespace lectern::mock
