// A Feedbin account of 10,000 unread entries in 200 feeds, 2,000 of them starred, synced from
// the mock server on 127.0.0.1 into a library in a temporary folder: the first sync (everything
// new) and a second one with nothing new. Counters: requests the server answered, stories stored.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>

#include "accounts/AccountCommands.h"
#include "accounts/ServiceFactory.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "mocks/FeedbinMockServer.h"
#include "net/NetworkSession.h"
#include "store/Account.h"
#include "store/QKDataManager.h"
#include "sync/QKSyncManager.h"

namespace lectern {
namespace {

constexpr int kFeeds = 200;
constexpr int kEntriesPerFeed = 50;
constexpr int kUnread = 10'000;
constexpr int kStarredEvery = 5;

std::filesystem::path makeRoot() {
  std::string pattern = (std::filesystem::temp_directory_path() / "lectern-feedbin-bench-XXXXXX").string();
  return mkdtemp(pattern.data());
}

// A library with one Feedbin account on the mock, and what a sync needs around it.
struct Library {
  explicit Library(const mock::FeedbinMockServer& server)
      : root(makeRoot()),
        paths(Paths::under(root)),
        session(mainQueue, reachability),
        dataManager(paths, defaults, mainQueue, clock, reachability, &secrets),
        environment{dataManager, defaults, mainQueue, reachability, clock, session},
        manager(environment) {
    registerLecternDefaults(defaults);
    registerServiceFactory(dataManager, ServiceDependencies{mainQueue, clock, &session});
    NewAccount request{"feedbin", "me@example.org", "secret", server.baseURL(), std::nullopt};
    auto made = createAccount(**dataManager.managedObjectContext(), request);
    if (!made) throw std::runtime_error(made.error().message());
    account = *made;
  }
  ~Library() {
    account.reset();
    std::filesystem::remove_all(root);
  }
  void sync() {
    manager.syncAccounts({account});
    manager.waitUntilSyncFinished();
    if (auto& report = manager.lastPassReports().at(0); report.error) {
      throw std::runtime_error(report.error->message());
    }
  }
  std::int64_t stories() { return account->bookmarks().value().size(); }

  std::filesystem::path root;
  Paths paths;
  UserDefaults defaults;
  MainQueue mainQueue;
  SystemClock clock;
  FixedReachability reachability;
  MemorySecretStore secrets;
  NetworkSession session;
  QKDataManager dataManager;
  SyncEnvironment environment;
  QKSyncManager manager;
  std::shared_ptr<Account> account;
};

void BM_FeedbinFirstSync(benchmark::State& state) {
  mock::FeedbinMockServer server;
  server.seed(kFeeds, kEntriesPerFeed, kUnread, kStarredEvery);
  for (auto _ : state) {
    state.PauseTiming();
    auto library = std::make_unique<Library>(server);
    server.clearRequests();
    state.ResumeTiming();
    library->sync();
    state.PauseTiming();
    state.counters["requests"] = static_cast<double>(server.requests().size());
    state.counters["stories"] = static_cast<double>(library->stories());
    library.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_FeedbinFirstSync)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_FeedbinSecondSyncNothingNew(benchmark::State& state) {
  mock::FeedbinMockServer server;
  server.seed(kFeeds, kEntriesPerFeed, kUnread, kStarredEvery);
  Library library(server);
  library.sync();
  for (auto _ : state) {
    state.PauseTiming();
    server.clearRequests();
    state.ResumeTiming();
    library.sync();
    state.PauseTiming();
    state.counters["requests"] = static_cast<double>(server.requests().size());
    state.counters["stories"] = static_cast<double>(library.stories());
    state.ResumeTiming();
  }
}
BENCHMARK(BM_FeedbinSecondSyncNothingNew)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace
}  // namespace lectern

BENCHMARK_MAIN();
