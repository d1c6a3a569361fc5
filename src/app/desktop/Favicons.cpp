#include "app/desktop/Favicons.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <set>
#include <tuple>

#include "content/HtmlDocument.h"
#include "content/PageDecoder.h"
#include "core/Log.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "feeds/URLDownload.h"
#include "net/AFImageRequestOperation.h"
#include "net/NetworkReachability.h"
#include "net/NetworkSession.h"
#include "net/URL.h"
#include "net/URLError.h"

namespace lectern::desktop {
namespace {

constexpr std::string_view kLogCategory = "Favicons";
// The pixel size icons are judged against: a list row shows 16 to 32 px, 32 on a doubled screen.
constexpr double kRowIconSize = 32;
// What an icon without "sizes" probably is: a classic 16 px favicon, a 180 px touch icon.
constexpr double kUnsizedIconSize = 16;
constexpr double kUnsizedTouchIconSize = 180;
constexpr size_t kMaximumCandidatesTried = 6;

enum class IconKind { kIcon = 0, kTouchIcon = 1 };

struct Candidate {
  std::string url;
  bool svg = false;
  double misfit = 0;
  IconKind kind = IconKind::kIcon;
};

bool isAsciiSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

// Space-separated tokens, lower-cased, as rel and sizes are read.
std::vector<std::string> tokens(std::string_view text) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && isAsciiSpace(text[i])) ++i;
    const size_t start = i;
    while (i < text.size() && !isAsciiSpace(text[i])) ++i;
    if (i > start) out.push_back(toLowerASCII(text.substr(start, i - start)));
  }
  return out;
}

// "mask-icon" is a monochrome SVG mask for pinned tabs, not an icon to show as it is.
std::optional<IconKind> iconKind(std::string_view rel) {
  std::optional<IconKind> kind;
  for (const auto& token : tokens(rel)) {
    if (token == "mask-icon") return std::nullopt;
    if (token == "icon") {
      kind = IconKind::kIcon;
    } else if ((token == "apple-touch-icon" || token == "apple-touch-icon-precomposed") && !kind) {
      kind = IconKind::kTouchIcon;
    }
  }
  return kind;
}

// How far an icon of `pixels` is from the row's size, in doublings; stretching up blurs, so a
// doubling up counts twice.
double misfit(double pixels) {
  return pixels >= kRowIconSize ? std::log2(pixels / kRowIconSize) : 2 * std::log2(kRowIconSize / pixels);
}

std::optional<int> positiveInteger(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value <= 0) return std::nullopt;
  return value;
}

// The best fit among the sizes a link declares ("16x16 32x32", "any"); nothing when none reads.
std::optional<double> declaredMisfit(std::string_view sizes) {
  std::optional<double> best;
  for (const auto& token : tokens(sizes)) {
    double fit = 0;
    if (token != "any") {
      const size_t x = token.find('x');
      if (x == std::string::npos) continue;
      const auto width = positiveInteger(std::string_view(token).substr(0, x));
      const auto height = positiveInteger(std::string_view(token).substr(x + 1));
      if (!width || !height) continue;
      fit = misfit(std::max(*width, *height));
    }
    if (!best || fit < *best) best = fit;
  }
  return best;
}

bool isWebScheme(std::string_view scheme) {
  return equalsIgnoringASCIICase(scheme, "http") || equalsIgnoringASCIICase(scheme, "https");
}

// The media type and payload of a data: address; nothing when it has no comma.
std::optional<std::pair<std::string, std::string_view>> splitDataURL(std::string_view url) {
  if (url.size() < 5 || !equalsIgnoringASCIICase(url.substr(0, 5), "data:")) return std::nullopt;
  url.remove_prefix(5);
  const size_t comma = url.find(',');
  if (comma == std::string_view::npos) return std::nullopt;
  return std::pair{toLowerASCII(trimView(url.substr(0, comma))), url.substr(comma + 1)};
}

