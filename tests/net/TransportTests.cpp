#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "NetTestSupport.h"
#include "core/Log.h"
#include "net/AFHTTPClient.h"
#include "net/QKJSONRequestOperation.h"
#include "net/URLError.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

using namespace std::chrono_literals;
using test::LocalServer;
using test::RawServer;

std::string pattern(size_t size) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return out;
}

// A real session over libcurl against servers on 127.0.0.1.
class TransportTest : public ::testing::Test {
 protected:
  struct Outcome {
    bool done = false;
    std::optional<Error> error;
    ResponseObject object;
  };

  // Runs one operation and pumps the main queue until its block ran.
  Outcome run(AFHTTPClient& client, HttpRequest request,
              const std::function<void(AFHTTPRequestOperation&)>& prepare = nullptr) {
    Outcome outcome;
    auto operation = client.HTTPRequestOperationWithRequest(
        std::move(request),
        [&](AFHTTPRequestOperation&, const ResponseObject& object) {
          outcome.object = object;
          outcome.done = true;
        },
        [&](AFHTTPRequestOperation&, const Error& error) {
          outcome.error = error;
          outcome.done = true;
        });
    if (prepare) prepare(*operation);
    client.enqueueHTTPRequestOperation(operation);
    EXPECT_TRUE(net.runUntil([&] { return outcome.done; }));
    return outcome;
  }

  test::NetFixture net{test::testSessionOptions()};
};

TEST_F(TransportTest, SequentialRequestsFromTwoClientsShareOneConnection) {
  LocalServer server;
  server.server().Get("/ping", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("pong", "text/plain");
  });
  server.start();
  AFHTTPClient first(net.session, server.url("/"));
  AFHTTPClient second(net.session, server.url("/api"));
  for (int i = 0; i < 5; ++i) {
    for (AFHTTPClient* client : {&first, &second}) {
      const auto result = client->synchronouslyGetPath("/ping");
      ASSERT_FALSE(result.error) << result.error->message();
      EXPECT_EQ(std::get<std::string>(result.responseObject), "pong");
    }
  }
  EXPECT_EQ(server.requestCount(), 10u);
  EXPECT_EQ(server.connectionCount(), 1u);
  EXPECT_EQ(net.session.transport().statistics().connectionsOpened, 1u);
}

TEST_F(TransportTest, MethodsHeadersAndBodiesArriveAsBuilt) {
  LocalServer server;
  std::mutex mutex;
  std::vector<std::string> seen;
  auto record = [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard lock(mutex);
    seen.push_back(req.method + " " + req.path + " [" + req.get_header_value("Content-Type") + "] " +
                   req.body + " UA=" + req.get_header_value("User-Agent"));
    res.set_content("{}", "application/json");
  };
  server.server()
      .Post("/items", record)
      .Put("/items/1", record)
      .Delete("/items/1", record)
      .Patch("/items/1", record);
  server.start();
  AFHTTPClient client(net.session, server.url("/"));
  client.setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  ASSERT_FALSE(client.synchronouslyPostPath("items", {{"a", 1}}).error);
  ASSERT_FALSE(client.synchronouslyPutPath("items/1").error);
  ASSERT_FALSE(client.synchronouslyDeletePath("items/1", {{"id", 1}}).error);
  ASSERT_FALSE(client.synchronouslyPatchPath("items/1", {{"b", "x"}}).error);
  const std::string agent = "UA=Lectern/" LECTERN_VERSION " (Linux 6.1.0-test)";
  EXPECT_EQ(seen, (std::vector<std::string>{
                      "POST /items [application/json; charset=utf-8] {\"a\":1} " + agent,
                      "PUT /items/1 []  " + agent, "DELETE /items/1 []  " + agent,
                      "PATCH /items/1 [application/json; charset=utf-8] {\"b\":\"x\"} " + agent}));
}

