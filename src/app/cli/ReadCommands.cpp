// Commands for reading: show (one article as text), open (in the browser), read (the terminal reader).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/QKApplicationController.h"
#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "app/text/ArticleText.h"
#include "app/tui/ReaderModel.h"
#include "app/tui/ReaderScreen.h"
#include "net/BrowserSignIn.h"
#include "smart/QKSmartStreamExpression.h"
#include "smart/library/SmartFolderQuery.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedEnclosure.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/SmartFolder.h"
#include "sync/SyncPassObserver.h"

namespace lectern::cli {

namespace {

// The reader lists at most this many articles of its scope (or of a search).
constexpr std::int64_t kReaderListLimit = 1000;
constexpr auto kChangesWait = std::chrono::seconds(30);

// The page of a bookmark as `show` and the reader show it.
Result<ArticleDocument> articleDocument(Bookmark& bookmark) {
  ArticleDocument document;
  document.title = bookmark.title().value_or("");
  if (auto* story = dynamic_cast<FeedStory*>(&bookmark)) {
    auto feed = story->feed();
    if (feed && *feed) document.fields.emplace_back("Feed", (*feed)->title().value_or(""));
    if (auto author = story->author()) document.fields.emplace_back("Author", *author);
    auto enclosures = story->enclosures();
    if (!enclosures) return fail(enclosures.error());
    for (const auto& enclosure : *enclosures) {
      if (!enclosure->url()) continue;
      document.enclosures.push_back({*enclosure->url(), enclosure->type().value_or(""), enclosure->length()});
    }
  }
  document.baseUrl = bookmark.url().value_or("");
  document.fields.emplace_back("Link", document.baseUrl);
  document.fields.emplace_back("Date", shortLocalDate(bookmark.date_added()));
  document.fields.emplace_back("State", fmt::format("{}{}", bookmark.is_archived() ? "read" : "unread",
                                                    bookmark.is_favorited() ? ", starred" : ""));
  auto html = bookmark.html();
  if (!html) return fail(html.error());
  document.html = html->value_or("");
  return document;
}

// Marks read or unread through the account's service (or its offline queue) and waits for it.
Result<void> markAndWait(Library& library, const std::shared_ptr<Bookmark>& bookmark, bool read) {
  auto account = bookmark->account();
  if (!account) return fail(account.error());
  if (!*account) return fail(kLecternErrorDomain, 1, "The article belongs to no account");
  std::optional<std::optional<Error>> answer;
  Bookmark::markBookmarks({bookmark}, **account, /*archived=*/read,
                          [&answer](std::optional<Error> error) { answer = std::move(error); });
  library.environment->mainQueue().runUntil([&answer] { return answer.has_value(); });
  if (*answer) return fail(**answer);
  return {};
}

// Writes `text` through $PAGER (else `less -R`); false when no pager could show it.
bool showInPager(const std::string& text) {
  const char* configured = std::getenv("PAGER");
  const std::string pager = configured && *configured ? configured : "less -R";
  // Like other tools: quit at once when the page fits, keep colours, leave the text on screen.
  ::setenv("LESS", "FRX", /*overwrite=*/0);
  std::fflush(stdout);
  FILE* pipe = ::popen(pager.c_str(), "w");
  if (!pipe) return false;
  struct sigaction ignore {};
  struct sigaction previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &previous);  // the person may quit the pager before the end
  std::fwrite(text.data(), 1, text.size(), pipe);
  const int status = ::pclose(pipe);
  sigaction(SIGPIPE, &previous, nullptr);
  // 127: the shell found no such pager.
  return !(WIFEXITED(status) && WEXITSTATUS(status) == 127);
}

// ---- show ----

struct ShowOptions {
  std::int64_t id = 0;
  bool html = false;
  bool json = false;
  bool markRead = false;
};

int runShow(CliContext& cli, const ShowOptions& options) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto bookmark = bookmarkById(*library->context, options.id);
  if (!checkResult(bookmark)) return kExitFailure;
  if (options.json) {
    auto object = bookmarkJson(**bookmark, /*withContent=*/true);
    if (!checkResult(object)) return kExitFailure;
    fmt::print("{}\n", object->dump(2));
  } else if (options.html) {
    auto body = (*bookmark)->html();
    if (!checkResult(body)) return kExitFailure;
    fmt::print("{}\n", body->value_or(""));
  } else {
    auto document = articleDocument(**bookmark);
    if (!checkResult(document)) return kExitFailure;
    std::string text;
    for (const auto& line : renderArticlePage(*document, static_cast<int>(terminalColumns())).lines) text += line + "\n";
    if (!stdoutIsTerminal() || !showInPager(text)) {
      fmt::print("{}", text);
      std::fflush(stdout);
    }
  }
  if (options.markRead && !(*bookmark)->is_archived()) {
    if (!checkResult(markAndWait(*library, *bookmark, /*read=*/true))) return kExitFailure;
    if (!library->environment->reachability().isReachable()) {
      fmt::print(stderr, "Offline: marked read; the change is queued for the next sync.\n");
    }
  }
  return kExitOk;
}

