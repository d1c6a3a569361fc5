// Commands of the search language and smart folders: search, smart list/show/add/edit/remove.
#include <algorithm>
#include <cstdio>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "accounts/AccountLifecycle.h"
#include "core/Log.h"
#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "smart/QKSmartStreamExpression.h"
#include "smart/RowTemplates.h"
#include "smart/TextMatching.h"
#include "smart/library/QKSmartFolderContents.h"
#include "smart/library/SmartFolderLibrary.h"
#include "smart/library/SmartFolderQuery.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/SmartFolder.h"

namespace lectern::cli {

using nlohmann::json;

namespace {

// A sync stores stories without indexing them for search, and a one-shot `sync` leaves them to
// whoever searches next: they are indexed here, with progress on a terminal. Searches stay
// complete without it (stories awaiting the index are compared one by one), only slower.
void indexStoriesAwaitingSearch(ObjectContext& context) {
  constexpr std::int64_t kBatch = 1000;
  auto awaiting = context.storiesAwaitingSearchIndex();
  if (!awaiting || *awaiting == 0) return;
  const bool progress = isatty(STDOUT_FILENO) != 0 && *awaiting > kBatch;
  std::int64_t done = 0;
  for (;;) {
    auto indexed = context.indexStoriesAwaitingSearch(kBatch);
    if (!indexed) {
      logError("SmartCommands", "Failed to index new stories for search: {}", indexed.error().message());
      break;
    }
    done += *indexed;
    if (progress) fmt::print(stderr, "\rIndexing new stories for search: {} of {}", done, *awaiting);
    if (*indexed < kBatch) break;
  }
  if (progress) fmt::print(stderr, "\n");
}

constexpr std::string_view kHighlightOn = "\x1b[1;33m";
constexpr std::string_view kHighlightOff = "\x1b[0m";

int usageError(const Error& error) {
  printError(error);
  return kExitUsage;
}

// `text` with every match of `terms` wrapped in the terminal's highlight.
std::string highlighted(std::string_view text, const std::vector<std::string>& terms) {
  std::string out;
  size_t at = 0;
  for (const auto& range : findMatches(text, terms)) {
    out += text.substr(at, range.begin - at);
    out += kHighlightOn;
    out += text.substr(range.begin, range.end - range.begin);
    out += kHighlightOff;
    at = range.end;
  }
  out += text.substr(at);
  return out;
}

// Back to the start of the UTF-8 character that holds byte `at`.
size_t characterStart(std::string_view text, size_t at) {
  while (at > 0 && at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) --at;
  return at;
}

// About 80 bytes of `text` around the first match, with "…" where it was cut.
std::optional<std::string> snippet(std::string_view text, const std::vector<std::string>& terms) {
  const auto matches = findMatches(text, terms);
  if (matches.empty()) return std::nullopt;
  const size_t begin = characterStart(text, matches.front().begin > 30 ? matches.front().begin - 30 : 0);
  const size_t end = characterStart(text, std::min(text.size(), begin + 80));
  std::string out = begin > 0 ? "…" : "";
  out += text.substr(begin, end - begin);
  if (end < text.size()) out += "…";
  std::replace(out.begin(), out.end(), '\n', ' ');
  return out;
}

Result<std::shared_ptr<SmartFolder>> smartFolderById(ObjectContext& context, std::int64_t id) {
  auto folder = context.existingObject<SmartFolder>(ObjectId{Entity::kSmartFolder, id});
  if (!folder) return fail(folder.error());
  if (!*folder) {
    return fail(kLecternErrorDomain, 1, fmt::format("No smart folder with id {}", id),
                "See `lectern smart list` for the ids.");
  }
  return *folder;
}

// The accounts an --account option names (identifier or service name); every account when empty.
Result<std::vector<ObjectId>> accountsNamed(ObjectContext& context, const std::string& name) {
  std::vector<ObjectId> ids;
  if (name.empty()) return ids;
  auto accounts = Account::services(context);
  if (!accounts) return fail(accounts.error());
  for (const auto& account : *accounts) {
    if (account->uniqueIdentifier() == name || account->service().value_or("") == name) {
      ids.push_back(account->objectID());
    }
  }
  if (ids.empty()) {
    return fail(kLecternErrorDomain, 1, "No account " + name, "See `lectern account list` for the accounts.");
  }
  return ids;
}

int printBookmarks(std::vector<std::shared_ptr<Bookmark>>& items, bool asJson, const std::vector<std::string>& terms) {
  if (asJson) {
    return checkResult(printBookmarksJson(items)) ? kExitOk : kExitFailure;
  }
  const bool terminal = stdoutIsTerminal();
  for (const auto& item : items) {
    const std::string line = bookmarkLine(*item);
    fmt::print("{}\n", terminal && !terms.empty() ? highlighted(line, terms) : line);
    if (terms.empty() || !findMatches(item->title().value_or(""), terms).empty()) continue;
    // The match is in the text: show where.
    auto preview = item->preview_text();
    if (!preview || !*preview) continue;
    if (auto around = snippet(**preview, terms)) {
      fmt::print("       {}\n", terminal ? highlighted(*around, terms) : *around);
    }
  }
  if (items.empty()) fmt::print("Nothing to show.\n");
  return kExitOk;
}

// ---- search ----

struct SearchOptions {
  std::string expression;
  std::string account;
  bool unread = false;
  std::int64_t limit = 50;
  bool json = false;
};

int runSearch(CliContext& cli, const SearchOptions& options) {
  QKSmartStreamExpression search(options.expression);
  auto predicate = search.predicate();
  if (!predicate) return usageError(predicate.error());
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  LibraryScope scope;
  auto accounts = accountsNamed(*library->context, options.account);
  if (!checkResult(accounts)) return kExitFailure;
  scope.accounts = std::move(*accounts);
  scope.unreadOnly = options.unread;
  if (options.limit > 0) scope.limit = options.limit;
  indexStoriesAwaitingSearch(*library->context);
  auto items = fetchMatchingBookmarks(*library->context, *predicate, library->environment->clock().now(), scope);
  if (!checkResult(items)) return kExitFailure;
  return printBookmarks(*items, options.json, search.terms());
}

// ---- smart folders ----

// The predicate an add or edit asks for, as exactly one of --search, --where or --rule.
struct RuleOptions {
  std::string search;
  std::string where;
  std::vector<std::string> rules;
  bool any = false;
};

Result<std::optional<Predicate>> predicateFromOptions(const RuleOptions& options) {
  const int given = (options.search.empty() ? 0 : 1) + (options.where.empty() ? 0 : 1) + (options.rules.empty() ? 0 : 1);
  if (given == 0) return std::optional<Predicate>();
  if (given > 1) return fail(kLecternErrorDomain, 2, "Give one of --search, --where or --rule");
  if (!options.search.empty()) {
    auto predicate = QKSmartStreamExpression(options.search).predicate();
    if (!predicate) return fail(predicate.error());
    return std::optional<Predicate>(std::move(*predicate));
  }
  if (!options.where.empty()) {
    auto predicate = predicateFromStoredText(options.where);
    if (!predicate) return fail(predicate.error());
    return std::optional<Predicate>(std::move(*predicate));
  }
  std::vector<Predicate> rows;
  for (const auto& rule : options.rules) {
    auto row = predicateFromRowText(rule);
    if (!row) return fail(row.error());
    rows.push_back(std::move(*row));
  }
  if (rows.size() == 1) return std::optional<Predicate>(std::move(rows[0]));
  return std::optional<Predicate>(options.any ? Predicate::orOf(std::move(rows)) : Predicate::andOf(std::move(rows)));
}

json folderSummary(QKSmartFolderContents& contents, SmartFolder& folder) {
  json out = {{"id", folder.objectID().row}, {"title", folder.title().value_or("")},
              {"predicate", folder.predicate().value_or("")}};
  auto count = contents.bookmarkCount(folder);
  if (count) {
    out["count"] = *count;
  } else {
    out["count"] = nullptr;
    out["error"] = count.error().description;
  }
  out["badge"] = contents.badgeValue(folder);
  if (auto predicate = fetchPredicate(folder)) {
    if (auto rows = rowsFromPredicate(*predicate)) {
      out["rules"] = rows->rows;
      out["any"] = rows->any;
    }
  }
  return out;
}

Result<std::vector<std::shared_ptr<SmartFolder>>> smartFolders(ObjectContext& context) {
  return librarySmartFolders(context);
}

int runSmartList(CliContext& cli, bool asJson) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto folders = smartFolders(*library->context);
  if (!checkResult(folders)) return kExitFailure;
  QKSmartFolderContents contents(*library->context, library->environment->clock(), library->environment->defaults());
  json out = json::array();
  for (const auto& folder : *folders) out.push_back(folderSummary(contents, *folder));
  if (asJson) {
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  for (const auto& folder : out) {
    fmt::print("{:>5}  {:>6}  {:>5}  {}\n", folder["id"].get<std::int64_t>(),
               folder["count"].is_null() ? std::string("error") : std::to_string(folder["count"].get<std::int64_t>()),
               folder["badge"].get<std::string>(), folder["title"].get<std::string>());
  }
  if (out.empty()) fmt::print("No smart folders.\n");
  return kExitOk;
}

int runSmartShow(CliContext& cli, std::int64_t id, std::int64_t limit, bool asJson) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto folder = smartFolderById(*library->context, id);
  if (!checkResult(folder)) return kExitFailure;
  auto predicate = fetchPredicate(**folder);
  if (!checkResult(predicate)) return kExitFailure;
  LibraryScope scope;
  if (limit > 0) scope.limit = limit;
  indexStoriesAwaitingSearch(*library->context);
  auto items = fetchMatchingBookmarks(*library->context, *predicate, library->environment->clock().now(), scope);
  if (!checkResult(items)) return kExitFailure;
  QKSmartFolderContents contents(*library->context, library->environment->clock(), library->environment->defaults());
  json summary = folderSummary(contents, **folder);
  if (asJson) {
    json list = json::array();
    for (const auto& item : *items) {
      auto object = bookmarkJson(*item, /*withContent=*/false);
      if (!checkResult(object)) return kExitFailure;
      list.push_back(std::move(*object));
    }
    summary["items"] = std::move(list);
    fmt::print("{}\n", summary.dump(2));
    return kExitOk;
  }
  fmt::print("{}\n", summary["title"].get<std::string>());
  if (summary.contains("rules")) {
    const auto& rules = summary["rules"];
    if (rules.size() > 1) fmt::print("Match {} of:\n", summary["any"].get<bool>() ? "any" : "all");
    for (const auto& rule : rules) fmt::print("  {}\n", rule.get<std::string>());
  } else {
    fmt::print("Where: {}\n", formatPredicate(*predicate));
  }
  fmt::print("{} item{}\n\n", summary["count"].get<std::int64_t>(), summary["count"].get<std::int64_t>() == 1 ? "" : "s");
  return printBookmarks(*items, false, {});
}

int runSmartAdd(CliContext& cli, const std::string& title, const RuleOptions& options) {
  auto predicate = predicateFromOptions(options);
  if (!predicate) return usageError(predicate.error());
  if (!*predicate) return usageError(Error::make(kLecternErrorDomain, 2, "Give one of --search, --where or --rule"));
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto folder = addSmartFolderToLibrary(*library->context, title, **predicate);
  if (!checkResult(folder)) return kExitFailure;
  const auto& added = *folder;
  fmt::print("Added smart folder {}: {}\n", added->objectID().row, title);
  return kExitOk;
}

int runSmartEdit(CliContext& cli, std::int64_t id, const std::optional<std::string>& title, const RuleOptions& options) {
  auto predicate = predicateFromOptions(options);
  if (!predicate) return usageError(predicate.error());
  if (!*predicate && !title) return usageError(Error::make(kLecternErrorDomain, 2, "Nothing to change: give --title, --search, --where or --rule"));
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto folder = smartFolderById(*library->context, id);
  if (!checkResult(folder)) return kExitFailure;
  if (title) (*folder)->setTitle(*title);
  if (*predicate) (*folder)->setPredicate(formatPredicate(**predicate));
  if (!checkResult(library->context->save())) return kExitFailure;
  fmt::print("Changed smart folder {}: {}\n", id, (*folder)->title().value_or(""));
  return kExitOk;
}

int runSmartRemove(CliContext& cli, std::int64_t id) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto folder = smartFolderById(*library->context, id);
  if (!checkResult(folder)) return kExitFailure;
  const std::string title = (*folder)->title().value_or("");
  library->context->deleteObject(**folder);
  if (!checkResult(library->context->save())) return kExitFailure;
  fmt::print("Removed smart folder {}: {}\n", id, title);
  return kExitOk;
}

