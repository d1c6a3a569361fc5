// `lectern opml export|import`: the built-in reader's subscription list as OPML.
#include <fmt/format.h>

#include <memory>
#include <string>

#include "accounts/BuiltInReader.h"
#include "app/cli/Cli.h"
#include "feeds/OPMLViewController.h"
#include "store/Account.h"
#include "store/QKDataManager.h"

namespace lectern::cli {
namespace {

// The built-in reader's account of the program's library; null when the library has none.
Result<std::shared_ptr<Account>> localAccount(CliContext& context) {
  auto environment = context.environment();
  if (!environment) return fail(environment.error());
  auto manager = (*environment)->dataManager();
  if (!manager) return fail(manager.error());
  auto main = (*manager)->managedObjectContext();
  if (!main) return fail(main.error());
  return Account::localRSSAccount(**main);
}

int exportOpml(CliContext& context, const std::string& file, bool force) {
  auto account = localAccount(context);
  if (!account) {
    printError(account.error());
    return kExitFailure;
  }
  OPMLViewController controller(*account);
  if (auto written = controller.exportOPMLToURL(
          file, force ? OPMLViewController::ExistingFile::kAny : OPMLViewController::ExistingFile::kOnlyOPML);
      !written) {
    printError(written.error());
    return kExitFailure;
  }
  fmt::print("Exported the subscriptions to {}\n", file);
  return kExitOk;
}

int importOpml(CliContext& context, const std::string& file) {
  auto library = openLibrary(context);
  if (!library) return kExitFailure;
  // As subscribing does: the first import into a fresh library makes the built-in reader.
  auto account = ensureLocalRSSAccount(*library->context);
  if (!account) {
    printError(account.error());
    return kExitFailure;
  }
  OPMLViewController controller(*account);
  auto summary = controller.importOPMLFromURL(file);
  if (!summary) {
    printError(summary.error());
    return kExitFailure;
  }
  fmt::print("Folders: {} added, {} skipped (already there)\n", summary->foldersAdded,
             summary->foldersSkipped);
  fmt::print("Feeds: {} added, {} skipped (already subscribed; they stay where they are)\n", summary->feedsAdded,
             summary->feedsSkipped);
  if (summary->feedsWithoutAddress > 0) {
    fmt::print("{} feed{} without a usable address skipped\n", summary->feedsWithoutAddress,
               summary->feedsWithoutAddress == 1 ? "" : "s");
  }
  if (summary->outlinesIgnored > 0) {
    fmt::print("{} outline{} of other kinds or empty ignored\n", summary->outlinesIgnored,
               summary->outlinesIgnored == 1 ? "" : "s");
  }
  return kExitOk;
}

}  // namespace

void addOpmlCommands(CLI::App& app, CliContext& context) {
  CLI::App* opml = app.add_subcommand("opml", "Export or import the built-in reader's subscriptions as OPML");
  opml->require_subcommand(1);

  auto exportFile = std::make_shared<std::string>(OPMLViewController::kDefaultFileName);
  auto exportForce = std::make_shared<bool>(false);
  CLI::App* exporting = opml->add_subcommand("export", "Write the folders and feeds to an OPML file");
  exporting->add_option("FILE", *exportFile, "Where to write (its folder must exist)")->capture_default_str();
  exporting->add_flag("--force", *exportForce, "Replace the file even when it is not an OPML file");
  exporting->footer(
      "An existing OPML file is replaced; any other file only with --force.\n"
      "Exit codes: 0 written, 1 no built-in reader account, a missing folder, a file that is not OPML, or the\n"
      "file could not be written.");
  context.onCommand(exporting,
                    [&context, exportFile, exportForce] { return exportOpml(context, *exportFile, *exportForce); });

  auto importFile = std::make_shared<std::string>();
  CLI::App* importing = opml->add_subcommand("import", "Add the folders and feeds of an OPML file");
  importing->add_option("FILE", *importFile, "An OPML file from any reader")->required();
  importing->footer(
      "Nested folders become \"Parent - Child\"; an outline without an address is a folder only when it\n"
      "holds outlines; feeds already subscribed are skipped and stay where they are; the built-in reader is\n"
      "set up when missing; nothing is fetched until the next refresh.\n"
      "Exit codes: 0 imported, 1 unreadable file or not OPML, 2 usage error.");
  context.onCommand(importing, [&context, importFile] { return importOpml(context, *importFile); });
}

}  // namespace lectern::cli
