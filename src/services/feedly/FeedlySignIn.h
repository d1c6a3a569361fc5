#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "accounts/AccountCommands.h"
#include "core/Clock.h"
#include "core/Error.h"
#include "core/Paths.h"
#include "net/BrowserSignIn.h"

namespace lectern {

// What a Feedly sign-in borrows from the program.
using FeedlySignInEnvironment = SignInEnvironment;

struct FeedlySignInRequest {
  std::optional<std::string> endpoint;        // the account's api_endpoint
  std::optional<std::string> developerToken;  // no browser: a token the person made on Feedly's site
  bool loopback = false;                      // the browser comes back to 127.0.0.1, not "lectern://"
  std::chrono::milliseconds timeout = std::chrono::minutes(5);
  bool openBrowser = true;
  // Shown before the browser opens: the sign-in page, for a person on a machine without one.
  std::function<void(const std::string& url)> showSignInPage;
};

// Signs in to Feedly and answers the account to add (username from the profile, the access
// token as its password, the refresh token and the expiry): through the browser, waiting for the
// code and checking its state, or with a developer token. Blocking; nothing is stored yet.
Result<NewAccount> signInToFeedly(const FeedlySignInEnvironment& environment,
                                  const FeedlySignInRequest& request);

// Whether `url` is the answer of a Feedly sign-in ("lectern://feedly/auth?...").
bool isFeedlySignInAnswer(std::string_view url);

// `lectern open-url` when no `account add` waits any more: finishes the sign-in that began last,
// if the URL carries its state and it began less than an hour ago.
Result<NewAccount> finishPendingFeedlySignIn(const FeedlySignInEnvironment& environment,
                                             std::string_view url);

}  // namespace lectern
