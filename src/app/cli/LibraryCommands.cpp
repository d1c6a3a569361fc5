// Commands that read and change the library: list, show, mark, delete, queue, feeds, folders, config.
#include <algorithm>
#include <cstdio>
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "core/HtmlStrings.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/OfflineOperation.h"
#include "store/QKDataManager.h"
#include "store/StoreEnvironment.h"
#include "sync/AccountSyncReport.h"

namespace lectern::cli {

using nlohmann::json;

namespace {

// The library's main context, or nothing after printing why it is closed.
ObjectContext* openContext(CliContext& cli) {
  auto library = openLibrary(cli);
  return library ? library->context : nullptr;
}

// ---- list ----

struct ListOptions {
  std::string account;
  std::int64_t folder = 0;
  std::int64_t feed = 0;
  std::int64_t smart = 0;
  bool unread = false;
  bool starred = false;
  // Also the stories a service's training hides (NewsBlur's intelligence).
  bool all = false;
  std::int64_t limit = 50;
  bool json = false;
};

int runList(CliContext& cli, const ListOptions& options) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  BookmarkQuery query;
  query.filter = options.unread ? BookmarkFilter::kUnread : options.starred ? BookmarkFilter::kStarred : BookmarkFilter::kAll;
  if (options.limit > 0) query.limit = options.limit;
  query.includeBlocked = options.all;

  std::vector<std::shared_ptr<Bookmark>> items;
  if (options.smart > 0) {
    auto found = smartFolderItems(cli, *context, options.smart, query);
    if (!checkResult(found)) return kExitFailure;
    items = std::move(*found);
  } else if (options.feed > 0) {
    auto feed = context->existingObject<Feed>(ObjectId{Entity::kFeed, options.feed});
    if (!checkResult(feed)) return kExitFailure;
    if (!*feed) {
      printError(Error::make(kLecternErrorDomain, 1, fmt::format("No feed with id {}", options.feed),
                             "See `lectern feeds` for the ids."));
      return kExitFailure;
    }
    auto stories = (*feed)->stories(query);
    if (!checkResult(stories)) return kExitFailure;
    items.assign(stories->begin(), stories->end());
  } else if (options.folder > 0) {
    auto folder = context->existingObject<Folder>(ObjectId{Entity::kFolder, options.folder});
    if (!checkResult(folder)) return kExitFailure;
    if (!*folder) {
      printError(Error::make(kLecternErrorDomain, 1, fmt::format("No folder with id {}", options.folder),
                             "See `lectern folders` for the ids."));
      return kExitFailure;
    }
    auto bookmarks = (*folder)->bookmarks(query);
    if (!checkResult(bookmarks)) return kExitFailure;
    items = std::move(*bookmarks);
  } else {
    auto accounts = Account::services(*context);
    if (!checkResult(accounts)) return kExitFailure;
    bool matched = options.account.empty();
    for (const auto& account : *accounts) {
      if (!options.account.empty() && account->uniqueIdentifier() != options.account &&
          account->service().value_or("") != options.account) {
        continue;
      }
      matched = true;
      auto bookmarks = account->bookmarks(query);
      if (!checkResult(bookmarks)) return kExitFailure;
      items.insert(items.end(), bookmarks->begin(), bookmarks->end());
    }
    if (!matched) {
      printError(Error::make(kLecternErrorDomain, 1, "No account " + options.account,
                             "See `lectern account list` for the accounts."));
      return kExitFailure;
    }
    // Each account's list is newest first; merge them and keep the limit.
    std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
      return a->date_added().value_or(Date{}) > b->date_added().value_or(Date{});
    });
    if (query.limit && static_cast<std::int64_t>(items.size()) > *query.limit) items.resize(static_cast<size_t>(*query.limit));
  }

  if (options.json) {
    return checkResult(printBookmarksJson(items)) ? kExitOk : kExitFailure;
  }
  for (const auto& item : items) fmt::print("{}\n", bookmarkLine(*item));
  if (items.empty()) fmt::print("Nothing to show.\n");
  return kExitOk;
}

