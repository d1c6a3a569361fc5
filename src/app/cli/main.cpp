// The `lectern` program: parses arguments, calls the library, presents results.
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "app/cli/Cli.h"

namespace {

// A core of a running Lectern holds the passwords and tokens it is working with, and a core file
// lands wherever the system puts it, readable by whoever can read that place. So the program
// writes none: no core, and no ptrace by other processes of the user (a debugger attaches as
// root, or the developer sets LECTERN_CORE_DUMPS=1 to keep the system's rules).
void refuseCoreDumps() {
  if (const char* allowed = std::getenv("LECTERN_CORE_DUMPS"); allowed != nullptr && std::string(allowed) == "1")
    return;
  rlimit core{};
  if (getrlimit(RLIMIT_CORE, &core) == 0) {
    core.rlim_cur = 0;  // the hard limit stays, for the programs Lectern starts
    setrlimit(RLIMIT_CORE, &core);
  }
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace lectern::cli;
  refuseCoreDumps();
  // Feeds are read on short-lived threads; glibc would give each its own heap and keep what they
  // freed apart. Two heaps keep a sync's peak memory a tenth lower and cost no measurable time.
  mallopt(M_ARENA_MAX, 2);
  CLI::App app{"Lectern: a news reader and read-later client.", "lectern"};
  app.set_version_flag("--version", std::string("lectern ") + LECTERN_VERSION);
  app.require_subcommand(0, 1);
  CliContext context;
  std::string home;
  auto* homeOption = app.add_option("--home", home, "Keep data, configuration, logs and cache under DIR (also LECTERN_HOME)")
      ->type_name("DIR");
  app.add_flag("--verbose", context.options.verbose, "Mirror the log to stderr");
  app.add_flag("--offline", context.options.offline,
               "Treat the internet as unreachable: changes are queued for the next sync (also LECTERN_OFFLINE=1)");

  // Command modules register here.
  addFeedCommands(app, context);
  addContentCommands(app, context);
  addLibraryCommands(app, context);
  addAccountCommands(app, context);
  addSignInCommands(app, context);
  addDiscoverCommands(app, context);
  addOpmlCommands(app, context);
  addFolderCommands(app, context);
  addSyncCommands(app, context);
  addReadLaterCommands(app, context);
  addSmartCommands(app, context);
  addReadCommands(app, context);

  // Set after the commands so that they do not inherit it.
  app.footer(
      "With no command: sync every account and show the newest unread stories (the first run sets up a feed reader).\n"
      "Data: $XDG_DATA_HOME/lectern  Configuration: $XDG_CONFIG_HOME/lectern  Log: $XDG_STATE_HOME/lectern\n"
      "Exit codes: 0 success, 1 failure, 2 usage error.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  if (homeOption->count() > 0 && home.empty()) {
    fmt::print(stderr, "--home: the folder cannot be empty\nRun with --help for more information.\n");
    return kExitUsage;
  }
  if (!home.empty()) context.options.home = home;
  if (const char* offline = std::getenv("LECTERN_OFFLINE"); offline != nullptr && std::string(offline) == "1") {
    context.options.offline = true;
  }
  if (const char* timeout = std::getenv("LECTERN_NETWORK_TIMEOUT"); timeout != nullptr && *timeout != '\0') {
    char* end = nullptr;
    const double seconds = std::strtod(timeout, &end);
    if (*end != '\0' || !(seconds > 0)) {
      fmt::print(stderr, "LECTERN_NETWORK_TIMEOUT: a number of seconds greater than 0, not \"{}\"\n", timeout);
      return kExitUsage;
    }
    context.options.networkTimeoutSeconds = seconds;
  }

  try {
    if (auto handler = context.selectedHandler()) return handler();
    return runDefaultCommand(context);
  } catch (const lectern::InternalInconsistency& e) {
    fmt::print(stderr, "lectern: internal error: {}\n", e.what());
    return kExitFailure;
  }
}
