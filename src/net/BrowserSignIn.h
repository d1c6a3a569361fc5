#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/Clock.h"
#include "core/Error.h"
#include "core/Paths.h"

namespace lectern {

// Where a service's sign-in page in the browser sends the person back to Lectern: the
// "lectern://<service>/auth" address, which the desktop entry hands to `lectern open-url`, which
// passes it on through a socket; or an address on 127.0.0.1 that this listener serves itself
// (for servers that accept a loopback redirect). One answer, then it closes.
class RedirectListener {
 public:
  // Listens at `socketPath` for the URL `lectern open-url` passes on. A stale socket file is
  // replaced; a live one means another sign-in waits there, which is an error.
  static Result<std::unique_ptr<RedirectListener>> forScheme(const std::filesystem::path& socketPath,
                                                             std::string redirectURI);
  // Listens on 127.0.0.1 at a port the system picks; the redirect is "http://127.0.0.1:PORT<path>".
  static Result<std::unique_ptr<RedirectListener>> onLoopback(std::string_view path);
  ~RedirectListener();
  RedirectListener(const RedirectListener&) = delete;
  RedirectListener& operator=(const RedirectListener&) = delete;

  const std::string& redirectURI() const { return redirectURI_; }
  // The URL the browser came back with. Fails with -1001 after `timeout`.
  Result<std::string> waitForURL(std::chrono::milliseconds timeout);

 private:
  RedirectListener(int fd, std::string redirectURI, std::filesystem::path socketPath,
                   std::string loopbackPath);
  Result<std::string> acceptSchemeURL(int client);
  // Reads one request; nothing when it was not for the sign-in's path (a favicon, say).
  std::optional<std::string> acceptLoopbackRequest(int client);

  int fd_ = -1;
  std::string redirectURI_;
  std::filesystem::path socketPath_;  // empty for loopback
  std::string loopbackPath_;
};

// The socket a sign-in of the library in `applicationFolder` waits at: in $XDG_RUNTIME_DIR (else a
// private folder under /tmp), named after the library so that two libraries never meet.
std::filesystem::path signInSocketPath(const std::filesystem::path& applicationFolder);

// Hands `url` to the sign-in waiting at `socketPath`. False when nothing waits there.
Result<bool> deliverToWaitingSignIn(const std::filesystem::path& socketPath, std::string_view url);

// Opens `url` in the person's browser: each command of $BROWSER (":"-separated; "%s" stands for
// the URL, else it goes last) until one starts, else xdg-open. Does not wait for the browser.
Result<void> openInBrowser(std::string_view url);

// The decoded query parameters of a URL (the first value of each name).
std::map<std::string, std::string> queryParametersOf(std::string_view url);

// 32 random hexadecimal digits: the `state` of a sign-in.
std::string randomState();

class NetworkSession;
class UserDefaults;

// What a service's sign-in borrows from the program.
struct SignInEnvironment {
  UserDefaults& defaults;
  NetworkSession& session;
  const Clock& clock;
  const Paths& paths;
};

// One service's sign-in through the browser, the steps every such sign-in shares: the listener for
// the way back, the page shown and opened, what `lectern open-url` needs kept for an hour should the
// command be gone when the answer comes, and the wait.
struct BrowserSignInFlow {
  std::string service;         // "feedly": the loopback path "/feedly/auth", "feedly-sign-in.json"
  std::string schemeRedirect;  // "lectern://feedly/auth"
  std::string title;           // the error's title ("Feedly: Failed to sign in")
  bool loopback = false;       // the browser comes back to 127.0.0.1, not to the scheme
  std::chrono::milliseconds timeout = std::chrono::minutes(5);
  bool openBrowser = true;
  // Shown before the browser opens: the page, for a person on a machine without one.
  std::function<void(const std::string& url)> showSignInPage;
};

// The page the browser opens and what a later `open-url` needs to finish (kept with the time the
// sign-in began).
struct BrowserSignInPage {
  std::string url;
  nlohmann::json pending = nlohmann::json::object();
};

// Runs the flow: `pageFor` gets the redirect address and answers the page (a service that must ask
// its server first does it there). Answers the address the browser came back with, and the redirect
// address it was sent to.
struct BrowserSignInAnswer {
  std::string url;
  std::string redirectURI;
};
Result<BrowserSignInAnswer> waitForBrowserSignIn(
    const BrowserSignInFlow& flow, const Paths& paths, const Clock& clock,
    const std::function<Result<BrowserSignInPage>(const std::string& redirectURI)>& pageFor);

// `lectern open-url` with nothing waiting: what the service's last sign-in kept, if it began less
// than an hour ago. The record is removed either way: an answer is used once.
Result<nlohmann::json> takePendingBrowserSignIn(const BrowserSignInFlow& flow, const Paths& paths,
                                                const Clock& clock);

// Whether `url` is the scheme answer of `flow` ("lectern://feedly/auth" with or without a query).
bool isBrowserSignInAnswer(const BrowserSignInFlow& flow, std::string_view url);

}  // namespace lectern
