#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/OperationQueue.h"

namespace lectern {
class NetworkSession;
}  // namespace lectern

namespace lectern::desktop {

// The icon addresses a page offers, absolute and best first for a list row of 16 to 32 pixels:
// its <link> elements whose rel names an icon ("icon", "shortcut icon", "apple-touch-icon",
// "apple-touch-icon-precomposed"; never "mask-icon"), resolved against the page's <base href> or
// `pageUrl`. Raster icons come before SVG ones (SVG needs an optional pixbuf loader and cannot be
// checked by its first bytes), then the declared size nearest 32 px (stretching a small icon up
// counts twice as much as shrinking a large one), then "icon" before touch icons, then page order.
// http, https and data:image addresses are kept, nothing else. Each address comes once, and
// /favicon.ico of `pageUrl`'s origin always comes last (when `pageUrl` is a web address, which
// relative links need too). Any bytes are accepted.
std::vector<std::string> faviconCandidates(std::string_view html, std::string_view pageUrl);

// The page whose icon stands for a feed: the feed's site link (relative links read against the
// feed's address) when it is http or https, else the origin of the feed's own address; nothing
// when neither is a web address.
std::optional<std::string> faviconSite(std::string_view feedLink, std::string_view feedUrl);

// "scheme://host[:port]" of a web address, scheme and host lower-cased: the cache key, so every
// feed of one site shares one icon. Nothing for an address that is not http or https.
std::optional<std::string> faviconOrigin(std::string_view site);

// Sites' icons on disk, one file per origin, fetched in the background and kept for a month.
// Owned by the window; create, call and destroy it on the main thread.
class FaviconCache {
 public:
  using Completion = std::function<void(std::optional<std::filesystem::path> icon)>;

  static constexpr int kConcurrentFaviconDownloads = 2;
  static constexpr std::chrono::hours kRefreshInterval{30 * 24};
  static constexpr std::chrono::hours kFailureRetryInterval{24};
  static constexpr std::size_t kMaximumIconSize = 1024 * 1024;
  static constexpr std::size_t kMaximumPageSize = 2 * 1024 * 1024;
  static constexpr std::chrono::seconds kDownloadTimeout{20};

  // `folder` is created on the first icon written.
  FaviconCache(NetworkSession& session, std::filesystem::path folder, const Clock& clock);
  // Cancels, then waits for the downloads that are running (each bounded by kDownloadTimeout).
  ~FaviconCache();
  FaviconCache(const FaviconCache&) = delete;
  FaviconCache& operator=(const FaviconCache&) = delete;

  // The icon on disk for `site` (a page or an origin), stale or not; one stat, no network.
  std::optional<std::filesystem::path> cachedIcon(std::string_view site) const;

  // Returns at once; `done` runs later on the main queue with the icon, or nothing when the site
  // has none that could be fetched. A missing or month-old icon is fetched unless the site failed
  // within a day or the network is down; meanwhile and then, a stale icon is still the answer.
  // A fetch reads the site's page, then tries its five best icons and /favicon.ico in turn,
  // keeping the first answer that is an image of at most kMaximumIconSize. Requests for a site
  // already being fetched wait for that fetch.
  void request(std::string_view site, Completion done);

  // Drops the fetches that have not started, stops the running ones before their next download,
  // and forgets their callers: their `done` never runs.
  void cancel();

 private:
  struct Fetch;

  // "<origin as a file name>.icon", and the empty "<...>.failed" whose time is the last failure.
  std::filesystem::path iconPath(std::string_view origin) const;
  std::filesystem::path failureMarkerPath(std::string_view origin) const;

  void fetch(const std::shared_ptr<Fetch>& work);
  std::optional<std::string> downloadIcon(const Fetch& work);
  void finish(const std::shared_ptr<Fetch>& work, std::optional<std::filesystem::path> icon);
  void post(std::vector<Completion> callers, std::optional<std::filesystem::path> icon);
  std::optional<std::filesystem::path> existingIcon(const std::string& origin) const;

  NetworkSession& session_;
  const std::filesystem::path folder_;
  const Clock& clock_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // posted completions check it first
  std::mutex mutex_;                                            // guards fetches_
  std::map<std::string, std::shared_ptr<Fetch>> fetches_;       // by origin, until their callers are told
  OperationQueue queue_;  // last: its operations use the members above until it is gone
};

}  // namespace lectern::desktop
