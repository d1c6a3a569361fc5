// Commands that read and change the library: list, mark, delete, queue, feeds, folders, config.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "core/Dates.h"
#include "core/HtmlStrings.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ListCounts.h"
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
  query.includeBlocked = options.all;
  // One page is fetched and the rest only counted, so that a large library lists as fast as a
  // small one and the list can still say how much it leaves out.
  if (options.limit > 0) query.limit = options.limit;

  std::vector<std::shared_ptr<Bookmark>> items;
  std::int64_t total = 0;  // every item that matches, the page's and the rest
  if (options.smart > 0) {
    auto found = smartFolderItems(cli, *context, options.smart, query);
    if (!checkResult(found)) return kExitFailure;
    items = std::move(*found);
    auto counted = smartFolderItemCount(cli, *context, options.smart, query);
    if (!checkResult(counted)) return kExitFailure;
    total = *counted;
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
    auto counted = countStories(**feed, query);
    if (!checkResult(counted)) return kExitFailure;
    total = *counted;
  } else if (options.folder > 0) {
    auto folder = context->existingObject<Folder>(ObjectId{Entity::kFolder, options.folder});
    if (!checkResult(folder)) return kExitFailure;
    if (!*folder) {
      printError(Error::make(kLecternErrorDomain, 1, fmt::format("No folder with id {}", options.folder),
                             "See `lectern folders` for the ids."));
      return kExitFailure;
    }
    auto bookmarks = (*folder)->readerItems(query);
    if (!checkResult(bookmarks)) return kExitFailure;
    items = std::move(*bookmarks);
    auto counted = countReaderItems(**folder, query);
    if (!checkResult(counted)) return kExitFailure;
    total = *counted;
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
      auto counted = countBookmarks(*account, query);
      if (!checkResult(counted)) return kExitFailure;
      total += *counted;
    }
    if (!matched) {
      printError(Error::make(kLecternErrorDomain, 1, "No account " + options.account,
                             "See `lectern account list` for the accounts."));
      return kExitFailure;
    }
    // Each account's page is newest first and holds whatever of it the merged page needs; merge
    // them and keep the limit.
    std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
      return a->date_added().value_or(Date{}) > b->date_added().value_or(Date{});
    });
    if (query.limit && static_cast<std::int64_t>(items.size()) > *query.limit) items.resize(static_cast<size_t>(*query.limit));
  }

  if (options.json) {
    return checkResult(printBookmarksJson(items)) ? kExitOk : kExitFailure;
  }
  if (items.empty()) {
    fmt::print("Nothing to show.\n");
    return kExitOk;
  }
  fmt::print("{}\n", bookmarkHeader());
  for (const auto& item : items) fmt::print("{}\n", bookmarkLine(*item));
  if (static_cast<std::int64_t>(items.size()) < total) {
    fmt::print("{} of {} (--limit 0 shows all)\n", items.size(), total);
  }
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

// Which articles `mark read|unread` changes when it is given no ids.
struct MarkSelection {
  std::int64_t feed = 0;
  std::int64_t folder = 0;
  bool all = false;
  std::optional<std::int64_t> olderThanDays;
  bool any() const { return feed > 0 || folder > 0 || all; }
};

// The articles `selection` names, before the read filter.
Result<std::vector<std::shared_ptr<Bookmark>>> selectedBookmarks(ObjectContext& context, const MarkSelection& selection) {
  std::vector<std::shared_ptr<Bookmark>> out;
  if (selection.feed > 0) {
    auto feed = context.existingObject<Feed>(ObjectId{Entity::kFeed, selection.feed});
    if (!feed) return fail(feed.error());
    if (!*feed) {
      return fail(kLecternErrorDomain, 1, fmt::format("No feed with id {}", selection.feed),
                  "See `lectern feeds` for the ids.");
    }
    auto stories = (*feed)->stories();
    if (!stories) return fail(stories.error());
    out.assign(stories->begin(), stories->end());
  } else if (selection.folder > 0) {
    auto folder = context.existingObject<Folder>(ObjectId{Entity::kFolder, selection.folder});
    if (!folder) return fail(folder.error());
    if (!*folder) {
      return fail(kLecternErrorDomain, 1, fmt::format("No folder with id {}", selection.folder),
                  "See `lectern folders` for the ids.");
    }
    auto bookmarks = (*folder)->readerItems();
    if (!bookmarks) return fail(bookmarks.error());
    out = std::move(*bookmarks);
  } else {
    auto accounts = Account::services(context);
    if (!accounts) return fail(accounts.error());
    for (const auto& account : *accounts) {
      auto bookmarks = account->bookmarks();
      if (!bookmarks) return fail(bookmarks.error());
      out.insert(out.end(), bookmarks->begin(), bookmarks->end());
    }
  }
  return out;
}

