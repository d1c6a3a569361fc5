#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
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

struct FeedlyEntrySeed {
  std::string id;      // entry id; real ones contain '=', '+', '/', ':' and so do seeded ones
  std::string feedId;  // "feed/<url>" of its subscription (origin.streamId)
  std::string title, author, contentHtml, summaryHtml, link;      // empty: the field is omitted
  std::optional<std::int64_t> publishedMs, crawledMs, updatedMs;  // nullopt: omitted
};

// A stateful Feedly cloud API v3 server on 127.0.0.1 (an ephemeral port unless one is given):
// the OAuth authorization-code flow with refreshable access tokens, checked on every API call as
// "OAuth <token>" or "Bearer <token>"; profile, categories, subscriptions, entry-id streams with
// continuations, entry bodies by id, read and saved markers. Ids travel percent-encoded inside
// path segments and are matched on the raw request target. Every request is recorded with its
// decoded path; a fault can be played on a chosen one. Thread-safe; serves until destroyed.
class FeedlyMockServer {
 public:
  FeedlyMockServer(std::string clientId = "lectern-test-client",
                   std::string clientSecret = "lectern-test-secret", int port = 0);
  ~FeedlyMockServer();
  FeedlyMockServer(const FeedlyMockServer&) = delete;
  FeedlyMockServer& operator=(const FeedlyMockServer&) = delete;

  // "http://127.0.0.1:PORT/": the API lives under "v3/" below it.
  std::string endpoint() const;
  int port() const { return port_; }
  const std::string& clientId() const { return clientId_; }
  const std::string& clientSecret() const { return clientSecret_; }
  // The profile id, as in "user/<id>/category/global.all". Clients may also write "user/-/...".
  std::string userId() const;
  std::string email() const;  // "me@example.org"

  // ---- tokens ----
  // A valid access token without a refresh token, as a person copies from the developer page.
  // A new one is issued when the last one was expired.
  std::string developerToken() const;
  // expires_in of access tokens issued from now on (default 604800). They do run out after it.
  void setExpiresIn(std::int64_t seconds);
  // Every access token issued so far answers 401 until a refresh issues a new one.
  void expireAccessTokens();
  // Refresh grants fail from now on: 401 "revoked refresh_token".
  void revokeRefreshTokens();
  int refreshGrants() const;  // successful refresh_token grants so far
  int codeGrants() const;     // successful authorization_code grants so far
  // The newest access token that is still valid ("" when none is).
  std::string currentAccessToken() const;

  // What GET /v3/auth/auth does, as a consenting or declining user would.
  enum class Consent {
    kGrant,      // redirects with a fresh one-time code and the state sent
    kDecline,    // redirects with error=access_denied
    kWrongState  // redirects with a valid code but another state
  };
  void setConsent(Consent consent);

  // ---- library ----
  // Answers "user/<uid>/category/<label>"; an existing one is kept.
  std::string addCategory(const std::string& label);
  // Creates or replaces subscription "feed/<feedUrl>"; unknown category ids are created, labelled
  // after their last path segment.
  void addSubscription(const std::string& feedUrl, const std::string& title,
                       std::optional<std::string> website, std::vector<std::string> categoryIds);
  // Drops the subscription and its entries, except saved ones.
  void removeSubscription(const std::string& feedId);
  // Streams sort an entry by crawledMs, else publishedMs, else the time it was added.
  void addEntry(FeedlyEntrySeed entry, bool unread, bool saved);
  void setUnread(const std::string& entryId, bool unread);
  void setSaved(const std::string& entryId, bool saved);
  std::set<std::string> unreadIds() const;
  std::set<std::string> savedIds() const;
  size_t entryCount() const;
  nlohmann::json subscriptionsJson() const;  // as GET /v3/subscriptions answers
  nlohmann::json categoriesJson() const;     // as GET /v3/categories answers

  // `feeds` subscriptions of `entriesPerFeed` entries, the newest `unread` of all unread, every
  // `savedEvery`-th saved (0: none), a category per ten feeds; entries a minute apart back from now.
  void seed(int feeds, int entriesPerFeed, int unread, int savedEvery);

  // ---- what was asked ----
  std::vector<RecordedRequest> requests() const;
  // Requests whose decoded path starts with `pathPrefix` ("/v3/profile", "/v3/entries/.mget").
  std::vector<RecordedRequest> requests(const std::string& pathPrefix) const;
  void clearRequests();
  // The `occurrence`-th request from now (1 = the next) whose decoded path starts with
  // `pathPrefix` ("" any) plays `fault` instead of its answer; Fault::kSlow waits `delay`.
  void injectFault(const std::string& pathPrefix, Fault fault, int occurrence = 1,
                   std::chrono::milliseconds delay = std::chrono::milliseconds(2000));

 private:
  struct State;
  void route(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<State> state_;
  std::thread thread_;
  int port_ = 0;
  std::string clientId_;
  std::string clientSecret_;
};

}  // namespace lectern::mock
