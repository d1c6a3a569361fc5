// Browser sign-in: `account add feedly` and `account add pocket` (through Cli.h), `open-url` (what the desktop entry runs
// for a "lectern://" address) and `desktop-integration install` (that desktop entry).
#include <fmt/format.h>
#include <unistd.h>

#include <fstream>

#include "accounts/AccountCommands.h"
#include "app/cli/Cli.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "net/BrowserSignIn.h"
#include "services/feedly/FeedlyService.h"
#include "services/feedly/FeedlySignIn.h"
#include "services/pocket/PocketSignIn.h"
#include "store/Account.h"

namespace lectern::cli {
namespace {

constexpr std::string_view kDesktopFile = "lectern-url-handler.desktop";

SignInEnvironment signInEnvironment(Library& library) {
  auto& environment = *library.environment;
  return SignInEnvironment{environment.defaults(), environment.network(), environment.clock(),
                           environment.paths()};
}

int runOpenURL(CliContext& cli, const std::string& url) {
  const bool pocket = isPocketSignInAnswer(url);
  if (!pocket && !isFeedlySignInAnswer(url)) {
    printError(Error::make(kLecternErrorDomain, 2, fmt::format("Lectern cannot open {}", url),
                           "It opens the answers of its sign-ins (lectern://feedly/auth?..., lectern://pocket/auth)."));
    return kExitUsage;
  }
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  // The `account add` that waits for this answer finishes the sign-in itself.
  auto handed =
      deliverToWaitingSignIn(signInSocketPath(library->environment->paths().applicationFolder), url);
  if (handed && *handed) {
    fmt::print("Handed the answer to the waiting sign-in.\n");
    return kExitOk;
  }
  auto signedIn = pocket ? finishPendingPocketSignIn(signInEnvironment(*library), url)
                         : finishPendingFeedlySignIn(signInEnvironment(*library), url);
  if (!signedIn) {
    printError(signedIn.error());
    return kExitFailure;
  }
  return addSignedInAccount(*library, std::move(*signedIn), "");
}

std::string programPath() {
  std::error_code error;
  auto path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string("lectern") : path.string();
}

// A library chosen with --home (or LECTERN_HOME) is the one the answers go to.
std::string homeArgument(const AppOptions& options) {
  std::optional<std::filesystem::path> home = options.home;
  if (!home) {
    if (const char* fromEnvironment = std::getenv("LECTERN_HOME"); fromEnvironment && *fromEnvironment)
      home = fromEnvironment;
  }
  if (!home) return {};
  std::error_code error;
  const auto absolute = std::filesystem::absolute(*home, error);
  return fmt::format(" --home \"{}\"", (error ? *home : absolute).string());
}

int runDesktopIntegrationInstall(CliContext& cli) {
  auto environment = cli.environment();
  if (!environment) {
    printError(environment.error());
    return kExitFailure;
  }
  // Beside the library's folder: $XDG_DATA_HOME/applications.
  const auto folder = (*environment)->paths().applicationFolder.parent_path() / "applications";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  const auto file = folder / kDesktopFile;
  {
    std::ofstream out(file);
    out << "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Lectern\n"
           "Comment=Hands sign-in answers to Lectern\n"
        << "Exec=" << programPath() << homeArgument((*environment)->options()) << " open-url %u\n"
        << "Terminal=false\n"
           "NoDisplay=true\n"
           "MimeType=x-scheme-handler/lectern;\n";
    if (!out) {
      printError(Error::make(kLecternErrorDomain, 1, "Failed to install the desktop entry",
                             fmt::format("{} could not be written.", file.string())));
      return kExitFailure;
    }
  }
  fmt::print("Wrote {}.\n", file.string());
  // Make it the handler of "lectern://" where the desktop's tool is there.
  const std::string command =
      fmt::format("xdg-mime default {} x-scheme-handler/lectern >/dev/null 2>&1", kDesktopFile);
  if (std::system(command.c_str()) == 0) {
    fmt::print("Lectern now opens lectern:// addresses.\n");
  } else {
    fmt::print(
        "xdg-mime is not available: register {} as the handler of x-scheme-handler/lectern in your "
        "desktop's settings, or sign in with --redirect loopback.\n",
        kDesktopFile);
  }
  return kExitOk;
}

}  // namespace

Result<NewAccount> signInWithBrowser(Library& library, const std::string& service,
                                     const std::string& endpoint, const BrowserSignInOptions& options) {
  auto& defaults = library.environment->defaults();
  // Given once, kept: renewing the token later needs them too.
  if (!trim(options.clientId).empty()) {
    if (auto stored = defaults.setString(FeedlyService::kClientIdDefaultsKey, trim(options.clientId));
        !stored)
      return fail(stored.error());
  }
  if (!trim(options.clientSecret).empty()) {
    if (auto stored = defaults.setString(FeedlyService::kClientSecretDefaultsKey, trim(options.clientSecret));
        !stored)
      return fail(stored.error());
  }
  auto showPage = [](std::string_view name) {
    return [name = std::string(name)](const std::string& url) {
      fmt::print("Sign in to {} in your browser. If no browser opens, visit:\n  {}\n", name, url);
      std::fflush(stdout);
    };
  };
  if (trim(service) == "pocket") {
    PocketSignInRequest request;
    if (!trim(endpoint).empty()) request.endpoint = trim(endpoint);
    request.browser.loopback = options.redirect == "loopback";
    request.browser.timeout = std::chrono::seconds(options.timeoutSeconds);
    request.browser.openBrowser = !options.noBrowser;
    request.browser.showSignInPage = showPage("Pocket");
    return signInToPocket(signInEnvironment(library), request);
  }
  if (trim(service) != "feedly") {
    return fail(kLecternErrorDomain, 2, "Failed to add account",
                fmt::format("{} has no browser sign-in.", service));
  }
  FeedlySignInRequest request;
  if (!trim(endpoint).empty()) request.endpoint = trim(endpoint);
  if (!options.token.empty()) request.developerToken = options.token;
  request.loopback = options.redirect == "loopback";
  request.timeout = std::chrono::seconds(options.timeoutSeconds);
  request.openBrowser = !options.noBrowser;
  request.showSignInPage = showPage("Feedly");
  return signInToFeedly(signInEnvironment(library), request);
}

int addSignedInAccount(Library& library, NewAccount account, const std::string& title) {
  if (!title.empty()) account.title = title;
  std::optional<Result<std::shared_ptr<Account>>> outcome;
  addAccount(*library.context, account,
             [&outcome](Result<std::shared_ptr<Account>> added) { outcome = std::move(added); });
  library.environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  if (!*outcome) {
    printError(outcome->error());
    return kExitFailure;
  }
  const auto& added = **outcome;
  fmt::print("Added {} ({}).\n", added->title().value_or(account.service), added->uniqueIdentifier());
  return kExitOk;
}

void addSignInCommands(CLI::App& app, CliContext& context) {
  auto url = std::make_shared<std::string>();
  auto* open = app.add_subcommand("open-url", "Take the answer of a sign-in in the browser (lectern://...)");
  open->add_option("URL", *url, "The address the browser was sent to")->required();
  context.onCommand(open, [&context, url] { return runOpenURL(context, *url); });

  auto* integration = app.add_subcommand("desktop-integration", "Connect Lectern with the desktop");
  integration->require_subcommand(1);
  auto* install = integration->add_subcommand(
      "install", "Install the desktop entry that hands lectern:// addresses to Lectern");
  context.onCommand(install, [&context] { return runDesktopIntegrationInstall(context); });
}

}  // namespace lectern::cli