TEST_F(TransportTest, EachClientKeepsItsOwnCookiesWhileConnectionsStayShared) {
  // Two accounts of one cookie-session service on one host: each login cookie stays with its client.
  LocalServer server;
  server.server().Post("/api/login", [](const httplib::Request& req, httplib::Response& res) {
    res.set_header("Set-Cookie",
                   "sessionid=" + req.get_param_value("username") + "-secret; Path=/; HttpOnly");
    res.set_content(R"({"authenticated":true})", "application/json");
  });
  server.server().Get("/reader/whoami", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(req.get_header_value("Cookie"), "text/plain");
  });
  server.start();
  std::vector<std::string> logged;
  const int observer = Log::addObserver(
      [&](LogLevel, std::string_view, std::string_view message) { logged.emplace_back(message); });
  auto cookieOf = [](AFHTTPClient& client) {
    const auto answer = client.synchronouslyGetPath("reader/whoami");
    EXPECT_FALSE(answer.error);
    return std::get<std::string>(answer.responseObject);
  };
  AFHTTPClient jo(net.session, server.url("/"));
  AFHTTPClient al(net.session, server.url("/"));
  AFHTTPClient neither(net.session, server.url("/"));
  ASSERT_FALSE(jo.synchronouslyPostPath("api/login", {{"username", "jo"}}).error);
  EXPECT_EQ(cookieOf(al), "");
  ASSERT_FALSE(al.synchronouslyPostPath("api/login", {{"username", "al"}}).error);
  EXPECT_EQ(cookieOf(jo), "sessionid=jo-secret");
  EXPECT_EQ(cookieOf(al), "sessionid=al-secret");
  EXPECT_EQ(cookieOf(neither), "");
  EXPECT_EQ(cookieOf(jo), "sessionid=jo-secret");  // still, after the other's login
  Log::removeObserver(observer);
  EXPECT_EQ(server.connectionCount(), 1u);
  for (const auto& line : logged) EXPECT_EQ(line.find("-secret"), std::string::npos) << line;
}

TEST_F(TransportTest, CompressedBodiesArriveDecoded) {
  LocalServer server;
  const std::string text = pattern(200'000);
  server.server().Get(
      "/feed", [&](const httplib::Request&, httplib::Response& res) { res.set_content(text, "text/xml"); });
  server.start();
  AFHTTPClient client(net.session, server.url("/"));
  const auto result = client.synchronouslyGetPath("feed");
  ASSERT_FALSE(result.error);
  EXPECT_TRUE(result.operation->response()->headers.contains("Content-Encoding"));
  EXPECT_EQ(std::get<std::string>(result.responseObject), text);
}

TEST_F(TransportTest, RedirectsAreFollowedBoundedAndCanBeRefused) {
  LocalServer server;
  std::atomic<int> postsSeen{0};
  auto& s = server.server();
  s.Get("/r1", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/r2", 302); });
  s.Get("/r2", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("final?x=1", 301); });
  s.Get("/final", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(req.method + " " + req.get_param_value("x"), "text/plain");
  });
  s.Post("/submit", [&](const httplib::Request&, httplib::Response& res) {
    ++postsSeen;
    res.set_redirect("/final?x=2", 303);
  });
  s.Get("/loop", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/loop", 302); });
  server.start();
  AFHTTPClient client(net.session, server.url("/"));

  auto followed = client.synchronouslyGetPath("r1");
  ASSERT_FALSE(followed.error);
  EXPECT_EQ(std::get<std::string>(followed.responseObject), "GET 1");
  EXPECT_EQ(followed.operation->response()->url, server.url("/final?x=1"));

  auto afterPost = client.synchronouslyPostPath("submit", {{"a", "b"}});
  ASSERT_FALSE(afterPost.error);
  EXPECT_EQ(std::get<std::string>(afterPost.responseObject), "GET 2");
  EXPECT_EQ(postsSeen, 1);

  const auto loop = client.synchronouslyGetPath("loop");
  ASSERT_TRUE(loop.error);
  EXPECT_EQ(loop.error->code, -1007);

  const auto refused =
      run(client, client.requestWithMethod("GET", "r1"), [](AFHTTPRequestOperation& operation) {
        operation.setRedirectResponseBlock(
            [](const HttpRequest&, const HttpResponse&) { return std::nullopt; });
      });
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->description, "Expected status code in (200-299), got 302");
}

