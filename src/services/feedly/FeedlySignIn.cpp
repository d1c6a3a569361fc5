#include "services/feedly/FeedlySignIn.h"

#include <fmt/format.h>

#include <fstream>
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
constexpr std::string_view kLoopbackPath = "/feedly/auth";
// A sign-in left waiting longer than this is not finished by `open-url`.
constexpr std::chrono::hours kPendingLifetime{1};

std::string baseURLOf(const FeedlySignInEnvironment& environment, const FeedlySignInRequest& request) {
  if (request.endpoint && !trim(*request.endpoint).empty()) return trim(*request.endpoint);
  const std::string configured =
      trim(environment.defaults.stringForKey(FeedlyService::kApiEndpointDefaultsKey));
  return configured.empty() ? std::string(QKFeedlyClient::kDefaultBaseURL) : configured;
}

std::filesystem::path pendingFile(const Paths& paths) { return paths.stateFolder / "feedly-sign-in.json"; }

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

bool isFeedlySignInAnswer(std::string_view url) {
  const std::string redirect = QKFeedlyClient::redirectURL();
  return url.starts_with(redirect) && (url.size() == redirect.size() || url[redirect.size()] == '?');
}

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

  auto listener = request.loopback
                      ? RedirectListener::onLoopback(kLoopbackPath)
                      : RedirectListener::forScheme(signInSocketPath(environment.paths.applicationFolder),
                                                    QKFeedlyClient::redirectURL());
  if (!listener) return fail(listener.error());
  const std::string redirectURI = (*listener)->redirectURI();
  const std::string state = randomState();
  auto client = makeClient(environment, baseURL, *application, {});
  const std::string page = client->authorizationURL(redirectURI, state);

  // Kept so that `lectern open-url` can finish the sign-in should this command be gone by then.
  std::error_code ignored;
  if (!request.loopback) {
    std::filesystem::create_directories(environment.paths.stateFolder, ignored);
    std::ofstream(pendingFile(environment.paths)) << json{
        {"state", state},
        {"redirect_uri", redirectURI},
        {"endpoint", request.endpoint ? json(*request.endpoint) : json(nullptr)},
        {"started",
         std::chrono::duration_cast<std::chrono::seconds>(environment.clock.now().time_since_epoch())
             .count()}}.dump();
  }
  if (request.showSignInPage) request.showSignInPage(page);
  if (request.openBrowser) (void)openInBrowser(page);  // the page was shown: a person can open it
  auto answer = (*listener)->waitForURL(request.timeout);
  if (!answer) {
    Error error = answer.error();
    // The page stays valid: finished later, the desktop's `lectern open-url` completes it.
    if (!request.loopback) {
      error.recoverySuggestion =
          "No answer came back from the browser in time. Finish signing in there within the hour and Lectern "
          "adds the account then, or run the command again.";
    }
    return fail(error);
  }
  if (!request.loopback) std::filesystem::remove(pendingFile(environment.paths), ignored);
  auto code = codeFrom(*answer, state);
  if (!code) return fail(code.error());
  return exchange(environment, baseURL, *application, *code, redirectURI, request.endpoint);
}

Result<NewAccount> finishPendingFeedlySignIn(const FeedlySignInEnvironment& environment,
                                             std::string_view url) {
  const auto file = pendingFile(environment.paths);
  std::ifstream in(file);
  const json pending = in ? json::parse(in, nullptr, /*allow_exceptions=*/false) : json();
  in.close();
  std::error_code ignored;
  if (!pending.is_object()) {
    return fail(kLecternErrorDomain, 0, kSignInFailed,
                "No sign-in is waiting for this answer: start one with `lectern account add feedly`.");
  }
  const auto started = pending.value("started", std::int64_t{0});
  const auto age = environment.clock.now().time_since_epoch() - std::chrono::seconds(started);
  if (age > kPendingLifetime) {
    std::filesystem::remove(file, ignored);
    return fail(
        kLecternErrorDomain, 0, kSignInFailed,
        "The sign-in this answer belongs to began more than an hour ago: start again with `lectern account "
        "add feedly`.");
  }
  const auto code = codeFrom(url, pending.value("state", std::string()));
  // One answer per sign-in: a second one (or a forged one) finds nothing to finish.
  std::filesystem::remove(file, ignored);
  if (!code) return fail(code.error());
  FeedlySignInRequest request;
  if (const auto endpoint = pending.find("endpoint"); endpoint != pending.end() && endpoint->is_string())
    request.endpoint = endpoint->get<std::string>();
  const std::string baseURL = baseURLOf(environment, request);
  auto application = FeedlyService::application(environment.defaults, baseURL);
  if (!application) return fail(application.error());
  return exchange(environment, baseURL, *application, *code, pending.value("redirect_uri", std::string()),
                  request.endpoint);
}

}  // namespace lectern
