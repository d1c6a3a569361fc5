// Commands for accounts and subscriptions: account add/list/remove/set, subscribe, unsubscribe, move,
// rename.
#include <iostream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "accounts/AccountCommands.h"
#include "accounts/AccountLifecycle.h"
#include "accounts/BuiltInReader.h"
#include "accounts/ServiceFactory.h"
#include "accounts/Subscriptions.h"
#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "core/Strings.h"
#include "feeds/FeedDiscovery.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"

namespace lectern::cli {

using nlohmann::json;

namespace {

// What removing a feed or an account did to its articles, in one sentence.
std::string articlesReport(const KeptArticles& kept) {
  std::string report = fmt::format("{} article{} gone", kept.going, kept.going == 1 ? "" : "s");
  if (kept.kept > 0 && kept.folder) {
    report += fmt::format("; {} starred article{} kept in the folder \"{}\" (lectern list --folder {})", kept.kept,
                          kept.kept == 1 ? "" : "s", kept.folder->title().value_or(""), kept.folder->objectID().row);
  }
  return report + ".";
}

// ---- accounts ----

struct AddOptions {
  std::string service;
  std::string username;
  std::string endpoint;
  std::string title;
  bool passwordStdin = false;
  BrowserSignInOptions signIn;
};

int runAccountAdd(CliContext& cli, const AddOptions& options) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  // Feedly and Pocket sign in through the browser (Feedly also with a token): the account comes
  // from the sign-in.
  const std::string service = trim(options.service);
  if ((service == "feedly" || service == "pocket") && !options.passwordStdin && options.username.empty()) {
    auto signedIn = signInWithBrowser(*library, options.service, options.endpoint, options.signIn);
    if (!signedIn) {
      printError(signedIn.error());
      return kExitFailure;
    }
    return addSignedInAccount(*library, std::move(*signedIn), options.title);
  }
  NewAccount request;
  request.service = options.service;
  if (!options.username.empty()) request.username = options.username;
  if (!options.endpoint.empty()) request.endpoint = options.endpoint;
  if (!options.title.empty()) request.title = options.title;
  if (options.passwordStdin) {
    // One line: the password never appears in the process list or the shell history.
    std::string password;
    std::getline(std::cin, password);
    if (!password.empty() && password.back() == '\r') password.pop_back();
    request.password = password;
  }
  // The service checks the password with its server first: a wrong one leaves no account behind.
  std::optional<Result<std::shared_ptr<Account>>> outcome;
  addAccount(*library->context, request,
             [&outcome](Result<std::shared_ptr<Account>> added) { outcome = std::move(added); });
  library->environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  if (!*outcome) {
    printError(outcome->error());
    return kExitFailure;
  }
  const auto& account = **outcome;
  fmt::print("Added {} ({}).\n", account->title().value_or(options.service), account->uniqueIdentifier());
  return kExitOk;
}

int runAccountList(CliContext& cli, bool asJson) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto accounts = listAccounts(*library->context);
  if (!accounts) {
    printError(accounts.error());
    return kExitFailure;
  }
  if (asJson) {
    json out = json::array();
    for (const auto& a : *accounts) {
      out.push_back({{"id", a.localId},
                     {"account", a.uniqueIdentifier},
                     {"service", a.service},
                     {"title", a.title},
                     {"username", a.username ? json(*a.username) : json(nullptr)},
                     {"last_sync", jsonDate(a.last_sync)},
                     {"sync_error", a.syncError ? json(*a.syncError) : json(nullptr)}});
    }
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  if (accounts->empty()) fmt::print("No accounts yet. Add one with: lectern account add SERVICE\n");
  for (const auto& a : *accounts) {
    fmt::print("{:32}  {:20}  last sync: {}\n", fitColumn(a.uniqueIdentifier, 32), fitColumn(a.title, 20),
               a.last_sync ? shortLocalDate(a.last_sync) : std::string("never"));
  }
  return kExitOk;
}

int runAccountRemove(CliContext& cli, const std::string& name, bool withStarred) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  // No sync runs in this process, so there is nothing to cancel first.
  auto removed = removeAccount(*library->context, name,
                               withStarred ? StarredArticles::kDelete : StarredArticles::kKeep);
  if (!removed) {
    printError(removed.error());
    return kExitFailure;
  }
  fmt::print("Removed {}: {}\n", name, articlesReport(*removed));
  return kExitOk;
}

int runAccountSet(CliContext& cli, const std::string& name, const std::string& key, const std::string& value) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto account = findAccount(*library->context, name);
  if (!account) {
    printError(account.error());
    return kExitFailure;
  }
  auto stored = setAccountPreference(**account, key, value);
  if (!stored) {
    printError(stored.error());
    return kExitFailure;
  }
  fmt::print("{} {} = {}\n", (*account)->uniqueIdentifier(), key, stored->dump());
  return kExitOk;
}

