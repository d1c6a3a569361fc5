#include <gtest/gtest.h>

#include <filesystem>

#include "NetTestSupport.h"
#include "net/AFHTTPClient.h"
#include "net/Redaction.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

TEST(Redaction, SecretNamesAreRecognisedWhateverTheirCaseOrNesting) {
  for (std::string_view name :
       {"password", "Passwd", "token", "access_token", "refresh_token", "oauth_token", "oauth_token_secret",
        "x_auth_password", "api_key", "client_secret", "code", "secret", "user[password]", "X-Auth-Token",
        "user%5Bpassword%5D", "token[]"}) {
    EXPECT_TRUE(isSecretParameterName(name)) << name;
  }
  for (std::string_view name : {"username", "x_auth_username", "x_auth_mode", "ids[]", "auth", "page",
                                "encode", "mode", "unread_entries[]", ""}) {
    EXPECT_FALSE(isSecretParameterName(name)) << name;
  }
}

TEST(Redaction, URLsFormsJSONAndHeaderLinesLoseTheirSecretValuesOnly) {
  const std::pair<std::string_view, std::string_view> urls[] = {
      {"https://h/a?api_key=K&page=2&token=T#access_token=F&x=1",
       "https://h/a?api_key=<redacted>&page=2&token=<redacted>#access_token=<redacted>&x=1"},
      {"https://jo:pw@h/a", "https://jo:<redacted>@h/a"},
      {"https://h/fever/?api&items", "https://h/fever/?api&items"},
      {"not a url?password=p", "not a url?password=<redacted>"},
  };
  for (auto [in, want] : urls) EXPECT_EQ(redactedURL(in), want) << in;

  const std::pair<std::string_view, std::string_view> texts[] = {
      {"password=p%20w&username=jo&x_auth_password=q",
       "password=<redacted>&username=jo&x_auth_password=<redacted>"},
      {R"({"user":{"password":"p","name":"jo"},"token":["a"],"n":1})",
       R"({"n":1,"token":"<redacted>","user":{"name":"jo","password":"<redacted>"}})"},
      {R"({"next": "https://h/?access_token=A&page=2"})",
       R"({"next":"https://h/?access_token=<redacted>&page=2"})"},
      {"[1, 2]", "[1, 2]"},  // nothing secret: the text as it was
      {"Authorization: Bearer abc\r\nAccept: */*\r\nCookie: sid=1\r\nSet-Cookie: s=2; Path=/\r\n",
       "Authorization: <redacted>\r\nAccept: */*\r\nCookie: <redacted>\r\nSet-Cookie: <redacted>\r\n"},
      {R"(OAuth realm="r", oauth_token="t", oauth_signature="s%3D")",
       R"(OAuth realm="r", oauth_token="<redacted>", oauth_signature="<redacted>")"},
      {R"(got {"error": "x", "refresh_token" : "r\"q", "code": 42})",
       R"(got {"error": "x", "refresh_token" : "<redacted>", "code": <redacted>})"},
      {"<POST https://h/x?token=<redacted>&a=1>", "<POST https://h/x?token=<redacted>&a=1>"},
      {"password=", "password=<redacted>"},
      {"\xFF\xFEtoken=abc", "\xFF\xFEtoken=<redacted>"},
  };
  for (auto [in, want] : texts) EXPECT_EQ(redactedText(in), want) << in;

  HttpHeaders headers;
  headers.set("Authorization", "Basic abc");
  headers.set("Cookie", "sid=1");
  headers.set("X-Api-Key", "k");
  headers.set("Accept", "text/json");
  const auto redacted = redactedHeaders(headers);
  EXPECT_EQ(redacted.value("Authorization"), "<redacted>");
  EXPECT_EQ(redacted.value("Cookie"), "<redacted>");
  EXPECT_EQ(redacted.value("X-Api-Key"), "<redacted>");
  EXPECT_EQ(redacted.value("Accept"), "text/json");
}

// A failed request full of secrets, dumped: none of them may reach the files.
TEST(DiagnosticDump, RedactsTokensPasswordsCookiesAndAuthorization) {
  test::TempDir dir;
  std::filesystem::create_directories(dir / "dump");
  auto options = test::testSessionOptions();
  options.dumpFolder = dir / "dump";
  test::NetFixture net(std::make_unique<CannedTransport>([](const HttpRequest& request) {
                         CannedTransport::Answer answer;
                         answer.statusCode = 401;
                         answer.headers.set("Set-Cookie", "session=SETCOOKIE-SECRET; Path=/");
                         if (request.url.find("echo") != std::string::npos) {
                           // Some servers echo what they were sent.
                           answer.headers.set("Content-Type", "text/plain");
                           answer.body =
                               "Authorization: Bearer AUTH-SECRET\r\nCookie: sid=COOKIE-SECRET\r\n"
                               "Set-Cookie: session=SETCOOKIE-SECRET\r\n\r\n" +
                               request.body;
                         } else {
                           answer.headers.set("Content-Type", "application/json");
                           answer.body = R"({"error":"invalid_grant","access_token":"AT-SECRET",)"
                                         R"("refresh_token":"RT-SECRET","oauth_token_secret":"OTS-SECRET",)"
                                         R"("hint":"Authorization: Bearer AUTH-SECRET"})";
                         }
                         return answer;
                       }),
                       options);
  AFHTTPClient client(net.session, "https://api.example.com/v1");
  client.setDefaultHeader("Authorization", "Bearer AUTH-SECRET");
  client.setDefaultHeader("Cookie", "sid=COOKIE-SECRET");
  const nlohmann::json form = {{"password", "PW-SECRET"},        {"token", "TK-SECRET"},
                               {"client_secret", "CS-SECRET"},   {"code", "CODE-SECRET"},
                               {"x_auth_password", "XP-SECRET"}, {"refresh_token", "RT-SECRET"},
                               {"oauth_token", "OT-SECRET"},     {"username", "jo"}};
  const std::string query = "?api_key=AK-SECRET&access_token=ACC-SECRET&page=2";
  std::vector<SynchronousResponse> failures;
  failures.push_back(client.synchronouslyPostPath("oauth/token" + query, form));
  failures.push_back(client.synchronouslyPostPath("echo" + query, form));
  client.setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  failures.push_back(client.synchronouslyPostPath(
      "login" + query, {{"user", {{"password", "PW2-SECRET"}, {"name", "jo"}}}, {"api_key", "AK2-SECRET"}}));
  failures.push_back(client.synchronouslyGetPath("items" + query, {{"oauth_token", "OT2-SECRET"}}));
  for (const auto& failure : failures) {
    ASSERT_TRUE(failure.error);
    client.dumpOperationWithError(*failure.operation, *failure.error);
  }

  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir / "dump")) {
    ++files;
    const std::string text = test::readFile(entry.path());
    EXPECT_EQ(text.find("SECRET"), std::string::npos) << entry.path() << ":\n" << text;
    EXPECT_NE(text.find("<redacted>"), std::string::npos) << entry.path();
    if (entry.path().extension() == ".txt") {
      EXPECT_NE(text.find("Expected status code in (200-299), got 401"), std::string::npos);
      EXPECT_NE(text.find("page=2"), std::string::npos) << text;  // what is no secret stays readable
    }
  }
  EXPECT_EQ(files, 2 * failures.size());
}

}  // namespace
}  // namespace lectern
