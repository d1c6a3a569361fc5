#pragma once

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
struct NewsBlurRequest {
  std::string method;
  std::string path;  // "/reader/river_stories"
  // Decoded parameters of the query string and of a form body, in that order, repeats kept.
  std::multimap<std::string, std::string> parameters;
  std::string accept;
  std::string cookie;          // the Cookie header as sent
  bool authenticated = false;  // it carried a live session
  int status = 0;              // what the mock answered
  // The first value of a parameter, "" when the request carried none.
  std::string parameter(const std::string& name) const;
  // Every value of a repeated parameter, in order.
  std::vector<std::string> values(const std::string& name) const;
};

// A failure the mock plays instead of answering one chosen request. Nothing changes on the
// server when it does.
enum class NewsBlurFault {
  kServerError,     // 500 with an HTML page
  kRefused,         // 200 with {"code": -1, "message": "Something went wrong"}
  kWrongShape,      // 200 with the answer's main member of the wrong kind (a list for an object ...)
  kNotJson,         // 200 with an HTML page
  kDropConnection,  // headers, then the connection closes without the body
};

struct NewsBlurFeed {
  std::int64_t id = 0;
  std::string title;
  std::string address;
  std::string link;  // "" is written as the feed's address, as NewsBlur does for feeds without a site
  std::int64_t updatedSecondsAgo = 600;
};

// The person's training of a story: positive likes, negative dislikes.
struct NewsBlurIntelligence {
  int feed = 0;
  int author = 0;
  int tags = 0;
  int title = 0;
};

struct NewsBlurStory {
  std::string hash;  // "<feed id>:<6 hex>"; made from the id when empty
  std::string id;    // the feed's GUID of the story
  std::int64_t feedId = 0;
  std::string title;
  std::string authors;
  std::string content;
  std::string permalink;
  std::int64_t timestamp = 0;  // seconds since 1970; story_date is written from it
  bool read = false;
  bool starred = false;
  NewsBlurIntelligence intelligence;
};

// A stateful NewsBlur server on 127.0.0.1 (an ephemeral port unless one is given): a login by
// user name and password gives a "newsblur_sessionid" cookie checked on every other call (reads
// without it answer "authenticated": false and no data, writes 403 with an empty body); feeds in
// flat folders (" " the top level, nested ones "Parent - Child"), stories by hash with read and
// starred flags and intelligence, river pages that hide trained-away stories, and the mark,
// subscription and folder calls. Every request is recorded; a fault can be played on a chosen
// one. Thread-safe; serves until destroyed.
class NewsBlurMockServer {
 public:
  NewsBlurMockServer(std::string username = "me", std::string password = "secret", int port = 0);
  ~NewsBlurMockServer();
  NewsBlurMockServer(const NewsBlurMockServer&) = delete;
  NewsBlurMockServer& operator=(const NewsBlurMockServer&) = delete;

  // "http://127.0.0.1:PORT/".
  std::string baseURL() const;
  int port() const { return port_; }
  // Logins from now on need this password (changed on the web site); sessions stay.
  void setPassword(std::string password);
  // Every session ends, as an expired cookie does: the next call needs a new login.
  void expireSessions();
  // The next request to `path` finds every session ended, as if the cookie expired just before it.
  void expireSessionsOn(const std::string& path);
  // The session ids handed out so far (tests check that none reaches the log).
  std::vector<std::string> sessionIds() const;
  // Stories on a river page; 12 as NewsBlur's default.
  void setRiverPageSize(int size);

  // ---- state ----
  // Subscribes the feed into `folder` (" " the top level; nested folders "Parent - Child").
  NewsBlurFeed addFeed(NewsBlurFeed feed, const std::string& folder = " ");
  void removeFeed(std::int64_t feedId);
  // A feed add_url finds by its address or its site's.
  void addDiscoverableFeed(NewsBlurFeed feed);
  void addFolder(const std::string& flatName);
  // The folder goes; its feeds stay in their other folders.
  void removeFolder(const std::string& flatName);
  NewsBlurStory addStory(NewsBlurStory story);
  void setRead(const std::string& hash, bool read);
  void setStarred(const std::string& hash, bool starred);

  // Flat folder name -> feed ids, " " the top level.
  std::map<std::string, std::vector<std::int64_t>> flatFolders() const;
  std::set<std::int64_t> feedIds() const;
  std::set<std::string> unreadHashes() const;
  std::set<std::string> starredHashes() const;

  // A test account: `feeds` feeds (the first half in "Tech", one in "Tech - Apple" when there are
  // three or more) of `storiesPerFeed` stories each, the newest `unread` of all unread and every
  // `starredEvery`-th starred (0: none), stories a minute apart back from now.
  void seed(int feeds, int storiesPerFeed, int unread, int starredEvery);

  // ---- what was asked ----
  std::vector<NewsBlurRequest> requests() const;
  // Requests whose path is `path` ("/reader/river_stories").
  std::vector<NewsBlurRequest> requests(const std::string& path) const;
  void clearRequests();

  // The `occurrence`-th request from now (1 = the next) to `path` ("" for any) plays `fault`.
  void injectFault(const std::string& path, NewsBlurFault fault, int occurrence = 1);

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace lectern::mock
