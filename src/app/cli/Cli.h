#pragma once

// Plumbing shared by the command modules of the `lectern` program.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "accounts/AccountCommands.h"
#include "app/AppEnvironment.h"
#include "core/Error.h"

namespace lectern {
class Bookmark;
class ObjectContext;
struct BookmarkQuery;
}

namespace lectern::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// What every command gets: the global options and, on first use, the environment they select.
class CliContext {
 public:
  AppOptions options;

  // Made on first call (after argument parsing), so `--help` never touches the disk.
  Result<AppEnvironment*> environment();

  // Runs `handler` when `command` (a leaf subcommand) was given on the command line.
  void onCommand(CLI::App* command, std::function<int()> handler);
  // The handler of the command that was given, if any.
  std::function<int()> selectedHandler() const;

 private:
  std::unique_ptr<AppEnvironment> environment_;
  std::vector<std::pair<CLI::App*, std::function<int()>>> handlers_;
};

// The opened library: the environment, its data manager and the main context.
struct Library {
  AppEnvironment* environment = nullptr;
  QKDataManager* manager = nullptr;
  ObjectContext* context = nullptr;
};
// Opens the library, or prints why it cannot be opened and answers nothing.
std::optional<Library> openLibrary(CliContext& cli);

// "lectern: <description>" and, when there is one, the recovery suggestion on the next line.
void printError(const Error& error);
// With --offline (or LECTERN_OFFLINE=1): prints that `action` ("Fetching a feed") needs the network
// and answers true, so the command stops before it reaches the network.
bool refusedOffline(const CliContext& cli, std::string_view action);
// True when standard output is a terminal (progress lines, colours).
bool stdoutIsTerminal();

// True when `result` holds a value; otherwise prints its error.
template <typename T>
bool checkResult(const Result<T>& result) {
  if (result) return true;
  printError(result.error());
  return false;
}
// The item with the local id `id` (as `lectern list` shows it), or an error naming the id.
Result<std::shared_ptr<Bookmark>> bookmarkById(ObjectContext& context, std::int64_t id);

// Command modules. Each adds its subcommands to `app` and registers their handlers.
// (One line per module here and in main.cpp.)
void addFeedCommands(CLI::App& app, CliContext& context);
void addContentCommands(CLI::App& app, CliContext& context);
void addLibraryCommands(CLI::App& app, CliContext& context);
void addAccountCommands(CLI::App& app, CliContext& context);
void addDiscoverCommands(CLI::App& app, CliContext& context);
void addOpmlCommands(CLI::App& app, CliContext& context);
void addFolderCommands(CLI::App& app, CliContext& context);
void addSyncCommands(CLI::App& app, CliContext& context);
void addReadLaterCommands(CLI::App& app, CliContext& context);
void addSmartCommands(CLI::App& app, CliContext& context);
void addReadCommands(CLI::App& app, CliContext& context);
// The items of a smart folder (`lectern list --smart ID`), newest first, filtered as `query` says.
Result<std::vector<std::shared_ptr<Bookmark>>> smartFolderItems(CliContext& cli, ObjectContext& context, std::int64_t id,
                                                                const BookmarkQuery& query);
// How many items `smartFolderItems` gives without a limit.
Result<std::int64_t> smartFolderItemCount(CliContext& cli, ObjectContext& context, std::int64_t id,
                                          const BookmarkQuery& query);

// A browser sign-in's choices on `account add` (Feedly).
struct BrowserSignInOptions {
  std::string token;
  std::string redirect = "scheme";
  std::string clientId;
  std::string clientSecret;
  int timeoutSeconds = 300;
  bool noBrowser = false;
};
// Signs in to `service` through the browser (or with a token) and answers the account to add.
Result<NewAccount> signInWithBrowser(Library& library, const std::string& service, const std::string& endpoint,
                                     const BrowserSignInOptions& options);
// Adds a signed-in account (the service checks its token once more) and says so.
int addSignedInAccount(Library& library, NewAccount account, const std::string& title);
void addSignInCommands(CLI::App& app, CliContext& context);

// `lectern` with no command: sync everything and show what is unread (first run: set up).
int runDefaultCommand(CliContext& context);

}  // namespace lectern::cli