int runMark(CliContext& cli, Mark mark, const std::vector<std::int64_t>& ids, const MarkSelection& selection) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  std::vector<std::shared_ptr<Bookmark>> targets;
  if (selection.any()) {
    auto selected = selectedBookmarks(*context, selection);
    if (!checkResult(selected)) return kExitFailure;
    const bool toRead = mark == Mark::kRead;
    const std::optional<Date> before =
        selection.olderThanDays
            ? std::optional<Date>((*cli.environment())->clock().now() - std::chrono::days(*selection.olderThanDays))
            : std::nullopt;
    for (auto& bookmark : *selected) {
      if (bookmark->is_archived() == toRead) continue;  // already as asked: no call, no queued change
      if (before && bookmark->date_added().value_or(Date::max()) >= *before) continue;
      targets.push_back(std::move(bookmark));
    }
    if (targets.empty()) {
      fmt::print("No {} articles to mark.\n", toRead ? "unread" : "read");
      return kExitOk;
    }
  } else {
    for (auto id : ids) {
      auto bookmark = bookmarkById(*context, id);
      if (!checkResult(bookmark)) return kExitFailure;
      targets.push_back(std::move(*bookmark));
    }
  }
  // Read and unread go to each account's service in one call, as a sync would.
  std::map<std::int64_t, std::pair<std::shared_ptr<Account>, std::vector<std::shared_ptr<Bookmark>>>> byAccount;
  for (const auto& bookmark : targets) {
    auto account = bookmark->account();
    if (!checkResult(account)) return kExitFailure;
    auto& entry = byAccount[(*account)->objectID().row];
    entry.first = *account;
    entry.second.push_back(bookmark);
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
  if (exit == kExitOk && selection.any()) {
    fmt::print("Marked {} article{} {}.\n", targets.size(), targets.size() == 1 ? "" : "s",
               mark == Mark::kRead ? "read" : "unread");
  }
  if (exit == kExitOk && !(*cli.environment())->reachability().isReachable()) {
    fmt::print("Offline: the change is queued for the next sync.\n");
  }
  return exit;
}

