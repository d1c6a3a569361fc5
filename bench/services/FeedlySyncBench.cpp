// A Feedly account of 10,000 unread entries in 200 feeds, 2,000 of them saved, synced from the
// mock server on 127.0.0.1 (100 entries per request): the first sync and a second one with
// nothing new, as for Feedbin.
#include <benchmark/benchmark.h>

#include "ServiceBench.h"
#include "mocks/FeedlyMockServer.h"
#include "services/feedly/QKFeedlyClient.h"

namespace lectern {
namespace {

using bench::Library;

void seeded(mock::FeedlyMockServer& server) { server.seed(200, 50, 10'000, 5); }

std::unique_ptr<Library> libraryOn(mock::FeedlyMockServer& server) {
  NewAccount request;
  request.service = "feedly";
  request.username = server.email();
  request.password = server.developerToken();
  request.endpoint = server.endpoint();
  return std::make_unique<Library>(request);
}

void BM_FeedlyFirstSync(benchmark::State& state) {
  mock::FeedlyMockServer server;
  seeded(server);
  // A new process checks its token first.
  bench::firstSyncs(
      state, server, [&] { return libraryOn(server); }, [] { QKFeedlyClient::resetLastTokenCheck(); });
}
BENCHMARK(BM_FeedlyFirstSync)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_FeedlySecondSyncNothingNew(benchmark::State& state) {
  mock::FeedlyMockServer server;
  seeded(server);
  auto library = libraryOn(server);
  bench::secondSyncs(state, server, *library);
}
BENCHMARK(BM_FeedlySecondSyncNothingNew)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace
}  // namespace lectern
