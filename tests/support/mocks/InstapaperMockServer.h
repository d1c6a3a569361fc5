#pragma once

#include <cstdint>
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
struct InstapaperRequest {
  std::string method;
  std::string path;  // "/api/1/bookmarks/list"
  // Decoded parameters of the query string and of the form body, in that order.
  std::multimap<std::string, std::string> parameters;
  std::string authorization;  // the header as sent
  int status = 0;             // what the mock answered
  // The first value of a parameter, "" when the request carried none.
  std::string parameter(const std::string& name) const;
};

// A failure the mock plays instead of answering one chosen request. Nothing changes on the
// server when it does.
enum class InstapaperFault {
  kServerError,     // 500 with error 1500 in the asked form
  kRateLimited,     // 400 with error 1040
  kErrorInSuccess,  // 200 whose answer is an error 1500
  kNotQline,        // 200 with an HTML page
  kDropConnection,  // headers, then the connection closes without the body
};

struct InstapaperFolder {
  std::int64_t folderId = 0;
  std::string title;
  std::int64_t position = 0;
};

struct InstapaperBookmark {
  std::int64_t bookmarkId = 0;
  std::string url;  // empty: the mock's own article page for the bookmark
  std::string title;
  std::string description;
  std::int64_t time = 0;  // seconds since 1970; 0: now
  bool starred = false;
  double progress = 0;
  std::int64_t progressTimestamp = 0;
  // "unread", "archive" or a folder id in decimal.
  std::string folder = "unread";
  // Derived from the fields above whenever they change.
  std::string hash;
};

// A stateful Instapaper full API (version 1) on 127.0.0.1 (an ephemeral port unless one is given):
// xAuth sign-in for a token pair it makes up, every call POSTed and its OAuth 1.0a HMAC-SHA1
// signature checked against the known consumer pair and the issued token pair (a bad one is
// refused with 401); folders, bookmarks with hash, progress, star and folder; `have` honoured
// (only what differs comes back, ids gone from the folder in "delete_ids"), limit applied.
// Answers in qline when asked ("format=qline"), JSON otherwise; errors as the service gives them.
// It also serves an article page per bookmark under "articles/<id>". Every API request is
// recorded; a fault can be played on a chosen one. Thread-safe; serves until destroyed.
class InstapaperMockServer {
 public:
  InstapaperMockServer(std::string username = "reader@example.org", std::string password = "secret",
                       std::string consumerKey = "lectern-consumer-key",
                       std::string consumerSecret = "lectern-consumer-secret", int port = 0);
  ~InstapaperMockServer();
  InstapaperMockServer(const InstapaperMockServer&) = delete;
  InstapaperMockServer& operator=(const InstapaperMockServer&) = delete;

  // "http://127.0.0.1:PORT/": the API lives under "api/1/" below it.
  std::string baseURL() const;
  int port() const { return port_; }
  std::string consumerKey() const;
  std::string consumerSecret() const;
  // The pair every sign-in gets (made up when the server starts).
  std::string issuedToken() const;
  std::string issuedTokenSecret() const;
  // The address of the article page of a bookmark.
  std::string articleURL(std::int64_t bookmarkId) const;

  // ---- state ----
  InstapaperFolder addFolder(std::string title, std::int64_t position = 0);
  void removeFolder(std::int64_t folderId);
  // Ids given as 0 are assigned (increasing). Answers the stored value.
  InstapaperBookmark addBookmark(InstapaperBookmark bookmark);
  void removeBookmark(std::int64_t bookmarkId);
  void setStarred(std::int64_t bookmarkId, bool starred);
  // "unread", "archive" or a folder id.
  void moveBookmark(std::int64_t bookmarkId, const std::string& folder);
  void setProgress(std::int64_t bookmarkId, double progress, std::int64_t timestamp);
  std::optional<InstapaperBookmark> bookmark(std::int64_t bookmarkId) const;
  std::vector<InstapaperBookmark> bookmarks() const;
  std::vector<InstapaperFolder> folders() const;

  // A test account: `folders` folders and `bookmarks` bookmarks spread over unread, archive and the
  // folders, every `starredEvery`-th starred (0: none).
  void seed(int folders, int bookmarks, int starredEvery);

  // ---- what was asked ----
  std::vector<InstapaperRequest> requests() const;
  // Requests whose path below "/api/1/" is `resource` ("bookmarks/list").
  std::vector<InstapaperRequest> requests(const std::string& resource) const;
  // How many article pages were served.
  int articleRequests() const;
  void clearRequests();

  // The `occurrence`-th request from now (1 = the next) to `resource` (below "/api/1/"; "" for
  // any) plays `fault` instead of its answer.
  void injectFault(const std::string& resource, InstapaperFault fault, int occurrence = 1);

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);
  void serveArticle(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace lectern::mock
