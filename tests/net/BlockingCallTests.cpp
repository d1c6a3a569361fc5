#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "NetTestSupport.h"
#include "net/AFHTTPClient.h"
#include "net/URLError.h"

namespace lectern {
namespace {

using namespace std::chrono_literals;
using test::LocalServer;
using test::RawServer;
using SteadyClock = std::chrono::steady_clock;

// A session whose idle timeout is short, so that a transfer outliving it shows in a second or two.
NetworkSessionOptions shortIdleTimeout() {
  auto options = test::testSessionOptions();
  options.defaultTimeoutInterval = 0.4s;
  return options;
}

// Sends `chunks` pieces of ten bytes, one every 100 ms: always moving, never idle for long.
void serveTrickle(LocalServer& server, int chunks) {
  server.server().Get("/trickle", [chunks](const httplib::Request&, httplib::Response& res) {
    // Not a compressible type: a compressing server would hold the chunks back until the end.
    res.set_chunked_content_provider("application/octet-stream",
                                     [chunks](size_t offset, httplib::DataSink& sink) {
                                       if (offset / 10 >= static_cast<size_t>(chunks)) {
                                         sink.done();
                                         return true;
                                       }
                                       std::this_thread::sleep_for(100ms);
                                       return sink.write("0123456789", 10);
                                     });
  });
}

TEST(BlockingCallTimeout, ZeroMeansTheIdleTimeoutSoAMovingDownloadRunsPastIt) {
  test::NetFixture net(shortIdleTimeout());
  LocalServer server;
  serveTrickle(server, 12);  // 1.2 s in all, three idle timeouts
  server.start();
  AFHTTPClient client(net.session, server.url("/"));

  const auto whole = client.synchronouslyGetPath("trickle");
  ASSERT_FALSE(whole.error) << whole.error->message();
  EXPECT_EQ(std::get<std::string>(whole.responseObject).size(), 120u);

  // The same with the request built by hand: its own idle timeout is all there is.
  const auto performed = client.synchronouslyPerformRequest(client.requestWithMethod("GET", "trickle"));
  ASSERT_FALSE(performed.error) << performed.error->message();
  EXPECT_EQ(std::get<std::string>(performed.responseObject).size(), 120u);
}

TEST(BlockingCallTimeout, IdleTransfersStillFailAndAGivenTimeoutBoundsTheWholeCall) {
  test::NetFixture net(shortIdleTimeout());
  LocalServer server;
  serveTrickle(server, 15);
  server.start();
  // Answers the head, then says nothing more.
  RawServer stalled([](int socket, RawServer& self) {
    RawServer::send(socket, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc");
    self.idle(30s);
  });
  AFHTTPClient client(net.session, server.url("/"));
  AFHTTPClient stalledClient(net.session, stalled.url("/"));

  const auto idle = stalledClient.synchronouslyGetPath("x");
  ASSERT_TRUE(idle.error);
  EXPECT_EQ(idle.error->code, URLErrorCode::kTimedOut);
  EXPECT_EQ(idle.error->domain, kURLErrorDomain);

  // A non-zero timeout keeps its meaning: it bounds the call as a whole, moving or not.
  const auto bounded = client.synchronouslyGetPath("trickle", nullptr, 0.6s);
  ASSERT_TRUE(bounded.error);
  EXPECT_EQ(bounded.error->code, URLErrorCode::kTimedOut);
}

// A worker thread blocks on a server that never answers; the test cancels and times the return.
class BlockingCallCancel : public ::testing::Test {
 protected:
  struct Call {
    SynchronousResponse response;
    SteadyClock::time_point returned;
  };

  // Starts `call` on a worker, waits until `running` operations of the client are executing,
  // cancels with `cancel`, and returns the call's outcome and how long after the cancel it came.
  std::pair<Call, SteadyClock::duration> cancelWhileWaiting(AFHTTPClient& client, size_t running,
                                                            const std::function<SynchronousResponse()>& call,
                                                            const std::function<void()>& cancel) {
    Call outcome;
    std::thread worker([&] {
      outcome.response = call();
      outcome.returned = SteadyClock::now();
    });
    const auto deadline = SteadyClock::now() + 10s;
    auto executing = [&] {
      size_t count = 0;
      for (const auto& operation : client.operationQueue().operations()) count += operation->isExecuting();
      return count;
    };
    while (executing() < running && SteadyClock::now() < deadline) std::this_thread::sleep_for(5ms);
    std::this_thread::sleep_for(200ms);  // the request is out and the server sits on it
    const auto cancelled = SteadyClock::now();
    cancel();
    worker.join();
    return {outcome, outcome.returned - cancelled};
  }

  test::NetFixture net{test::testSessionOptions()};  // idle timeout 60 s: only a cancel ends these calls
  RawServer silent{[](int, RawServer& self) { self.idle(30s); }};
};

TEST_F(BlockingCallCancel, CancellingTheClientsOperationsEndsAWaitingCallWithCancelled) {
  AFHTTPClient client(net.session, silent.url("/"));
  const std::vector<std::pair<std::string, std::chrono::duration<double>>> cases = {{"no timeout", 0s},
                                                                                    {"a long timeout", 30s}};
  for (const auto& [name, limit] : cases) {
    const auto timeout = limit;
    const auto [call, after] = cancelWhileWaiting(
        client, 1, [&] { return client.synchronouslyGetPath("never", nullptr, timeout); },
        [&] { client.cancelAllHTTPOperations(); });
    ASSERT_TRUE(call.response.error) << name;
    EXPECT_EQ(call.response.error->code, URLErrorCode::kCancelled) << name;
    EXPECT_EQ(call.response.error->domain, kURLErrorDomain) << name;
    EXPECT_LT(after, 5s) << name;  // loose: the point is that no 30 or 60 s timeout had to pass
    RecordProperty("returned_ms_after_cancel_" + std::to_string(static_cast<int>(timeout.count())),
                   static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(after).count()));
  }
}

TEST_F(BlockingCallCancel, ACallCancelledWhileQueuedBehindAHangingOneEndsWithoutWaitingForIt) {
  // One operation at a time, as some service clients run: the blocking call waits its turn.
  AFHTTPClient client(net.session, silent.url("/"));
  client.operationQueue().setMaxConcurrentOperationCount(1);
  client.getPath("first", nullptr, nullptr, nullptr);
  const auto [call, after] = cancelWhileWaiting(
      client, 1, [&] { return client.synchronouslyGetPath("second"); },
      [&] { client.cancelAllHTTPOperationsWithMethod("GET", "second"); });
  ASSERT_TRUE(call.response.error);
  EXPECT_EQ(call.response.error->code, URLErrorCode::kCancelled);
  EXPECT_EQ(call.response.error->domain, kURLErrorDomain);
  EXPECT_LT(after, 5s);
  client.cancelAllHTTPOperationsWithMethod("GET", "first");
}

}  // namespace
}  // namespace lectern