// ---- show ----

int runShow(CliContext& cli, std::int64_t id, bool html, bool asJson) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  auto bookmark = bookmarkById(*context, id);
  if (!checkResult(bookmark)) return kExitFailure;
  if (asJson) {
    auto object = bookmarkJson(**bookmark, /*withContent=*/true);
    if (!checkResult(object)) return kExitFailure;
    fmt::print("{}\n", object->dump(2));
    return kExitOk;
  }
  auto body = (*bookmark)->html();
  if (!checkResult(body)) return kExitFailure;
  if (html) {
    fmt::print("{}\n", body->value_or(""));
    return kExitOk;
  }
  const auto& b = **bookmark;
  fmt::print("{}\n", b.title().value_or("(untitled)"));
  if (auto* story = dynamic_cast<const FeedStory*>(&b)) {
    if (auto feed = story->feed(); feed && *feed) fmt::print("Feed:    {}\n", (*feed)->title().value_or(""));
    if (auto author = story->author(); author && !author->empty()) fmt::print("Author:  {}\n", *author);
  }
  if (auto url = b.url()) fmt::print("Link:    {}\n", *url);
  fmt::print("Date:    {}\n", shortLocalDate(b.date_added()));
  fmt::print("State:   {}{}\n", b.is_archived() ? "read" : "unread", b.is_favorited() ? ", starred" : "");
  fmt::print("\n{}\n", htmlToPlainText(body->value_or("")));
  return kExitOk;
}

// ---- mark and delete ----

enum class Mark { kRead, kUnread, kStar, kUnstar };

// Waits for every completion on the main queue and reports the first error.
int waitForCompletions(CliContext& cli, size_t expected, const std::shared_ptr<std::vector<std::optional<Error>>>& results) {
  auto environment = cli.environment();
  (*environment)->mainQueue().runUntil([&] { return results->size() >= expected; });
  int exit = kExitOk;
  for (const auto& error : *results) {
    if (error) {
      printError(*error);
      exit = kExitFailure;
    }
  }
  return exit;
}

int runMark(CliContext& cli, Mark mark, const std::vector<std::int64_t>& ids) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  // Read and unread go to each account's service in one call, as a sync would.
  std::map<std::int64_t, std::pair<std::shared_ptr<Account>, std::vector<std::shared_ptr<Bookmark>>>> byAccount;
  for (auto id : ids) {
    auto bookmark = bookmarkById(*context, id);
    if (!checkResult(bookmark)) return kExitFailure;
    auto account = (*bookmark)->account();
    if (!checkResult(account)) return kExitFailure;
    auto& entry = byAccount[(*account)->objectID().row];
    entry.first = *account;
    entry.second.push_back(*bookmark);
  }
  auto results = std::make_shared<std::vector<std::optional<Error>>>();
  auto collect = [results](std::optional<Error> error) { results->push_back(std::move(error)); };
  size_t expected = 0;
  for (auto& [row, entry] : byAccount) {
    auto& [account, bookmarks] = entry;
    if (mark == Mark::kRead || mark == Mark::kUnread) {
      ++expected;
      Bookmark::markBookmarks(bookmarks, *account, /*archived=*/mark == Mark::kRead, collect);
    } else {
      for (auto& bookmark : bookmarks) {
        ++expected;
        Bookmark::markBookmark(*bookmark, Bookmark::Favorited{mark == Mark::kStar}, collect);
      }
    }
  }
  const int exit = waitForCompletions(cli, expected, results);
  if (exit == kExitOk && !(*cli.environment())->reachability().isReachable()) {
    fmt::print("Offline: the change is queued for the next sync.\n");
  }
  return exit;
}

