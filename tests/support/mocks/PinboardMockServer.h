#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
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
struct PinboardRequest {
  std::string method;
  std::string path;                                    // "/v1/posts/all"
  std::multimap<std::string, std::string> parameters;  // decoded query parameters, in order
  std::string authorization;                           // the Authorization header as sent
  std::string accept;
  int status = 0;  // what the mock answered
  // The first value of a parameter, "" when the request carried none.
  std::string parameter(const std::string& name) const;
  bool has(const std::string& name) const { return parameters.contains(name); }
};

// A failure the mock plays instead of answering one chosen request. Nothing changes on the server.
enum class PinboardFault {
  kServerError,      // 500 with a text body
  kResultError,      // 200 with {"result_code": "something went wrong"}
  kWrongShape,       // 200 with an object where a list is expected, a list for an object
  kNotJson,          // 200 with an HTML page
  kTooManyRequests,  // 429, as when a client calls too often
  kDropConnection,   // headers, then the connection closes without the body
};

// A post as Pinboard keeps it. `hash` is the MD5 of `href`; `meta` changes with every edit.
struct PinboardPost {
  std::string href;
  std::string description;  // the title
  std::string extended;     // the notes
  std::string tags;         // space-separated
  bool toread = true;
  bool shared = false;
  std::string time;  // "2022-04-13T13:12:10Z"; now when empty
  std::string hash;  // set by the mock
  std::string meta;  // set by the mock
};

// A stateful Pinboard API v1 server on 127.0.0.1 (an ephemeral port unless one is given):
// user/api_token with Basic authorisation, then "auth_token=user:TOKEN" on every other call (401
// otherwise); JSON with "format=json", XML without; posts kept by address; one call every
// `callInterval` and posts/all every `allPostsInterval` per user, 429 beyond. It also serves web
// pages added with addPage (the articles its posts point at). Every request is recorded; a fault
// can be played on a chosen one. Thread-safe; serves until destroyed.
class PinboardMockServer {
 public:
  struct Limits {
    std::chrono::milliseconds callInterval{3'000};
    std::chrono::milliseconds allPostsInterval{300'000};
  };

  PinboardMockServer(std::string username = "me", std::string password = "secret", int port = 0);
  ~PinboardMockServer();
  PinboardMockServer(const PinboardMockServer&) = delete;
  PinboardMockServer& operator=(const PinboardMockServer&) = delete;

  // "http://127.0.0.1:PORT/": the API lives under "v1/" below it.
  std::string baseURL() const;
  int port() const { return port_; }
  // The secret half of the token user/api_token answers.
  std::string apiToken() const;
  // The token changes (as when the user resets it): calls with the old one get 401.
  void resetApiToken();
  // Off until set: tests choose their pace. `mock-server pinboard` keeps Pinboard's own.
  void setLimits(Limits limits);

  // ---- state ----
  // Adds or replaces the post of `post.href`; answers it as stored (hash, meta, time set).
  PinboardPost addPost(PinboardPost post);
  // Changes a post as an edit elsewhere would (its meta changes, its hash stays); false when there
  // is none.
  bool editPost(const std::string& href, const std::function<void(PinboardPost&)>& edit);
  void removePost(const std::string& href);
  std::optional<PinboardPost> post(const std::string& href) const;
  std::vector<PinboardPost> posts() const;
  // A page served at `path` ("/articles/1"), as text/html.
  void addPage(const std::string& path, std::string html);
  // `count` posts pointing at pages of this server that hold an article each, newest first a
  // minute apart; the first `unread` are to read, every `sharedEvery`-th shared (0: none).
  void seed(int count, int unread, int sharedEvery);

  // ---- what was asked ----
  std::vector<PinboardRequest> requests() const;
  // Requests whose path below "/v1/" is `resource` ("posts/all").
  std::vector<PinboardRequest> requests(const std::string& resource) const;
  void clearRequests();
  // The `occurrence`-th request from now (1 = the next) to `resource` (below "/v1/"; "" for any)
  // plays `fault` instead of its answer.
  void injectFault(const std::string& resource, PinboardFault fault, int occurrence = 1);

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace lectern::mock
