#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>

#include "NetTestSupport.h"
#include "net/AFHTTPClient.h"
#include "net/AFImageRequestOperation.h"
#include "net/AFJSONRequestOperation.h"
#include "net/AFPropertyListRequestOperation.h"
#include "net/QKJSONRequestOperation.h"
#include "net/URLError.h"

namespace lectern {
namespace {

using Answer = CannedTransport::Answer;

Answer answer(int status, std::string contentType, std::string body) {
  Answer a;
  a.statusCode = status;
  if (!contentType.empty()) a.headers.set("Content-Type", std::move(contentType));
  a.body = std::move(body);
  return a;
}

// A client over a canned transport whose answers each test chooses.
class OperationTest : public ::testing::Test {
 protected:
  struct Outcome {
    bool done = false;
    bool onMainThread = false;
    std::optional<Error> error;
    ResponseObject object;
    std::shared_ptr<AFHTTPRequestOperation> operation;
  };

  OperationTest() {
    auto transport =
        std::make_unique<CannedTransport>([this](const HttpRequest& request) { return respond(request); });
    canned = transport.get();
    net = std::make_unique<test::NetFixture>(std::move(transport), test::testSessionOptions());
    client = std::make_unique<AFHTTPClient>(net->session, "https://api.example.com/v1");
  }
  ~OperationTest() override {
    client.reset();
    net.reset();
  }

  Outcome get(std::string_view path) {
    Outcome outcome;
    outcome.operation = client->getPath(
        path, nullptr,
        [&](AFHTTPRequestOperation&, const ResponseObject& object) {
          outcome.object = object;
          outcome.onMainThread = net->main.isMainThread();
          outcome.done = true;
        },
        [&](AFHTTPRequestOperation&, const Error& error) {
          outcome.error = error;
          outcome.onMainThread = net->main.isMainThread();
          outcome.done = true;
        });
    EXPECT_TRUE(net->runUntil([&] { return outcome.done; }));
    return outcome;
  }

  std::function<Answer(const HttpRequest&)> respond = [](const HttpRequest&) { return Answer{}; };
  CannedTransport* canned = nullptr;
  std::unique_ptr<test::NetFixture> net;
  std::unique_ptr<AFHTTPClient> client;
};

TEST_F(OperationTest, StatusCodesOutsideTwoHundredsFailWithTheDescribedRange) {
  const std::pair<int, bool> cases[] = {{200, true},  {204, true},  {299, true},
                                        {199, false}, {300, false}, {404, false}};
  for (auto [status, accepted] : cases) {
    respond = [status](const HttpRequest&) { return answer(status, "text/plain", "server says no"); };
    const auto outcome = get("x");
    EXPECT_EQ(!outcome.error, accepted) << status;
    EXPECT_TRUE(outcome.onMainThread);
    if (accepted) continue;
    EXPECT_EQ(outcome.error->domain, "AFNetworkingErrorDomain");
    EXPECT_EQ(outcome.error->code, -1011);
    EXPECT_EQ(outcome.error->description, "Expected status code in (200-299), got " + std::to_string(status));
    EXPECT_EQ(outcome.error->recoverySuggestion, "server says no");
    EXPECT_EQ(outcome.error->info(kFailingURLErrorKey), "https://api.example.com/v1/x");
    EXPECT_EQ(outcome.error->info(kFailingURLRequestErrorKey), "<GET https://api.example.com/v1/x>");
    EXPECT_EQ(outcome.error->info(kFailingURLResponseErrorKey),
              "<" + std::to_string(status) + " https://api.example.com/v1/x>");
  }
}

TEST_F(OperationTest, AddedStatusCodesJoinTheDescribedSet) {
  respond = [](const HttpRequest&) { return answer(500, "", ""); };
  auto operation =
      client->HTTPRequestOperationWithRequest(client->requestWithMethod("GET", "x"), nullptr, nullptr);
  operation->addAcceptableStatusCodes({404, 302, 303});
  client->enqueueHTTPRequestOperation(operation);
  ASSERT_TRUE(operation->waitUntilFinished(std::chrono::seconds(20)));
  ASSERT_TRUE(operation->error());
  EXPECT_EQ(operation->error()->description, "Expected status code in (200-299,302-303,404), got 500");
}

TEST_F(OperationTest, ContentTypeIsCheckedOnlyForNonEmptyBodies) {
  client->registerHTTPOperationClass<AFJSONRequestOperation>();
  respond = [](const HttpRequest&) { return answer(200, "application/x-odd", ""); };
  auto outcome = get("entries.json");
  EXPECT_FALSE(outcome.error);
  EXPECT_TRUE(std::holds_alternative<std::monostate>(outcome.object));

  respond = [](const HttpRequest&) { return answer(200, "text/html; charset=utf-8", "{\"a\":1}"); };
  outcome = get("entries.json");
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, -1016);
  EXPECT_EQ(outcome.error->description,
            "Expected content type {(application/json, text/javascript, text/json)}, got text/html");
  EXPECT_EQ(outcome.error->recoverySuggestion, "{\"a\":1}");

