#include <gtest/gtest.h>

#include "NetTestSupport.h"
#include "core/Error.h"
#include "net/AFHTTPClient.h"
#include "net/AFImageRequestOperation.h"
#include "net/DefaultHeaders.h"
#include "net/QKJSONRequestOperation.h"
#include "net/QKXMLRequestOperation.h"
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
  EXPECT_THROW(AFHTTPClient(net.session, "api.example.com/v1"), InternalInconsistency);
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
  // Text that is not UTF-8 cannot become JSON: the request goes out with no body.
  EXPECT_TRUE(client.requestWithMethod("POST", "add", {{"bad", "\xFF"}}).body.empty());

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
