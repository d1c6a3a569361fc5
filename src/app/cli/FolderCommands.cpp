// `lectern folder rename|delete`: the folders of feeds, named by id or by title.
#include <fmt/format.h>

#include <memory>
#include <string>

#include "accounts/AccountErrors.h"
#include "accounts/Subscriptions.h"
#include "app/cli/Cli.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"

namespace lectern::cli {
namespace {

// Another folder of feeds of the same account already titled `title`, if any.
Result<std::shared_ptr<FeedFolder>> namesake(ObjectContext& context, const FeedFolder& folder, const std::string& title) {
  const auto account = folder.accountID();
  if (!account) return std::shared_ptr<FeedFolder>();
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder' AND title = ? AND id != ?";
  request.arguments = {account->row, title, folder.objectID().row};
  return context.fetchFirst<FeedFolder>(std::move(request));
}

int renameFolderNamed(CliContext& cli, const std::string& name, const std::string& newTitle) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto folder = findFolderOfFeeds(*library->context, name);
  if (!checkResult(folder)) return kExitFailure;
  const std::string title = trim(newTitle);
  const std::string oldTitle = (*folder)->title().value_or("");
  auto other = namesake(*library->context, **folder, title);
  if (!checkResult(other)) return kExitFailure;
  if (*other) {
    printError(Error::make(kAccountErrorDomain, kInvalidFolderName, "Failed to rename folder",
                           fmt::format("There is already a folder \"{}\" (id {}); move the feeds into it with "
                                       "`lectern move FEED_ID --folder '{}'`.",
                                       title, (*other)->objectID().row, title)));
    return kExitFailure;
  }
  std::optional<std::optional<Error>> outcome;
  renameFolder(*library->context, (*folder)->objectID().row, title,
               [&outcome](std::optional<Error> error) { outcome = std::move(error); });
  library->environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  if (*outcome) {
    printError(**outcome);
    return kExitFailure;
  }
  fmt::print("Renamed folder \"{}\" to \"{}\".\n", oldTitle, title);
  return kExitOk;
}

int deleteFolderNamed(CliContext& cli, const std::string& name) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto folder = findFolderOfFeeds(*library->context, name);
  if (!checkResult(folder)) return kExitFailure;
  const std::string title = (*folder)->title().value_or("");
  auto held = (*folder)->feeds();
  if (!checkResult(held)) return kExitFailure;
  const size_t feeds = held->size();
  auto loose = deleteFolderOfFeeds(**folder);
  if (!checkResult(loose)) return kExitFailure;
  if (feeds == 0) {
    fmt::print("Deleted folder \"{}\"; it held no feeds.\n", title);
    return kExitOk;
  }
  fmt::print("Deleted folder \"{}\"; its feeds stay subscribed. In no folder now: {} of {}.\n", title, loose->size(),
             feeds);
  for (const auto& feed : *loose) {
    fmt::print("  {}  {}\n", feed->objectID().row, feed->title().value_or(feed->URL().value_or("")));
  }
  return kExitOk;
}

}  // namespace

void addFolderCommands(CLI::App& app, CliContext& context) {
  CLI::App* folder = app.add_subcommand("folder", "Rename or delete a folder of feeds");
  folder->require_subcommand(1);

  auto renameArgs = std::make_shared<std::pair<std::string, std::string>>();
  CLI::App* rename = folder->add_subcommand("rename", "Give a folder of feeds a new name");
  rename->add_option("FOLDER", renameArgs->first, "The folder's id (from `lectern folders`) or its name")->required();
  rename->add_option("NAME", renameArgs->second, "The new name")->required();
  context.onCommand(rename, [&context, renameArgs] {
    return renameFolderNamed(context, renameArgs->first, renameArgs->second);
  });

  auto deleteName = std::make_shared<std::string>();
  CLI::App* remove = folder->add_subcommand("delete", "Delete a folder of the built-in reader; its feeds stay, in no folder");
  remove->add_option("FOLDER", *deleteName, "The folder's id (from `lectern folders`) or its name")->required();
  context.onCommand(remove, [&context, deleteName] { return deleteFolderNamed(context, *deleteName); });
}

}  // namespace lectern::cli
