// The `lectern` program: parses arguments, calls the library, presents results.
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "app/AppEnvironment.h"
#include "core/Error.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Lectern: a news reader and read-later client.", "lectern"};
  app.set_version_flag("--version", std::string("lectern ") + LECTERN_VERSION);
  lectern::AppOptions options;
  std::string home;
  app.add_option("--home", home, "Keep data, configuration, logs and cache under DIR (also LECTERN_HOME)")
      ->type_name("DIR");
  app.add_flag("--verbose", options.verbose, "Mirror the log to stderr");
  app.footer("Data: $XDG_DATA_HOME/lectern  Configuration: $XDG_CONFIG_HOME/lectern  Log: $XDG_STATE_HOME/lectern");

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
  if (!home.empty()) options.home = home;

  try {
    auto environment = lectern::AppEnvironment::create(options);
    if (!environment) {
      fmt::print(stderr, "lectern: {}\n", environment.error().message());
      return kExitFailure;
    }
    // No reader yet: the main job is to explain what Lectern can do.
    fmt::print("{}", app.help());
    return kExitOk;
  } catch (const lectern::InternalInconsistency& e) {
    fmt::print(stderr, "lectern: internal error: {}\n", e.what());
    return kExitFailure;
  }
}