std::optional<std::string> dataURLBytes(std::string_view url) {
  const auto parts = splitDataURL(url);
  if (!parts) return std::nullopt;
  const std::string payload = percentUnescape(parts->second);
  if (parts->first.ends_with(";base64")) return base64Decode(payload);
  return payload;
}

// A web address with scheme and host lower-cased and the fragment dropped, so that one icon
// written two ways is fetched once.
std::string normalizedWebAddress(const URL& url, const std::string& origin) {
  std::string out = origin + (url.path().empty() ? "/" : url.path());
  if (url.query()) out += "?" + *url.query();
  return out;
}

// `href` as a candidate address: http(s) normalised, data:image kept as written, the rest dropped.
std::optional<std::string> candidateAddress(std::string_view href, const std::optional<URL>& base) {
  href = trimView(href);
  if (href.empty()) return std::nullopt;
  if (const auto data = splitDataURL(href)) {
    if (!data->first.starts_with("image/")) return std::nullopt;
    return std::string(href);
  }
  const std::optional<URL> url = base ? base->resolve(href) : URL::parse(href);
  if (!url || !url->isAbsolute() || !isWebScheme(url->scheme())) return std::nullopt;
  const auto origin = faviconOrigin(url->string());
  if (!origin) return std::nullopt;
  return normalizedWebAddress(*url, *origin);
}

bool isSVGCandidate(std::string_view address, std::string_view type) {
  if (toLowerASCII(trimView(type)) == "image/svg+xml") return true;
  if (const auto data = splitDataURL(address)) return data->first.starts_with("image/svg+xml");
  const auto url = URL::parse(address);
  if (!url) return false;
  const std::string extension = toLowerASCII(url->pathExtension());
  return extension == "svg" || extension == "svgz";
}

// An SVG document by its first bytes: past a byte-order mark, white space, an XML declaration,
// comments and a doctype, the root element is <svg>.
bool looksLikeSVG(std::string_view data) {
  if (data.starts_with("\xEF\xBB\xBF")) data.remove_prefix(3);
  while (true) {
    data = trimView(data);
    std::string_view close;
    if (data.starts_with("<?")) {
      close = "?>";
    } else if (data.starts_with("<!--")) {
      close = "-->";
    } else if (data.starts_with("<!")) {
      close = ">";
    } else {
      break;
    }
    const size_t end = data.find(close);
    if (end == std::string_view::npos) return false;
    data.remove_prefix(end + close.size());
  }
  return data.starts_with("<svg") && data.size() > 4 &&
         (isAsciiSpace(data[4]) || data[4] == '>' || data[4] == '/');
}

// What the window can show: a raster image by its signature, or an SVG document. An error page
// served with 200 is neither.
bool isIconImage(std::string_view data) {
  return !data.empty() && data.size() <= FaviconCache::kMaximumIconSize &&
         (!imageFormatOfData(data).empty() || looksLikeSVG(data));
}

bool isHtmlMIMEType(std::string_view type) {
  return type.empty() || type == "text/html" || type == "application/xhtml+xml";
}

// Failures that say the host itself cannot be reached: trying /favicon.ico there too would only
// wait again.
bool hostIsUnreachable(const Error& error) {
  if (error.domain != kURLErrorDomain) return false;
  switch (error.code) {
    case URLErrorCode::kTimedOut:
    case URLErrorCode::kCannotFindHost:
    case URLErrorCode::kCannotConnectToHost:
    case URLErrorCode::kDNSLookupFailed:
    case URLErrorCode::kNotConnectedToInternet:
      return true;
    default:
      return false;
  }
}

// A file's modification time is when it was written by the cache's clock, so the refresh and
// retry rules follow that clock (a fake one in tests) and survive restarts.
void stamp(const std::filesystem::path& file, Date at) {
  std::error_code error;
  std::filesystem::last_write_time(file, std::chrono::file_clock::from_sys(at), error);
}

std::optional<Date> stampOf(const std::filesystem::path& file) {
  std::error_code error;
  const auto time = std::filesystem::last_write_time(file, error);
  if (error) return std::nullopt;
  return std::chrono::time_point_cast<Date::duration>(std::chrono::file_clock::to_sys(time));
}

