// Commands that bring the library up to date: sync, daemon, and the program's main job (no command).
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "accounts/AccountCommands.h"
#include "accounts/BuiltInReader.h"
#include "app/QKApplicationController.h"
#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/StoreEnvironment.h"
#include "sync/SyncPassObserver.h"

namespace lectern::cli {

using nlohmann::json;

namespace {

// Set by SIGINT/SIGTERM; the main loop polls it (a handler may not touch the queue's mutex).
std::atomic<bool> gStopRequested{false};

extern "C" void requestStop(int) { gStopRequested.store(true); }

// Ctrl-C and SIGTERM stop the work cleanly instead of killing the process mid-save.
class StopSignals {
 public:
  StopSignals() {
    gStopRequested.store(false);
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInt_);
    sigaction(SIGTERM, &action, &previousTerm_);
  }
  ~StopSignals() {
    sigaction(SIGINT, &previousInt_, nullptr);
    sigaction(SIGTERM, &previousTerm_, nullptr);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  bool requested() const { return gStopRequested.load(); }

 private:
  struct sigaction previousInt_ {};
  struct sigaction previousTerm_ {};
};

// Unread stories of an account: per feed for a feed reader, else its "unread" folder.
std::optional<std::int64_t> unreadCount(Account& account) {
  auto feeds = account.feeds();
  if (feeds && (!feeds->empty() || account.serviceType() == ServiceType::kLocalRSS)) {
    auto counts = account.unreadFeedCounts();
    if (!counts) return std::nullopt;
    std::int64_t total = 0;
    for (const auto& [feed, count] : *counts) total += count;
    return total;
  }
  auto folder = account.unreadFolder();
  if (!folder || !*folder) return std::nullopt;
  auto count = (*folder)->unreadCount();
  return count ? std::optional(*count) : std::nullopt;
}

std::string errorText(const Error& error) {
  return error.description.empty() ? error.recoverySuggestion : error.description;
}

// Prints a pass account by account: a progress line on a terminal, a line per finished account,
// the feeds that failed on stderr; or collects the reports as JSON.
class PassPrinter final : public SyncPassObserver {
 public:
  PassPrinter(bool json, bool timestamps)
      : json_(json), timestamps_(timestamps), terminal_(stdoutIsTerminal() && !json) {}

  void accountSyncStarted(Account& account) override {
    unreadBefore_[account.objectID().row] = unreadCount(account);
    if (!terminal_) return;
    fmt::print("\r\033[KSyncing {}…", account.title().value_or(account.uniqueIdentifier()));
    std::fflush(stdout);
  }

  void accountSyncFinished(Account& account, const AccountSyncReport& report) override {
    const auto unread = unreadCount(account);
    if (report.error && !report.cancelled) ++failedAccounts_;
    if (json_) {
      json failed = json::array();
      for (const auto& feed : report.failedFeeds) {
        failed.push_back({{"id", feed.feed.row}, {"title", feed.title}, {"url", feed.url}, {"error", feed.error.message()}});
      }
      json notKept = json::array();
      for (const auto& feed : report.olderNotKept) {
        notKept.push_back({{"id", feed.feed.row}, {"title", feed.title}, {"count", feed.count}});
      }
      reports_.push_back({{"account", account.uniqueIdentifier()},
                          {"title", report.title},
                          {"ok", !report.error && !report.cancelled},
                          {"cancelled", report.cancelled},
                          {"error", report.error ? json(errorText(*report.error)) : json(nullptr)},
                          {"suggestion", report.error ? json(report.error->recoverySuggestion) : json(nullptr)},
                          {"failed_feeds", std::move(failed)},
                          {"older_not_kept", std::move(notKept)},
                          {"unread", unread ? json(*unread) : json(nullptr)}});
      return;
    }
    if (terminal_) fmt::print("\r\033[K");
    const std::string prefix = timestamps_ ? fmt::format("{:%Y-%m-%d %H:%M:%S}  ", fmt::localtime(std::time(nullptr))) : "";
    if (report.cancelled) {
      fmt::print("{}{}: cancelled\n", prefix, report.title);
    } else if (report.error) {
      fmt::print("{}{}: failed\n", prefix, report.title);
      std::fflush(stdout);
      fmt::print(stderr, "lectern: {}: {}\n", report.title, errorText(*report.error));
      if (!report.error->description.empty() && !report.error->recoverySuggestion.empty()) {
        fmt::print(stderr, "{}\n", report.error->recoverySuggestion);
      }
    } else {
      std::string counts;
      if (unread) {
        counts = fmt::format(", {} unread", *unread);
        const auto before = unreadBefore_[account.objectID().row];
        if (before && *unread > *before) counts += fmt::format(" ({} new)", *unread - *before);
      }
      // Never "up to date" while some of its feeds could not be read.
      if (report.failedFeeds.empty()) {
        fmt::print("{}{}: up to date{}\n", prefix, report.title, counts);
      } else {
        const size_t failed = report.failedFeeds.size();
        fmt::print("{}{}: {} {} failed{}\n", prefix, report.title, failed, failed == 1 ? "feed" : "feeds",
                   counts);
      }
      const std::int64_t keepDays =
          Feed::keepPeriodDays(account.managedObjectContext().environment().defaults());
      for (const auto& feed : report.olderNotKept) {
        fmt::print("  {}: {}\n", feed.title.empty() ? "(untitled feed)" : feed.title,
                   olderEntriesNotKeptNote(feed.count, keepDays));
      }
    }
    std::fflush(stdout);
    for (const auto& feed : report.failedFeeds) {
      fmt::print(stderr, "  {} <{}>: {}\n", feed.title.empty() ? "(untitled feed)" : feed.title, feed.url,
                 feed.error.message());
    }
  }