void addRuleOptions(CLI::App* command, RuleOptions& options) {
  command->add_option("--search", options.search, "The folder holds what this search finds (the search language)");
  command->add_option("--where", options.where, "The folder's condition as predicate text")->type_name("PREDICATE");
  command->add_option("--rule", options.rules,
                      "A rule, repeatable: \"date_added in-last 2 weeks\", \"tags contains art\", "
                      "\"folders.title is News\", \"is_favorited is yes\", \"type is video\", \"title contains word\"")
      ->type_name("ROW")
      ->allow_extra_args(false);
  command->add_flag("--any", options.any, "Match any rule (default: all)");
}

}  // namespace

namespace {

// What a smart folder holds under `query`'s filter, and the scope it is read in.
struct SmartSelection {
  Predicate predicate;
  LibraryScope scope;
  Date now;
};

Result<SmartSelection> smartSelection(CliContext& cli, ObjectContext& context, std::int64_t id, const BookmarkQuery& query) {
  auto folder = smartFolderById(context, id);
  if (!folder) return fail(folder.error());
  auto predicate = fetchPredicate(**folder);
  if (!predicate) return fail(predicate.error());
  auto environment = cli.environment();
  if (!environment) return fail(environment.error());
  SmartSelection selection{std::move(*predicate), {}, (*environment)->clock().now()};
  selection.scope.limit = query.limit;
  narrowToFilter(selection.predicate, selection.scope, query.filter);
  return selection;
}

}  // namespace

