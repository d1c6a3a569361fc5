#include <gtest/gtest.h>
#include <httplib.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "TestSupport.h"
#include "app/desktop/Favicons.h"
#include "net/NetworkSession.h"

namespace lectern::desktop {
namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;

const std::string kPNG = "\x89PNG\r\n\x1A\n\0\0\0\rIHDR"s;
const std::string kOtherPNG = "\x89PNG\r\n\x1A\n\0\0\0\rIHDR-new"s;
const std::string kICO = "\0\0\1\0\1\0\x10\x10"s;

TEST(FaviconCandidates, RanksBySizeThenKindAndEndsWithFaviconIcoOnce) {
  // 32 px fits best; a 16 px icon (stretched on a doubled screen) still beats a 180 px touch icon;
  // SVG comes after every raster icon; mask-icon and stylesheets are not icons.
  const std::string page = R"(<html><head>
    <link rel="apple-touch-icon" href="/touch.png">
    <link rel="icon" type="image/svg+xml" sizes="any" href="/icon.svg">
    <link rel="mask-icon" href="/mask.svg" color="#000">
    <link rel="icon" sizes="16x16" href="/16.png">
    <link rel="stylesheet" href="/site.css">
    <link rel="icon" sizes="48x48 32x32" href="/multi.png">
    <link rel="icon" href="/favicon.ico">
    <link rel="icon" sizes="16x16" href="/16.png">
  </head><body></body></html>)";
  EXPECT_EQ(
      faviconCandidates(page, "https://example.com/blog/post"),
      (Strings{"https://example.com/multi.png", "https://example.com/16.png", "https://example.com/touch.png",
               "https://example.com/icon.svg", "https://example.com/favicon.ico"}));
  // At equal fit "icon" beats a touch icon listed first; rel is read case-insensitively.
  EXPECT_EQ(faviconCandidates(R"(<LINK REL="Apple-Touch-Icon-Precomposed" SIZES="64X64" HREF="t.png">
                                 <link rel="SHORTCUT ICON" sizes="64x64" href="s.png">)",
                              "http://Example.COM:80/a/"),
            (Strings{"http://example.com/a/s.png", "http://example.com/a/t.png",
                     "http://example.com/favicon.ico"}));
}

TEST(FaviconCandidates, ResolvesAgainstBaseAndPageAndDropsWhatIsNoIcon) {
  const std::string page = R"html(<head><base href="https://cdn.example.net/assets/">
    <link rel="icon" href="img/a.png"><link rel="icon" href="//static.example.org/b.png">
    <link rel="icon" href="javascript:alert(1)"><link rel="icon" href="  ">
    <link rel="icon" href="data:text/html,<b>x</b>"><link rel="icon" href="data:image/png;base64,iVBORw0K">
    <link rel="icon" href="mailto:a@b.c"><link rel="icon" href="HTTPS://EXAMPLE.COM/favicon.ico#x"></head>)html";
  EXPECT_EQ(faviconCandidates(page, "https://example.com/news/"),
            (Strings{"https://cdn.example.net/assets/img/a.png", "https://static.example.org/b.png",
                     "data:image/png;base64,iVBORw0K", "https://example.com/favicon.ico"}));
  // Without <base>, relative links read against the page, protocol-relative ones take its scheme.
  EXPECT_EQ(
      faviconCandidates(R"(<link rel=icon href="../i.png"><link rel=icon href="//h.test/j.png">)",
                        "http://example.com/blog/post/"),
      (Strings{"http://example.com/blog/i.png", "http://h.test/j.png", "http://example.com/favicon.ico"}));
}

TEST(FaviconCandidates, BrokenPagesStillYieldTheirLinksOrTheFallback) {
  const std::pair<std::string, Strings> cases[] = {
      {"<p>no head<link rel=icon href=/late.png>", {"http://x.test/late.png", "http://x.test/favicon.ico"}},
      {"\xFF\xFE\0<<<\x80\x81</head>"s, {"http://x.test/favicon.ico"}},
      {"", {"http://x.test/favicon.ico"}},
      {"<html><head><link rel=icon href=", {"http://x.test/favicon.ico"}},
  };
  for (const auto& [page, want] : cases) EXPECT_EQ(faviconCandidates(page, "http://x.test/p"), want) << page;
  EXPECT_EQ(faviconCandidates("<link rel=icon href=/a.png>", "not a page"), Strings{});
}