  int failedAccounts() const { return failedAccounts_; }
  const json& reports() const { return reports_; }

 private:
  const bool json_;
  const bool timestamps_;
  const bool terminal_;
  std::map<std::int64_t, std::optional<std::int64_t>> unreadBefore_;
  json reports_ = json::array();
  int failedAccounts_ = 0;
};

// The library opened through the start-up path, with the controller that syncs it.
struct Session {
  Library library;
  std::unique_ptr<QKApplicationController> app;
};

std::optional<Session> startSession(CliContext& cli) {
  auto library = openLibrary(cli);
  if (!library) return std::nullopt;
  AppEnvironment& environment = *library->environment;
  SyncEnvironment sync{*library->manager,          environment.defaults(), environment.mainQueue(),
                       environment.reachability(), environment.clock(),    environment.network()};
  auto app = std::make_unique<QKApplicationController>(sync);
  if (auto ready = app->setupApp(); !ready) {
    printError(ready.error());
    return std::nullopt;
  }
  return Session{*library, std::move(app)};
}

Error offlineError() {
  return Error::make(kLecternErrorDomain, 1, "The Internet connection appears to be offline.",
                     "Try again when the network is back; changes made meanwhile are kept and sent then.");
}

// Runs one pass over `accounts` (every account when empty) and waits for it, cancelling on
// Ctrl-C. Answers the exit code.
int runPass(Session& session, const std::vector<std::shared_ptr<Account>>& accounts, bool forced, bool asJson) {
  auto& manager = session.app->syncManager();
  PassPrinter printer(asJson, /*timestamps=*/false);
  manager.setSyncPassObserver(&printer);
  StopSignals signals;
  if (accounts.empty()) {
    session.app->startSync(forced);
  } else {
    manager.syncAccounts(accounts, forced);
  }
  bool cancelled = false;
  while (!manager.waitUntilSyncFinished(std::chrono::milliseconds(100))) {
    if (signals.requested() && !cancelled) {
      cancelled = true;
      manager.cancelAllSyncOperations();
    }
  }
  manager.setSyncPassObserver(nullptr);
  session.app->shutdown();
  if (asJson) fmt::print("{}\n", printer.reports().dump(2));
  return printer.failedAccounts() > 0 || cancelled ? kExitFailure : kExitOk;
}

// ---- sync ----

struct SyncOptions {
  std::vector<std::string> accounts;
  bool force = false;
  bool json = false;
};

int runSync(CliContext& cli, const SyncOptions& options) {
  auto session = startSession(cli);
  if (!session) return kExitFailure;
  std::vector<std::shared_ptr<Account>> accounts;
  for (const auto& name : options.accounts) {
    auto account = findAccount(*session->library.context, name);
    if (!account) {
      printError(account.error());
      return kExitFailure;
    }
    accounts.push_back(*account);
  }
  if (accounts.empty()) {
    auto all = listAccounts(*session->library.context);
    if (!all) {
      printError(all.error());
      return kExitFailure;
    }
    if (all->empty()) {
      if (options.json) {
        fmt::print("[]\n");
      } else {
        fmt::print("No accounts to sync. Subscribe to a feed with `lectern subscribe URL`, or add a service "
                   "with `lectern account add SERVICE`.\n");
      }
      return kExitOk;
    }
  }
  if (!session->library.environment->reachability().isReachable()) {
    printError(offlineError());
    return kExitFailure;
  }
  return runPass(*session, accounts, options.force, options.json);
}

// ---- daemon ----

// Logs and prints each finished account while the daemon runs.
int runDaemon(CliContext& cli) {
  auto session = startSession(cli);
  if (!session) return kExitFailure;
  PassPrinter printer(/*json=*/false, /*timestamps=*/true);
  session->app->syncManager().setSyncPassObserver(&printer);
  // Between passes there is time to index what each pass stored.
  session->app->syncManager().setCatchesUpSearchIndex(true);
  StopSignals signals;
  session->app->startScheduling();
  fmt::print("Lectern is running: accounts sync at start-up (when they ask to) and whenever they are due. "
             "Stop with Ctrl-C.\n");
  std::fflush(stdout);
  session->library.environment->mainQueue().runUntil([&] { return signals.requested(); });
  fmt::print("Stopping…\n");
  session->app->shutdown();
  session->app->syncManager().setSyncPassObserver(nullptr);
  return kExitOk;
}

// ---- the main job ----

// The newest unread stories of the whole library.
void printUnread(ObjectContext& context) {
  auto accounts = Account::services(context);
  if (!accounts) {
    printError(accounts.error());
    return;
  }
  constexpr std::int64_t kShown = 10;
  std::int64_t total = 0;
  std::vector<std::shared_ptr<Bookmark>> newest;
  for (const auto& account : *accounts) {
    if (account->serviceType() == ServiceType::kSmartFolders) continue;
    total += unreadCount(*account).value_or(0);
    auto unread = account->bookmarks(BookmarkQuery{BookmarkFilter::kUnread, kShown});
    if (unread) newest.insert(newest.end(), unread->begin(), unread->end());
  }
  if (total == 0) {
    fmt::print("Nothing unread.\n");
    return;
  }
  std::stable_sort(newest.begin(), newest.end(), [](const auto& a, const auto& b) {
    return a->date_added().value_or(Date{}) > b->date_added().value_or(Date{});
  });
  if (static_cast<std::int64_t>(newest.size()) > kShown) newest.resize(static_cast<size_t>(kShown));
  fmt::print("\n{} unread. The newest:\n", total);
  for (const auto& bookmark : newest) fmt::print("{}\n", bookmarkLine(*bookmark));
  if (total > kShown) fmt::print("All of them: lectern list --unread\n");
}

int runMainJob(CliContext& cli) {
  auto session = startSession(cli);
  if (!session) return kExitFailure;
  ObjectContext& context = *session->library.context;
  auto accounts = listAccounts(context);
  if (!accounts) {
    printError(accounts.error());
    return kExitFailure;
  }
  if (accounts->empty()) {
    auto reader = ensureLocalRSSAccount(context);
    if (!reader) {
      printError(reader.error());
      return kExitFailure;
    }
    fmt::print(
        "Welcome to Lectern. Your library is in {}.\n"
        "A {} account was created for your feeds. Next:\n"
        "  lectern subscribe URL           follow a site or feed (its feed is found for you)\n"
        "  lectern opml import FILE        bring your subscriptions from another reader\n"
        "  lectern account add SERVICE     add a feed or read-later service\n"
        "  lectern                         sync everything and show what is unread\n",
        session->library.environment->paths().applicationFolder.string(), kBuiltInReaderTitle);
    session->app->shutdown();
    return kExitOk;
  }
  int code = kExitOk;
  if (session->library.environment->reachability().isReachable()) {
    code = runPass(*session, {}, /*forced=*/false, /*asJson=*/false);
  } else {
    fmt::print("Offline: the library is shown as it is; changes wait for the next sync.\n");
    session->app->shutdown();
  }
  printUnread(context);
  return code;
}

}  // namespace

int runDefaultCommand(CliContext& context) { return runMainJob(context); }

void addSyncCommands(CLI::App& app, CliContext& context) {
  auto options = std::make_shared<SyncOptions>();
  auto* sync = app.add_subcommand("sync", "Bring accounts up to date (all of them when none is named)");
  sync->add_option("accounts", options->accounts, "Accounts to sync (unique identifier or service name)")
      ->type_name("ACCOUNT");
  sync->add_flag("--force", options->force, "Ask for a full sync instead of changes since the last one");
  sync->add_flag("--json", options->json, "Print each account's result as JSON");
  sync->footer("Exit status 1 when an account could not be synced; feeds that fail are listed but do not fail it.");
  context.onCommand(sync, [&context, options] { return runSync(context, *options); });

  auto* daemon = app.add_subcommand("daemon", "Keep running: sync at start-up and whenever accounts are due");
  daemon->footer("Stops cleanly on SIGINT (Ctrl-C) or SIGTERM, finishing or cancelling running syncs first.");
  context.onCommand(daemon, [&context] { return runDaemon(context); });
}

}  // namespace lectern::cli