// ---- open ----

int runOpen(CliContext& cli, std::int64_t id) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto bookmark = bookmarkById(*library->context, id);
  if (!checkResult(bookmark)) return kExitFailure;
  const auto url = (*bookmark)->url();
  if (!url || url->empty()) {
    printError(Error::make(kLecternErrorDomain, 1, fmt::format("Article {} has no address to open", id)));
    return kExitFailure;
  }
  fmt::print("Opening {}\n", terminalSafe(*url));
  std::fflush(stdout);
  if (!checkResult(openInBrowser(*url))) return kExitFailure;
  if (!(*bookmark)->is_archived()) {
    if (!checkResult(markAndWait(*library, *bookmark, /*read=*/true))) return kExitFailure;
    if (!library->environment->reachability().isReachable()) {
      fmt::print("Offline: marked read; the change is queued for the next sync.\n");
    }
  }
  return kExitOk;
}

// ---- read ----

struct ReadOptions {
  bool unread = false;
  std::int64_t feed = 0;
  std::int64_t folder = 0;
  std::int64_t smart = 0;
};

std::string errorText(const Error& error) {
  return error.description.empty() ? error.recoverySuggestion : error.description;
}

// The reader's view of the library: the store through the main context, the sync manager for
// refreshes and the browser. Main thread only.
class StoreReaderLibrary final : public ReaderLibrary, private SyncPassObserver {
 public:
  StoreReaderLibrary(CliContext& cli, Library library, std::unique_ptr<QKApplicationController> app,
                     const ReadOptions& options)
      : cli_(cli), library_(library), app_(std::move(app)), options_(options) {}

  ~StoreReaderLibrary() override { app_->syncManager().setSyncPassObserver(nullptr); }
  StoreReaderLibrary(const StoreReaderLibrary&) = delete;
  StoreReaderLibrary& operator=(const StoreReaderLibrary&) = delete;

  // What the reader shows, for its title bar; an error for an id that names nothing.
  Result<std::string> scopeTitle() {
    ObjectContext& context = *library_.context;
    const std::string what = options_.unread ? "Unread" : "All";
    if (options_.feed > 0) {
      auto feed = context.existingObject<Feed>(ObjectId{Entity::kFeed, options_.feed});
      if (!feed) return fail(feed.error());
      if (!*feed) {
        return fail(kLecternErrorDomain, 1, fmt::format("No feed with id {}", options_.feed),
                    "See `lectern feeds` for the ids.");
      }
      return fmt::format("{}: {}", what, (*feed)->title().value_or("(untitled feed)"));
    }
    if (options_.folder > 0) {
      auto folder = context.existingObject<Folder>(ObjectId{Entity::kFolder, options_.folder});
      if (!folder) return fail(folder.error());
      if (!*folder) {
        return fail(kLecternErrorDomain, 1, fmt::format("No folder with id {}", options_.folder),
                    "See `lectern folders` for the ids.");
      }
      return fmt::format("{}: {}", what, (*folder)->title().value_or("(untitled folder)"));
    }
    if (options_.smart > 0) {
      auto folder = context.existingObject<SmartFolder>(ObjectId{Entity::kSmartFolder, options_.smart});
      if (!folder) return fail(folder.error());
      if (!*folder) {
        return fail(kLecternErrorDomain, 1, fmt::format("No smart folder with id {}", options_.smart),
                    "See `lectern smart list` for the ids.");
      }
      return fmt::format("{}: {}", what, (*folder)->title().value_or("(untitled smart folder)"));
    }
    return what + " articles";
  }

  Result<std::vector<ReaderItem>> items(const std::string& search) override {
    auto bookmarks = search.empty() ? scopeBookmarks() : searchBookmarks(search);
    if (!bookmarks) return fail(bookmarks.error());
    std::vector<ReaderItem> items;
    for (const auto& bookmark : *bookmarks) items.push_back(itemOf(*bookmark));
    return items;
  }

  Result<ArticleDocument> article(std::int64_t id) override {
    auto bookmark = bookmarkById(*library_.context, id);
    if (!bookmark) return fail(bookmark.error());
    return articleDocument(**bookmark);
  }

  void markRead(std::int64_t id, bool read, Completion done) override {
    auto bookmark = bookmarkById(*library_.context, id);
    if (!bookmark) return post(std::move(done), bookmark.error());
    auto account = (*bookmark)->account();
    if (!account || !*account) {
      return post(std::move(done), account ? Error::make(kLecternErrorDomain, 1, "The article belongs to no account")
                                           : account.error());
    }
    Bookmark::markBookmarks({*bookmark}, **account, /*archived=*/read, std::move(done));
  }

