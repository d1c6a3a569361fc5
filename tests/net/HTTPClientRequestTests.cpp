#include <gtest/gtest.h>

#include "NetTestSupport.h"
#include "core/Error.h"
#include "net/AFHTTPClient.h"
#include "net/AFImageRequestOperation.h"
#include "net/DefaultHeaders.h"
#include "net/QKJSONRequestOperation.h"
#include "net/QKXMLRequestOperation.h"
#include "net/STLOAuthClient.h"
#include "net/URLError.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

using test::NetFixture;

std::unique_ptr<Transport> unusedTransport() {
  return std::make_unique<CannedTransport>([](const HttpRequest&) { return CannedTransport::Answer{}; });
}

class HTTPClientRequest : public ::testing::Test {
 protected:
  NetFixture net{unusedTransport(), test::testSessionOptions()};
  AFHTTPClient client{net.session, "https://api.example.com/v1"};
};

TEST_F(HTTPClientRequest, BasePathGetsATrailingSlashSoRelativePathsResolveUnderIt) {
  EXPECT_EQ(client.baseURL(), "https://api.example.com/v1/");
  EXPECT_EQ(client.requestWithMethod("GET", "bookmarks/list").url,
            "https://api.example.com/v1/bookmarks/list");
  EXPECT_EQ(client.requestWithMethod("GET", "/v2/x.json").url, "https://api.example.com/v2/x.json");
  EXPECT_EQ(client.requestWithMethod("GET", "https://feeds.example.org/rss").url,
            "https://feeds.example.org/rss");
  AFHTTPClient bare(net.session, "https://api.example.com");
  EXPECT_EQ(bare.baseURL(), "https://api.example.com");
}

TEST_F(HTTPClientRequest, BaseURLWithAQueryKeepsASingleSlashBeforeIt) {
  // A self-hosted endpoint such as "https://host/fever/?api", typed with or without the slash.
  struct Case {
    std::string_view base, path;
    nlohmann::json parameters;
    std::string_view want;
  };
  const Case cases[] = {
      {"https://host/fever/?api", "", nullptr, "https://host/fever/?api"},
      {"https://host/fever?api", "", nullptr, "https://host/fever/?api"},
      {"https://host/fever/?api", "", {{"x", "y"}}, "https://host/fever/?api&x=y"},
      {"https://host/fever?api", "", {{"x", "y"}}, "https://host/fever/?api&x=y"},
      {"https://host/fever/?api", "?api&groups", nullptr, "https://host/fever/?api&groups"},
      {"https://host/fever?api", "?api&items", {{"since_id", 5}}, "https://host/fever/?api&items&since_id=5"},
      {"https://host/fever/?api", "sub/x.json", {{"x", "y"}}, "https://host/fever/sub/x.json?x=y"},
      {"https://host/fever/?api", "list#top", {{"x", "y"}}, "https://host/fever/list?x=y#top"},
      {"https://host?api", "", {{"x", "y"}}, "https://host?api&x=y"},
  };
  for (const auto& c : cases) {
    AFHTTPClient fever(net.session, c.base);
    EXPECT_EQ(fever.requestWithMethod("GET", c.path, c.parameters).url, c.want) << c.base << " + " << c.path;
  }
  AFHTTPClient fever(net.session, "https://host/fever?api");
  EXPECT_EQ(fever.baseURL(), "https://host/fever/?api");
  EXPECT_EQ(fever.requestWithMethod("POST", "", {{"api_key", "k"}}).url, "https://host/fever/?api");
}