// "https_example.com%3A8080": the origin as a file name, kept readable and free of collisions
// ('_' only after the scheme, everything but [a-z0-9.-] escaped).
std::string fileStem(std::string_view origin) {
  const size_t separator = origin.find("://");
  std::string stem(origin.substr(0, separator));
  stem += '_';
  for (const char c : origin.substr(separator == std::string_view::npos ? 0 : separator + 3)) {
    if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-') {
      stem += c;
    } else {
      stem += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
  }
  return stem;
}

}  // namespace

std::vector<std::string> faviconCandidates(std::string_view html, std::string_view pageUrl) {
  std::optional<URL> page = URL::parse(trimView(pageUrl));
  if (page && !page->isAbsolute()) page.reset();

  std::vector<Candidate> found;
  if (!trimView(html).empty()) {
    if (auto document = HtmlDocument::parse(textAsUTF8(html))) {
      // Links anywhere count: a broken page's head often ends up in the body after recovery.
      std::vector<xmlNodePtr> links;
      std::optional<std::string> baseHref;
      forEachNode(reinterpret_cast<xmlNodePtr>((*document)->doc()), [&](xmlNodePtr node) {
        if (isElement(node, "link")) links.push_back(node);
        if (!baseHref && isElement(node, "base") &&
            xmlHasProp(node, reinterpret_cast<const xmlChar*>("href"))) {
          baseHref = attribute(node, "href");
        }
      });
      // As a browser does: the first <base href>, itself read against the page.
      std::optional<URL> base = page;
      if (baseHref && page) {
        if (auto resolved = page->resolve(trimView(*baseHref)); resolved && resolved->isAbsolute())
          base = resolved;
      }
      for (xmlNodePtr link : links) {
        const auto kind = iconKind(attribute(link, "rel"));
        if (!kind) continue;
        auto address = candidateAddress(attribute(link, "href"), base);
        if (!address) continue;
        const auto declared = declaredMisfit(attribute(link, "sizes"));
        Candidate candidate;
        candidate.svg = isSVGCandidate(*address, attribute(link, "type"));
        candidate.misfit = declared
                               ? *declared
                               : misfit(*kind == IconKind::kIcon ? kUnsizedIconSize : kUnsizedTouchIconSize);
        candidate.kind = *kind;
        candidate.url = std::move(*address);
        found.push_back(std::move(candidate));
      }
    }
  }
  std::stable_sort(found.begin(), found.end(), [](const Candidate& a, const Candidate& b) {
    return std::tie(a.svg, a.misfit, a.kind) < std::tie(b.svg, b.misfit, b.kind);
  });

  std::optional<std::string> fallback;
  if (page) {
    if (auto origin = faviconOrigin(page->string())) fallback = *origin + "/favicon.ico";
  }
  std::vector<std::string> out;
  std::set<std::string> seen;
  for (auto& candidate : found) {
    if (candidate.url == fallback || !seen.insert(candidate.url).second) continue;
    out.push_back(std::move(candidate.url));
  }
  if (fallback) out.push_back(std::move(*fallback));
  return out;
}

std::optional<std::string> faviconOrigin(std::string_view site) {
  const auto url = URL::parse(trimView(site));
  if (!url || !url->isAbsolute() || !isWebScheme(url->scheme()) || !url->hasAuthority() ||
      url->host().empty()) {
    return std::nullopt;
  }
  const std::string scheme = toLowerASCII(url->scheme());
  const std::string host = toLowerASCII(url->host());
  std::string origin = scheme + "://" + (host.find(':') != std::string::npos ? "[" + host + "]" : host);
  // The default port names the same site as no port.
  if (const auto port = url->port(); port && *port != (scheme == "https" ? 443 : 80)) {
    origin += ":" + std::to_string(*port);
  }
  return origin;
}

