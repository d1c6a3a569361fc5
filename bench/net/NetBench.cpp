// Throughput of the HTTP layer against a loopback server: sequential and ten-at-a-time GETs
// (requests per second, TCP connections opened) and a 200 MB download into a file (peak memory).
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "core/MainQueue.h"
#include "core/Reachability.h"
#include "net/AFHTTPClient.h"

namespace lectern {
namespace {

class LoopbackServer {
 public:
  LoopbackServer() {
    server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
    server_.set_keep_alive_max_count(1'000'000);
    server_.set_keep_alive_timeout(30);
    server_.set_tcp_nodelay(true);  // otherwise delayed ACKs add 40 ms to each answer
    server_.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response&) {
      std::lock_guard lock(mutex_);
      clientPorts_.insert(req.remote_port);
      return httplib::Server::HandlerResponse::Unhandled;
    });
    server_.Get("/item.json", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(R"({"id":1,"title":"A story","read":false})", "application/json");
    });
    server_.Get("/big", [](const httplib::Request& req, httplib::Response& res) {
      const size_t size = std::stoull(req.get_param_value("bytes"));
      res.set_content_provider(size, "application/octet-stream",
                               [](size_t, size_t length, httplib::DataSink& sink) {
                                 static const std::string chunk(256 * 1024, 'x');
                                 sink.write(chunk.data(), std::min(length, chunk.size()));
                                 return true;
                               });
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~LoopbackServer() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  size_t connections() {
    std::lock_guard lock(mutex_);
    return clientPorts_.size();
  }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::mutex mutex_;  // guards clientPorts_
  std::set<int> clientPorts_;
};

long kilobytesOf(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::string(field).size()));
  }
  return 0;
}

void resetPeakMemory() { std::ofstream("/proc/self/clear_refs") << "5"; }

constexpr int kRequests = 1000;

void BM_SequentialGets(benchmark::State& state) {
  MainQueue main;
  FixedReachability reachability;
  LoopbackServer server;
  NetworkSession session(main, reachability);
  AFHTTPClient client(session, server.url());
  for (auto _ : state) {
    for (int i = 0; i < kRequests; ++i) {
      auto result = client.synchronouslyGetPath("item.json");
      if (result.error) state.SkipWithError(result.error->message().c_str());
    }
  }
  state.counters["requests_per_s"] = benchmark::Counter(
      static_cast<double>(kRequests) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["tcp_connections"] = static_cast<double>(server.connections());
  state.counters["curl_new_connections"] =
      static_cast<double>(session.transport().statistics().connectionsOpened);
}
BENCHMARK(BM_SequentialGets)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_TenAtATimeGets(benchmark::State& state) {
  MainQueue main;
  FixedReachability reachability;
  LoopbackServer server;
  NetworkSession session(main, reachability);
  AFHTTPClient client(session, server.url());
  client.operationQueue().setMaxConcurrentOperationCount(10);
  for (auto _ : state) {
    std::vector<std::shared_ptr<AFHTTPRequestOperation>> operations;
    operations.reserve(kRequests);
    for (int i = 0; i < kRequests; ++i) {
      operations.push_back(client.HTTPRequestOperationWithRequest(
          client.requestWithMethod("GET", "item.json"), nullptr, nullptr));
      client.enqueueHTTPRequestOperation(operations.back());
    }
    for (auto& operation : operations) {
      operation->waitUntilFinished(std::chrono::seconds(60));
      if (operation->error()) state.SkipWithError(operation->error()->message().c_str());
    }
  }
  state.counters["requests_per_s"] = benchmark::Counter(
      static_cast<double>(kRequests) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["tcp_connections"] = static_cast<double>(server.connections());
  state.counters["curl_new_connections"] =
      static_cast<double>(session.transport().statistics().connectionsOpened);
}
BENCHMARK(BM_TenAtATimeGets)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_LargeDownloadToFile(benchmark::State& state) {
  const auto bytes = static_cast<std::uint64_t>(state.range(0)) * 1024 * 1024;
  MainQueue main;
  FixedReachability reachability;
  LoopbackServer server;
  NetworkSession session(main, reachability);
  AFHTTPClient client(session, server.url());
  const auto file = std::filesystem::temp_directory_path() / "lectern-net-bench.bin";
  long peakGrowth = 0;
  for (auto _ : state) {
    resetPeakMemory();
    const long before = kilobytesOf("VmRSS:");
    auto operation = client.HTTPRequestOperationWithRequest(
        client.requestWithMethod("GET", "big", {{"bytes", bytes}}), nullptr, nullptr);
    operation->setOutputStream(std::make_shared<FileOutputStream>(file));
    client.enqueueHTTPRequestOperation(operation);
    operation->waitUntilFinished(std::chrono::minutes(5));
    if (operation->error()) state.SkipWithError(operation->error()->message().c_str());
    if (std::filesystem::file_size(file) != bytes) state.SkipWithError("short download");
    peakGrowth = std::max(peakGrowth, kilobytesOf("VmHWM:") - before);
  }
  std::filesystem::remove(file);
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
  state.counters["peak_rss_growth_MB"] = static_cast<double>(peakGrowth) / 1024.0;
}
BENCHMARK(BM_LargeDownloadToFile)->Arg(200)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

}  // namespace
}  // namespace lectern

BENCHMARK_MAIN();
