#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "accounts/AccountCommands.h"
#include "core/Error.h"
#include "net/BrowserSignIn.h"

namespace lectern {

struct PocketSignInRequest {
  std::optional<std::string> endpoint;  // the account's api_endpoint
  // How the browser is used; the service, its redirect and the error title are Pocket's.
  BrowserSignInFlow browser;
};

// Signs in to Pocket through the browser and answers the account to add (named after the
// username, the access token as its password): a request token, Pocket's page with it, and once
// the browser came back, the token traded for the access token. Blocking; nothing is stored yet.
// Without a consumer key (the user default "pocketConsumerKey") nothing is sent.
Result<NewAccount> signInToPocket(const SignInEnvironment& environment, const PocketSignInRequest& request);

// Whether `url` is the answer of a Pocket sign-in ("lectern://pocket/auth").
bool isPocketSignInAnswer(std::string_view url);

// `lectern open-url` when no `account add` waits any more: finishes the sign-in that began last,
// if it began less than an hour ago.
Result<NewAccount> finishPendingPocketSignIn(const SignInEnvironment& environment, std::string_view url);

}  // namespace lectern
