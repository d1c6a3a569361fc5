#include "services/pocket/PocketSignIn.h"

#include <nlohmann/json.hpp>

#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "services/pocket/PocketService.h"
#include "services/pocket/QKPocketClient.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kSignInFailed = "Pocket: Failed to sign in";

BrowserSignInFlow pocketFlow(BrowserSignInFlow flow = {}) {
  flow.service = "pocket";
  flow.schemeRedirect = QKPocketClient::redirectURL();
  flow.title = std::string(kSignInFailed);
  return flow;
}

// The account's endpoint, else the user default, else Pocket's own host.
std::string apiBaseURL(const SignInEnvironment& environment, const std::optional<std::string>& endpoint) {
  if (endpoint && !trim(*endpoint).empty()) return trim(*endpoint);
  const std::string configured = trim(environment.defaults.stringForKey(PocketService::kApiEndpointDefaultsKey));
  return configured.empty() ? std::string(QKPocketClient::kDefaultBaseURL) : configured;
}

// The sign-in page lives on the web host, which is the API's unless the user default says otherwise.
std::string webBaseURL(const SignInEnvironment& environment, const std::string& apiBase) {
  const std::string configured = trim(environment.defaults.stringForKey(PocketService::kWebEndpointDefaultsKey));
  return configured.empty() ? apiBase : configured;
}

Result<NewAccount> exchange(const SignInEnvironment& environment, const std::optional<std::string>& endpoint,
                            const std::string& requestToken) {
  auto key = PocketService::consumerKey(environment.defaults);
  if (!key) return fail(key.error());
  QKPocketClient client(environment.session, apiBaseURL(environment, endpoint), *key, environment.clock);
  auto authorized = client.convertRequestTokenToAccessToken(requestToken);
  if (!authorized) return fail(authorized.error());
  NewAccount account;
  account.service = "pocket";
  account.username = authorized->username;
  account.password = authorized->accessToken;
  account.endpoint = endpoint;
  return account;
}

}  // namespace

bool isPocketSignInAnswer(std::string_view url) { return isBrowserSignInAnswer(pocketFlow(), url); }

Result<NewAccount> signInToPocket(const SignInEnvironment& environment, const PocketSignInRequest& request) {
  auto key = PocketService::consumerKey(environment.defaults);
  if (!key) return fail(key.error());
  const std::string apiBase = apiBaseURL(environment, request.endpoint);
  QKPocketClient client(environment.session, apiBase, *key, environment.clock);
  std::string requestToken;
  auto answer = waitForBrowserSignIn(
      pocketFlow(request.browser), environment.paths, environment.clock,
      [&](const std::string& redirectURI) -> Result<BrowserSignInPage> {
        auto code = client.fetchRequestToken(redirectURI);
        if (!code) return fail(code.error());
        requestToken = *code;
        return BrowserSignInPage{
            QKPocketClient::authorizationURL(webBaseURL(environment, apiBase), requestToken, redirectURI),
            json{{"code", requestToken},
                 {"endpoint", request.endpoint ? json(*request.endpoint) : json(nullptr)}}};
      });
  if (!answer) return fail(answer.error());
  // Pocket's redirect carries nothing: the request token Lectern holds is what it agreed to (or
  // not, and then the trade is refused).
  return exchange(environment, request.endpoint, requestToken);
}

Result<NewAccount> finishPendingPocketSignIn(const SignInEnvironment& environment, std::string_view url) {
  if (!isPocketSignInAnswer(url))
    return fail(kLecternErrorDomain, 0, kSignInFailed, "This is no answer of a Pocket sign-in.");
  auto pending = takePendingBrowserSignIn(pocketFlow(), environment.paths, environment.clock);
  if (!pending) return fail(pending.error());
  std::optional<std::string> endpoint;
  if (const auto kept = pending->find("endpoint"); kept != pending->end() && kept->is_string())
    endpoint = kept->get<std::string>();
  return exchange(environment, endpoint, pending->value("code", std::string()));
}

}  // namespace lectern