TEST_F(TransportTest, SilentServerTimesOutAndCancelStopsARunningTransfer) {
  RawServer silent([](int, RawServer& self) { self.idle(30s); });
  AFHTTPClient client(net.session, silent.url("/"));
  const auto timedOut = client.synchronouslyGetPath("x", nullptr, 0.5s);
  ASSERT_TRUE(timedOut.error);
  EXPECT_EQ(timedOut.error->code, -1001);
  EXPECT_EQ(timedOut.error->domain, "NSURLErrorDomain");

  HttpRequest request = client.requestWithMethod("GET", "y");
  request.timeoutInterval = 0.3s;
  const auto asyncTimeout = run(client, request);
  ASSERT_TRUE(asyncTimeout.error);
  EXPECT_EQ(asyncTimeout.error->code, -1001);

  bool cancelled = false;
  auto operation = client.HTTPRequestOperationWithRequest(
      client.requestWithMethod("GET", "z"), nullptr, [&](AFHTTPRequestOperation&, const Error& error) {
        EXPECT_EQ(error.code, -999);
        EXPECT_EQ(error.info(kFailingURLErrorKey), silent.url("/z"));
        cancelled = true;
      });
  client.enqueueHTTPRequestOperation(operation);
  ASSERT_TRUE(net.runUntil([&] { return operation->state() == AFOperationState::kExecuting; }));
  std::this_thread::sleep_for(50ms);
  operation->cancel();
  EXPECT_TRUE(net.runUntil([&] { return cancelled; }));
}

TEST_F(TransportTest, PauseKeepsWhatWasReadAndResumeAsksForTheRest) {
  // Declared before the server: the paused transfer's answer may still be sending them when the
  // test ends, until the server stops.
  const std::string body = pattern(512 * 1024);
  std::mutex mutex;
  std::vector<std::string> ranges;
  LocalServer server;
  server.server().Get("/big", [&](const httplib::Request& req, httplib::Response& res) {
    {
      std::lock_guard lock(mutex);
      ranges.push_back(req.get_header_value("Range"));
    }
    res.set_content_provider(body.size(), "application/octet-stream",
                             [&](size_t offset, size_t length, httplib::DataSink& sink) {
                               std::this_thread::sleep_for(10ms);
                               sink.write(body.data() + offset, std::min<size_t>(length, 16 * 1024));
                               return true;
                             });
  });
  server.start();
  AFHTTPClient client(net.session, server.url("/"));
  std::shared_ptr<AFHTTPRequestOperation> operation;
  bool paused = false;
  const auto outcome = run(client, client.requestWithMethod("GET", "big"), [&](AFHTTPRequestOperation& op) {
    op.setDownloadProgressBlock([&](std::uint64_t, std::uint64_t, std::int64_t) {
      if (paused) return;
      paused = true;
      op.pause();
      EXPECT_EQ(op.state(), AFOperationState::kPaused);
      op.resume();
    });
  });
  ASSERT_FALSE(outcome.error) << outcome.error->message();
  EXPECT_EQ(std::get<std::string>(outcome.object), body);
  std::lock_guard lock(mutex);
  ASSERT_EQ(ranges.size(), 2u);
  EXPECT_EQ(ranges[0], "");
  EXPECT_TRUE(ranges[1].starts_with("bytes=")) << ranges[1];
  EXPECT_NE(ranges[1], "bytes=0-");
}

TEST_F(TransportTest, BodiesOverTheLimitFailWhileFilesAreNotLimited) {
  test::NetFixture small([] {
    auto options = test::testSessionOptions();
    options.maximumResponseSize = 1000;
    return options;
  }());
  LocalServer server;
  const std::string big = pattern(5000);
  server.server().Get("/sized", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(big, "application/octet-stream");
  });
  server.server().Get("/chunked", [&](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider("application/octet-stream", [&](size_t offset, httplib::DataSink& sink) {
      if (offset >= big.size()) {
        sink.done();
        return true;
      }
      sink.write(big.data() + offset, 500);
      return true;
    });
  });
  server.start();
  AFHTTPClient client(small.session, server.url("/"));
  for (const char* path : {"sized", "chunked"}) {
    const auto result = client.synchronouslyGetPath(path);
    ASSERT_TRUE(result.error) << path;
    EXPECT_EQ(result.error->code, -1103) << path;
  }
  test::TempDir dir;
  auto operation =
      client.HTTPRequestOperationWithRequest(client.requestWithMethod("GET", "sized"), nullptr, nullptr);
  operation->setOutputStream(std::make_shared<FileOutputStream>(dir / "download.bin"));
  client.enqueueHTTPRequestOperation(operation);
  ASSERT_TRUE(operation->waitUntilFinished(20s));
  EXPECT_FALSE(operation->error());
  EXPECT_EQ(test::readFile(dir / "download.bin"), big);
}