TEST(FaviconSite, SiteLinkElseFeedOriginAndOneKeyPerOrigin) {
  EXPECT_EQ(faviconSite("https://example.com/blog/", "https://feeds.example.net/x.xml"),
            "https://example.com/blog/");
  EXPECT_EQ(faviconSite("/", "https://example.com/feeds/a.xml"), "https://example.com/");
  EXPECT_EQ(faviconSite("mailto:me@example.com", "http://Example.com:8080/rss"), "http://example.com:8080");
  EXPECT_EQ(faviconSite("", "https://example.com/feed"), "https://example.com");
  EXPECT_EQ(faviconSite("", "not a url"), std::nullopt);
  EXPECT_EQ(faviconOrigin("HTTPS://Example.COM:443/a?b"), "https://example.com");
  EXPECT_EQ(faviconOrigin("http://[::1]:8080/"), "http://[::1]:8080");
  EXPECT_EQ(faviconOrigin("ftp://example.com/"), std::nullopt);
}

// A site on 127.0.0.1: paths answer what a test sets (404 otherwise); a held path waits for release().
class FaviconCacheTest : public ::testing::Test {
 protected:
  FaviconCacheTest() : session(main, reachability) {
    server.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
      std::unique_lock lock(mutex);
      ++hits[request.path];
      if (request.path == held) {
        ++waiting;
        entered.notify_all();
        released.wait(lock, [&] { return held.empty(); });
        --waiting;
      }
      auto answer = answers.find(request.path);
      if (answer == answers.end()) {
        response.status = 404;
        response.set_content("<html><body>Not found</body></html>", "text/html");
      } else {
        response.set_content(answer->second.second, answer->second.first);
      }
    });
    server.set_keep_alive_max_count(1);  // no idle connection keeps stop() waiting
    port = server.bind_to_any_port("127.0.0.1");
    thread = std::thread([this] { server.listen_after_bind(); });
    while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~FaviconCacheTest() override {
    release();
    cache.reset();
    server.stop();
    thread.join();
  }

  std::string url(std::string_view path = "/") const {
    return "http://127.0.0.1:" + std::to_string(port) + std::string(path);
  }
  void answer(const std::string& path, std::string type, std::string body) {
    std::lock_guard lock(mutex);
    answers[path] = {std::move(type), std::move(body)};
  }
  int hitsOf(const std::string& path) {
    std::lock_guard lock(mutex);
    return hits[path];
  }
  int allHits() {
    std::lock_guard lock(mutex);
    int total = 0;
    for (const auto& [path, count] : hits) total += count;
    return total;
  }
  void hold(std::string path) {
    std::lock_guard lock(mutex);
    held = std::move(path);
  }
  // Waits until a request for the held path is waiting to be answered.
  void waitUntilHeld() {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(entered.wait_for(lock, std::chrono::seconds(20), [&] { return waiting > 0; }));
  }
  void release() {
    std::lock_guard lock(mutex);
    held.clear();
    released.notify_all();
  }
  std::optional<std::filesystem::path> requestIcon(std::string_view site) {
    bool called = false;
    std::optional<std::filesystem::path> icon;
    cache->request(site, [&](std::optional<std::filesystem::path> result) {
      called = true;
      icon = std::move(result);
    });
    EXPECT_TRUE(main.runUntil([&] { return called; }, std::chrono::seconds(20)));
    return icon;
  }
  std::string contents(const std::optional<std::filesystem::path>& path) {
    return path ? test::readFile(*path) : "";
  }

  MainQueue main;
  FixedReachability reachability;
  NetworkSession session;
  FixedClock clock{std::chrono::system_clock::now()};
  test::TempDir dir;
  std::mutex mutex;  // guards hits, answers, held, waiting
  std::condition_variable entered, released;
  std::map<std::string, int> hits;
  std::map<std::string, std::pair<std::string, std::string>> answers;  // path -> type, body
  std::string held;
  int waiting = 0;
  httplib::Server server;
  std::thread thread;
  int port = 0;
  std::unique_ptr<FaviconCache> cache = std::make_unique<FaviconCache>(session, dir / "Favicons", clock);
};

TEST_F(FaviconCacheTest, FoundIconIsCachedAndServedToEveryPageOfTheSiteWithoutDownloadingAgain) {
  answer("/blog/", "text/html", R"(<link rel="icon" sizes="32x32" href="/icons/site.png">)");
  answer("/icons/site.png", "image/png", kPNG);
  const auto icon = requestIcon(url("/blog/"));
  EXPECT_EQ(contents(icon), kPNG);
  EXPECT_EQ(requestIcon(url("/other/page")), icon);
  EXPECT_EQ(hitsOf("/blog/") + hitsOf("/icons/site.png"), 2);
  EXPECT_EQ(hitsOf("/favicon.ico"), 0);
  // A restarted window finds it with one look at the folder.
  cache = std::make_unique<FaviconCache>(session, dir / "Favicons", clock);
  EXPECT_EQ(cache->cachedIcon(url("/")), icon);
}

