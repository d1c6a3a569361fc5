#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/Error.h"
#include "feeds/QKFeedLinkItem.h"
#include "net/NetworkSession.h"

namespace lectern {

inline constexpr std::string_view kQKFeedLinkParserErrorDomain = "QKFeedLinkParserErrorDomain";

// The codes of kQKFeedLinkParserErrorDomain.
enum class QKFeedLinkParserError : int {
  kNoFeedLinks = 0,      // "The specified URL does not return a valid feed document"
  kNoData = 1,           // "Response does not contain any data"
  kUnknownMIMEType = 2,  // "Unknown MIMI type" (sic: users have always seen it so)
};

// Finds the feeds an address stands for: itself when it serves a feed, else its page's feed links.
// Made by its caller; one search at a time, each on its own thread; completions on the main queue.
class QKFeedLinkParser {
 public:
  // The name of the searches' queue; the threads are named "feedlinkparser".
  static constexpr std::string_view kQueueLabel = "com.quillhq.feedlinkparser";
  using Completion = std::function<void(Result<std::vector<QKFeedLinkItem>> items)>;

  // `url` must be a full address (the caller adds a missing scheme).
  QKFeedLinkParser(NetworkSession& session, std::string url);
  // Waits for a running search; on the main thread it keeps the main queue running meanwhile.
  ~QKFeedLinkParser();
  QKFeedLinkParser(const QKFeedLinkParser&) = delete;
  QKFeedLinkParser& operator=(const QKFeedLinkParser&) = delete;

  const std::string& url() const { return url_; }

  // Starts the search and returns at once. The address is downloaded once, as it is (no extra
  // headers; any status code: a 404 page is examined like any page); `onCompleteBlock` then runs on
  // the main queue, synchronously (the worker waits for it), with the candidates or the error: the
  // transport's own error for a failed download, else one of QKFeedLinkParserError. Calling it
  // while a search runs is a broken contract (InternalInconsistency); from the completion block on,
  // the parser may search again.
  void getFeedLinks(Completion onCompleteBlock);

  // The steps after the download, for any thread.

  // "application/rss+xml", "application/atom+xml", "application/xml", "application/rdf+xml",
  // "text/xml", exactly: the response's bare MIME type is compared, parameters stripped.
  static bool isFeedMIMEType(std::string_view MIMEType);
  // Exactly "text/html".
  static bool isHtmlMIMEType(std::string_view MIMEType);
  // Classifies a downloaded body. `encodingName` is the response's charset: none means ISO
  // Latin 1, a name nobody knows means UTF-8. A feed type gives the one item "Feed" with
  // `examinedURL` (the address asked for, not where redirects ended).
  static Result<std::vector<QKFeedLinkItem>> URLDidLoaded(std::string_view examinedURL, std::string_view body,
                                                          std::string_view MIMEType,
                                                          const std::optional<std::string>& encodingName);
  // The feed links of a page, in document order: every `link` child of `head` whose "type" is a feed
  // type, whatever its "rel". An href that is an absolute path is appended to `examinedURL` as a
  // path component (the page's own path stays: "/feed" under "http://h/blog" is
  // "http://h/blog/feed"); any other href is taken as it stands, a relative one staying relative.
  // Links without an href are left out. Bytes that are not valid in `encoding` read as U+FFFD.
  // Each item's resolvedURL is the href resolved by the generic rules of RFC 3986 against the
  // first <base href> (itself resolved against `examinedURL`), else against `examinedURL`.
  static std::vector<QKFeedLinkItem> parseFeedLinksFromHtmlData(std::string_view data,
                                                                std::string_view encoding,
                                                                std::string_view examinedURL);
  static Error error(QKFeedLinkParserError code);

 private:
  // On the worker: download, classify, complete.
  void startDownloading(const Completion& onCompleteBlock);
  void doCompletionBlockInMainThread(const Completion& onCompleteBlock,
                                     Result<std::vector<QKFeedLinkItem>> items);

  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> finished;  // set after the completion has run
  };

  NetworkSession& session_;
  const std::string url_;
  // Cleared on the main queue just before the completion runs, so the block may search again.
  std::atomic<bool> searching_ = false;
  // A worker ends a moment after its completion; finished ones are joined at the next search.
  std::vector<Worker> workers_;  // used by the owner's thread only
};

}  // namespace lectern