std::optional<std::string> faviconSite(std::string_view feedLink, std::string_view feedUrl) {
  std::optional<URL> feed = URL::parse(trimView(feedUrl));
  if (feed && !feed->isAbsolute()) feed.reset();
  if (const std::string_view link = trimView(feedLink); !link.empty()) {
    const std::optional<URL> site = feed ? feed->resolve(link) : URL::parse(link);
    if (site && faviconOrigin(site->string())) return site->string();
  }
  if (feed) return faviconOrigin(feed->string());
  return std::nullopt;
}

// One site's fetch, shared by the worker that runs it and the callers that wait for it.
struct FaviconCache::Fetch {
  std::string origin;
  std::string site;                     // the page that names the icon
  std::vector<Completion> callers;      // guarded by the cache's mutex_
  std::atomic<bool> cancelled = false;  // set under the cache's mutex_, read anywhere
};

FaviconCache::FaviconCache(NetworkSession& session, std::filesystem::path folder, const Clock& clock)
    : session_(session),
      folder_(std::move(folder)),
      clock_(clock),
      queue_("com.quillhq.Lectern.Favicons", kConcurrentFaviconDownloads) {}

FaviconCache::~FaviconCache() {
  cancel();
  // Workers never wait for the main queue, so a plain wait cannot deadlock; after it no worker
  // reads alive_ any more.
  queue_.waitUntilAllOperationsAreFinished();
  alive_.reset();
}

std::filesystem::path FaviconCache::iconPath(std::string_view origin) const {
  return folder_ / (fileStem(origin) + ".icon");
}

std::filesystem::path FaviconCache::failureMarkerPath(std::string_view origin) const {
  return folder_ / (fileStem(origin) + ".failed");
}

std::optional<std::filesystem::path> FaviconCache::existingIcon(const std::string& origin) const {
  std::error_code error;
  auto path = iconPath(origin);
  if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
  return path;
}

std::optional<std::filesystem::path> FaviconCache::cachedIcon(std::string_view site) const {
  const auto origin = faviconOrigin(site);
  if (!origin) return std::nullopt;
  return existingIcon(*origin);
}

void FaviconCache::request(std::string_view site, Completion done) {
  const auto origin = faviconOrigin(site);
  if (!origin) {
    post({std::move(done)}, std::nullopt);
    return;
  }
  // Only a loopback host is named: for it the probe needs no name lookup, and a machine with no
  // default route can still show a local site's icon. Any other name could block on DNS here.
  const auto url = URL::parse(*origin);
  const std::string host = url ? url->host() : std::string();
  const bool online = session_.reachability().isReachable(isLoopbackHost(host) ? host : std::string());
  std::shared_ptr<Fetch> work;
  {
    // Under the lock, so a fetch that is writing its icon is joined rather than judged by a
    // half-stamped file.
    std::lock_guard lock(mutex_);
    if (auto running = fetches_.find(*origin); running != fetches_.end()) {
      running->second->callers.push_back(std::move(done));
      return;
    }
    const Date now = clock_.now();
    const auto iconWritten = stampOf(iconPath(*origin));
    const auto failed = stampOf(failureMarkerPath(*origin));
    const bool fresh = iconWritten && now - *iconWritten < kRefreshInterval;
    const bool failedLately = failed && now - *failed < kFailureRetryInterval;
    if (fresh || failedLately || !online) {
      work = nullptr;
    } else {
      work = std::make_shared<Fetch>();
      work->origin = *origin;
      work->site = std::string(trimView(site));
      work->callers.push_back(std::move(done));
      fetches_.emplace(*origin, work);
    }
  }
  if (!work) {
    post({std::move(done)}, existingIcon(*origin));
    return;
  }
  queue_.addOperation([this, work] { fetch(work); });
}

void FaviconCache::cancel() {
  queue_.cancelAllOperations();
  std::lock_guard lock(mutex_);
  for (auto& [origin, work] : fetches_) work->cancelled = true;
  fetches_.clear();
}