// ---- subscriptions ----

struct SubscribeOptions {
  std::string url;
  std::string folder;
  std::string account;
  int pick = 0;
};

std::optional<std::string> folderOption(const std::string& folder) {
  return folder.empty() ? std::nullopt : std::optional<std::string>(folder);
}

// The account a subscription goes to: the one named, else the built-in reader (made when missing).
Result<std::shared_ptr<Account>> subscribingAccount(Library& library, const std::string& name) {
  if (name.empty()) return ensureLocalRSSAccount(*library.context);
  auto account = findAccount(*library.context, name);
  if (!account) return account;
  if (!serviceObjectOf<FeedService>(**account)) {
    return fail(kLecternErrorDomain, 2, "Failed to add subscription",
                fmt::format("{} is not a feed reader's account.", (*account)->uniqueIdentifier()));
  }
  return account;
}

// Says where the account's feed at `url` is, when it has one (subscribing again never moves it),
// and answers the exit code; nothing when the account has no such feed.
std::optional<int> reportSubscribed(Account& account, const std::string& url, const SubscribeOptions& options) {
  auto feed = subscribedFeedWithURL(account, url);
  if (!checkResult(feed)) return kExitFailure;
  if (!*feed) return std::nullopt;
  auto folders = (*feed)->feedFolders();
  if (!checkResult(folders)) return kExitFailure;
  std::string titles;
  bool inWanted = false;
  for (const auto& folder : *folders) {
    const std::string title = folder->title().value_or("");
    titles += (titles.empty() ? "" : ", ") + title;
    if (title == trim(options.folder)) inWanted = true;
  }
  const std::string where = folders->empty() ? "in no folder" : "in folder " + titles;
  const auto id = (*feed)->objectID().row;
  fmt::print("Already subscribed to {} ({}), {}; its id is {}.\n", (*feed)->title().value_or(url),
             (*feed)->URL().value_or(url), where, id);
  if (!inWanted && !options.folder.empty()) {
    fmt::print("It stays where it is; move it with: lectern move {} --folder '{}'\n", id, options.folder);
  }
  return kExitOk;
}

// Subscribes the account to `url` and waits for the answer.
int subscribeTo(Library& library, const std::string& url, const SubscribeOptions& options) {
  auto account = subscribingAccount(library, options.account);
  if (!account) {
    printError(account.error());
    return kExitFailure;
  }
  if (auto reported = reportSubscribed(**account, url, options)) return *reported;
  const std::string& folder = options.folder;
  std::optional<Result<std::shared_ptr<Feed>>> outcome;
  subscribeAccountToFeed(*library.context, **account, url, folderOption(folder),
                         [&outcome](Result<std::shared_ptr<Feed>> result) { outcome = std::move(result); });
  library.environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  if (!*outcome) {
    printError(outcome->error());
    return kExitFailure;
  }
  const auto& feed = **outcome;
  fmt::print("Subscribed to {} ({}){}; its id is {}.\n", feed->title().value_or(url), feed->URL().value_or(url),
             folder.empty() ? "" : " in " + folder, feed->objectID().row);
  fmt::print("Fetch its articles with: lectern sync\n");
  return kExitOk;
}

int runSubscribe(CliContext& cli, const SubscribeOptions& options) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  if (library->environment->options().offline) {
    printError(Error::make(kLecternErrorDomain, 1, "Cannot subscribe while offline",
                           "Subscribing reads the address once; try again without --offline."));
    return kExitFailure;
  }
  const std::string address = normalizedFeedAddress(options.url);
  // A feed already subscribed needs no download.
  if (auto existing = Account::localRSSAccount(*library->context); options.account.empty() && existing && *existing) {
    if (auto reported = reportSubscribed(**existing, address, options)) return *reported;
  }
  auto candidates = discoverFeeds(library->environment->network(), options.url);
  if (!candidates) {
    // A feed served with an unexpected type ("text/plain", "application/octet-stream") is still a
    // feed: try the address itself before giving up.
    if (candidates.error().domain == "QKFeedLinkParserErrorDomain" && candidates.error().code == 2) {
      return subscribeTo(*library, address, options);
    }
    // A hosted reader fetches and finds feeds itself, from where it stands: let it try.
    if (!options.account.empty()) return subscribeTo(*library, address, options);
    printError(candidates.error());
    return kExitFailure;
  }
  if (options.pick > 0) {
    if (options.pick > static_cast<int>(candidates->size())) {
      printError(Error::make(kLecternErrorDomain, 2, fmt::format("There is no feed {} on this page", options.pick),
                             fmt::format("The page names {} feed(s).", candidates->size())));
      return kExitUsage;
    }
    return subscribeTo(*library, (*candidates)[static_cast<size_t>(options.pick - 1)].URL, options);
  }
  if (candidates->size() == 1) return subscribeTo(*library, candidates->front().URL, options);
  fmt::print("This page names {} feeds:\n", candidates->size());
  for (size_t i = 0; i < candidates->size(); ++i) {
    const auto& candidate = (*candidates)[i];
    fmt::print("  {}. {}  {}\n", i + 1, candidate.title.empty() ? "(untitled)" : candidate.title, candidate.URL);
  }
  fmt::print(stderr, "lectern: several feeds found; choose one with --pick N\n");
  return kExitFailure;
}

