#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "NetTestSupport.h"
#include "core/Log.h"
#include "net/AFHTTPClient.h"
#include "net/NetworkReachability.h"
#include "net/PropertyList.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

using namespace std::chrono_literals;

TEST(NetworkReachability, LoopbackIsAlwaysReachableAndOtherHostsNeedARouteAndAName) {
  std::atomic<bool> route{false};
  std::vector<std::string> asked;
  NetworkReachability reachability(
      100ms, 1h,
      NetworkReachability::Probes{[&] { return route.load(); },
                                  [&](const std::string& host, std::chrono::milliseconds bound) {
                                    EXPECT_EQ(bound, 100ms);
                                    asked.push_back(host);
                                    return host == "api.example.com";
                                  }});
  EXPECT_EQ(reachability.status("127.0.0.1"), ReachabilityStatus::kReachableViaWiFi);
  EXPECT_EQ(reachability.status("localhost"), ReachabilityStatus::kReachableViaWiFi);
  EXPECT_EQ(reachability.status("api.example.com"), ReachabilityStatus::kNotReachable);
  EXPECT_EQ(reachability.status(), ReachabilityStatus::kNotReachable);
  route = true;
  EXPECT_EQ(reachability.status("api.example.com"), ReachabilityStatus::kReachableViaWiFi);
  EXPECT_EQ(reachability.status("gone.example.com"), ReachabilityStatus::kNotReachable);
  EXPECT_EQ(reachability.status(), ReachabilityStatus::kReachableViaWiFi);
  EXPECT_EQ(asked,
            (std::vector<std::string>{"api.example.com", "gone.example.com"}));  // no lookup without a route
}

TEST(NetworkReachability, MonitorTellsObserversWhenTheRouteComesAndGoes) {
  std::atomic<bool> route{true};
  std::atomic<int> readings{0};
  auto hasRoute = [&] {
    ++readings;
    return route.load();
  };
  NetworkReachability reachability(
      100ms, 5ms, NetworkReachability::Probes{hasRoute, [](const std::string&, auto) { return true; }});
  std::mutex mutex;
  std::vector<ReachabilityStatus> heard;
  reachability.addObserver([&](ReachabilityStatus status) {
    std::lock_guard lock(mutex);
    heard.push_back(status);
  });
  auto waitFor = [&](size_t count) {
    for (int i = 0; i < 2000; ++i) {
      {
        std::lock_guard lock(mutex);
        if (heard.size() >= count) return true;
      }
      std::this_thread::sleep_for(1ms);
    }
    return false;
  };
  // The first reading sets the baseline; only later changes are news.
  while (readings < 2) std::this_thread::sleep_for(1ms);
  route = false;
  ASSERT_TRUE(waitFor(1));
  route = true;
  ASSERT_TRUE(waitFor(2));
  std::lock_guard lock(mutex);
  EXPECT_EQ(heard[0], ReachabilityStatus::kNotReachable);
  EXPECT_EQ(heard[1], ReachabilityStatus::kReachableViaWiFi);
}

class ClientReachability : public ::testing::Test {
 protected:
  test::NetFixture net{
      std::make_unique<CannedTransport>([](const HttpRequest&) { return CannedTransport::Answer{}; }),
      test::testSessionOptions()};
};

TEST_F(ClientReachability, StatusChangesReachTheBlockOnTheMainQueue) {
  AFHTTPClient client(net.session, "https://api.example.com/v2");
  std::vector<ReachabilityStatus> seen;
  client.setReachabilityStatusChangeBlock([&](ReachabilityStatus status) {
    EXPECT_TRUE(net.main.isMainThread());
    seen.push_back(status);
  });
  ASSERT_TRUE(net.runUntil([&] { return seen.size() == 1; }));  // unknown -> reachable
  net.reachability.set(ReachabilityStatus::kNotReachable);
  ASSERT_TRUE(net.runUntil([&] { return seen.size() == 2; }));
  EXPECT_EQ(client.networkReachabilityStatus(), ReachabilityStatus::kNotReachable);
  EXPECT_EQ(seen, (std::vector<ReachabilityStatus>{ReachabilityStatus::kReachableViaWiFi,
                                                   ReachabilityStatus::kNotReachable}));
  client.stopMonitoringNetworkReachability();
  net.reachability.set(ReachabilityStatus::kReachableViaWiFi);
  net.main.runUntil([] { return false; }, 100ms);
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(ClientReachability, EndpointCheckExplainsWhatIsMissing) {
  AFHTTPClient client(net.session, "https://api.example.com/v2");
  EXPECT_TRUE(client.isNetworkEndpointReachable());
  net.reachability.set(ReachabilityStatus::kNotReachable);
  const auto unreachable = client.isNetworkEndpointReachable();
  ASSERT_FALSE(unreachable);
  EXPECT_EQ(unreachable.error().code, -1009);
  EXPECT_EQ(unreachable.error().description, "Cannot reach api.example.com");
  EXPECT_EQ(unreachable.error().recoverySuggestion, "Internet connection is not available");
}

TEST(DiagnosticDump, WritesBodyAndDescriptionOnlyWhenTheFolderExists) {
  test::TempDir dir;
  auto options = test::testSessionOptions();
  options.dumpFolder = dir / "dump";
  test::NetFixture net(std::make_unique<CannedTransport>([](const HttpRequest&) {
                         CannedTransport::Answer answer;
                         answer.statusCode = 500;
                         answer.headers.set("Content-Type", "text/html; charset=utf-8");
                         answer.body = "<h1>oops</h1>";
                         return answer;
                       }),
                       options);
  AFHTTPClient client(net.session, "https://api.example.com/");
  const auto failed = client.synchronouslyPostPath("items", {{"a", 1}});
  ASSERT_TRUE(failed.error);
  client.dumpOperationWithError(*failed.operation, *failed.error);
  EXPECT_FALSE(std::filesystem::exists(dir / "dump"));

  std::filesystem::create_directories(dir / "dump");
  client.dumpOperationWithError(*failed.operation, *failed.error);
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir / "dump")) {
    files[entry.path().extension().string()] = test::readFile(entry.path());
  }
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[".raw"], "<h1>oops</h1>");
  const std::string& text = files[".txt"];
  EXPECT_TRUE(
      text.starts_with("Error: Expected status code in (200-299), got 500: <h1>oops</h1>\nOperation: "));
  EXPECT_NE(text.find("\nRequest: a=1\nResponse encoding: 4\nResponse string: <h1>oops</h1>"),
            std::string::npos);
}

TEST(PropertyList, ReadsWhatItWritesAndRefusesBinaryMalformedAndExternalEntities) {
  const auto value =
      nlohmann::json::parse(R"({"a":[1,2.5,true,"x < y & z"],"b":{"c":false},"d":"caf\u00e9"})");
  auto read = propertyListFromData(xmlPropertyListFromJSON(value));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->value, value);
  EXPECT_FALSE(propertyListFromData("bplist00\x01\x02"));
  EXPECT_FALSE(propertyListFromData("<plist><dict><key>a</key></dict></plist>"));
  EXPECT_FALSE(propertyListFromData("<plist><dict><integer>1</integer></dict>"));
  test::TempDir dir;
  test::writeFile(dir / "secret.txt", "secret");
  const auto entity =
      propertyListFromData("<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY e SYSTEM \"file://" +
                           (dir / "secret.txt").string() + "\">]><plist><string>&e;</string></plist>");
  if (entity) {
    EXPECT_EQ(entity->value.get<std::string>().find("secret"), std::string::npos);
  }
}

}  // namespace
}  // namespace lectern