void FaviconCache::fetch(const std::shared_ptr<Fetch>& work) {
  if (work->cancelled) return;
  const auto icon = downloadIcon(*work);
  // A fetch stopped half-way proves nothing about the site: no icon and no failure recorded.
  if (work->cancelled) return;
  const Date now = clock_.now();
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  const auto file = iconPath(work->origin);
  const auto marker = failureMarkerPath(work->origin);
  if (icon) {
    auto written = writeFileAtomically(file, *icon);
    if (written) {
      stamp(file, now);
      std::filesystem::remove(marker, error);
      finish(work, file);
      return;
    }
    logError(kLogCategory, "Failed to save the icon of {}: {}", work->origin, written.error().message());
  }
  // Remembered on disk, so a restart does not ask the site again within the day.
  if (writeFileAtomically(marker, "")) stamp(marker, now);
  // A stale icon stays the answer until a fresh one replaces it.
  finish(work, existingIcon(work->origin));
}

std::optional<std::string> FaviconCache::downloadIcon(const Fetch& work) {
  URLDownloadOptions pageOptions;
  pageOptions.timeout = kDownloadTimeout;
  // A 404 page usually still names the site's icons.
  pageOptions.statusPolicy = DownloadStatusPolicy::kAcceptAny;
  pageOptions.maximumResponseSize = kMaximumPageSize;
  std::string html;
  std::string pageUrl = work.site;
  if (auto page = downloadURLSynchronously(session_, work.site, pageOptions); page) {
    if (!page->response.url.empty()) pageUrl = page->response.url;
    if (isHtmlMIMEType(page->response.MIMEType())) {
      html = decodePage(page->data, page->response.textEncodingName().value_or("")).text;
    }
  } else if (hostIsUnreachable(page.error())) {
    logError(kLogCategory, "Failed to fetch the icon of {}: {}", work.origin, page.error().message());
    return std::nullopt;
  } else {
    logDebugMessage(kLogCategory, "The page of {} did not load ({}); trying /favicon.ico", work.origin,
                    page.error().message());
  }

  URLDownloadOptions iconOptions;
  iconOptions.timeout = kDownloadTimeout;
  iconOptions.maximumResponseSize = kMaximumIconSize;
  std::vector<std::string> candidates = faviconCandidates(html, pageUrl);
  // A page listing hundreds of icons gets its best few tried, and /favicon.ico.
  if (candidates.size() > kMaximumCandidatesTried) {
    candidates.erase(candidates.begin() + kMaximumCandidatesTried - 1, candidates.end() - 1);
  }
  for (const auto& candidate : candidates) {
    if (work.cancelled) return std::nullopt;
    if (candidate.starts_with("data:")) {
      if (auto bytes = dataURLBytes(candidate); bytes && isIconImage(*bytes)) return bytes;
      logDebugMessage(kLogCategory, "A data: icon of {} is not an image", work.origin);
      continue;
    }
    auto downloaded = downloadURLSynchronously(session_, candidate, iconOptions);
    if (downloaded && isIconImage(downloaded->data)) return std::move(downloaded->data);
    logDebugMessage(kLogCategory, "No icon at {}: {}", candidate,
                    downloaded ? std::string("not an image") : downloaded.error().message());
  }
  logError(kLogCategory, "Failed to fetch the icon of {}: none of its addresses gave an image", work.origin);
  return std::nullopt;
}

void FaviconCache::finish(const std::shared_ptr<Fetch>& work, std::optional<std::filesystem::path> icon) {
  std::vector<Completion> callers;
  {
    std::lock_guard lock(mutex_);
    if (work->cancelled) return;
    callers = std::move(work->callers);
    if (auto found = fetches_.find(work->origin); found != fetches_.end() && found->second == work) {
      fetches_.erase(found);
    }
  }
  post(std::move(callers), std::move(icon));
}

void FaviconCache::post(std::vector<Completion> callers, std::optional<std::filesystem::path> icon) {
  session_.mainQueue().post(
      [alive = std::weak_ptr<bool>(alive_), callers = std::move(callers), icon = std::move(icon)] {
        if (!alive.lock()) return;
        for (const auto& done : callers) {
          if (done) done(icon);
        }
      });
}

}  // namespace lectern::desktop
