#include "feeds/FeedDiscovery.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "core/Log.h"
#include "core/Strings.h"
#include "feeds/FeedDocumentParser.h"
#include "feeds/QKFeedLinkParser.h"
#include "feeds/URLDownload.h"
#include "net/URL.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "FeedDiscovery";
// A candidate that does not answer within this long is taken as no feed.
constexpr std::chrono::seconds kProbeTimeout{20};

}  // namespace

bool hasURLScheme(std::string_view text) {
  if (text.empty() || !std::isalpha(static_cast<unsigned char>(text.front()))) return false;
  size_t i = 1;
  while (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '+' ||
                             text[i] == '-' || text[i] == '.')) {
    ++i;
  }
  return text.substr(i).starts_with("://");
}

std::string normalizedFeedAddress(std::string_view typed) {
  const std::string_view address = trimView(typed);
  if (address.empty() || hasURLScheme(address)) return std::string(address);
  return "https://" + std::string(address);
}

std::string comparableFeedAddress(std::string_view address) {
  std::string text(trimView(address));
  if (!URL::parse(text) || !hasURLScheme(text)) return text;
  // scheme "://" [userinfo "@"] host [":" port] then path, query or fragment
  const size_t schemeEnd = text.find("://");
  const size_t authorityStart = schemeEnd + 3;
  const size_t authorityEnd = std::min(text.find_first_of("/?#", authorityStart), text.size());
  const size_t at = text.rfind('@', authorityEnd == 0 ? 0 : authorityEnd - 1);
  const size_t hostStart = at != std::string::npos && at >= authorityStart ? at + 1 : authorityStart;
  return toLowerASCII(text.substr(0, schemeEnd)) + text.substr(schemeEnd, hostStart - schemeEnd) +
         toLowerASCII(text.substr(hostStart, authorityEnd - hostStart)) + text.substr(authorityEnd);
}

bool answersWithFeed(NetworkSession& session, std::string_view url) {
  auto download = downloadURLSynchronously(session, url, URLDownloadOptions{.timeout = kProbeTimeout});
  if (!download) {
    logDebugMessage(kLogCategory, "{} is no feed: {}", url, download.error().message());
    return false;
  }
  if (QKFeedLinkParser::isFeedMIMEType(download->response.MIMEType())) return true;
  return FeedDocumentParser::parseFeedData(download->data, std::chrono::system_clock::now()).has_value();
}

std::string chooseCandidateAddress(NetworkSession& session, std::string_view pageAddress,
                                   const QKFeedLinkItem& item) {
  std::string first = item.URL;
  if (!hasURLScheme(first)) {
    if (auto page = URL::parse(pageAddress); page && page->isAbsolute()) {
      if (auto resolved = page->resolve(first)) first = resolved->string();
    }
  }
  const std::string& second = item.resolvedURL;
  if (second.empty() || second == first || answersWithFeed(session, first)) return first;
  logDebugMessage(kLogCategory, "{} answers with no feed; taking {}", first, second);
  return second;
}

Result<std::vector<QKFeedLinkItem>> discoverFeeds(NetworkSession& session, std::string_view typed) {
  const std::string address = normalizedFeedAddress(typed);
  std::mutex mutex;  // guards outcome
  std::condition_variable done;
  std::optional<Result<std::vector<QKFeedLinkItem>>> outcome;
  {
    QKFeedLinkParser parser(session, address);
    parser.getFeedLinks([&](Result<std::vector<QKFeedLinkItem>> items) {
      std::lock_guard lock(mutex);
      outcome = std::move(items);
      done.notify_all();
    });
    MainQueue& main = session.mainQueue();
    if (main.isMainThread()) {
      main.runUntil([&] {
        std::lock_guard lock(mutex);
        return outcome.has_value();
      });
    } else {
      std::unique_lock lock(mutex);
      done.wait(lock, [&] { return outcome.has_value(); });
    }
  }
  if (!*outcome) return std::move(*outcome);
  std::vector<QKFeedLinkItem> items = std::move(**outcome);
  for (auto& item : items) item.URL = chooseCandidateAddress(session, address, item);
  return items;
}

Result<std::vector<QKFeedLinkItem>> subscriptionCandidates(NetworkSession& session, std::string_view typed) {
  auto candidates = discoverFeeds(session, typed);
  if (!candidates && candidates.error().domain == "QKFeedLinkParserErrorDomain" && candidates.error().code == 2) {
    return std::vector<QKFeedLinkItem>{{"", normalizedFeedAddress(typed)}};
  }
  return candidates;
}

}  // namespace lectern
