// A cold sync (every story new) and a warm sync (nothing new) of 300 feeds of 50 entries each,
// served by a local HTTP server, through the sync manager into a library in a temporary folder.
// The warm sync runs twice: against a server that answers every request in full, and against one
// that answers 304 to a request carrying the document's current ETag.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <httplib.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "core/Dates.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/UserDefaults.h"
#include "net/NetworkSession.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "sync/QKSyncManager.h"

namespace lectern {
namespace {

constexpr int kFeeds = 300;
constexpr int kEntries = 50;

enum class Validation { kNone, kETag };

class FeedSite {
 public:
  explicit FeedSite(Date now, Validation validation = Validation::kNone) {
    for (int feed = 0; feed < kFeeds; ++feed) {
      std::string body =
          R"(<?xml version="1.0" encoding="utf-8"?><feed xmlns="http://www.w3.org/2005/Atom">)";
      body += fmt::format("<title>Feed {}</title>", feed);
      for (int entry = 0; entry < kEntries; ++entry) {
        body += fmt::format(
            R"(<entry><title>Story {0} of feed {1}</title><link href="http://example.com/{1}/{0}"/>)"
            R"(<updated>{2}</updated><content type="html">&lt;p&gt;Paragraph {0} of a story that is long )"
            R"(enough to look like one, with a &lt;a href="http://example.com"&gt;link&lt;/a&gt;.&lt;/p&gt;)"
            R"(</content></entry>)",
            entry, feed, rfc3339String(now - std::chrono::minutes(10 * (entry + 1))));
      }
      bodies_.push_back(body + "</feed>");
    }
    server_.Get(
        R"(/feeds/(\d+))", [this, validation](const httplib::Request& request, httplib::Response& response) {
          const std::string etag = "\"" + request.matches[1].str() + "\"";  // the documents never change
          if (validation == Validation::kETag) {
            response.set_header("ETag", etag);
            if (request.get_header_value("If-None-Match") == etag) {
              ++notModified_;
              response.status = 304;
              return;
            }
          }
          response.set_content(bodies_.at(std::stoul(request.matches[1].str())), "application/atom+xml");
        });
    server_.set_tcp_nodelay(true);  // otherwise delayed ACKs add 40 ms to each answer
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~FeedSite() {
    server_.stop();
    thread_.join();
  }
  std::string url(int feed) const { return fmt::format("http://127.0.0.1:{}/feeds/{}", port_, feed); }
  int notModified() const { return notModified_; }

 private:
  std::atomic<int> notModified_ = 0;
  std::vector<std::string> bodies_;
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

// One library with the 300 subscriptions, and what a sync needs around it.
struct Library {
  explicit Library(const FeedSite& site)
      : root(makeRoot()),
        paths(Paths::under(root)),
        session(mainQueue, reachability),
        dataManager(paths, defaults, mainQueue, clock, reachability),
        environment{dataManager, defaults, mainQueue, reachability, clock, session},
        manager(environment) {
    registerLecternDefaults(defaults);
    auto& context = **dataManager.managedObjectContext();
    account = Account::create(context, kLocalRSSServiceName, std::nullopt, std::string("Local"));
    for (int feed = 0; feed < kFeeds; ++feed)
      account->addFeedWithTitle(fmt::format("Feed {}", feed), std::nullopt, site.url(feed));
    if (!context.save()) std::abort();
  }
  ~Library() {
    std::error_code error;
    std::filesystem::remove_all(root, error);
  }
  static std::filesystem::path makeRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lectern-sync-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    return pattern;
  }
  void sync() {
    manager.syncAccounts({account});
    if (!manager.waitUntilSyncFinished(std::chrono::minutes(10))) std::abort();
  }
  std::int64_t stories() { return *(*dataManager.managedObjectContext())->count(Entity::kFeedStory, "1"); }

  std::filesystem::path root;
  Paths paths;
  UserDefaults defaults;
  MainQueue mainQueue;
  SystemClock clock;
  FixedReachability reachability;
  NetworkSession session;
  QKDataManager dataManager;
  SyncEnvironment environment;
  QKSyncManager manager;
  std::shared_ptr<Account> account;
};

void timed(benchmark::State& state, Library& library) {
  const auto start = std::chrono::steady_clock::now();
  library.sync();
  state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

void BM_ColdSync(benchmark::State& state) {
  Log::setDebugEnabled(false);
  FeedSite site(std::chrono::system_clock::now());
  for (auto _ : state) {
    Library library(site);
    timed(state, library);
    state.counters["stories"] = static_cast<double>(library.stories());
  }
  state.counters["feeds"] = kFeeds;
}

void BM_WarmSync(benchmark::State& state) {
  Log::setDebugEnabled(false);
  FeedSite site(std::chrono::system_clock::now());
  Library library(site);
  library.sync();
  for (auto _ : state) timed(state, library);
  state.counters["stories"] = static_cast<double>(library.stories());
  state.counters["feeds"] = kFeeds;
}

void BM_WarmSyncNotModified(benchmark::State& state) {
  Log::setDebugEnabled(false);
  FeedSite site(std::chrono::system_clock::now(), Validation::kETag);
  Library library(site);
  library.sync();
  for (auto _ : state) timed(state, library);
  state.counters["stories"] = static_cast<double>(library.stories());
  state.counters["feeds"] = kFeeds;
  state.counters["not_modified"] = site.notModified();
}

BENCHMARK(BM_ColdSync)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_WarmSync)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_WarmSyncNotModified)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace
}  // namespace lectern

BENCHMARK_MAIN();