  void markStarred(std::int64_t id, bool starred, Completion done) override {
    auto bookmark = bookmarkById(*library_.context, id);
    if (!bookmark) return post(std::move(done), bookmark.error());
    Bookmark::markBookmark(**bookmark, Bookmark::Favorited{starred}, std::move(done));
  }

  Result<void> openInBrowser(const std::string& url) override { return lectern::openInBrowser(url); }

  void refresh(std::function<void(std::string)> progress, Completion done) override {
    if (!library_.environment->reachability().isReachable()) {
      return post(std::move(done), Error::make(kLecternErrorDomain, 1, "offline: the library is shown as it is"));
    }
    progress_ = std::move(progress);
    done_ = std::move(done);
    failures_ = 0;
    app_->syncManager().setSyncPassObserver(this);
    if (app_->startSync(/*forced=*/false) == 0) finishRefresh(std::nullopt);
  }

  // Stops a running refresh and waits for it, then saves the library.
  void shutdown() {
    if (app_->syncManager().isSyncing()) app_->syncManager().cancelAllSyncOperations();
    app_->shutdown();
  }

 private:
  void post(Completion done, Error error) {
    library_.environment->mainQueue().post([done = std::move(done), error = std::move(error)] { done(error); });
  }

  void accountSyncStarted(Account& account) override {
    if (progress_) progress_(fmt::format("Refreshing {}…", account.title().value_or(account.uniqueIdentifier())));
  }

  void accountSyncFinished(Account& account, const AccountSyncReport& report) override {
    if (report.error && !report.cancelled) ++failures_;
    failures_ += static_cast<int>(report.failedFeeds.size());
    if (!progress_) return;
    const std::string title = account.title().value_or(account.uniqueIdentifier());
    progress_(report.error ? fmt::format("{}: {}", title, errorText(*report.error))
                           : fmt::format("{}: done", title));
  }

  void syncPassFinished(const std::vector<AccountSyncReport>&) override {
    finishRefresh(failures_ > 0 ? std::optional(Error::make(
                                      kLecternErrorDomain, 1,
                                      fmt::format("{} failed (see `lectern sync` for why)",
                                                  failures_ == 1 ? std::string("1 account or feed")
                                                                 : fmt::format("{} accounts or feeds", failures_))))
                                : std::nullopt);
  }

  void finishRefresh(std::optional<Error> error) {
    app_->syncManager().setSyncPassObserver(nullptr);
    progress_ = nullptr;
    if (auto done = std::move(done_)) {
      done_ = nullptr;
      done(std::move(error));
    }
  }

  BookmarkQuery query() const {
    BookmarkQuery query;
    query.filter = options_.unread ? BookmarkFilter::kUnread : BookmarkFilter::kAll;
    query.limit = kReaderListLimit;
    query.includeBlocked = false;
    return query;
  }

  Result<std::vector<std::shared_ptr<Bookmark>>> scopeBookmarks() {
    ObjectContext& context = *library_.context;
    if (options_.smart > 0) return smartFolderItems(cli_, context, options_.smart, query());
    if (options_.feed > 0) {
      auto feed = context.existingObject<Feed>(ObjectId{Entity::kFeed, options_.feed});
      if (!feed) return fail(feed.error());
      if (!*feed) return std::vector<std::shared_ptr<Bookmark>>{};
      auto stories = (*feed)->stories(query());
      if (!stories) return fail(stories.error());
      return std::vector<std::shared_ptr<Bookmark>>(stories->begin(), stories->end());
    }
    if (options_.folder > 0) {
      auto folder = context.existingObject<Folder>(ObjectId{Entity::kFolder, options_.folder});
      if (!folder) return fail(folder.error());
      if (!*folder) return std::vector<std::shared_ptr<Bookmark>>{};
      return (*folder)->readerItems(query());
    }
    auto accounts = Account::services(context);
    if (!accounts) return fail(accounts.error());
    std::vector<std::shared_ptr<Bookmark>> items;
    for (const auto& account : *accounts) {
      auto bookmarks = account->bookmarks(query());
      if (!bookmarks) return fail(bookmarks.error());
      items.insert(items.end(), bookmarks->begin(), bookmarks->end());
    }
    std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
      return a->date_added().value_or(Date{}) > b->date_added().value_or(Date{});
    });
    if (static_cast<std::int64_t>(items.size()) > kReaderListLimit) items.resize(kReaderListLimit);
    return items;
  }

  Result<std::vector<std::shared_ptr<Bookmark>>> searchBookmarks(const std::string& expression) {
    auto predicate = QKSmartStreamExpression(expression).predicate();
    if (!predicate) return fail(predicate.error());
    LibraryScope scope;
    scope.unreadOnly = options_.unread;
    scope.limit = kReaderListLimit;
    return fetchMatchingBookmarks(*library_.context, *predicate, library_.environment->clock().now(), scope);
  }

  static ReaderItem itemOf(Bookmark& bookmark) {
    ReaderItem item;
    item.id = bookmark.objectID().row;
    item.title = bookmark.title().value_or("");
    item.url = bookmark.url().value_or("");
    item.date = shortLocalDate(bookmark.date_added());
    item.unread = !bookmark.is_archived();
    item.starred = bookmark.is_favorited();
    if (auto* story = dynamic_cast<FeedStory*>(&bookmark)) {
      if (auto feed = story->feed(); feed && *feed) item.feed = (*feed)->title().value_or("");
    } else if (auto account = bookmark.account(); account && *account) {
      item.feed = (*account)->title().value_or("");
    }
    return item;
  }

  CliContext& cli_;
  Library library_;
  std::unique_ptr<QKApplicationController> app_;
  const ReadOptions options_;
  std::function<void(std::string)> progress_;
  Completion done_;
  int failures_ = 0;
};