int runDelete(CliContext& cli, const std::vector<std::int64_t>& ids) {
  ObjectContext* context = openContext(cli);
  if (!context) return kExitFailure;
  // Every id is checked before anything is deleted: a typo in the last id must not cost the first.
  std::vector<std::pair<std::string, std::shared_ptr<Account>>> targets;
  for (auto id : ids) {
    auto bookmark = bookmarkById(*context, id);
    if (!checkResult(bookmark)) return kExitFailure;
    auto account = (*bookmark)->account();
    if (!checkResult(account)) return kExitFailure;
    const auto bookmarkId = (*bookmark)->bookmark_id();
    if (!bookmarkId || !*account) {
      printError(Error::make(kLecternErrorDomain, 1, fmt::format("Article {} has no identifier", id)));
      return kExitFailure;
    }
    targets.emplace_back(*bookmarkId, *account);
  }
  auto results = std::make_shared<std::vector<std::optional<Error>>>();
  size_t expected = 0;
  for (const auto& [bookmarkId, account] : targets) {
    ++expected;
    Bookmark::deleteBookmarkWithId(bookmarkId, *account,
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
  std::map<std::int64_t, std::optional<Date>> queuedDates;
  for (const auto& account : *accounts) {
    // The order the next sync replays them in.
    for (auto type : {OfflineOperationType::kMarkRead, OfflineOperationType::kMarkUnread, OfflineOperationType::kStar,
                      OfflineOperationType::kUnstar, OfflineOperationType::kDelete}) {
      auto operations = account->offlineOperationsWithType(type);
      if (!checkResult(operations)) return kExitFailure;
      std::sort(operations->begin(), operations->end(), [](const auto& a, const auto& b) {
        return a->created_at().value_or(Date{}) < b->created_at().value_or(Date{});
      });
      for (const auto& operation : *operations) {
        out.push_back(offlineOperationJson(*operation, *account));
        queuedDates[operation->objectID().row] = operation->created_at();
      }
    }
  }
  if (asJson) {
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  if (out.empty()) {
    fmt::print("No changes are waiting for a sync.\n");
    return kExitOk;
  }
  const size_t accountWidth = std::clamp<size_t>(terminalColumns() / 4, 12, 32);
  const size_t idWidth = std::max<size_t>(terminalColumns(), 80) - accountWidth - 8 - 10 - 6;
  fmt::print("{:8}  {:10}  {:{}}  {}\n", "CHANGE", "QUEUED", "ACCOUNT", accountWidth, "ARTICLE");
  for (const auto& op : out) {
    const auto& operation = op["operation"].get<std::string>();
    const auto& queued = queuedDates.at(op["id"].get<std::int64_t>());
    fmt::print("{:8}  {:10}  {:{}}  {}\n", operation, relativeDate(queued),
               fitColumn(op["account"].get<std::string>(), accountWidth), accountWidth,
               fitColumn(op["bookmark_id"].is_null() ? "" : op["bookmark_id"].get<std::string>(), idWidth));
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
  if (out.empty()) {
    fmt::print("No feeds yet. Subscribe with: lectern subscribe URL\n");
    return kExitOk;
  }
  // Id, unread count, title, folder, health: the title and the health share what the terminal has.
  const size_t rest = std::max<size_t>(terminalColumns(), 80) - 5 - 6 - 16 - 8;
  const size_t titleWidth = std::clamp<size_t>(rest * 2 / 5, 16, 48);
  const size_t healthWidth = rest - titleWidth;
  fmt::print("{:>5}  {:>6}  {:{}}  {:16}  {}\n", "ID", "UNREAD", "TITLE", titleWidth, "FOLDER", "STATUS");
  for (const auto& feed : out) {
    const auto date = [&](const char* key) {
      return relativeDate(feed[key].is_null() ? std::nullopt : dateFromISO8601String(feed[key].get<std::string>()));
    };
    std::string health;
    if (!feed["failing_since"].is_null()) {
      health = fmt::format("failing since {}: {}", date("failing_since"),
                           feed["last_error"].is_null() ? "" : feed["last_error"].get<std::string>());
    } else if (!feed["last_refresh"].is_null()) {
      health = "refreshed " + date("last_refresh");
    } else {
      health = "never refreshed";
    }
    fmt::print("{:>5}  {:>6}  {:{}}  {:16}  {}\n", feed["id"].get<std::int64_t>(), feed["unread"].get<std::int64_t>(),
               fitColumn(feed["title"].is_null() ? "" : feed["title"].get<std::string>(), titleWidth), titleWidth,
               fitColumn(feed["folder"].is_null() ? "" : feed["folder"].get<std::string>(), 16),
               fitColumn(health, healthWidth));
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
  const KnownDefault* known = knownDefault(key);
  if (!known) {
    fmt::print(stderr, "lectern: No preference {}\nSee `lectern config list` for the preferences.\n", key);
    return kExitUsage;
  }
  auto value = parseDefaultValue(*known, text);
  if (!value) {
    printError(value.error());
    return kExitUsage;
  }
  auto environment = cli.environment();
  if (!checkResult(environment)) return kExitFailure;
  if (!checkResult((*environment)->defaults().setObject(key, std::move(*value)))) return kExitFailure;
  return kExitOk;
}

// The value as one short line: text as it is, a dictionary by its size.
std::string configValueText(const json& value) {
  if (value.is_null()) return "(unset)";
  if (value.is_string()) return value.get<std::string>();
  if (value.is_object()) return fmt::format("{} entr{}", value.size(), value.size() == 1 ? "y" : "ies");
  return value.dump();
}

int runConfigList(CliContext& cli, bool asJson) {
  auto environment = cli.environment();
  if (!checkResult(environment)) return kExitFailure;
  const UserDefaults& defaults = (*environment)->defaults();
  json out = json::array();
  for (const auto& known : knownDefaults()) {
    json value = defaults.objectForKey(known.key);
    // An application's secret is shown only when asked for by name (`config get`): a listing
    // ends up on screens and in pasted bug reports.
    if (std::string_view(known.key).ends_with("Secret") && value.is_string() && !value.get<std::string>().empty())
      value = "(hidden)";
    json choices = nullptr;
    if (known.kind == DefaultKind::kIndex) {
      choices = json::array();
      for (const auto& choice : known.choices) choices.push_back({{"value", choice.value}, {"meaning", choice.meaning}});
    }
    const std::string_view valueMeaning = defaultValueMeaning(known, value);
    out.push_back({{"key", known.key},
                   {"value", value},
                   {"is_set", defaults.hasStoredValue(known.key)},
                   {"meaning", known.meaning},
                   {"value_meaning", valueMeaning.empty() ? json(nullptr) : json(valueMeaning)},
                   {"choices", choices}});
  }
  if (asJson) {
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  // Key and value in columns as wide as their longest entry; the meaning beside them when the
  // terminal has room, else indented on the next line.
  std::vector<std::pair<std::string, std::string>> rows;
  size_t keyWidth = 3;
  size_t valueWidth = 5;
  size_t meaningWidth = 0;
  for (const auto& entry : out) {
    std::string value = configValueText(entry["value"]);
    if (!entry["value_meaning"].is_null()) value += " (" + entry["value_meaning"].get<std::string>() + ")";
    if (!entry["is_set"].get<bool>() && !entry["value"].is_null()) value += " *";
    value = fitColumn(value, 32);
    keyWidth = std::max(keyWidth, displayColumns(entry["key"].get<std::string>()));
    valueWidth = std::max(valueWidth, displayColumns(value));
    meaningWidth = std::max(meaningWidth, displayColumns(entry["meaning"].get<std::string>()));
    rows.emplace_back(entry["key"].get<std::string>(), std::move(value));
  }
  const size_t width = terminalColumns();
  const bool beside = keyWidth + valueWidth + meaningWidth + 4 <= width;
  fmt::print("{:{}}  {:{}}{}\n", "KEY", keyWidth, "VALUE", valueWidth, beside ? "  MEANING" : "");
  for (size_t i = 0; i < rows.size(); ++i) {
    const std::string meaning = out[i]["meaning"].get<std::string>();
    if (beside) {
      fmt::print("{:{}}  {:{}}  {}\n", rows[i].first, keyWidth, rows[i].second, valueWidth, meaning);
    } else {
      fmt::print("{:{}}  {}\n    {}\n", rows[i].first, keyWidth, rows[i].second, fitColumn(meaning, width - 4));
    }
  }
  fmt::print("\n* the default. Change one with: lectern config set KEY VALUE\n");
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

  auto markWhat = std::make_shared<std::string>();
  auto markIds = std::make_shared<std::vector<std::int64_t>>();
  auto* mark = app.add_subcommand("mark", "Mark articles read, unread, starred or unstarred");
  mark->add_option("STATE", *markWhat,
                   "read, unread, star or unstar (for a read-later account, read archives and unread unarchives)")
      ->required()
      ->check(CLI::IsMember({"read", "unread", "star", "unstar"}));
  auto markSelection = std::make_shared<MarkSelection>();
  auto* markIdOption = mark->add_option("ID", *markIds, "Article ids (from `lectern list`)");
  auto* markFeed = mark->add_option("--feed", markSelection->feed, "Every article of this feed");
  auto* markFolder = mark->add_option("--folder", markSelection->folder, "Every article of this folder");
  auto* markAll = mark->add_flag("--all", markSelection->all, "Every article of every account");
  markIdOption->excludes(markFeed)->excludes(markFolder)->excludes(markAll);
  markFeed->excludes(markFolder)->excludes(markAll);
  markFolder->excludes(markAll);
  auto* olderThan = mark->add_option("--older-than", markSelection->olderThanDays,
                                     "With --feed, --folder or --all: only articles added more than DAYS days ago");
  olderThan->type_name("DAYS")->check(CLI::NonNegativeNumber);
  context.onCommand(mark, [&context, markWhat, markIds, markSelection] {
    const Mark how = *markWhat == "read"     ? Mark::kRead
                     : *markWhat == "unread" ? Mark::kUnread
                     : *markWhat == "star"   ? Mark::kStar
                                             : Mark::kUnstar;
    const auto usage = [](std::string_view message) {
      fmt::print(stderr, "lectern mark: {}\n", message);
      return kExitUsage;
    };
    if (markSelection->any() && how != Mark::kRead && how != Mark::kUnread) {
      return usage("--feed, --folder and --all mark read or unread; star articles by id.");
    }
    if (markSelection->olderThanDays && !markSelection->any()) {
      return usage("--older-than needs --feed, --folder or --all.");
    }
    if (!markSelection->any() && markIds->empty()) return usage("give article ids, or --feed, --folder or --all.");
    return runMark(context, how, *markIds, *markSelection);
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
  auto* set = config->add_subcommand("set", "Change a preference (see `lectern config list` for the keys and their values)");
  set->add_option("KEY", *setKey, "e.g. DaysKeepFeedReadItemsIndex")->required();
  set->add_option("VALUE", *setValue, "The new value")->required();
  context.onCommand(set, [&context, setKey, setValue] { return runConfigSet(context, *setKey, *setValue); });
  auto listJson = std::make_shared<bool>(false);
  auto* configList = config->add_subcommand("list", "Show every preference with its value and what it means");
  configList->add_flag("--json", *listJson, "As a JSON array");
  context.onCommand(configList, [&context, listJson] { return runConfigList(context, *listJson); });
}

}  // namespace lectern::cli
