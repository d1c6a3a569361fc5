#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <thread>

#include "NetTestSupport.h"
#include "core/Log.h"
#include "net/AFHTTPClient.h"
#include "net/NetworkReachability.h"
#include "net/QKJSONRequestOperation.h"
#include "net/URLError.h"

namespace lectern {
namespace {

using namespace std::chrono_literals;

// Every log line written while it lives.
class LogCapture {
 public:
  LogCapture()
      : token_(Log::addObserver([this](LogLevel, std::string_view, std::string_view message) {
          std::lock_guard lock(mutex_);
          lines_.emplace_back(message);
        })) {}
  ~LogCapture() { Log::removeObserver(token_); }
  bool contains(std::string_view text) const {
    std::lock_guard lock(mutex_);
    for (const auto& line : lines_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

 private:
  mutable std::mutex mutex_;  // guards lines_
  std::vector<std::string> lines_;
  int token_;
};

class ThrowingJSONOperation final : public AFHTTPRequestOperation {
 public:
  static constexpr std::string_view kClassName = "ThrowingJSONOperation";
  using AFHTTPRequestOperation::AFHTTPRequestOperation;
  static bool canProcessRequest(const HttpRequest&) { return true; }
  std::string_view className() const override { return kClassName; }

 protected:
  Result<ResponseObject> parseResponse() override { throw std::runtime_error("parser boom"); }
  ResponseProcessing processingKind() const override { return ResponseProcessing::kJSON; }
};

// Blocks, streams and parsers run on the network thread and on the layer's queues: an exception
// they throw must end up in the log or in an error, never end the program.
class WorkerThreadExceptions : public ::testing::Test {
 protected:
  WorkerThreadExceptions() {
    server.server().Get("/item.json", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(R"({"id":1})", "application/json");
    });
    server.server().Get("/moved", [](const httplib::Request&, httplib::Response& res) {
      res.status = 302;
      res.set_header("Location", "/item.json");
    });
    server.server().Get("/missing",
                        [](const httplib::Request&, httplib::Response& res) { res.status = 404; });
    server.start();
    client = std::make_unique<AFHTTPClient>(net.session, server.url("/"));
    client->registerHTTPOperationClass<QKJSONRequestOperation>();
  }

  test::NetFixture net{test::testSessionOptions()};
  test::LocalServer server;
  std::unique_ptr<AFHTTPClient> client;
  OperationQueue callbacks{"test callbacks"};
  LogCapture log;
};

TEST_F(WorkerThreadExceptions, BlocksThatThrowOffTheMainThreadAreLoggedAndTheLayerGoesOn) {
  std::atomic<int> ran{0};
  auto success = client->HTTPRequestOperationWithRequest(
      client->requestWithMethod("GET", "item.json"),
      [&](AFHTTPRequestOperation&, const ResponseObject&) {
        ++ran;
        throw std::runtime_error("success boom");
      },
      nullptr);
  success->setSuccessCallbackQueue(callbackQueueFor(net.session.processingQueue(ResponseProcessing::kJSON)));
  auto failure = client->HTTPRequestOperationWithRequest(client->requestWithMethod("GET", "missing"), nullptr,
                                                         [&](AFHTTPRequestOperation&, const Error&) {
                                                           ++ran;
                                                           throw std::runtime_error("failure boom");
                                                         });
  failure->setFailureCallbackQueue(callbackQueueFor(callbacks));
  // A plain completion block runs on the thread that finishes the operation: the network thread.
  auto completion = client->HTTPRequestOperationWithRequest(client->requestWithMethod("GET", "item.json"),
                                                            nullptr, nullptr);
  completion->setCompletionBlock([&] {
    ++ran;
    throw std::runtime_error("completion boom");
  });
  for (const auto& operation : {success, failure, completion}) client->enqueueHTTPRequestOperation(operation);
  ASSERT_TRUE(net.runUntil([&] { return ran == 3; }));
  client->operationQueue().waitUntilAllOperationsAreFinished();
  callbacks.waitUntilAllOperationsAreFinished();
  net.session.processingQueue(ResponseProcessing::kJSON).waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(log.contains("Exception in a success block: success boom"));
  EXPECT_TRUE(log.contains("Exception in a failure block: failure boom"));
  EXPECT_TRUE(log.contains("Exception in a completion block: completion boom"));

  // Still alive: the network thread and the queues serve the next request.
  const auto after = client->synchronouslyGetPath("item.json");
  ASSERT_FALSE(after.error);
  EXPECT_EQ((*after.json())["id"], 1);
}

TEST_F(WorkerThreadExceptions, ARedirectBlockThatThrowsFailsItsOperation) {
  std::optional<Error> failed;
  auto operation = client->HTTPRequestOperationWithRequest(
      client->requestWithMethod("GET", "moved"), nullptr,
      [&](AFHTTPRequestOperation&, const Error& error) { failed = error; });
  operation->setRedirectResponseBlock(
      [](const HttpRequest&, const HttpResponse&) -> std::optional<HttpRequest> {
        throw std::runtime_error("redirect boom");
      });
  client->enqueueHTTPRequestOperation(operation);
  ASSERT_TRUE(net.runUntil([&] { return failed.has_value(); }));
  EXPECT_EQ(failed->domain, kURLErrorDomain);
  EXPECT_EQ(failed->code, URLErrorCode::kUnknown);
  EXPECT_EQ(failed->info(kDebugDescriptionErrorKey), "redirect boom");
}

TEST_F(WorkerThreadExceptions, AParserThatThrowsFailsItsOperationAsUnparsable) {
  client->registerHTTPOperationClass<ThrowingJSONOperation>();
  std::optional<Error> failed;
  client->getPath("item.json", nullptr, nullptr,
                  [&](AFHTTPRequestOperation&, const Error& error) { failed = error; });
  ASSERT_TRUE(net.runUntil([&] { return failed.has_value(); }));
  EXPECT_EQ(failed->code, URLErrorCode::kCannotParseResponse);
  EXPECT_EQ(failed->info(kDebugDescriptionErrorKey), "parser boom");
  const auto blocking = client->synchronouslyGetPath("item.json");
  ASSERT_TRUE(blocking.error);
  EXPECT_EQ(blocking.error->code, URLErrorCode::kCannotParseResponse);
}

class ThrowingReachability final : public Reachability {
 public:
  ReachabilityStatus status(std::string_view) override { throw std::runtime_error("probe boom"); }
};

TEST(WorkerThreadExceptionsInProbes, ReachabilityProbesThatThrowAreLoggedOrReported) {
  LogCapture log;
  MainQueue main;
  ThrowingReachability reachability;
  NetworkSession session(main, reachability, std::make_unique<CannedTransport>([](const HttpRequest&) {
                           return CannedTransport::Answer{};
                         }),
                         test::testSessionOptions());
  {
    AFHTTPClient client(session, "https://api.example.com/");  // probes on the background queue
    const auto reachable = client.isNetworkEndpointReachable();
    ASSERT_FALSE(reachable);
    EXPECT_EQ(reachable.error().info(kDebugDescriptionErrorKey), "probe boom");
    session.backgroundQueue().waitUntilAllOperationsAreFinished();
  }
  EXPECT_TRUE(log.contains("Exception in a reachability probe: probe boom"));

  // The monitor thread of the real reachability survives a probe that throws.
  NetworkReachability::Probes probes;
  probes.hasRoute = []() -> bool { throw std::runtime_error("route boom"); };
  { NetworkReachability monitored(std::chrono::milliseconds(100), std::chrono::milliseconds(10), probes); }
  EXPECT_TRUE(log.contains("Exception in a reachability probe: route boom"));
}

TEST(NetworkReachability, RouteTableLinesThatDoNotReadAreSkipped) {
  const std::string header = "Iface\tDestination\tGateway\tFlags\n";
  const std::pair<std::string, bool> cases[] = {
      {header + "eth0\t00000000\t0102A8C0\t0003\n", true},
      {header + "eth0\t00000000\t0102A8C0\tzz\n", false},
      {header + "eth0\t00000000\n", false},
      {header + "eth0\t00000000\t0102A8C0\tzz\neth1\t00000000\t0102A8C0\t1\n", true},
      {header + "lo\t00000000\t00000000\t0001\n", false},
  };
  for (const auto& [table, want] : cases) {
    std::istringstream ipv4(table);
    std::istringstream ipv6("");
    EXPECT_EQ(routeTablesHaveDefaultRoute(ipv4, ipv6), want) << table;
  }
}

}  // namespace
}  // namespace lectern