TEST_F(TransportTest, MisbehavingServersGiveClearErrorsNotHangs) {
  struct Case {
    std::string name;
    std::string answer;
    bool keepOpen;
    int code;
  };
  std::string manyHeaders = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 10'000; ++i) manyHeaders += "X-Filler-" + std::to_string(i) + ": v\r\n";
  manyHeaders += "Content-Length: 2\r\n\r\nok";
  const Case cases[] = {
      {"closes mid-body", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789", false, -1005},
      {"claims more than it sends", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789", true, -1001},
      {"ten thousand headers", manyHeaders, true, -1011},
      {"not HTTP at all", "hello there\r\n\r\n", false, -1011},
      {"nothing at all", "", false, -1005},
      {"JSON that is not UTF-8",
       "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 7\r\n\r\n[\"\xFF\xFE\"]\n", true,
       -1016},
  };
  for (const auto& c : cases) {
    RawServer server([&c](int socket, RawServer& self) {
      RawServer::send(socket, c.answer);
      if (c.keepOpen) self.idle(10s);
    });
    AFHTTPClient client(net.session, server.url("/"));
    client.registerHTTPOperationClass<QKJSONRequestOperation>();
    client.setDefaultHeader("Accept", "application/json");
    const auto result = client.synchronouslyGetPath("x", nullptr, 1s);
    ASSERT_TRUE(result.error) << c.name;
    EXPECT_EQ(result.error->code, c.code) << c.name << ": " << result.error->message();
  }
}

TEST_F(TransportTest, RefusedConnectionIsCannotConnect) {
  // A bound socket that never listens refuses connections.
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
  AFHTTPClient client(net.session, "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/");
  const auto result = client.synchronouslyGetPath("x", nullptr, 5s);
  ::close(socket);
  ASSERT_TRUE(result.error);
  EXPECT_EQ(result.error->code, -1004);
}

TEST_F(TransportTest, BlockingCallsFromWorkersNeedNoMainThread) {
  LocalServer server;
  server.server().Get("/v2/entries.json", [](const httplib::Request& req, httplib::Response& res) {
    res.status = req.get_param_value("page") == "9" ? 404 : 200;
    res.set_content(res.status == 404 ? R"({"status":404})" : R"([{"id":1}])", "application/json");
  });
  server.start();
  AFHTTPClient client(net.session, server.url("/"));
  client.registerHTTPOperationClass<QKJSONRequestOperation>();
  client.setDefaultHeader("Accept", "text/json");
  SynchronousResponse found, missing;
  // The main thread only waits here, without running its queue.
  std::thread worker([&] {
    found = client.synchronouslyGetPath("/v2/entries.json", {{"page", 1}});
    missing = client.synchronouslyGetPath("/v2/entries.json", {{"page", 9}});
  });
  worker.join();
  ASSERT_FALSE(found.error);
  EXPECT_EQ(*found.json(), nlohmann::json::parse(R"([{"id":1}])"));
  EXPECT_EQ(found.statusCode(), 200);
  ASSERT_TRUE(missing.error);
  EXPECT_EQ(missing.statusCode(), 404);
  ASSERT_TRUE(missing.json());  // the body of a failed call still arrives parsed
  EXPECT_EQ((*missing.json())["status"], 404);
}

TEST_F(TransportTest, MultipartUploadStreamsFilesToTheServer) {
  LocalServer server;
  std::string received;
  server.server().Post("/upload", [&](const httplib::Request& req, httplib::Response& res) {
    received = req.get_file_value("title").content + "|" + req.get_file_value("file").filename + "|" +
               req.get_file_value("file").content;
    res.set_content("ok", "text/plain");
  });
  server.start();
  test::TempDir dir;
  const std::string content = pattern(300'000);
  test::writeFile(dir / "article.html", content);
  AFHTTPClient client(net.session, server.url("/"));
  const auto request = client.multipartFormRequestWithMethod(
      "POST", "upload", {{"title", "T"}}, [&](AFStreamingMultipartFormData& form) {
        ASSERT_TRUE(form.appendPartWithFileURL("file://" + (dir / "article.html").string(), "file"));
      });
  std::uint64_t uploaded = 0;
  const auto outcome = run(client, request, [&](AFHTTPRequestOperation& operation) {
    operation.setUploadProgressBlock(
        [&](std::uint64_t, std::uint64_t total, std::int64_t) { uploaded = total; });
  });
  ASSERT_FALSE(outcome.error) << outcome.error->message();
  EXPECT_EQ(received, "T|article.html|" + content);
  net.main.drain();
  EXPECT_EQ(uploaded, std::stoull(*request.valueForHTTPHeaderField("Content-Length")));
}

}  // namespace
}  // namespace lectern
