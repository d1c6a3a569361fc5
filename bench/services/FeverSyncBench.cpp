// A Fever account of 10,000 unread items in 200 feeds, 2,000 of them saved, synced from the mock
// server on 127.0.0.1: the first sync and a second one with nothing new, as for Feedbin.
#include <benchmark/benchmark.h>

#include "ServiceBench.h"
#include "mocks/FeverMockServer.h"

namespace lectern {
namespace {

using bench::Library;

void seeded(mock::FeverMockServer& server) { server.seed(200, 50, 10'000, 5); }

void BM_FeverFirstSync(benchmark::State& state) {
  mock::FeverMockServer server;
  seeded(server);
  bench::firstSyncs(state, server,
                    [&] { return std::make_unique<Library>("fever", "me", server.endpoint()); });
}
BENCHMARK(BM_FeverFirstSync)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_FeverSecondSyncNothingNew(benchmark::State& state) {
  mock::FeverMockServer server;
  seeded(server);
  Library library("fever", "me", server.endpoint());
  bench::secondSyncs(state, server, library);
}
BENCHMARK(BM_FeverSecondSyncNothingNew)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace
}  // namespace lectern

BENCHMARK_MAIN();