TEST_F(HTTPClientRequest, QueryMethodsAppendWithQuestionMarkOrAmpersand) {
  const nlohmann::json parameters = {{"b", 1}, {"a", {"x", "y"}}};
  EXPECT_EQ(client.requestWithMethod("GET", "list", parameters).url,
            "https://api.example.com/v1/list?a[]=x&a[]=y&b=1");
  EXPECT_EQ(client.requestWithMethod("GET", "list?page=2", parameters).url,
            "https://api.example.com/v1/list?page=2&a[]=x&a[]=y&b=1");
  EXPECT_EQ(client.requestWithMethod("DELETE", "x.json", {{"id", 5}}).url,
            "https://api.example.com/v1/x.json?id=5");
  EXPECT_EQ(client.requestWithMethod("HEAD", "x", {{"id", 5}}).url, "https://api.example.com/v1/x?id=5");
  const auto noParameters = client.requestWithMethod("GET", "list");
  EXPECT_EQ(noParameters.url, "https://api.example.com/v1/list");
  EXPECT_TRUE(noParameters.body.empty());
}

TEST_F(HTTPClientRequest, BodyMethodsEncodeParametersByTheClientsEncoding) {
  const nlohmann::json parameters = {{"title", "a&b c"}, {"ids", {1, 2}}};
  const auto form = client.requestWithMethod("POST", "add", parameters);
  EXPECT_EQ(form.url, "https://api.example.com/v1/add");
  EXPECT_EQ(form.body, "ids[]=1&ids[]=2&title=a%26b%20c");
  EXPECT_EQ(form.valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded; charset=utf-8");

  client.setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  const auto json = client.requestWithMethod("PUT", "add", parameters);
  EXPECT_EQ(nlohmann::json::parse(json.body), parameters);
  EXPECT_EQ(json.valueForHTTPHeaderField("Content-Type"), "application/json; charset=utf-8");
  // Text that is not UTF-8 cannot become JSON as it is: the bad bytes become U+FFFD.
  EXPECT_EQ(client.requestWithMethod("POST", "add", {{"bad", "a\xFF"}}).body, "{\"bad\":\"a\xEF\xBF\xBD\"}");

  client.setParameterEncoding(AFHTTPClientParameterEncoding::kPropertyListParameterEncoding);
  const auto plist = client.requestWithMethod("PATCH", "add", parameters);
  EXPECT_NE(plist.body.find("<key>title</key>"), std::string::npos);
  EXPECT_EQ(plist.valueForHTTPHeaderField("Content-Type"), "application/x-plist; charset=utf-8");

  client.setParameterEncoding(AFHTTPClientParameterEncoding::kFormURLParameterEncoding);
  client.setStringEncoding("iso-8859-1");
  const auto latin1 = client.requestWithMethod("POST", "add", {{"t", "caf\xC3\xA9"}});
  EXPECT_EQ(latin1.body, "t=caf%E9");
  EXPECT_EQ(latin1.valueForHTTPHeaderField("Content-Type"),
            "application/x-www-form-urlencoded; charset=iso-8859-1");
}

TEST_F(HTTPClientRequest, DefaultAndAuthorizationHeadersAreCopiedIntoEveryRequest) {
  auto headers = client.requestWithMethod("GET", "x").headers;
  EXPECT_EQ(headers.value("Accept-Language"), "en;q=1, fr;q=0.9");
  EXPECT_EQ(headers.value("User-Agent"), "Lectern/" LECTERN_VERSION " (Linux 6.1.0-test)");
  client.setAuthorizationHeaderWithUsername("user", "pa:ss");
  EXPECT_EQ(client.requestWithMethod("GET", "x").valueForHTTPHeaderField("Authorization"),
            "Basic dXNlcjpwYTpzcw==");
  client.setAuthorizationHeaderWithToken("abc");
  EXPECT_EQ(client.requestWithMethod("GET", "x").valueForHTTPHeaderField("Authorization"),
            "Token token=\"abc\"");
  client.clearAuthorizationHeader();
  client.setDefaultHeader("Accept", "text/json");
  headers = client.requestWithMethod("GET", "x").headers;
  EXPECT_FALSE(headers.contains("Authorization"));
  EXPECT_EQ(headers.value("accept"), "text/json");
  client.setDefaultHeader("Accept", std::nullopt);
  EXPECT_FALSE(client.defaultValueForHeader("Accept"));
}

TEST_F(HTTPClientRequest, EncodingCanBeChosenPerCallWithoutChangingTheClients) {
  // A JSON client whose token call is form-encoded.
  client.setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  const nlohmann::json parameters = {{"grant_type", "password"}, {"user", "jo"}};
  const auto form = client.requestWithMethod("POST", "oauth/token", parameters,
                                             AFHTTPClientParameterEncoding::kFormURLParameterEncoding);
  EXPECT_EQ(form.body, "grant_type=password&user=jo");
  EXPECT_EQ(form.valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded; charset=utf-8");
  const auto plist = client.requestWithMethod("PUT", "x", parameters,
                                              AFHTTPClientParameterEncoding::kPropertyListParameterEncoding);
  EXPECT_EQ(plist.valueForHTTPHeaderField("Content-Type"), "application/x-plist; charset=utf-8");
  EXPECT_EQ(client.parameterEncoding(), AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  EXPECT_EQ(nlohmann::json::parse(client.requestWithMethod("POST", "oauth/token", parameters).body),
            parameters);
}

TEST(ClientEncodingPerCall, ConveniencesBlockingCallsAndSignedRequestsHonourIt) {
  auto canned =
      std::make_unique<CannedTransport>([](const HttpRequest&) { return CannedTransport::Answer{}; });
  CannedTransport& transport = *canned;
  NetFixture net(std::move(canned), test::testSessionOptions());
  AFHTTPClient client(net.session, "https://api.example.com/v1");
  client.setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  const auto form = AFHTTPClientParameterEncoding::kFormURLParameterEncoding;
  bool done = false;
  client.postPath(
      "a", {{"k", "v"}}, [&](AFHTTPRequestOperation&, const ResponseObject&) { done = true; }, nullptr, form);
  ASSERT_TRUE(net.runUntil([&] { return done; }));
  ASSERT_FALSE(client.synchronouslyPutPath("b", {{"k", "v"}}, {}, form).error);
  ASSERT_FALSE(client.synchronouslyPatchPath("c", {{"k", "v"}}).error);  // the client's own, JSON
  STLOAuthClient signing(net.session, "https://api.example.com/v1", "ck", "cs", std::nullopt, std::nullopt);
  signing.setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  ASSERT_FALSE(signing.synchronouslyPostPath("d", {{"k", "v"}}, {}, form).error);

  const auto requests = transport.requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests[0].body, "k=v");
  EXPECT_EQ(requests[1].body, "k=v");
  EXPECT_EQ(requests[2].body, R"({"k":"v"})");
  EXPECT_EQ(requests[3].body, "k=v");
  EXPECT_TRUE(requests[3].valueForHTTPHeaderField("Authorization").value_or("").starts_with("OAuth realm="));
}

TEST_F(HTTPClientRequest, UnusableBaseURLsMakeAClientWhoseEveryRequestFailsWithBadURL) {
  for (std::string_view text : {"api.example.com/v1", "http://exa mple.com/", "http://host:99999/", "http://",
                                "mailto:jo@example.com", "", "/relative/only"}) {
    EXPECT_FALSE(AFHTTPClient::isUsableBaseURL(text)) << text;
    AFHTTPClient broken(net.session, text);  // no throw
    ASSERT_TRUE(broken.baseURLError()) << text;
    EXPECT_EQ(broken.baseURLError()->code, URLErrorCode::kBadURL);
    EXPECT_EQ(broken.baseURLError()->domain, kURLErrorDomain);
    EXPECT_EQ(broken.baseURL(), text);
    EXPECT_EQ(broken.requestWithMethod("GET", "https://elsewhere.example.com/x").url, "");
    const auto reachable = broken.isNetworkEndpointReachable();
    ASSERT_FALSE(reachable) << text;
    EXPECT_EQ(reachable.error().code, URLErrorCode::kBadURL);
  }
  for (std::string_view text : {"https://api.example.com/v1", "http://127.0.0.1:8080", "HTTPS://Host/x?y"}) {
    EXPECT_TRUE(AFHTTPClient::isUsableBaseURL(text)) << text;
    EXPECT_FALSE(AFHTTPClient(net.session, text).baseURLError()) << text;
  }
}

TEST(ClientBadURLs, UnusablePathsAndEndpointsFailThroughTheBlocksAndTheBlockingCalls) {
  auto canned =
      std::make_unique<CannedTransport>([](const HttpRequest&) { return CannedTransport::Answer{}; });
  NetFixture net(std::move(canned), test::testSessionOptions());
  AFHTTPClient client(net.session, "https://api.example.com/v1");
  AFHTTPClient broken(net.session, "not a URL");
  STLOAuthClient signing(net.session, "https://api.example.com/v1", "ck", "cs", "jo", "pw");
  STLOAuthClient brokenSigning(net.session, "example.com", "ck", "cs", "jo", "pw");
  const std::pair<AFHTTPClient*, std::string_view> cases[] = {
      {&client, "a b"},    {&client, "http://[::1"},   {&client, "//"},   {&client, "http:x"},
      {&broken, "x.json"}, {&broken, "https://a.b/c"}, {&signing, "a b"}, {&brokenSigning, "x"}};
  for (const auto& [target, path] : cases) {
    std::optional<Error> failed;
    target->getPath(
        path, {{"a", 1}}, [&](AFHTTPRequestOperation&, const ResponseObject&) { ADD_FAILURE() << path; },
        [&](AFHTTPRequestOperation&, const Error& error) { failed = error; });
    ASSERT_TRUE(net.runUntil([&] { return failed.has_value(); })) << path;
    EXPECT_EQ(failed->code, URLErrorCode::kBadURL) << path;
    EXPECT_EQ(failed->domain, kURLErrorDomain) << path;
    const auto blocking = target->synchronouslyPostPath(path, {{"a", 1}});
    ASSERT_TRUE(blocking.error) << path;
    EXPECT_EQ(blocking.error->code, URLErrorCode::kBadURL) << path;
  }
  // Nothing to sign without a host, and nothing thrown.
  EXPECT_FALSE(signing.signedRequestWithMethod("GET", "a b").headers.contains("Authorization"));
  EXPECT_EQ(signing.authorizationHeaderValueForMethod("GET", "http:x", nullptr), "");
}

TEST_F(HTTPClientRequest, LongIdListsSplitIntoTheFewestBatchesThatKeepEachURLShortEnough) {
  nlohmann::json ids = nlohmann::json::array();
  for (int i = 0; i < 1000; ++i) ids.push_back(1'000'000'000 + i * 7919);
  const nlohmann::json parameters = {{"unread_entries", ids}, {"mode", "all"}};
  const std::string whole = client.requestWithMethod("DELETE", "unread_entries.json", parameters).url;
  ASSERT_GT(whole.size(), 20'000u);

  const auto batches =
      client.batchesOfListParameter("DELETE", "unread_entries.json", parameters, "unread_entries");
  ASSERT_TRUE(batches) << batches.error().message();
  ASSERT_GT(batches->size(), 1u);
  nlohmann::json sent = nlohmann::json::array();
  for (size_t i = 0; i < batches->size(); ++i) {
    const auto& batch = (*batches)[i];
    EXPECT_EQ(batch["mode"], "all");
    const std::string url = client.requestWithMethod("DELETE", "unread_entries.json", batch).url;
    EXPECT_LE(url.size(), AFHTTPClient::kMaximumURLBytes);
    for (const auto& id : batch["unread_entries"]) sent.push_back(id);
    if (i + 1 < batches->size()) {
      // As few as possible: the next id would not have fitted.
      nlohmann::json fuller = batch;
      fuller["unread_entries"].push_back((*batches)[i + 1]["unread_entries"][0]);
      EXPECT_GT(client.requestWithMethod("DELETE", "unread_entries.json", fuller).url.size(),
                AFHTTPClient::kMaximumURLBytes);
    }
  }
  EXPECT_EQ(sent, ids);  // every id once, in order

  const nlohmann::json few = {{"unread_entries", {1, 2, 3}}};
  EXPECT_EQ(client.batchesOfListParameter("DELETE", "x", few, "unread_entries"),
            std::vector<nlohmann::json>{few});
  EXPECT_EQ(client.batchesOfListParameter("POST", "x", parameters, "unread_entries"),
            std::vector<nlohmann::json>{parameters});
  const auto tiny = client.batchesOfListParameter("GET", "x", few, "unread_entries", 50);
  ASSERT_TRUE(tiny);
  EXPECT_EQ(tiny->size(), 3u);  // "https://api.example.com/v1/x?unread_entries[]=1" is 47 bytes

  const nlohmann::json huge = {{"unread_entries", {1, std::string(9000, '7'), 3}}};
  const auto tooLong = client.batchesOfListParameter("DELETE", "x", huge, "unread_entries");
  ASSERT_FALSE(tooLong);
  EXPECT_EQ(tooLong.error().code, URLErrorCode::kBadURL);
  EXPECT_FALSE(client.batchesOfListParameter("DELETE", "x", few, "starred_entries"));
  EXPECT_FALSE(client.batchesOfListParameter("DELETE", "x", nlohmann::json::array({1}), "unread_entries"));
}

TEST(DefaultHeaders, AcceptLanguageStopsAfterTheFirstWeightOfOneHalf) {
  EXPECT_EQ(acceptLanguageHeaderValue({"en", "fr", "de", "es", "it", "pt", "nl", "sv"}),
            "en;q=1, fr;q=0.9, de;q=0.8, es;q=0.7, it;q=0.6, pt;q=0.5");
  EXPECT_EQ(acceptLanguageHeaderValue({"de-CH"}), "de-CH;q=1");
  EXPECT_EQ(userAgentHeaderValue("2.0", "6.1.0-caf\xC3\xA9"), "Lectern/2.0 (Linux 6.1.0-cafe)");
}

TEST(DefaultHeaders, PreferredLanguagesComeFromTheLocaleEnvironment) {
  using Env = std::map<std::string, std::string>;
  const std::pair<Env, std::vector<std::string>> cases[] = {
      {{{"LANG", "fr_CA.UTF-8"}}, {"fr-CA"}},
      {{{"LANG", "de_DE.UTF-8"}, {"LANGUAGE", "de:en_GB:fr"}}, {"de", "en-GB", "fr"}},
      {{{"LC_ALL", "nl_NL@euro"}, {"LANG", "fr_FR"}}, {"nl-NL"}},
      {{{"LANG", "C"}, {"LANGUAGE", "fr"}}, {"en"}},  // LANGUAGE is ignored in the C locale
      {{}, {"en"}},
  };
  for (const auto& [env, want] : cases) {
    const auto languages = preferredLanguagesFromEnvironment([&env](const char* name) -> const char* {
      const auto it = env.find(name);
      return it == env.end() ? nullptr : it->second.c_str();
    });
    EXPECT_EQ(languages, want);
  }
}

struct NotAnOperation {
  static constexpr std::string_view kClassName = "NotAnOperation";
};

TEST_F(HTTPClientRequest, OperationClassIsTheNewestRegisteredOneThatTakesTheRequest) {
  auto classOf = [&](HttpRequest request) {
    return std::string(
        client.HTTPRequestOperationWithRequest(std::move(request), nullptr, nullptr)->className());
  };
  auto plain = client.requestWithMethod("GET", "feed");
  EXPECT_EQ(classOf(plain), "AFHTTPRequestOperation");
  EXPECT_FALSE(client.registerHTTPOperationClass<NotAnOperation>());
  EXPECT_TRUE(client.registerHTTPOperationClass<QKJSONRequestOperation>());
  EXPECT_TRUE(client.registerHTTPOperationClass<QKXMLRequestOperation>());
  EXPECT_EQ(client.registeredHTTPOperationClassNames(),
            (std::vector<std::string>{"QKXMLRequestOperation", "QKJSONRequestOperation"}));

  EXPECT_EQ(classOf(client.requestWithMethod("GET", "entries.json")), "QKJSONRequestOperation");
  auto feed = client.requestWithMethod("GET", "feed");
  feed.setValue("Accept", "application/rss+xml;q=0.9, text/plain");
  EXPECT_EQ(classOf(feed), "QKXMLRequestOperation");  // newest first, and it names an RSS type
  feed.setValue("Accept", "text/plain");
  EXPECT_EQ(classOf(feed), "QKJSONRequestOperation");  // only the wider JSON class takes text/plain
  EXPECT_EQ(classOf(plain), "AFHTTPRequestOperation");
  client.unregisterHTTPOperationClass<QKXMLRequestOperation>();
  EXPECT_TRUE(client.registerHTTPOperationClass<AFImageRequestOperation>());
  EXPECT_EQ(classOf(client.requestWithMethod("GET", "icon.ico")), "AFImageRequestOperation");
  EXPECT_EQ(client.registeredHTTPOperationClassNames(),
            (std::vector<std::string>{"AFImageRequestOperation", "QKJSONRequestOperation"}));
}

std::string readAll(InputStream& stream, size_t chunk) {
  std::string out;
  std::string buffer(chunk, '\0');
  for (;;) {
    auto n = stream.read(buffer.data(), buffer.size());
    if (!n || *n == 0) return out;
    out.append(buffer, 0, *n);
  }
}

TEST_F(HTTPClientRequest, MultipartBodyHasTheFixedBoundaryAndStreamsFilesFromDisk) {
  test::TempDir dir;
  test::writeFile(dir / "note.txt", "file body");
  const auto request = client.multipartFormRequestWithMethod(
      "POST", "upload", {{"title", "T"}}, [&](AFStreamingMultipartFormData& form) {
        ASSERT_TRUE(form.appendPartWithFileURL("file://" + (dir / "note.txt").string(), "file"));
        form.appendPartWithFormData("2", "count");
      });
  const std::string expected =
      "--Boundary+0xAbCdEfGbOuNdArY\r\nContent-Disposition: form-data; name=\"title\"\r\n\r\nT"
      "\r\n--Boundary+0xAbCdEfGbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; "
      "filename=\"note.txt\"\r\n"
      "Content-Type: text/plain\r\n\r\nfile body"
      "\r\n--Boundary+0xAbCdEfGbOuNdArY\r\nContent-Disposition: form-data; name=\"count\"\r\n\r\n2"
      "\r\n--Boundary+0xAbCdEfGbOuNdArY--\r\n";
  ASSERT_TRUE(request.bodyStream);
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Type"),
            "multipart/form-data; boundary=Boundary+0xAbCdEfGbOuNdArY");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Length"), std::to_string(expected.size()));
  EXPECT_EQ(readAll(*request.bodyStream, 7), expected);  // small reads cross part boundaries
  ASSERT_TRUE(request.bodyStream->rewind());
  EXPECT_EQ(readAll(*request.bodyStream, 4096), expected);
}

TEST_F(HTTPClientRequest, MultipartRefusesGetAndFileURLsThatAreNoFilesOrAbsent) {
  EXPECT_THROW(client.multipartFormRequestWithMethod("GET", "x", nullptr, nullptr), InternalInconsistency);
  client.multipartFormRequestWithMethod("POST", "x", nullptr, [](AFStreamingMultipartFormData& form) {
    const auto notFile = form.appendPartWithFileURL("https://example.com/a.txt", "f");
    ASSERT_FALSE(notFile);
    EXPECT_EQ(notFile.error().description, "Expected URL to be a file URL");
    EXPECT_EQ(notFile.error().domain, "AFNetworkingErrorDomain");
    const auto absent = form.appendPartWithFileURL("file:///nonexistent/lectern/a.txt", "f");
    ASSERT_FALSE(absent);
    EXPECT_EQ(absent.error().description, "File URL not reachable.");
  });
}

}  // namespace
}  // namespace lectern
