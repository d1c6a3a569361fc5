#include "feeds/FeedDiscovery.h"

#include <cctype>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "core/Strings.h"
#include "feeds/QKFeedLinkParser.h"

namespace lectern {

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

Result<std::vector<QKFeedLinkItem>> discoverFeeds(NetworkSession& session, std::string_view typed) {
  std::mutex mutex;  // guards outcome
  std::condition_variable done;
  std::optional<Result<std::vector<QKFeedLinkItem>>> outcome;
  {
    QKFeedLinkParser parser(session, normalizedFeedAddress(typed));
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
  return std::move(*outcome);
}

}  // namespace lectern