  // The wider class takes JSON labelled as HTML.
  client->registerHTTPOperationClass<QKJSONRequestOperation>();
  outcome = get("entries.json");
  ASSERT_FALSE(outcome.error);
  EXPECT_EQ(std::get<nlohmann::json>(outcome.object), nlohmann::json({{"a", 1}}));
}

TEST_F(OperationTest, JSONBodiesFollowTheEmptySpaceUTF8AndFragmentRules) {
  client->registerHTTPOperationClass<QKJSONRequestOperation>();
  struct Case {
    std::string contentType, body;
    int errorCode;  // 0: success
    std::string parsed;
  };
  const Case cases[] = {
      {"application/json", " ", 0, ""},
      {"application/json", "", 0, ""},
      {"text/plain", "[1,\"\xC3\xA9\"]", 0,
       "[1,\"\xC3\xA9\"]"},  // text/* without charset is still UTF-8 JSON
      {"application/json; charset=iso-8859-1", "[\"caf\xE9\"]", 0, "[\"caf\xC3\xA9\"]"},
      {"application/json", "{\"a\":\xFF}", -1016, ""},
      {"application/json", "{\"a\":", 3840, ""},
      {"application/json", "42", 3840, ""},  // fragments are refused unless allowed
  };
  for (const auto& c : cases) {
    respond = [&c](const HttpRequest&) { return answer(200, c.contentType, c.body); };
    const auto outcome = get("x.json");
    if (c.errorCode == 0) {
      ASSERT_FALSE(outcome.error) << c.body << ": " << outcome.error->message();
      if (c.parsed.empty()) {
        EXPECT_TRUE(std::holds_alternative<std::monostate>(outcome.object)) << c.body;
      } else {
        EXPECT_EQ(std::get<nlohmann::json>(outcome.object), nlohmann::json::parse(c.parsed));
      }
      continue;
    }
    ASSERT_TRUE(outcome.error) << c.body;
    EXPECT_EQ(outcome.error->code, c.errorCode) << c.body;
  }
  respond = [](const HttpRequest&) { return answer(200, "application/json", "[\"\xFF\"]"); };
  const auto notUTF8 = get("x.json");
  ASSERT_TRUE(notUTF8.error);
  EXPECT_EQ(notUTF8.error->domain, "AFNetworkingErrorDomain");
  EXPECT_EQ(notUTF8.error->description, "Operation responseData failed decoding as a UTF-8 string");
  EXPECT_EQ(notUTF8.error->info("NSLocalizedFailureReason"), "Could not decode string: [\"\xC3\xBF\"]");
}

TEST_F(OperationTest, ResponseTextEncodingIsDeclaredCharsetElseLatin1ForTextElseUTF8) {
  const std::pair<std::string, std::string> cases[] = {
      {"text/plain", "iso-8859-1"},
      {"text/html; charset=UTF-8", "utf-8"},
      {"text/xml; charset=\"windows-1252\"", "windows-1252"},
      {"application/json", "utf-8"},
      {"", "utf-8"},
  };
  for (const auto& [contentType, encoding] : cases) {
    respond = [&](const HttpRequest&) { return answer(200, contentType, "caf\xE9"); };
    const auto outcome = get("x");
    EXPECT_EQ(outcome.operation->responseStringEncoding(), encoding) << contentType;
    if (encoding == "iso-8859-1") {
      EXPECT_EQ(outcome.operation->responseString(), "caf\xC3\xA9");
    }
    if (encoding == "utf-8") {
      EXPECT_FALSE(outcome.operation->responseString());
    }
  }
}

TEST_F(OperationTest, CallbackQueueReplacesTheMainQueue) {
  respond = [](const HttpRequest&) { return answer(200, "text/plain", "ok"); };
  OperationQueue callbacks("callbacks");
  std::atomic<bool> done{false};
  std::atomic<bool> onMain{true};
  auto operation = client->HTTPRequestOperationWithRequest(
      client->requestWithMethod("GET", "x"),
      [&](AFHTTPRequestOperation&, const ResponseObject& object) {
        EXPECT_EQ(std::get<std::string>(object), "ok");
        onMain = net->main.isMainThread();
        done = true;
      },
      nullptr);
  operation->setSuccessCallbackQueue(callbackQueueFor(callbacks));
  client->enqueueHTTPRequestOperation(operation);
  // Nobody runs the main queue here: the block must arrive anyway.
  for (int i = 0; i < 2000 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(done);
  EXPECT_FALSE(onMain);
}

TEST_F(OperationTest, CancelBeforeStartFinishesWithTheCancelledErrorAndNoRequest) {
  auto outcome = std::make_shared<std::optional<Error>>();
  auto operation = client->HTTPRequestOperationWithRequest(
      client->requestWithMethod("GET", "x"), [](AFHTTPRequestOperation&, const ResponseObject&) { FAIL(); },
      [outcome](AFHTTPRequestOperation&, const Error& error) { *outcome = error; });
  EXPECT_EQ(operation->state(), AFOperationState::kReady);
  operation->cancel();
  client->enqueueHTTPRequestOperation(operation);
  ASSERT_TRUE(net->runUntil([&] { return outcome->has_value(); }));
  EXPECT_EQ((*outcome)->code, -999);
  EXPECT_EQ((*outcome)->domain, "NSURLErrorDomain");
  EXPECT_EQ(operation->state(), AFOperationState::kFinished);
  EXPECT_TRUE(canned->requests().empty());
}

TEST_F(OperationTest, CancelByMethodAndPathHitsOnlyMatchingQueuedOperations) {
  std::latch release(1);
  respond = [&](const HttpRequest& request) {
    if (request.url.ends_with("/first")) release.wait();
    return answer(200, "text/plain", "ok");
  };
  client->operationQueue().setMaxConcurrentOperationCount(1);
  std::map<std::string, std::optional<Error>> results;
  auto track = [&](std::string key, std::string_view method, std::string_view path) {
    auto operation = client->HTTPRequestOperationWithRequest(
        client->requestWithMethod(method, path),
        [&results, key](AFHTTPRequestOperation&, const ResponseObject&) { results[key] = std::nullopt; },
        [&results, key](AFHTTPRequestOperation&, const Error& error) { results[key] = error; });
    client->enqueueHTTPRequestOperation(operation);
  };
  track("first", "GET", "first");
  track("get b", "GET", "b?page=1");
  track("post b", "POST", "b");
  track("get c", "GET", "c");
  client->cancelAllHTTPOperationsWithMethod("GET", "b");
  release.count_down();
  ASSERT_TRUE(net->runUntil([&] { return results.size() == 4; }));
  ASSERT_TRUE(results["get b"]);
  EXPECT_EQ(results["get b"]->code, -999);
  EXPECT_FALSE(results["post b"]);
  EXPECT_FALSE(results["get c"]);
  EXPECT_FALSE(results["first"]);
}

TEST_F(OperationTest, BatchReportsProgressAfterEachOperationThenCompletesOnce) {
  respond = [](const HttpRequest& request) {
    return request.url.ends_with("/2") ? answer(500, "", "") : answer(200, "text/plain", "ok");
  };
  std::vector<std::string> events;
  std::vector<HttpRequest> requests;
  for (int i = 1; i <= 3; ++i) requests.push_back(client->requestWithMethod("GET", std::to_string(i)));
  bool complete = false;
  client->enqueueBatchOfHTTPRequestOperationsWithRequests(
      requests,
      [&](size_t finished, size_t total) {
        EXPECT_TRUE(net->main.isMainThread());
        events.push_back(std::to_string(finished) + "/" + std::to_string(total));
      },
      [&](const std::vector<std::shared_ptr<AFHTTPRequestOperation>>& operations) {
        EXPECT_EQ(operations.size(), 3u);
        EXPECT_TRUE(operations[1]->error());
        events.push_back("done");
        complete = true;
      });
  ASSERT_TRUE(net->runUntil([&] { return complete; }));
  net->main.drain();
  EXPECT_EQ(events, (std::vector<std::string>{"1/3", "2/3", "3/3", "done"}));
}

TEST_F(OperationTest, CredentialAnswersABasicChallengeOnceAndTheBlockCanRefuse) {
  respond = [](const HttpRequest& request) {
    if (request.valueForHTTPHeaderField("Authorization") == "Basic am86c2VjcmV0")
      return answer(200, "text/plain", "in");
    Answer refused = answer(401, "text/plain", "who are you");
    refused.headers.set("WWW-Authenticate", "Basic realm=\"Lectern\"");
    return refused;
  };
  client->setDefaultCredential(HttpCredential{"jo", "secret"});
  auto outcome = get("private");
  ASSERT_FALSE(outcome.error);
  EXPECT_EQ(std::get<std::string>(outcome.object), "in");
  EXPECT_EQ(canned->requests().size(), 2u);

  client->setDefaultCredential(HttpCredential{"jo", "wrong"});
  outcome = get("private");
  ASSERT_TRUE(outcome.error);  // one retry, then the 401 is the answer
  EXPECT_EQ(outcome.operation->response()->statusCode, 401);

  bool cancelled = false;
  auto operation = client->HTTPRequestOperationWithRequest(
      client->requestWithMethod("GET", "private"), nullptr, [&](AFHTTPRequestOperation&, const Error& error) {
        EXPECT_EQ(error.code, -1012);
        cancelled = true;
      });
  operation->setWillSendRequestForAuthenticationChallengeBlock([](const AuthenticationChallenge& challenge) {
    EXPECT_EQ(challenge.realm, "Lectern");
    EXPECT_EQ(challenge.authenticationMethod, "Basic");
    return AuthenticationChallengeResponse{AuthenticationChallengeDisposition::kCancelAuthenticationChallenge,
                                           {}};
  });
  client->enqueueHTTPRequestOperation(operation);
  EXPECT_TRUE(net->runUntil([&] { return cancelled; }));
}

TEST_F(OperationTest, ImageAndPropertyListOperationsCheckAndConvertTheirBodies) {
  client->registerHTTPOperationClass<AFImageRequestOperation>();
  client->registerHTTPOperationClass<AFPropertyListRequestOperation>();
  respond = [](const HttpRequest& request) {
    if (request.url.ends_with(".png"))
      return answer(200, "image/png", std::string("\x89PNG\r\n\x1A\n....", 12));
    if (request.url.ends_with(".gif")) return answer(200, "image/gif", "<html>not an image</html>");
    return answer(
        200, "application/x-plist",
        "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>n</key><integer>3</integer>"
        "<key>list</key><array><string>a &amp; b</string><true/><real>1.5</real></array></dict></plist>");
  };
  auto outcome = get("icon.png");
  ASSERT_FALSE(outcome.error);
  EXPECT_EQ(std::get<ResponseImage>(outcome.object).format, "png");
  outcome = get("icon.gif");
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, -1016);
  outcome = get("settings.plist");
  ASSERT_FALSE(outcome.error);
  EXPECT_EQ(std::get<nlohmann::json>(outcome.object),
            nlohmann::json::parse(R"({"n":3,"list":["a & b",true,1.5]})"));
}

}  // namespace
}  // namespace lectern
