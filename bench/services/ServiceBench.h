#pragma once

// A library with one account of a hosted service on its mock, and what a sync needs around it,
// for the services' benchmarks.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "accounts/AccountCommands.h"
#include "accounts/ServiceFactory.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "net/NetworkSession.h"
#include "store/Account.h"
#include "store/QKDataManager.h"
#include "sync/QKSyncManager.h"

namespace lectern::bench {

inline std::filesystem::path makeRoot() {
  std::string pattern = (std::filesystem::temp_directory_path() / "lectern-service-bench-XXXXXX").string();
  return mkdtemp(pattern.data());
}

// A library with one account on a mock, and what a sync needs around it.
struct Library {
  Library(const std::string& service, const std::string& username, const std::string& endpoint)
      : Library(NewAccount{service, username, "secret", endpoint, std::nullopt}) {}
  // An account as a sign-in answers it (a token as its password).
  explicit Library(const NewAccount& request)
      : root(makeRoot()),
        paths(Paths::under(root)),
        session(mainQueue, reachability),
        dataManager(paths, defaults, mainQueue, clock, reachability, &secrets),
        environment{dataManager, defaults, mainQueue, reachability, clock, session},
        manager(environment) {
    registerLecternDefaults(defaults);
    registerServiceFactory(dataManager, ServiceDependencies{mainQueue, clock, &session});
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

// A first sync (everything new) into a fresh library per iteration, timed alone; counters: the
// requests the server answered and the stories stored.
template <class Server>
void firstSyncs(benchmark::State& state, Server& server,
                const std::function<std::unique_ptr<Library>()>& makeLibrary,
                const std::function<void()>& beforeEach = {}) {
  for (auto _ : state) {
    state.PauseTiming();
    auto library = makeLibrary();
    if (beforeEach) beforeEach();
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

// A second sync with nothing new, after one that brought everything.
template <class Server>
void secondSyncs(benchmark::State& state, Server& server, Library& library) {
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

}  // namespace lectern::bench