int runUnsubscribe(CliContext& cli, std::int64_t feedId, bool withStarred) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  std::optional<Result<KeptArticles>> outcome;
  unsubscribeFromFeed(*library->context, feedId, withStarred ? StarredArticles::kDelete : StarredArticles::kKeep,
                      [&outcome](Result<KeptArticles> kept) { outcome = std::move(kept); });
  library->environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  if (!*outcome) {
    printError(outcome->error());
    return kExitFailure;
  }
  fmt::print("Unsubscribed: {}\n", articlesReport(**outcome));
  return kExitOk;
}

// A feed's id renames the feed; a folder's id (as before there was `folder rename`) the folder.
int runRename(CliContext& cli, std::int64_t id, const std::string& title) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto feed = library->context->existingObject<Feed>(ObjectId{Entity::kFeed, id});
  if (!checkResult(feed)) return kExitFailure;
  const bool isFeed = *feed != nullptr;
  std::optional<std::optional<Error>> outcome;
  auto done = [&outcome](std::optional<Error> error) { outcome = std::move(error); };
  if (isFeed) {
    renameFeed(*library->context, id, title, done);
  } else {
    renameFolder(*library->context, id, title, done);
  }
  library->environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  if (*outcome) {
    printError(**outcome);
    return kExitFailure;
  }
  fmt::print("Renamed {} {} to {}.\n", isFeed ? "feed" : "folder", id, trim(title));
  return kExitOk;
}

struct MoveOptions {
  std::int64_t feedId = 0;
  std::string folder;
  bool noFolder = false;
};

int runMove(CliContext& cli, const MoveOptions& options) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  std::optional<std::optional<Error>> outcome;
  moveFeedToFolder(*library->context, options.feedId, options.noFolder ? std::nullopt : folderOption(options.folder),
                   [&outcome](std::optional<Error> error) { outcome = std::move(error); });
  library->environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  if (*outcome) {
    printError(**outcome);
    return kExitFailure;
  }
  if (options.noFolder) {
    fmt::print("Moved feed {} out of its folders; it is in no folder now.\n", options.feedId);
  } else {
    fmt::print("Moved feed {} into {}.\n", options.feedId, options.folder);
  }
  return kExitOk;
}

}  // namespace

