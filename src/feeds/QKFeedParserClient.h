#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "feeds/FeedURLSplit.h"
#include "feeds/RSSFeed.h"
#include "net/AFHTTPClient.h"

namespace lectern {

// The validators of the copy of a feed document the caller holds, as the server gave them.
struct FeedValidators {
  std::optional<std::string> etag;          // "ETag", sent back as "If-None-Match"
  std::optional<std::string> lastModified;  // "Last-Modified", sent back as "If-Modified-Since"
  // Our own: the SHA-256 of the document (hex). A full answer with the same document is "not
  // modified" too, for the many servers that ignore the validators above.
  std::optional<std::string> bodyHash;
  bool operator==(const FeedValidators&) const = default;
};

// The answer to a conditional fetch: the parsed feed, or nothing when the server answered 304 or
// sent the document whose hash the caller holds (the copy the caller holds is current; nothing
// was parsed).
struct ConditionalFeed {
  std::optional<RSSFeed> feed;
  FeedValidators validators;  // of this answer (and its document's hash); on a 304, the ones sent
};

// Downloads one feed document and parses it into an RSSFeed. A new client is made for each fetch
// (by the subscribe command or a refresh operation); fetchFeed's completion runs on the main queue.
class QKFeedParserClient : public AFHTTPClient {
 public:
  using Completion = std::function<void(Result<RSSFeed> feed)>;

  // How long synchronouslyFetchFeed waits for the whole answer.
  static constexpr std::chrono::duration<double> kSynchronousFetchTimeout{30.0};
  // The largest feed document accepted (-1103 beyond). Ten times the largest real feed we know
  // (a podcast's whole history, 1.6 MB); a refresh reads three feeds at once, so the session's
  // 64 MiB cap alone would let three endless answers hold far more memory than a sync should.
  static constexpr std::uint64_t kMaximumFeedBytes = 16ull * 1024 * 1024;

  // `url` is split by FeedURLSplit: the client's base URL is the part before the path, so an
  // explicit port lands at the front of path() (":8080/feed.xml"). Requests for path() go to `url`
  // itself, so the port is honoured. An address without scheme and host (a stored link can be
  // anything) still makes a client; its fetch fails with -1000.
  QKFeedParserClient(NetworkSession& session, std::string_view url);

  const std::string& url() const { return url_; }
  const std::string& path() const { return path_; }
  const std::string& baseUrl() const { return baseUrl_; }

  // GET of path() with "Accept: */*" and nothing conditional. The body is parsed on the session's
  // XML processing queue; `onComplete` then runs once on the main queue with the feed or the error:
  // "Failed to fetch feed: <url>" for transport and HTTP failures, the parser's error otherwise.
  // The completion does not need this client to outlive the request.
  void fetchFeed(Completion onComplete);

  // The same, blocking the calling worker thread for at most the synchronous timeout. Never
  // needs the main thread.
  Result<RSSFeed> synchronouslyFetchFeed();
  // The same, conditional on `held` (no header for a validator it lacks). Relative links of the
  // document are resolved against the feed's address.
  Result<ConditionalFeed> synchronouslyFetchFeed(const FeedValidators& held);

  // For tests: a shorter limit than kSynchronousFetchTimeout.
  void setSynchronousTimeout(std::chrono::duration<double> timeout) { synchronousTimeout_ = timeout; }

  // Requests for path() without parameters go to the feed URL as given (see the constructor);
  // anything else is resolved against the base URL as usual.
  HttpRequest requestWithMethod(std::string_view method, std::string_view path,
                                const nlohmann::json& parameters = nullptr) override;

  // The error fetchFeed and synchronouslyFetchFeed give for a failed request.
  static Error fetchError(const Error& transportError, std::string_view feedURL);

 private:
  QKFeedParserClient(NetworkSession& session, std::string_view url, FeedURLSplit split);

  const std::string url_;
  const std::string path_;
  const std::string baseUrl_;
  const bool fetchable_;
  std::chrono::duration<double> synchronousTimeout_ = kSynchronousFetchTimeout;
};

}  // namespace lectern