int runDelete(CliContext& cli, const std::vector<std::int64_t>& ids) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  auto results = std::make_shared<std::vector<std::optional<Error>>>();
  size_t expected = 0;
  for (auto id : ids) {
    auto bookmark = bookmarkById(*context, id);
    if (!checkResult(bookmark)) return kExitFailure;
    auto account = (*bookmark)->account();
    if (!checkResult(account)) return kExitFailure;
    const auto bookmarkId = (*bookmark)->bookmark_id();
    if (!bookmarkId) {
      printError(Error::make(kLecternErrorDomain, 1, fmt::format("Article {} has no identifier", id)));
      return kExitFailure;
    }
    ++expected;
    Bookmark::deleteBookmarkWithId(*bookmarkId, **account,
                                   [results](std::optional<Error> error) { results->push_back(std::move(error)); });
  }
  const int exit = waitForCompletions(cli, expected, results);
  if (exit == kExitOk && !(*cli.environment())->reachability().isReachable()) {
    fmt::print("Offline: the deletion is queued for the next sync.\n");
  }
  return exit;
}

// ---- queue ----

int runQueue(CliContext& cli, bool asJson) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  auto accounts = Account::services(*context);
  if (!checkResult(accounts)) return kExitFailure;
  json out = json::array();
  for (const auto& account : *accounts) {
    // The order the next sync replays them in.
    for (auto type : {OfflineOperationType::kMarkRead, OfflineOperationType::kMarkUnread, OfflineOperationType::kStar,
                      OfflineOperationType::kUnstar, OfflineOperationType::kDelete}) {
      auto operations = account->offlineOperationsWithType(type);
      if (!checkResult(operations)) return kExitFailure;
      std::sort(operations->begin(), operations->end(), [](const auto& a, const auto& b) {
        return a->created_at().value_or(Date{}) < b->created_at().value_or(Date{});
      });
      for (const auto& operation : *operations) out.push_back(offlineOperationJson(*operation, *account));
    }
  }
  if (asJson) {
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  if (out.empty()) fmt::print("No changes are waiting for a sync.\n");
  for (const auto& op : out) {
    fmt::print("{:8}  {:16}  {:24}  {}\n", op["operation"].get<std::string>(),
               op["created_at"].is_null() ? "" : op["created_at"].get<std::string>().substr(0, 16),
               fitColumn(op["account"].get<std::string>(), 24),
               op["bookmark_id"].is_null() ? "" : op["bookmark_id"].get<std::string>());
  }
  return kExitOk;
}

// ---- feeds and folders ----

int runFeeds(CliContext& cli, bool asJson) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  auto accounts = Account::services(*context);
  if (!checkResult(accounts)) return kExitFailure;
  json out = json::array();
  for (const auto& account : *accounts) {
    auto feeds = account->feedsInSyncOrder();
    if (!checkResult(feeds)) return kExitFailure;
    for (const auto& feed : *feeds) {
      auto object = feedJson(*feed);
      if (!checkResult(object)) return kExitFailure;
      (*object)["older_not_kept"] = feed->older_not_kept();
      out.push_back(std::move(*object));
    }
  }
  if (asJson) {
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  if (out.empty()) fmt::print("No feeds yet. Subscribe with: lectern subscribe URL\n");
  for (const auto& feed : out) {
    std::string health;
    if (!feed["failing_since"].is_null()) {
      health = fmt::format("failing since {}: {}", feed["failing_since"].get<std::string>().substr(0, 16),
                           feed["last_error"].is_null() ? "" : feed["last_error"].get<std::string>());
    } else if (!feed["last_refresh"].is_null()) {
      health = "refreshed " + feed["last_refresh"].get<std::string>().substr(0, 16);
    } else {
      health = "never refreshed";
    }
    fmt::print("{:>5}  {:5}  {:28}  {:16}  {}\n", feed["id"].get<std::int64_t>(), feed["unread"].get<std::int64_t>(),
               fitColumn(feed["title"].is_null() ? "" : feed["title"].get<std::string>(), 28),
               fitColumn(feed["folder"].is_null() ? "" : feed["folder"].get<std::string>(), 16), health);
    if (const auto notKept = feed["older_not_kept"].get<std::int64_t>(); notKept > 0) {
      const std::int64_t keepDays = Feed::keepPeriodDays(context->environment().defaults());
      fmt::print("{:>5}  {}\n", "", olderEntriesNotKeptNote(notKept, keepDays));
    }
  }
  return kExitOk;
}

