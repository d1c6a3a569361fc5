// `lectern discover`: the feeds an address stands for.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "app/cli/Cli.h"
#include "feeds/FeedDiscovery.h"

namespace lectern::cli {
namespace {

struct DiscoverOptions {
  std::string address;
  bool json = false;
};

int discover(CliContext& context, const DiscoverOptions& options) {
  if (refusedOffline(context, "Discovering feeds")) return kExitFailure;
  auto environment = context.environment();
  if (!environment) {
    printError(environment.error());
    return kExitFailure;
  }
  auto items = discoverFeeds((*environment)->network(), options.address);
  if (!items) {
    printError(items.error());
    return kExitFailure;
  }
  if (options.json) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& item : *items) list.push_back({{"title", item.title}, {"url", item.URL}});
    fmt::print("{}\n", list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    return kExitOk;
  }
  int index = 0;
  for (const auto& item : *items) {
    fmt::print("{}. {}\n   {}\n", ++index, item.title.empty() ? "(untitled)" : item.title, item.URL);
  }
  return kExitOk;
}

}  // namespace

void addDiscoverCommands(CLI::App& app, CliContext& context) {
  auto options = std::make_shared<DiscoverOptions>();
  CLI::App* command = app.add_subcommand("discover", "List the feeds a web address offers");
  command->add_option("URL", options->address, "A page or feed address (a bare host gets \"https://\")")
      ->required();
  command->add_flag("--json", options->json, "Print a list of objects with \"title\" and \"url\"");
  command->footer(
      "A feed address gives itself (titled \"Feed\"); a page gives the feed links in its head, in page "
      "order,\n"
      "as absolute addresses: a link is read as Lectern always has, and as a browser reads it (<base href>,\n"
      "//host/path) when the first reading answers with no feed.\n"
      "Exit codes: 0 feeds found, 1 download failed or no feed found, 2 usage error.");
  context.onCommand(command, [&context, options] { return discover(context, *options); });
}

}  // namespace lectern::cli