void addAccountCommands(CLI::App& app, CliContext& context) {
  auto* account = app.add_subcommand("account", "Add, list, remove and configure accounts");
  account->require_subcommand(1);

  auto add = std::make_shared<AddOptions>();
  auto* addCommand = account->add_subcommand("add", "Add an account of a service");
  addCommand
      ->add_option("SERVICE", add->service,
                   "localrss, feedbin, feedly, fever, feedwrangler, newsblur, instapaper, pocket or pinboard")
      ->required();
  addCommand->add_option("--username", add->username, "Your name at the service");
  addCommand->add_flag("--password-stdin", add->passwordStdin, "Read the password from the first line of stdin");
  addCommand->add_option("--endpoint", add->endpoint, "The server's address (self-hosted services)");
  addCommand->add_option("--title", add->title, "The account's display title");
  addCommand->add_option("--token", add->signIn.token,
                         "Feedly: sign in with a developer access token instead of the browser");
  addCommand->add_option("--redirect", add->signIn.redirect,
                         "Feedly, Pocket: where the browser comes back to: scheme (lectern://, the default) or loopback "
                         "(127.0.0.1)")
      ->check(CLI::IsMember({"scheme", "loopback"}));
  addCommand->add_option("--client-id", add->signIn.clientId, "Feedly: the client id (kept as feedlyClientId)");
  addCommand->add_option("--client-secret", add->signIn.clientSecret,
                         "Feedly: the client secret (kept as feedlyClientSecret)");
  addCommand->add_option("--timeout", add->signIn.timeoutSeconds, "Feedly, Pocket: seconds to wait for the browser")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  addCommand->add_flag("--no-browser", add->signIn.noBrowser,
                       "Feedly, Pocket: print the sign-in page's address instead of opening a browser");
  context.onCommand(addCommand, [&context, add] { return runAccountAdd(context, *add); });

  auto listJson = std::make_shared<bool>(false);
  auto* list = account->add_subcommand("list", "List accounts");
  list->add_flag("--json", *listJson, "As a JSON array");
  context.onCommand(list, [&context, listJson] { return runAccountList(context, *listJson); });

  auto removeName = std::make_shared<std::string>();
  auto removeWithStarred = std::make_shared<bool>(false);
  auto* remove = account->add_subcommand(
      "remove", "Remove an account with its articles, password and preferences (starred articles are kept)");
  remove->add_option("ACCOUNT", *removeName, "The account's identifier (service:username) or its service name")
      ->required();
  remove->add_flag("--with-starred", *removeWithStarred,
                   "Remove the starred articles too, instead of keeping them in the built-in reader's \"Kept\" folder");
  context.onCommand(remove, [&context, removeName, removeWithStarred] {
    return runAccountRemove(context, *removeName, *removeWithStarred);
  });

  auto setArgs = std::make_shared<std::array<std::string, 3>>();
  auto* set = account->add_subcommand("set", "Change an account preference");
  set->add_option("ACCOUNT", (*setArgs)[0], "The account's identifier or service name")->required();
  set->add_option("KEY", (*setArgs)[1],
                  "autoSyncIntervalIndex (0 manual, 1-4: 5, 10, 30, 60 minutes), syncOnStart, cacheImages, ...")
      ->required();
  set->add_option("VALUE", (*setArgs)[2], "yes/no for flags, a number for indexes")->required();
  context.onCommand(set, [&context, setArgs] {
    return runAccountSet(context, (*setArgs)[0], (*setArgs)[1], (*setArgs)[2]);
  });

  auto subscribe = std::make_shared<SubscribeOptions>();
  auto* subscribeCommand =
      app.add_subcommand("subscribe", "Subscribe to a feed, or to the feed a page names");
  subscribeCommand->add_option("URL", subscribe->url, "A feed or a web page (\"https://\" is added when missing)")
      ->required();
  subscribeCommand->add_option("--folder", subscribe->folder, "Put the feed in this folder (made when missing)");
  subscribeCommand->add_option("--account", subscribe->account,
                               "Subscribe this feed reader's account (its identifier or service name); the "
                               "built-in reader by default");
  subscribeCommand->add_option("--pick", subscribe->pick, "When the page names several feeds, take the Nth")
      ->check(CLI::PositiveNumber);
  context.onCommand(subscribeCommand, [&context, subscribe] { return runSubscribe(context, *subscribe); });

  auto feedId = std::make_shared<std::int64_t>(0);
  auto unsubscribeWithStarred = std::make_shared<bool>(false);
  auto* unsubscribe = app.add_subcommand(
      "unsubscribe", "Unsubscribe from a feed and delete its articles (starred ones are kept)");
  unsubscribe->add_option("FEED_ID", *feedId, "The feed's id (from `lectern feeds`)")->required();
  unsubscribe->add_flag("--with-starred", *unsubscribeWithStarred,
                        "Delete the starred articles too, instead of keeping them in the built-in reader's \"Kept\" "
                        "folder");
  context.onCommand(unsubscribe, [&context, feedId, unsubscribeWithStarred] {
    return runUnsubscribe(context, *feedId, *unsubscribeWithStarred);
  });

  auto move = std::make_shared<MoveOptions>();
  auto* moveCommand = app.add_subcommand("move", "Move a feed into a folder, or to the top level");
  moveCommand->add_option("FEED_ID", move->feedId, "The feed's id (from `lectern feeds`)")->required();
  auto* folderOption = moveCommand->add_option("--folder", move->folder, "The folder (made when missing)");
  auto* noFolder = moveCommand->add_flag("--no-folder", move->noFolder, "Take the feed out of its folders");
  folderOption->excludes(noFolder);
  moveCommand->callback([folderOption, noFolder] {
    if (folderOption->count() == 0 && noFolder->count() == 0) {
      throw CLI::RequiredError("--folder NAME or --no-folder");
    }
  });
  context.onCommand(moveCommand, [&context, move] { return runMove(context, *move); });

  auto renameArgs = std::make_shared<std::pair<std::int64_t, std::string>>();
  auto* rename = app.add_subcommand("rename", "Rename a feed (or a folder of feeds, given a folder's id)");
  rename->add_option("FEED_ID", renameArgs->first, "The feed's id (from `lectern feeds`) or a folder's (`lectern folders`)")
      ->required();
  rename->add_option("TITLE", renameArgs->second, "Its new title")->required();
  context.onCommand(rename,
                    [&context, renameArgs] { return runRename(context, renameArgs->first, renameArgs->second); });
}

}  // namespace lectern::cli