int runFolders(CliContext& cli, bool asJson) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  auto accounts = Account::services(*context);
  if (!checkResult(accounts)) return kExitFailure;
  auto smart = Account::smartFoldersAccount(*context);
  if (!checkResult(smart)) return kExitFailure;
  if (*smart) accounts->push_back(*smart);
  json out = json::array();
  for (const auto& account : *accounts) {
    auto folders = account->sortedFolders();
    if (!checkResult(folders)) return kExitFailure;
    for (const auto& folder : *folders) {
      if (folder->folderTypeIdentifier() == "Feed") continue;  // feeds have their own command
      auto object = folderJson(*folder);
      if (!checkResult(object)) return kExitFailure;
      out.push_back(std::move(*object));
    }
  }
  if (asJson) {
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  for (const auto& folder : out) {
    fmt::print("{:>5}  {:5}  {:24}  {:12}  {}\n", folder["id"].get<std::int64_t>(),
               folder["unread"].get<std::int64_t>(),
               fitColumn(folder["title"].is_null() ? "" : folder["title"].get<std::string>(), 24),
               folder["kind"].get<std::string>(), folder["account"].is_null() ? "" : folder["account"].get<std::string>());
  }
  return kExitOk;
}

// ---- config ----

int runConfigGet(CliContext& cli, const std::string& key) {
  auto environment = cli.environment();
  if (!checkResult(environment)) return kExitFailure;
  const json value = (*environment)->defaults().objectForKey(key);
  if (value.is_null()) {
    printError(Error::make(kLecternErrorDomain, 1, "No preference " + key));
    return kExitFailure;
  }
  fmt::print("{}\n", value.is_string() ? value.get<std::string>() : value.dump(2));
  return kExitOk;
}

int runConfigSet(CliContext& cli, const std::string& key, const std::string& text) {
  auto environment = cli.environment();
  if (!checkResult(environment)) return kExitFailure;
  // Numbers, booleans and JSON objects are stored as such; anything else as text.
  json value = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded() || value.is_null()) value = text;
  if (!checkResult((*environment)->defaults().setObject(key, std::move(value)))) return kExitFailure;
  return kExitOk;
}

}  // namespace

Result<std::shared_ptr<Bookmark>> bookmarkById(ObjectContext& context, std::int64_t id) {
  auto bookmark = Bookmark::bookmarkWithLocalId(context, id);
  if (!bookmark) return fail(bookmark.error());
  if (!*bookmark) {
    return fail(kLecternErrorDomain, 1, fmt::format("No article with id {}", id), "See `lectern list` for the ids.");
  }
  return *bookmark;
}