TEST_F(FaviconCacheTest, HtmlOrHugeAnswersAreNoIconAndFaviconIcoIsTheFallback) {
  answer(
      "/", "text/html",
      R"(<link rel="icon" href="/error.png"><link rel="icon" href="/huge.png"><link rel="icon" href="/gone.png">)");
  answer("/error.png", "image/png", "<!DOCTYPE html><html><body>Oops</body></html>");
  answer("/huge.png", "image/png", kPNG + std::string(2 * 1024 * 1024, 'x'));
  answer("/favicon.ico", "image/x-icon", kICO);
  EXPECT_EQ(contents(requestIcon(url())), kICO);
  EXPECT_EQ(hitsOf("/error.png") + hitsOf("/huge.png") + hitsOf("/gone.png"), 3);
}

TEST_F(FaviconCacheTest, DataIconNeedsNoDownloadAndAMissingPageStillTriesFaviconIco) {
  answer("/", "text/html", R"(<link rel="icon" href="data:image/png;base64,iVBORw0KGgoAAAANSUhEUg==">)");
  EXPECT_EQ(contents(requestIcon(url())), kPNG);
  EXPECT_EQ(allHits(), 1);

  // Another site (another port is another origin): its page is a 404.
  httplib::Server other;
  other.Get("/favicon.ico",
            [](const httplib::Request&, httplib::Response& r) { r.set_content(kICO, "image/x-icon"); });
  other.set_keep_alive_max_count(1);
  const int otherPort = other.bind_to_any_port("127.0.0.1");
  std::thread otherThread([&] { other.listen_after_bind(); });
  while (!other.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(contents(requestIcon("http://127.0.0.1:" + std::to_string(otherPort) + "/missing")), kICO);
  other.stop();
  otherThread.join();
}

TEST_F(FaviconCacheTest, FailureIsRememberedForADayAcrossRestartsThenRetried) {
  EXPECT_EQ(requestIcon(url()), std::nullopt);
  const int firstTry = allHits();
  EXPECT_EQ(firstTry, 2);  // the page, then /favicon.ico
  EXPECT_EQ(requestIcon(url()), std::nullopt);
  cache = std::make_unique<FaviconCache>(session, dir / "Favicons", clock);
  clock.advance(std::chrono::hours(23));
  EXPECT_EQ(requestIcon(url()), std::nullopt);
  EXPECT_EQ(allHits(), firstTry);

  clock.advance(std::chrono::hours(2));
  answer("/favicon.ico", "image/x-icon", kICO);
  EXPECT_EQ(contents(requestIcon(url())), kICO);
}

TEST_F(FaviconCacheTest, StaleIconIsStillServedWhileItsRefreshRuns) {
  answer("/favicon.ico", "image/x-icon", kICO);
  const auto icon = requestIcon(url());
  clock.advance(std::chrono::hours(29 * 24));
  EXPECT_EQ(requestIcon(url()), icon);
  EXPECT_EQ(hitsOf("/favicon.ico"), 1);

  clock.advance(std::chrono::hours(2 * 24));
  answer("/favicon.ico", "image/png", kOtherPNG);
  hold("/favicon.ico");
  bool called = false;
  std::optional<std::filesystem::path> refreshed;
  cache->request(url(), [&](auto result) {
    called = true;
    refreshed = result;
  });
  waitUntilHeld();
  EXPECT_EQ(contents(cache->cachedIcon(url())), kICO);
  release();
  ASSERT_TRUE(main.runUntil([&] { return called; }, std::chrono::seconds(20)));
  EXPECT_EQ(contents(refreshed), kOtherPNG);
}

TEST_F(FaviconCacheTest, RequestsForOneSiteShareOneDownloadAndOfflineAsksNothing) {
  answer("/favicon.ico", "image/x-icon", kICO);
  hold("/");
  int answered = 0;
  const auto count = [&](std::optional<std::filesystem::path> icon) { answered += contents(icon) == kICO; };
  cache->request(url("/"), count);
  cache->request(url("/elsewhere"), count);
  waitUntilHeld();
  cache->request(url("/"), count);
  release();
  ASSERT_TRUE(main.runUntil([&] { return answered == 3; }, std::chrono::seconds(20)));
  EXPECT_EQ(allHits(), 2);

  reachability.set(ReachabilityStatus::kNotReachable);
  cache = std::make_unique<FaviconCache>(session, dir / "Other", clock);
  EXPECT_EQ(requestIcon(url()), std::nullopt);
  EXPECT_EQ(allHits(), 2);
}

TEST_F(FaviconCacheTest, NoCallbackOutlivesTheCache) {
  answer("/favicon.ico", "image/x-icon", kICO);
  bool called = false;
  cache->request(url(), [&](auto) { called = true; });
  cache->request("not a site", [&](auto) { called = true; });
  cache.reset();
  main.drain();
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace lectern::desktop