Result<std::vector<std::shared_ptr<Bookmark>>> smartFolderItems(CliContext& cli, ObjectContext& context, std::int64_t id,
                                                                const BookmarkQuery& query) {
  auto selection = smartSelection(cli, context, id, query);
  if (!selection) return fail(selection.error());
  indexStoriesAwaitingSearch(context);
  return fetchMatchingBookmarks(context, selection->predicate, selection->now, selection->scope);
}

Result<std::int64_t> smartFolderItemCount(CliContext& cli, ObjectContext& context, std::int64_t id,
                                          const BookmarkQuery& query) {
  auto selection = smartSelection(cli, context, id, query);
  if (!selection) return fail(selection.error());
  return countMatchingBookmarks(context, selection->predicate, selection->now, selection->scope);
}

void addSmartCommands(CLI::App& app, CliContext& context) {
  auto searchOptions = std::make_shared<SearchOptions>();
  auto* search = app.add_subcommand("search", "Find articles by words in their title or text, newest first");
  search->add_option("EXPR", searchOptions->expression,
                     "Words and \"quoted phrases\" (case and accents ignored), combined with AND, OR, NOT and "
                     "parentheses; words side by side are alternatives")
      ->required();
  search->add_option("--account", searchOptions->account, "Only this account (its identifier or service name)");
  search->add_flag("--unread", searchOptions->unread, "Only unread articles");
  search->add_option("--limit", searchOptions->limit, "At most N articles (0: all)")->capture_default_str();
  search->add_flag("--json", searchOptions->json, "One JSON array of articles");
  context.onCommand(search, [&context, searchOptions] { return runSearch(context, *searchOptions); });

  auto* smart = app.add_subcommand("smart", "Smart folders: saved searches and rules across accounts");
  smart->require_subcommand(1);

  auto listJson = std::make_shared<bool>(false);
  auto* list = smart->add_subcommand("list", "List smart folders with their counts and badges");
  list->add_flag("--json", *listJson, "As a JSON array");
  context.onCommand(list, [&context, listJson] { return runSmartList(context, *listJson); });

  auto showId = std::make_shared<std::int64_t>(0);
  auto showLimit = std::make_shared<std::int64_t>(50);
  auto showJson = std::make_shared<bool>(false);
  auto* show = smart->add_subcommand("show", "Show a smart folder's rules and what it holds");
  show->add_option("ID", *showId, "The smart folder's id (from `lectern smart list`)")->required();
  show->add_option("--limit", *showLimit, "At most N articles (0: all)")->capture_default_str();
  show->add_flag("--json", *showJson, "The folder and its articles as JSON");
  context.onCommand(show, [&context, showId, showLimit, showJson] {
    return runSmartShow(context, *showId, *showLimit, *showJson);
  });

  auto addTitle = std::make_shared<std::string>();
  auto addOptions = std::make_shared<RuleOptions>();
  auto* add = smart->add_subcommand("add", "Add a smart folder");
  add->add_option("TITLE", *addTitle, "The folder's title")->required();
  addRuleOptions(add, *addOptions);
  context.onCommand(add, [&context, addTitle, addOptions] { return runSmartAdd(context, *addTitle, *addOptions); });

  auto editId = std::make_shared<std::int64_t>(0);
  auto editTitle = std::make_shared<std::string>();
  auto editOptions = std::make_shared<RuleOptions>();
  auto* edit = smart->add_subcommand("edit", "Change a smart folder's title or condition");
  edit->add_option("ID", *editId, "The smart folder's id (from `lectern smart list`)")->required();
  auto* titleOption = edit->add_option("--title", *editTitle, "A new title");
  addRuleOptions(edit, *editOptions);
  context.onCommand(edit, [&context, editId, editTitle, editOptions, titleOption] {
    return runSmartEdit(context, *editId, titleOption->count() > 0 ? std::optional<std::string>(*editTitle) : std::nullopt,
                        *editOptions);
  });

  auto removeId = std::make_shared<std::int64_t>(0);
  auto* remove = smart->add_subcommand("remove", "Remove a smart folder (its articles stay where they are)");
  remove->add_option("ID", *removeId, "The smart folder's id (from `lectern smart list`)")->required();
  context.onCommand(remove, [&context, removeId] { return runSmartRemove(context, *removeId); });
}

}  // namespace lectern::cli