void addLibraryCommands(CLI::App& app, CliContext& context) {
  auto options = std::make_shared<ListOptions>();
  auto* list = app.add_subcommand("list", "List articles, newest first");
  list->add_option("--account", options->account, "Only this account (its identifier or service name)");
  list->add_option("--folder", options->folder, "Only this folder (an id from `lectern folders`)");
  list->add_option("--feed", options->feed, "Only this feed (an id from `lectern feeds`)");
  list->add_option("--smart", options->smart, "Only this smart folder (an id from `lectern smart list`)");
  auto* unread = list->add_flag("--unread", options->unread, "Only unread articles");
  list->add_flag("--starred", options->starred, "Only starred articles")->excludes(unread);
  list->add_option("--limit", options->limit, "At most N articles (0: all)")->capture_default_str();
  list->add_flag("--all", options->all, "Also articles hidden by a service's training (NewsBlur intelligence)");
  list->add_flag("--json", options->json, "One JSON array of articles");
  context.onCommand(list, [&context, options] { return runList(context, *options); });

  auto showId = std::make_shared<std::int64_t>(0);
  auto showHtml = std::make_shared<bool>(false);
  auto showJson = std::make_shared<bool>(false);
  auto* show = app.add_subcommand("show", "Show one article as text");
  show->add_option("ID", *showId, "The article's id (from `lectern list`)")->required();
  show->add_flag("--html", *showHtml, "Print the stored HTML instead of text");
  show->add_flag("--json", *showJson, "The article with its content as JSON");
  context.onCommand(show, [&context, showId, showHtml, showJson] {
    return runShow(context, *showId, *showHtml, *showJson);
  });

  auto markWhat = std::make_shared<std::string>();
  auto markIds = std::make_shared<std::vector<std::int64_t>>();
  auto* mark = app.add_subcommand("mark", "Mark articles read, unread, starred or unstarred");
  mark->add_option("STATE", *markWhat,
                   "read, unread, star or unstar (for a read-later account, read archives and unread unarchives)")
      ->required()
      ->check(CLI::IsMember({"read", "unread", "star", "unstar"}));
  mark->add_option("ID", *markIds, "Article ids (from `lectern list`)")->required();
  context.onCommand(mark, [&context, markWhat, markIds] {
    const Mark how = *markWhat == "read"     ? Mark::kRead
                     : *markWhat == "unread" ? Mark::kUnread
                     : *markWhat == "star"   ? Mark::kStar
                                             : Mark::kUnstar;
    return runMark(context, how, *markIds);
  });

  auto deleteIds = std::make_shared<std::vector<std::int64_t>>();
  auto* remove = app.add_subcommand("delete", "Delete articles (at their service too)");
  remove->add_option("ID", *deleteIds, "Article ids (from `lectern list`)")->required();
  context.onCommand(remove, [&context, deleteIds] { return runDelete(context, *deleteIds); });

  auto queueJson = std::make_shared<bool>(false);
  auto* queue = app.add_subcommand("queue", "Show the changes made offline that wait for the next sync");
  queue->add_flag("--json", *queueJson, "As a JSON array");
  context.onCommand(queue, [&context, queueJson] { return runQueue(context, *queueJson); });

  auto feedsJson = std::make_shared<bool>(false);
  auto* feeds = app.add_subcommand("feeds", "List subscribed feeds with their unread counts and health");
  feeds->add_flag("--json", *feedsJson, "As a JSON array");
  context.onCommand(feeds, [&context, feedsJson] { return runFeeds(context, *feedsJson); });

  auto foldersJson = std::make_shared<bool>(false);
  auto* folders = app.add_subcommand("folders", "List folders with their unread counts");
  folders->add_flag("--json", *foldersJson, "As a JSON array");
  context.onCommand(folders, [&context, foldersJson] { return runFolders(context, *foldersJson); });

  auto* config = app.add_subcommand("config", "Read or change preferences");
  config->require_subcommand(1);
  auto getKey = std::make_shared<std::string>();
  auto* get = config->add_subcommand("get", "Print a preference");
  get->add_option("KEY", *getKey, "e.g. DaysKeepFeedReadItemsIndex")->required();
  context.onCommand(get, [&context, getKey] { return runConfigGet(context, *getKey); });
  auto setKey = std::make_shared<std::string>();
  auto setValue = std::make_shared<std::string>();
  auto* set = config->add_subcommand("set", "Change a preference (numbers and true/false are stored as such)");
  set->add_option("KEY", *setKey, "e.g. DaysKeepFeedReadItemsIndex")->required();
  set->add_option("VALUE", *setValue, "The new value")->required();
  context.onCommand(set, [&context, setKey, setValue] { return runConfigSet(context, *setKey, *setValue); });
}

}  // namespace lectern::cli