int runRead(CliContext& cli, const ReadOptions& options) {
  if (::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1) {
    printError(Error::make(kLecternErrorDomain, 1, "The reader needs a terminal",
                           "Run `lectern read` in a terminal; `lectern list` and `lectern show` work in scripts."));
    return kExitFailure;
  }
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  AppEnvironment& environment = *library->environment;
  SyncEnvironment sync{*library->manager,          environment.defaults(), environment.mainQueue(),
                       environment.reachability(), environment.clock(),    environment.network()};
  auto app = std::make_unique<QKApplicationController>(sync);
  if (!checkResult(app->setupApp())) return kExitFailure;
  // The reader stays open between refreshes: time to index what each one stored.
  app->syncManager().setCatchesUpSearchIndex(true);
  StoreReaderLibrary reader(cli, *library, std::move(app), options);
  auto title = reader.scopeTitle();
  if (!checkResult(title)) return kExitFailure;
  ReaderModel model(reader, *title);
  if (!checkResult(model.load())) return kExitFailure;
  auto shown = runReaderScreen(model, environment.mainQueue());
  // Marks made just before quitting still reach their service (or the offline queue).
  environment.mainQueue().runUntil([&model] { return model.pendingChanges() == 0; }, kChangesWait);
  reader.shutdown();
  if (!checkResult(shown)) return kExitFailure;
  return kExitOk;
}

}  // namespace

void addReadCommands(CLI::App& app, CliContext& context) {
  auto show = std::make_shared<ShowOptions>();
  auto* showCommand = app.add_subcommand("show", "Show one article as text");
  showCommand->add_option("ID", show->id, "The article's id (from `lectern list`)")->required();
  showCommand->add_flag("--html", show->html, "Print the stored HTML instead of text");
  showCommand->add_flag("--json", show->json, "The article with its content as JSON");
  showCommand->add_flag("--mark-read", show->markRead, "Mark the article read once shown");
  showCommand->footer("Text is wrapped to the terminal (or $COLUMNS) and paged with $PAGER (else less -R) on a "
                      "terminal; links are numbered and listed at the end.");
  context.onCommand(showCommand, [&context, show] { return runShow(context, *show); });

  auto openId = std::make_shared<std::int64_t>(0);
  auto* open = app.add_subcommand("open", "Open an article in the browser ($BROWSER, else xdg-open) and mark it read");
  open->add_option("ID", *openId, "The article's id (from `lectern list`)")->required();
  context.onCommand(open, [&context, openId] { return runOpen(context, *openId); });

  auto read = std::make_shared<ReadOptions>();
  auto* readCommand = app.add_subcommand("read", "Read in the terminal: the list of articles and the article, by keyboard");
  readCommand->add_flag("--unread", read->unread, "Only unread articles");
  auto* feed = readCommand->add_option("--feed", read->feed, "Only this feed (an id from `lectern feeds`)");
  auto* folder = readCommand->add_option("--folder", read->folder, "Only this folder (an id from `lectern folders`)");
  auto* smart = readCommand->add_option("--smart", read->smart, "Only this smart folder (an id from `lectern smart list`)");
  feed->excludes(folder)->excludes(smart);
  folder->excludes(smart);
  readCommand->footer(
      "Keys: j/k or arrows move, Enter opens, space pages then goes to the next unread, n/p next/previous unread,\n"
      "m read/unread, s star, o open in the browser, 1-9 or f then a number opens a link, r refresh, / search,\n"
      "q back (article, list, quit).");
  context.onCommand(readCommand, [&context, read] { return runRead(context, *read); });
}

}  // namespace lectern::cli
