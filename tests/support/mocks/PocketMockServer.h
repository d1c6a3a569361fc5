#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
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
struct PocketRequest {
  std::string method;
  std::string path;  // "/v3/get", "/auth/authorize"
  // The parameters of a JSON body, or of a form body or the query (each value a string).
  nlohmann::json parameters = nlohmann::json::object();
  std::string contentType;
  std::string accept;
  std::string xAccept;
  int status = 0;  // what the mock answered
  // The parameter as text ("" when absent; a list or object as its JSON).
  std::string parameter(const std::string& name) const;
  // The "actions" of a send, a JSON body's list or a form's JSON text read back.
  nlohmann::json actions() const;
};

// A failure the mock plays instead of answering one chosen request. Nothing changes on the
// server when it does.
enum class PocketFault {
  kServerError,     // 503 with "X-Error: Pocket's server is down for scheduled maintenance."
  kErrorHeader,     // 200 with a usual body but "X-Error: Something went wrong"
  kWrongShape,      // 200 with a JSON list where an object is expected
  kNotJson,         // 200 with an HTML page
  kDropConnection,  // headers, then the connection closes without the body
};

// An item of the list as the server keeps it.
struct PocketItem {
  std::string itemId;  // assigned when empty
  std::string givenUrl;
  std::string givenTitle;
  std::string resolvedUrl;    // empty: not resolved yet (absent on the wire)
  std::string resolvedTitle;  // empty: none
  int status = 0;             // 0 in the list, 1 archived, 2 deleted
  bool favorite = false;
  std::vector<std::string> tags;
  bool isArticle = true;
  int hasImage = 0;  // 0 none, 1 shows images, 2 is an image
  int hasVideo = 0;  // 0 none, 1 shows videos, 2 is a video
  std::int64_t timeAdded = 0;    // set to the mock's clock when 0
  std::int64_t timeUpdated = 0;  // every change sets it to the mock's clock
  std::string excerpt;
};

// A stateful Pocket API v3 server on 127.0.0.1 (an ephemeral port unless one is given): the sign-in
// with a request token and an authorisation page that sends the browser back to the redirect,
// items with status, favourite and tags listed by state, "since", offset and count (30 at most
// when no count is asked, "[]" when nothing is left), one or more actions per send, pages added by
// address. Refusals (an unknown consumer key or access token, a bad action) say "X-Error" with
// status 200 unless told otherwise. Every request is recorded; a fault can be played on a chosen
// one. The pages the seeded items point at are served under "/articles/". Thread-safe; serves until
// destroyed.
class PocketMockServer {
 public:
  PocketMockServer(std::string consumerKey = "lectern-consumer-key", std::string username = "pocketuser",
                   int port = 0);
  ~PocketMockServer();
  PocketMockServer(const PocketMockServer&) = delete;
  PocketMockServer& operator=(const PocketMockServer&) = delete;

  // "http://127.0.0.1:PORT/": the API is under "v3/", the sign-in page at "auth/authorize".
  std::string baseURL() const;
  int port() const { return port_; }
  std::string consumerKey() const;
  std::string username() const;
  // The token every successful sign-in answers with.
  std::string accessToken() const;
  // Access tokens granted so far.
  int authorizations() const;

  // What the person does on the authorisation page.
  enum class Consent { kGrant, kDecline };
  void setConsent(Consent consent);
  // The status refusals are said with (200 by default; Pocket's own documentation says 4xx).
  void setRefusalStatus(int status);

  // ---- state ----
  // The mock's clock (seconds since 1970): it starts at the real time and moves one second with
  // every change, so that "since" separates what changed before an answer from what changed after.
  std::int64_t now() const;
  // Answers the item as stored.
  PocketItem addItem(PocketItem item);
  // Each a change at the next second of the mock's clock; false for an unknown item.
  bool setStatus(const std::string& itemId, int status);
  bool setFavorite(const std::string& itemId, bool favorite);
  bool setTitle(const std::string& itemId, const std::string& title);
  std::optional<PocketItem> item(const std::string& itemId) const;
  // Items not deleted, newest first.
  std::vector<PocketItem> items() const;
  // `unread` items in the list and `archived` in the archive, every `favoriteEvery`-th favourited
  // (0: none), each pointing at its page here; every third shows an image, every fifth is a video.
  void seed(int unread, int archived, int favoriteEvery);
  // The page an item can point at: "http://127.0.0.1:PORT/articles/<name>".
  std::string articleURL(const std::string& name) const;

  // ---- what was asked ----
  std::vector<PocketRequest> requests() const;
  // Requests whose path below "/v3/" is `resource` ("get", "send", "oauth/request").
  std::vector<PocketRequest> requests(const std::string& resource) const;
  void clearRequests();
  // The `occurrence`-th request from now (1 = the next) to `resource` (below "/v3/"; "" for any)
  // plays `fault` instead of its answer.
  void injectFault(const std::string& resource, PocketFault fault, int occurrence = 1);

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace lectern::mock
