#include "app/cli/Cli.h"

#include <unistd.h>

#include <cstdio>

#include <fmt/format.h>

#include "store/QKDataManager.h"

namespace lectern::cli {

Result<AppEnvironment*> CliContext::environment() {
  if (!environment_) {
    auto made = AppEnvironment::create(options);
    if (!made) return fail(made.error());
    environment_ = std::move(*made);
  }
  return environment_.get();
}

void CliContext::onCommand(CLI::App* command, std::function<int()> handler) {
  handlers_.emplace_back(command, std::move(handler));
}

std::function<int()> CliContext::selectedHandler() const {
  for (const auto& [command, handler] : handlers_) {
    if (command->parsed()) return handler;
  }
  return nullptr;
}

std::optional<Library> openLibrary(CliContext& cli) {
  auto environment = cli.environment();
  if (!environment) {
    printError(environment.error());
    return std::nullopt;
  }
  auto manager = (*environment)->dataManager();
  if (!manager) {
    printError(manager.error());
    return std::nullopt;
  }
  auto context = (*manager)->managedObjectContext();
  if (!context) {
    printError(context.error());
    return std::nullopt;
  }
  return Library{*environment, *manager, *context};
}

void printError(const Error& error) {
  fmt::print(stderr, "lectern: {}\n", error.description.empty() ? error.recoverySuggestion : error.description);
  if (!error.description.empty() && !error.recoverySuggestion.empty()) {
    fmt::print(stderr, "{}\n", error.recoverySuggestion);
  }
}

bool refusedOffline(const CliContext& cli, std::string_view action) {
  if (!cli.options.offline) return false;
  printError(Error::make(kLecternErrorDomain, 1, fmt::format("{} needs the network, and Lectern is offline", action),
                         "Run it again without --offline (and without LECTERN_OFFLINE=1)."));
  return true;
}

bool stdoutIsTerminal() { return ::isatty(STDOUT_FILENO) == 1; }

}  // namespace lectern::cli
