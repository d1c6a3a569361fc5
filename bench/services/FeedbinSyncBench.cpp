// A Feedbin account of 10,000 unread entries in 200 feeds, 2,000 of them starred, synced from
// the mock server on 127.0.0.1 into a library in a temporary folder: the first sync (everything
// new) and a second one with nothing new. Counters: requests the server answered, stories stored.
#include <benchmark/benchmark.h>

#include "ServiceBench.h"
#include "mocks/FeedbinMockServer.h"

namespace lectern {
namespace {

using bench::Library;

constexpr int kFeeds = 200;
constexpr int kEntriesPerFeed = 50;
constexpr int kUnread = 10'000;
constexpr int kStarredEvery = 5;

void BM_FeedbinFirstSync(benchmark::State& state) {
  mock::FeedbinMockServer server;
  server.seed(kFeeds, kEntriesPerFeed, kUnread, kStarredEvery);
  bench::firstSyncs(state, server,
                    [&] { return std::make_unique<Library>("feedbin", "me@example.org", server.baseURL()); });
}
BENCHMARK(BM_FeedbinFirstSync)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_FeedbinSecondSyncNothingNew(benchmark::State& state) {
  mock::FeedbinMockServer server;
  server.seed(kFeeds, kEntriesPerFeed, kUnread, kStarredEvery);
  Library library("feedbin", "me@example.org", server.baseURL());
  bench::secondSyncs(state, server, library);
}
BENCHMARK(BM_FeedbinSecondSyncNothingNew)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace
}  // namespace lectern
