#include <gtest/gtest.h>

#include <algorithm>

#include "NetTestSupport.h"
#include "core/Strings.h"
#include "net/QKXAuthClient.h"
#include "net/oauth/OAuthSigning.h"

namespace lectern {
namespace {

class FixedNonce final : public NonceSource {
 public:
  explicit FixedNonce(std::string nonce) : nonce_(std::move(nonce)) {}
  std::string nonce() override { return nonce_; }

 private:
  std::string nonce_;
};

std::unique_ptr<Transport> cannedTokenAnswer(std::string body) {
  return std::make_unique<CannedTransport>([body](const HttpRequest&) {
    CannedTransport::Answer answer;
    answer.headers.set("Content-Type", "text/plain");
    answer.body = body;
    return answer;
  });
}

TEST(STLOAuthClient, SignsThePublishedExampleWithAFixedClockAndNonce) {
  // The photo-printing example with "oauth_version" (which this client always sends).
  auto options = test::testSessionOptions();
  options.clock = std::make_shared<FixedClock>(dateFromSecondsSince1970(1191242096));
  options.nonceSource = std::make_shared<FixedNonce>("kllo9940pd9333jh");
  test::NetFixture net(cannedTokenAnswer(""), options);
  STLOAuthClient client(net.session, "http://photos.example.net/");
  client.setConsumerKey("dpf43f3p2l4k3l03", "kd94hf93k423kf44");
  client.setAccessToken("nnch734d00sl2jdk", "pfkkdhi9sl3r4s00");
  EXPECT_FALSE(client.requestWithMethod("GET", "photos").headers.contains("Authorization"));
  client.setSignRequests(true);
  const auto request =
      client.requestWithMethod("GET", "photos", {{"size", "original"}, {"file", "vacation.jpg"}});
  EXPECT_EQ(request.url, "http://photos.example.net/photos?file=vacation.jpg&size=original");
  EXPECT_EQ(
      request.valueForHTTPHeaderField("Authorization"),
      "OAuth realm=\"http://photos.example.net/photos\", oauth_signature_method=\"HMAC-SHA1\", "
      "oauth_version=\"1.0\", oauth_consumer_key=\"dpf43f3p2l4k3l03\", oauth_token=\"nnch734d00sl2jdk\", "
      "oauth_timestamp=\"1191242096\", oauth_nonce=\"kllo9940pd9333jh\", "
      "oauth_signature=\"tR3%2BTy81lMeYAr%2FFid0kMTYa%2FWM%3D\"");
  EXPECT_FALSE(client.unsignedRequestWithMethod("GET", "photos").headers.contains("Authorization"));
}

TEST(STLOAuthClient, DefaultPortsAreLeftOutOfTheSignedURLAndOthersKept) {
  test::NetFixture net(cannedTokenAnswer(""), test::testSessionOptions());
  STLOAuthClient standard(net.session, "https://www.example.com:443/api/1", "ck", "cs", std::nullopt,
                          std::nullopt);
  EXPECT_TRUE(standard.authorizationHeaderValueForMethod("POST", "bookmarks/list", nullptr)
                  .starts_with("OAuth realm=\"https://www.example.com/api/1/bookmarks/list\", "));
  STLOAuthClient custom(net.session, "https://www.example.com:8443/api/1", "ck", "cs", std::nullopt,
                        std::nullopt);
  custom.setRealm("Instapaper");
  EXPECT_TRUE(custom.authorizationHeaderValueForMethod("POST", "x", nullptr)
                  .starts_with("OAuth realm=\"Instapaper\", "));
  custom.setRealm(std::nullopt);
  EXPECT_TRUE(custom.authorizationHeaderValueForMethod("POST", "x", nullptr)
                  .starts_with("OAuth realm=\"https://www.example.com:8443/api/1/x\", "));
}

// The "Authorization" parameters, unescaped, in header order (realm included).
OAuthParameters parseAuthorization(std::string_view header) {
  OAuthParameters parameters;
  EXPECT_TRUE(header.starts_with("OAuth "));
  for (const auto& field : split(header.substr(6), ", ")) {
    const auto equals = field.find('=');
    parameters.emplace_back(field.substr(0, equals),
                            percentUnescape(field.substr(equals + 2, field.size() - equals - 3)));
  }
  return parameters;
}

// A server that checks signatures the way a service would: from the header's own parameters and
// the request's, with the secrets it issued.
class SigningServer {
 public:
  SigningServer() {
    server.server().Post("/api/1/oauth/access_token",
                         [this](const httplib::Request& req, httplib::Response& res) {
                           verify(req, "");
                           res.set_content(tokenBody, "text/plain");
                         });
    server.server().Post("/api/1/bookmarks/list",
                         [this](const httplib::Request& req, httplib::Response& res) {
                           verify(req, "token secret");
                           res.set_content(R"([{"type":"meta"}])", "application/json");
                         });
    server.start();
  }

