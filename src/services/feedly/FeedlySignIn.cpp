#include "services/feedly/FeedlySignIn.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "net/BrowserSignIn.h"
#include "services/feedly/FeedlyService.h"
#include "services/feedly/QKFeedlyClient.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kSignInFailed = "Feedly: Failed to sign in";

std::string baseURLOf(const FeedlySignInEnvironment& environment, const FeedlySignInRequest& request) {
  if (request.endpoint && !trim(*request.endpoint).empty()) return trim(*request.endpoint);
  const std::string configured =
      trim(environment.defaults.stringForKey(FeedlyService::kApiEndpointDefaultsKey));
  return configured.empty() ? std::string(QKFeedlyClient::kDefaultBaseURL) : configured;
}

BrowserSignInFlow feedlyFlow() {
  BrowserSignInFlow flow;
  flow.service = "feedly";
  flow.schemeRedirect = QKFeedlyClient::redirectURL();
  flow.title = std::string(kSignInFailed);
  return flow;
}

std::shared_ptr<QKFeedlyClient> makeClient(const FeedlySignInEnvironment& environment,
                                           const std::string& baseURL, FeedlyApplication application,
                                           FeedlyTokens tokens) {
  return std::make_shared<QKFeedlyClient>(environment.session, baseURL, std::move(application),
                                          std::move(tokens), environment.clock);
}

// The account for the tokens the client now holds: named after the profile's e-mail address.
Result<NewAccount> accountFor(QKFeedlyClient& client, const std::optional<std::string>& endpoint) {
  auto profile = client.getProfile();
  if (!profile) {
    Error error = profile.error();
    if (error.domain == QKFeedlyClient::kTokenErrorDomain) {
      error = Error::make(QKFeedlyClient::kTokenErrorDomain, QKFeedlyClient::kTokenErrorCode, kSignInFailed,
                          "Feedly did not accept the token.");
    }
    return fail(error);
  }
  std::string name = safeStringValue(*profile, "email").value_or("");
  if (trim(name).empty()) name = safeStringValue(*profile, "id").value_or("");
  if (trim(name).empty())
    return fail(kLecternErrorDomain, 0, kSignInFailed, "Feedly's profile names no account.");
  const FeedlyTokens tokens = client.tokens();
  NewAccount account;
  account.service = "feedly";
  account.username = trim(name);
  account.password = tokens.accessToken;
  account.refreshToken = tokens.refreshToken;
  account.tokenExpire = tokens.expire;
  account.endpoint = endpoint;
  return account;
}

// The answer the browser came back with: a code when the person agreed and the state is ours.
Result<std::string> codeFrom(std::string_view answer, std::string_view state) {
  const auto parameters = queryParametersOf(answer);
  if (parameters.contains("error")) {
    return fail(kLecternErrorDomain, 0, "Feedly: sign-in declined",
                fmt::format("Feedly answered \"{}\"; no account was added.", parameters.at("error")));
  }
  const auto sentState = parameters.find("state");
  if (sentState == parameters.end() || sentState->second != state) {
    return fail(
        kLecternErrorDomain, 0, kSignInFailed,
        "The answer does not belong to the sign-in Lectern started (its state differs); no account was "
        "added. Sign in again.");
  }
  const auto code = parameters.find("code");
  if (code == parameters.end() || code->second.empty()) {
    return fail(kLecternErrorDomain, 0, kSignInFailed,
                "Feedly's answer carries no code; no account was added.");
  }
  return code->second;
}

Result<NewAccount> exchange(const FeedlySignInEnvironment& environment, const std::string& baseURL,
                            const FeedlyApplication& application, const std::string& code,
                            const std::string& redirectURI, const std::optional<std::string>& endpoint) {
  auto client = makeClient(environment, baseURL, application, {});
  if (auto tokens = client->convertAccessTokenFromAuthCode(code, redirectURI); !tokens) {
    Error error = tokens.error();
    error.description = std::string(kSignInFailed);
    return fail(error);
  }
  return accountFor(*client, endpoint);
}

}  // namespace

bool isFeedlySignInAnswer(std::string_view url) { return isBrowserSignInAnswer(feedlyFlow(), url); }

Result<NewAccount> signInToFeedly(const FeedlySignInEnvironment& environment,
                                  const FeedlySignInRequest& request) {
  const std::string baseURL = baseURLOf(environment, request);
  if (request.developerToken) {
    const std::string token = trim(*request.developerToken);
    if (token.empty()) return fail(kLecternErrorDomain, 0, kSignInFailed, "The token is empty.");
    auto client = makeClient(environment, baseURL, {}, FeedlyTokens{token, std::nullopt, std::nullopt});
    return accountFor(*client, request.endpoint);
  }
  auto application = FeedlyService::application(environment.defaults, baseURL);
  if (!application) return fail(application.error());

  BrowserSignInFlow flow = feedlyFlow();
  flow.loopback = request.loopback;
  flow.timeout = request.timeout;
  flow.openBrowser = request.openBrowser;
  flow.showSignInPage = request.showSignInPage;
  const std::string state = randomState();
  auto client = makeClient(environment, baseURL, *application, {});
  auto answer = waitForBrowserSignIn(
      flow, environment.paths, environment.clock,
      [&](const std::string& redirectURI) -> Result<BrowserSignInPage> {
        return BrowserSignInPage{
            client->authorizationURL(redirectURI, state),
            json{{"state", state}, {"endpoint", request.endpoint ? json(*request.endpoint) : json(nullptr)}}};
      });
  if (!answer) return fail(answer.error());
  auto code = codeFrom(answer->url, state);
  if (!code) return fail(code.error());
  return exchange(environment, baseURL, *application, *code, answer->redirectURI, request.endpoint);
}

Result<NewAccount> finishPendingFeedlySignIn(const FeedlySignInEnvironment& environment,
                                             std::string_view url) {
  auto pending = takePendingBrowserSignIn(feedlyFlow(), environment.paths, environment.clock);
  if (!pending) return fail(pending.error());
  const auto code = codeFrom(url, pending->value("state", std::string()));
  if (!code) return fail(code.error());
  FeedlySignInRequest request;
  if (const auto endpoint = pending->find("endpoint"); endpoint != pending->end() && endpoint->is_string())
    request.endpoint = endpoint->get<std::string>();
  const std::string baseURL = baseURLOf(environment, request);
  auto application = FeedlyService::application(environment.defaults, baseURL);
  if (!application) return fail(application.error());
  return exchange(environment, baseURL, *application, *code, pending->value("redirect_uri", std::string()),
                  request.endpoint);
}

}  // namespace lectern