  void verify(const httplib::Request& req, const std::string& tokenSecret) {
    headers.push_back(req.get_header_value("Authorization"));
    OAuthSigningInput input;
    input.method = req.method;
    input.url = server.url(req.path);
    std::string signature;
    for (auto& [key, value] : parseAuthorization(headers.back())) {
      if (key == "oauth_signature") {
        signature = value;
      } else if (key != "realm") {
        input.oauthParameters.emplace_back(key, value);
      }
    }
    for (const auto& [key, value] : req.params) input.requestParameters.emplace_back(key, value);
    // After the exchange the client sends JSON bodies, and signs their parameters too.
    if (req.get_header_value("Content-Type").starts_with("application/json")) {
      const auto body = nlohmann::json::parse(req.body);
      for (const auto& [key, value] : body.items()) {
        input.requestParameters.emplace_back(key, value.get<std::string>());
      }
    }
    input.consumerSecret = "consumer secret";
    input.tokenSecret = tokenSecret;
    signaturesValid = signaturesValid && oauthSign(input).signature == signature;
  }

  test::LocalServer server;
  std::string tokenBody = "oauth_token=tok%20en&oauth_token_secret=token%20secret";
  std::vector<std::string> headers;
  bool signaturesValid = true;
};

TEST(QKXAuthClient, ExchangeSendsCredentialsInTheSignedHeaderThenSignsWithTheTokenInJSONMode) {
  test::NetFixture net(test::testSessionOptions());
  SigningServer service;
  QKXAuthClient client(net.session, service.server.url("/api/1"), "ck", "consumer secret", "jo@example.com",
                       "p w");
  std::optional<std::pair<std::optional<std::string>, std::optional<std::string>>> pair;
  client.authenticate(
      "oauth/access_token",
      {{"x_auth_username", "jo@example.com"}, {"x_auth_password", "p w"}, {"x_auth_mode", "client_auth"}},
      [&](auto token, auto secret) { pair.emplace(token, secret); },
      [](const Error& error) { FAIL() << error.message(); });
  ASSERT_TRUE(net.runUntil([&] { return pair.has_value(); }));
  EXPECT_EQ(pair->first, "tok en");
  EXPECT_EQ(pair->second, "token secret");
  EXPECT_EQ(client.accessToken(), "tok en");
  EXPECT_EQ(client.tokenIdentifier(), "tok en");
  EXPECT_EQ(client.parameterEncoding(), AFHTTPClientParameterEncoding::kJSONParameterEncoding);
  EXPECT_EQ(client.defaultValueForHeader("Accept"), "text/json");
  EXPECT_EQ(client.registeredHTTPOperationClassNames().front(), "QKJSONRequestOperation");

  const auto exchange = parseAuthorization(service.headers.at(0));
  const std::vector<std::string> order = {
      "realm",       "oauth_signature_method", "oauth_version",   "oauth_consumer_key",
      "x_auth_mode", "x_auth_username",        "x_auth_password", "oauth_timestamp",
      "oauth_nonce", "oauth_signature"};
  ASSERT_EQ(exchange.size(), order.size());
  for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(exchange[i].first, order[i]);
  EXPECT_EQ(exchange[5].second, "jo@example.com");

  // The token replaced the password: the client holds none, and later requests carry no x_auth_*.
  EXPECT_FALSE(client.hasPassword());
  EXPECT_FALSE(client.username());
  EXPECT_FALSE(client.isXAuthWithAuthhenticationHeader());
  bool listed = false;
  client.postResourceWithUrl(
      "bookmarks/list", {{"limit", "500"}}, std::chrono::seconds(10),
      [&](AFHTTPRequestOperation&, const ResponseObject& object) {
        EXPECT_EQ(std::get<nlohmann::json>(object)[0]["type"], "meta");
        listed = true;
      },
      [](AFHTTPRequestOperation&, const Error& error) { FAIL() << error.message(); });
  ASSERT_TRUE(net.runUntil([&] { return listed; }));
  const auto list = parseAuthorization(service.headers.at(1));
  EXPECT_NE(std::find(list.begin(), list.end(), std::pair<std::string, std::string>{"oauth_token", "tok en"}),
            list.end());
  EXPECT_TRUE(
      std::none_of(list.begin(), list.end(), [](const auto& p) { return p.first.starts_with("x_auth"); }));
  EXPECT_TRUE(service.signaturesValid);
}

TEST(QKXAuthClient, AnAnswerWithoutTheTokenPairPassesNothingOn) {
  test::NetFixture net(cannedTokenAnswer("error=unknown user"), test::testSessionOptions());
  QKXAuthClient client(net.session, "https://www.example.com/api/1", "ck", "cs", "jo", "pw");
  bool called = false;
  client.authenticate(
      "oauth/access_token", nullptr,
      [&](auto token, auto secret) {
        EXPECT_FALSE(token);
        EXPECT_FALSE(secret);
        called = true;
      },
      nullptr);
  ASSERT_TRUE(net.runUntil([&] { return called; }));
  EXPECT_FALSE(client.tokenIdentifier());
  EXPECT_TRUE(client.hasPassword());  // kept for another try
  EXPECT_TRUE(client.isXAuthWithAuthhenticationHeader());
}

TEST(QKXAuthClient, OnlyTheLatestExchangesBlocksAreCalledProgramWide) {
  test::NetFixture net(cannedTokenAnswer("oauth_token=t&oauth_token_secret=s"), test::testSessionOptions());
  QKXAuthClient first(net.session, "https://a.example.com/api/1", "ck", "cs", "jo", "pw");
  QKXAuthClient second(net.session, "https://b.example.com/api/1", "ck", "cs", "al", "pw");
  int firstCalls = 0;
  int secondCalls = 0;
  first.authenticate(
      "oauth/access_token", nullptr, [&](auto, auto) { ++firstCalls; }, nullptr);
  second.authenticate(
      "oauth/access_token", nullptr, [&](auto, auto) { ++secondCalls; }, nullptr);
  ASSERT_TRUE(net.runUntil([&] { return secondCalls == 2; }));
  EXPECT_EQ(firstCalls, 0);
  EXPECT_EQ(first.accessToken(), "t");  // each client still takes its own answer
}

TEST(QKXAuthClient, TokenPairsQlinesAndUserErrorsAreReadFromBodies) {
  using Pair = std::pair<std::optional<std::string>, std::optional<std::string>>;
  EXPECT_EQ(QKXAuthClient::tokenPairFromResponseBody("https://x/cb?oauth_token_secret=s%2Bt&oauth_token=a=b"),
            (Pair{"a=b", "s+t"}));
  EXPECT_EQ(QKXAuthClient::tokenPairFromResponseBody("oauth_token=only"), (Pair{"only", std::nullopt}));

  const auto lines = QKXAuthClient::convertToJSONFromQline(
      "type=meta\ntype=bookmark&title=Hello+World%21&bookmark_id=12\n\ntype=error&message=Bad+thing\n");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1]["title"], "Hello World!");
  EXPECT_EQ(lines[1]["bookmark_id"], "12");
  EXPECT_EQ(lines[2]["type"], "error");

  test::NetFixture net(cannedTokenAnswer(""), test::testSessionOptions());
  QKXAuthClient client(net.session, "https://www.example.com/api/1");
  const auto wrapped = client.errorFromResponseData(
      "", Error::make("NSURLErrorDomain", -1001, "The request timed out."), "Instapaper: Failed to login");
  EXPECT_EQ(wrapped,
            Error::make("NSURLErrorDomain", -1001, "Instapaper: Failed to login", "The request timed out."));
  EXPECT_EQ(client.errorFromResponseData("", std::nullopt, "Instapaper: Failed to login"),
            Error::make("com.quillhq.lectern", 100, "Instapaper: Failed to login", "Unknown error"));
}

}  // namespace
}  // namespace lectern
