#include "app/desktop/DesktopController.h"

#include <fmt/format.h>

#include "accounts/AccountCommands.h"
#include "accounts/AccountLifecycle.h"
#include "accounts/BuiltInReader.h"
#include "accounts/ServiceBase.h"
#include "accounts/Subscriptions.h"
#include "app/AppEnvironment.h"
#include "app/QKApplicationController.h"
#include "content/QKContentParserAsync.h"
#include "core/Log.h"
#include "feeds/FeedDiscovery.h"
#include "feeds/OPMLViewController.h"
#include "net/BrowserSignIn.h"
#include "services/feedly/FeedlySignIn.h"
#include "services/pocket/PocketSignIn.h"
#include "smart/Predicate.h"
#include "smart/library/QKSmartFolderContents.h"
#include "smart/library/SmartFolderLibrary.h"
#include "smart/QKSmartStreamExpression.h"
#include "smart/library/SmartFolderQuery.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/SmartFolder.h"
#include "sync/AccountSyncReport.h"
#include "sync/QKSyncManager.h"

namespace lectern::desktop {
namespace {

constexpr std::string_view kLogCategory = "Desktop";

Error libraryError(std::string description, std::string suggestion = {}) {
  return Error::make(kLecternErrorDomain, 1, std::move(description), std::move(suggestion));
}

// The error as one line for the status bar: what failed, then what to do.
std::string errorLine(const Error& error) {
  const std::string& suggestion = error.recoverySuggestion;
  return suggestion.empty() ? error.message() : fmt::format("{} {}", error.message(), suggestion);
}

}  // namespace

DesktopController::DesktopController(AppEnvironment& environment, QKApplicationController& app, View& view)
    : environment_(environment),
      app_(app),
      view_(view),
      reads_("com.quillhq.Lectern.Desktop.Reads", 1),
      network_("com.quillhq.Lectern.Desktop.Network", 2) {
  app_.syncManager().setSyncPassObserver(this);
  app_.setAccountObserver(this);
  std::weak_ptr<bool> alive = alive_;
  reachabilityObserver_ = environment_.reachability().addObserver([this, alive](ReachabilityStatus) {
    // Reachability may speak on any thread.
    environment_.mainQueue().post([this, alive] {
      if (alive.lock()) view_.statusChanged();
    });
  });
  syncing_ = app_.syncManager().isSyncing();
}

DesktopController::~DesktopController() {
  *alive_ = false;
  environment_.reachability().removeObserver(reachabilityObserver_);
  app_.syncManager().setSyncPassObserver(nullptr);
  app_.setAccountObserver(nullptr);
  extraction_.reset();
  reads_.cancelAllOperations();
  network_.cancelAllOperations();
  // Workers post their answers to the main queue; they must not wait for it while it is blocked here.
  while (reads_.operationCount() > 0 || network_.operationCount() > 0) {
    environment_.mainQueue().runUntil([] { return true; }, std::chrono::milliseconds(10));
  }
}

ObjectContext& DesktopController::context() const {
  auto manager = environment_.dataManager();
  if (!manager) throw InternalInconsistency("The desktop controller needs an open library");
  auto context = (*manager)->managedObjectContext();
  if (!context) throw InternalInconsistency("The desktop controller needs an open library");
  return **context;
}

template <class T>
void DesktopController::runRead(const char* what, std::function<Result<T>(ObjectContext&)> read,
                                std::function<void(Result<T>)> done) {
  ++loading_;
  std::weak_ptr<bool> alive = alive_;
  QKDataManager* manager = *environment_.dataManager();
  MainQueue& mainQueue = environment_.mainQueue();
  reads_.addOperation([this, alive, manager, &mainQueue, what, read = std::move(read), done = std::move(done)]() mutable {
    const auto started = std::chrono::steady_clock::now();
    auto answer = [&]() -> Result<T> {
      auto context = manager->newBackgroundContext();
      if (!context) return lectern::fail(context.error());
      return read(**context);
    }();
    logDebugMessage(kLogCategory, "Read {} in {} ms", what,
                    std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count());
    mainQueue.post([this, alive, answer = std::move(answer), done = std::move(done)]() mutable {
      if (!alive.lock() || !*alive.lock()) return;
      --loading_;
      done(std::move(answer));
    });
  });
}

// ---- sources ----

void DesktopController::reloadSources() {
  const Clock& clock = environment_.clock();
  UserDefaults& defaults = environment_.defaults();
  runRead<SourceTree>("the sources", [&clock, &defaults](ObjectContext& context) { return loadSourceTree(context, clock, defaults); },
                      [this](Result<SourceTree> tree) {
                        if (!tree) return fail(tree.error());
                        sources_ = std::move(*tree);
                        view_.sourcesChanged();
                      });
}

void DesktopController::selectSource(SourceKey key) {
  if (key == source_ && search_.empty()) return;
  source_ = key;
  search_.clear();
  loadArticles(/*replace=*/true);
}

// ---- the list ----

void DesktopController::setFilter(ArticleFilter filter) {
  if (filter == filter_) return;
  filter_ = filter;
  loadArticles(/*replace=*/true);
}

void DesktopController::setSearch(std::string text) {
  if (text == search_) return;
  search_ = std::move(text);
  loadArticles(/*replace=*/true);
}

void DesktopController::reloadArticles() { loadArticles(/*replace=*/false); }

void DesktopController::loadArticles(bool replace) {
  const std::uint64_t generation = ++listGeneration_;
  ArticleQuery query{source_, filter_, search_};
  if (replace) {
    list_.replaceRows({}, 0);
    article_.reset();
    readable_ = false;
    readableHtml_.reset();
    view_.articlesChanged();
    view_.articleChanged();
  }
  const Clock& clock = environment_.clock();
  runRead<ArticlePageOfRows>(
      "the article list", [query, &clock](ObjectContext& context) {
        // New stories wait for the search index after a sync; a search catches them up first so
        // it answers from the index.
        if (!query.search.empty()) {
          constexpr std::int64_t kBatch = 1000;
          for (;;) {
            auto indexed = context.indexStoriesAwaitingSearch(kBatch);
            if (!indexed || *indexed < kBatch) break;
          }
        }
        return lectern::desktop::loadArticles(context, query, clock.now());
      },
      [this, generation, replace](Result<ArticlePageOfRows> page) {
        if (generation != listGeneration_) return;  // a newer list was asked for meanwhile
        if (!page) return fail(page.error());
        if (replace) {
          list_.replaceRows(std::move(page->rows), page->total);
        } else {
          list_.setRows(std::move(page->rows), page->total);
          // The open article went away (deleted at its service): close it.
          if (article_ && !list_.row(article_->row.id)) {
            article_.reset();
            view_.articleChanged();
          }
        }
        view_.articlesChanged();
      });
}

// ---- the article ----

void DesktopController::openArticle(std::int64_t id) {
  if (!list_.select(id)) return;
  readable_ = false;
  readableHtml_.reset();
  loadArticle(id);
  const ArticleRow* row = list_.selected();
  if (row && row->unread) markSelected(/*read=*/true);
}

bool DesktopController::openNext() {
  auto index = list_.nextIndex();
  if (!index) return false;
  openArticle(list_.rows()[*index].id);
  return true;
}

bool DesktopController::openPrevious() {
  auto index = list_.previousIndex();
  if (!index) return false;
  openArticle(list_.rows()[*index].id);
  return true;
}

bool DesktopController::openNextUnread() {
  auto index = list_.nextUnreadIndex();
  if (!index) return false;
  openArticle(list_.rows()[*index].id);
  return true;
}

void DesktopController::loadArticle(std::int64_t id) {
  const std::uint64_t generation = ++articleGeneration_;
  runRead<StoredArticle>("an article", [id](ObjectContext& context) { return lectern::desktop::loadArticle(context, id); },
                         [this, generation](Result<StoredArticle> article) {
                           if (generation != articleGeneration_) return;
                           if (!article) return fail(article.error());
                           // The row knows the marks made since the read started.
                           if (const ArticleRow* row = list_.row(article->row.id)) article->row = *row;
                           article_ = std::move(*article);
                           view_.articleChanged();
                         });
}

void DesktopController::setReadableView(bool on) {
  if (!article_ || on == readable_) return;
  readable_ = on;
  if (!on) {
    view_.articleChanged();
    return;
  }
  if (readableHtml_) {
    view_.articleChanged();
    return;
  }
  const std::uint64_t generation = articleGeneration_;
  if (!online()) {
    readable_ = false;
    return fail(libraryError("The readable view needs the article's page, and the network is offline.",
                             "Try again when the network is back."));
  }
  setStatus("Reading the article's page…");
  if (!extraction_) extraction_ = std::make_unique<QKContentParserAsync>(environment_.mainQueue());
  std::weak_ptr<bool> alive = alive_;
  extraction_->contentOfURL(environment_.network(), article_->row.url,
                            [this, alive, generation](Result<QKContentParser> parser) {
                              if (!alive.lock() || !*alive.lock() || generation != articleGeneration_) return;
                              if (!parser) {
                                readable_ = false;
                                fail(parser.error());
                                view_.articleChanged();
                                return;
                              }
                              readableHtml_ = parser->fetchContent();
                              setStatus("");
                              view_.articleChanged();
                            });
}

// ---- changes ----

Result<std::shared_ptr<Bookmark>> DesktopController::selectedBookmark() const {
  const ArticleRow* row = list_.selected();
  if (!row) return lectern::fail(libraryError("No article is selected"));
  auto bookmark = Bookmark::bookmarkWithLocalId(context(), row->id);
  if (!bookmark) return lectern::fail(bookmark.error());
  if (!*bookmark) return lectern::fail(libraryError("The article is no longer in the library", "A sync may have removed it."));
  return *bookmark;
}

void DesktopController::markSelected(bool read) {
  if (!list_.selected()) return;
  const std::int64_t id = list_.selected()->id;
  auto bookmark = selectedBookmark();
  if (!bookmark) return fail(bookmark.error());
  auto account = (*bookmark)->account();
  if (!account || !*account) return fail(account ? libraryError("The article belongs to no account") : account.error());
  list_.setUnread(id, !read);
  if (article_ && article_->row.id == id) article_->row.unread = !read;
  view_.articleRowChanged(id);
  std::weak_ptr<bool> alive = alive_;
  Bookmark::markBookmarks({*bookmark}, **account, /*archived=*/read, [this, alive, id, read](std::optional<Error> error) {
    if (!alive.lock() || !*alive.lock()) return;
    if (error) {
      // Refused for good (not merely offline: that is queued and reported as success): put it back.
      list_.setUnread(id, read);
      view_.articleRowChanged(id);
      fail(*error);
    }
    reloadSources();
  });
}

void DesktopController::toggleRead() {
  const ArticleRow* row = list_.selected();
  if (row) markSelected(/*read=*/row->unread);
}

void DesktopController::toggleStar() {
  const ArticleRow* row = list_.selected();
  if (!row) return;
  const std::int64_t id = row->id;
  const bool starred = !row->starred;
  auto bookmark = selectedBookmark();
  if (!bookmark) return fail(bookmark.error());
  list_.setStarred(id, starred);
  if (article_ && article_->row.id == id) article_->row.starred = starred;
  view_.articleRowChanged(id);
  std::weak_ptr<bool> alive = alive_;
  Bookmark::markBookmark(**bookmark, Bookmark::Favorited{starred}, [this, alive, id, starred](std::optional<Error> error) {
    if (!alive.lock() || !*alive.lock()) return;
    if (error) {
      list_.setStarred(id, !starred);
      view_.articleRowChanged(id);
      fail(*error);
    }
    reloadSources();
  });
}

void DesktopController::deleteSelected() {
  const ArticleRow* row = list_.selected();
  if (!row) return;
  const std::int64_t id = row->id;
  auto bookmark = selectedBookmark();
  if (!bookmark) return fail(bookmark.error());
  auto account = (*bookmark)->account();
  const auto bookmarkId = (*bookmark)->bookmark_id();
  if (!account || !*account || !bookmarkId) return fail(libraryError("The article has no identifier at its service"));
  list_.remove(id);
  if (article_ && article_->row.id == id) article_.reset();
  view_.articlesChanged();
  // The row that took its place is the one to read next.
  if (const ArticleRow* next = list_.selected()) {
    loadArticle(next->id);
  } else {
    view_.articleChanged();
  }
  std::weak_ptr<bool> alive = alive_;
  Bookmark::deleteBookmarkWithId(*bookmarkId, **account, [this, alive](std::optional<Error> error) {
    if (!alive.lock() || !*alive.lock()) return;
    if (error) {
      fail(*error);
      reloadArticles();
    }
    reloadSources();
  });
}

Result<void> DesktopController::openSelectedInBrowser() {
  const ArticleRow* row = list_.selected();
  if (!row || row->url.empty()) return lectern::fail(libraryError("The article has no web address"));
  return openInBrowser(row->url);
}

void DesktopController::sendSelectedTo(std::int64_t accountRow, Done done) {
  const ArticleRow* row = list_.selected();
  if (!row || row->url.empty()) return done(libraryError("The article has no web address"));
  auto account = context().existingObject<Account>(ObjectId{Entity::kAccount, accountRow});
  if (!account || !*account) return done(libraryError("The account is no longer in the library"));
  if (!online()) {
    // The service names what it saves; there is nothing to queue it under.
    return done(libraryError("Cannot save while offline",
                             "Saving needs the service; nothing was stored. Try again when the network is back."));
  }
  auto service = std::dynamic_pointer_cast<ServiceBase>((*account)->serviceObject());
  if (!service) return done(libraryError("The account's service cannot save pages"));
  PageToSave page{row->url, row->title.empty() ? std::nullopt : std::optional(row->title), std::nullopt, "", std::nullopt};
  service->addBookmark(page, std::move(done));
}

// ---- sync ----

bool DesktopController::online() const { return environment_.reachability().isReachable(); }

void DesktopController::syncAll() {
  if (!online()) {
    return fail(Error::make(kLecternErrorDomain, 1, "The Internet connection appears to be offline.",
                            "Try again when the network is back; changes made meanwhile are kept and sent then."));
  }
  if (app_.startSync(/*forced=*/false) == 0) setStatus("Nothing to sync");
}

void DesktopController::syncSelectedAccount() {
  const SourceNode* node = sourceNode();
  if (!node || node->account == 0) return syncAll();
  if (!online()) {
    return fail(Error::make(kLecternErrorDomain, 1, "The Internet connection appears to be offline.",
                            "Try again when the network is back; changes made meanwhile are kept and sent then."));
  }
  auto account = context().existingObject<Account>(ObjectId{Entity::kAccount, node->account});
  if (!account || !*account) return;
  app_.syncAccount(*account, /*forced=*/false);
}

void DesktopController::accountSyncStarted(Account& account) {
  syncing_ = true;
  setStatus(fmt::format("Syncing {}…", account.title().value_or("")));
}

void DesktopController::accountSyncFinished(Account& account, const AccountSyncReport& report) {
  if (report.error && !report.cancelled) {
    fail(Error::make(report.error->domain, report.error->code,
                     fmt::format("{}: {}", account.title().value_or(""), report.error->message()),
                     report.error->recoverySuggestion));
  }
  reloadSources();
  reloadArticles();
}

void DesktopController::syncPassFinished(const std::vector<AccountSyncReport>& reports) {
  syncing_ = false;
  size_t failedFeeds = 0;
  for (const auto& report : reports) failedFeeds += report.failedFeeds.size();
  if (!lastError_) {
    setStatus(failedFeeds > 0 ? fmt::format("Synced; {} feed{} failing", failedFeeds, failedFeeds == 1 ? "" : "s")
                              : std::string("Synced"));
  } else {
    view_.statusChanged();
  }
  reloadSources();
  reloadArticles();
}

void DesktopController::syncOperationDidUpdateAccount(Account&) {
  // A sync saves after every feed it merges: the counts are read again at most once a second.
  if (pendingSourceReload_) return;
  pendingSourceReload_ = true;
  std::weak_ptr<bool> alive = alive_;
  environment_.mainQueue().postAfter(std::chrono::seconds(1), [this, alive] {
    if (!alive.lock() || !*alive.lock()) return;
    pendingSourceReload_ = false;
    reloadSources();
  });
}

void DesktopController::syncOperationDidCompletedForAccount(Account&) {}

void DesktopController::setStatus(std::string text) {
  status_ = std::move(text);
  view_.statusChanged();
}

void DesktopController::fail(const Error& error) {
  logError(kLogCategory, "{}", error.message());
  lastError_ = error;
  status_ = errorLine(error);
  view_.statusChanged();
}

void DesktopController::clearError() {
  lastError_.reset();
  view_.statusChanged();
}

// ---- the library ----

std::vector<DesktopController::AccountChoice> DesktopController::accounts() const {
  std::vector<AccountChoice> out;
  auto accounts = Account::services(context());
  if (!accounts) return out;
  for (const auto& account : *accounts) {
    if (account->serviceType() == ServiceType::kSmartFolders) continue;
    out.push_back({account->objectID().row, account->title().value_or(account->uniqueIdentifier()), account->serviceType()});
  }
  return out;
}

std::vector<DesktopController::AccountChoice> DesktopController::feedAccounts() const {
  auto all = accounts();
  std::erase_if(all, [](const AccountChoice& choice) { return !isFeedService(choice.service); });
  return all;
}

std::vector<DesktopController::AccountChoice> DesktopController::readLaterAccounts() const {
  auto all = accounts();
  std::erase_if(all, [](const AccountChoice& choice) { return !isReadLaterService(choice.service); });
  return all;
}

std::vector<std::string> DesktopController::feedFolderTitles(std::int64_t accountRow) const {
  std::vector<std::string> titles;
  auto account = context().existingObject<Account>(ObjectId{Entity::kAccount, accountRow});
  if (!account || !*account) return titles;
  auto folders = (*account)->sortedFolders();
  if (!folders) return titles;
  for (const auto& folder : *folders) {
    if (dynamic_cast<FeedFolder*>(folder.get()) && folder->title()) titles.push_back(*folder->title());
  }
  return titles;
}

void DesktopController::discoverFeeds(std::string address, std::function<void(Result<std::vector<QKFeedLinkItem>>)> done) {
  if (!online()) {
    return done(lectern::fail(libraryError("Cannot subscribe while offline",
                                           "Subscribing reads the address once; try again when the network is back.")));
  }
  std::weak_ptr<bool> alive = alive_;
  NetworkSession& session = environment_.network();
  MainQueue& mainQueue = environment_.mainQueue();
  network_.addOperation([alive, &session, &mainQueue, address = std::move(address), done = std::move(done)]() mutable {
    auto candidates = subscriptionCandidates(session, address);
    mainQueue.post([alive, candidates = std::move(candidates), done = std::move(done)]() mutable {
      if (alive.lock() && *alive.lock()) done(std::move(candidates));
    });
  });
}

void DesktopController::subscribe(std::int64_t accountRow, std::string url, std::optional<std::string> folder, Done done) {
  std::shared_ptr<Account> account;
  if (accountRow == 0) {
    auto reader = ensureLocalRSSAccount(context());
    if (!reader) return done(reader.error());
    account = *reader;
  } else {
    auto found = context().existingObject<Account>(ObjectId{Entity::kAccount, accountRow});
    if (!found || !*found) return done(libraryError("The account is no longer in the library"));
    account = *found;
  }
  if (auto existing = subscribedFeedWithURL(*account, url); existing && *existing) {
    return done(libraryError(fmt::format("Already subscribed to {}", (*existing)->title().value_or(url))));
  }
  std::weak_ptr<bool> alive = alive_;
  subscribeAccountToFeed(context(), *account, std::move(url), std::move(folder),
                         [this, alive, account, done = std::move(done)](Result<std::shared_ptr<Feed>> feed) {
                           if (!alive.lock() || !*alive.lock()) return;
                           if (!feed) return done(feed.error());
                           reloadSources();
                           // Its articles come with a sync of its account.
                           if (online()) app_.syncAccount(account, /*forced=*/false);
                           done(std::nullopt);
                         });
}

void DesktopController::unsubscribe(std::int64_t feed, Done done) {
  std::weak_ptr<bool> alive = alive_;
  unsubscribeFromFeed(context(), feed, StarredArticles::kKeep,
                      [this, alive, feed, done = std::move(done)](Result<KeptArticles> kept) {
                        if (!alive.lock() || !*alive.lock()) return;
                        if (!kept) return done(kept.error());
                        if (source_ == SourceKey{SourceKind::kFeed, feed}) selectSource({});
                        reloadSources();
                        done(std::nullopt);
                      });
}

void DesktopController::moveFeed(std::int64_t feed, std::optional<std::string> folder, Done done) {
  std::weak_ptr<bool> alive = alive_;
  moveFeedToFolder(context(), feed, std::move(folder), [this, alive, done = std::move(done)](std::optional<Error> error) {
    if (!alive.lock() || !*alive.lock()) return;
    reloadSources();
    done(std::move(error));
  });
}

void DesktopController::renameFolder(std::int64_t folder, std::string title, Done done) {
  std::weak_ptr<bool> alive = alive_;
  lectern::renameFolder(context(), folder, std::move(title), [this, alive, done = std::move(done)](std::optional<Error> error) {
    if (!alive.lock() || !*alive.lock()) return;
    reloadSources();
    done(std::move(error));
  });
}

void DesktopController::removeAccount(std::int64_t accountRow, Done done) {
  auto account = context().existingObject<Account>(ObjectId{Entity::kAccount, accountRow});
  if (!account || !*account) return done(libraryError("The account is no longer in the library"));
  const std::string name = (*account)->uniqueIdentifier();
  // Its sync stops first; the removal waits for it on the main queue.
  auto removed = lectern::removeAccount(context(), name, StarredArticles::kKeep, [this](Account& which) {
    app_.syncManager().cancelAndWaitSyncOperationOfAccount(which, std::chrono::seconds(10));
  });
  if (!removed) return done(removed.error());
  if (sourceNode() == nullptr || sourceNode()->account == accountRow) selectSource({});
  reloadSources();
  done(std::nullopt);
}

void DesktopController::addAccount(NewAccount account, Done done) {
  if (!online()) {
    return done(libraryError("Cannot add an account while offline", "The service checks the sign-in once; try again when the network is back."));
  }
  std::weak_ptr<bool> alive = alive_;
  lectern::addAccount(context(), account, [this, alive, done = std::move(done)](Result<std::shared_ptr<Account>> added) {
    if (!alive.lock() || !*alive.lock()) return;
    if (!added) return done(added.error());
    reloadSources();
    selectSource({SourceKind::kAccount, (*added)->objectID().row});
    if (online()) app_.syncAccount(*added, /*forced=*/false);
    done(std::nullopt);
  });
}

void DesktopController::signInWithBrowser(std::string service, std::optional<std::string> endpoint,
                                          std::function<void(std::string)> showPage, Done done) {
  std::weak_ptr<bool> alive = alive_;
  MainQueue& mainQueue = environment_.mainQueue();
  SignInEnvironment signIn{environment_.defaults(), environment_.network(), environment_.clock(), environment_.paths()};
  const auto onMain = [alive, &mainQueue](std::function<void()> task) {
    mainQueue.post([alive, task = std::move(task)] {
      if (alive.lock() && *alive.lock()) task();
    });
  };
  auto pageShown = [onMain, showPage = std::move(showPage)](const std::string& url) { onMain([showPage, url] { showPage(url); }); };
  network_.addOperation([this, onMain, signIn, service = std::move(service), endpoint = std::move(endpoint),
                         pageShown = std::move(pageShown), done = std::move(done)]() mutable {
    // The window cannot take lectern:// answers unless it is installed: the browser comes back to
    // a listener on 127.0.0.1 instead.
    Result<NewAccount> signedIn = lectern::fail(libraryError("Failed to add account", service + " has no browser sign-in."));
    if (service == "pocket") {
      PocketSignInRequest request;
      request.endpoint = endpoint;
      request.browser.loopback = true;
      request.browser.showSignInPage = pageShown;
      signedIn = signInToPocket(signIn, request);
    } else if (service == "feedly") {
      FeedlySignInRequest request;
      request.endpoint = endpoint;
      request.loopback = true;
      request.showSignInPage = pageShown;
      signedIn = signInToFeedly(signIn, request);
    }
    onMain([this, signedIn = std::move(signedIn), done = std::move(done)]() mutable {
      if (!signedIn) return done(signedIn.error());
      addAccount(std::move(*signedIn), std::move(done));
    });
  });
}

Result<std::string> DesktopController::importOpml(const std::filesystem::path& file) {
  auto account = ensureLocalRSSAccount(context());
  if (!account) return lectern::fail(account.error());
  OPMLViewController controller(*account);
  auto summary = controller.importOPMLFromURL(file);
  if (!summary) return lectern::fail(summary.error());
  reloadSources();
  if (online() && summary->feedsAdded > 0) app_.syncAccount(*account, /*forced=*/false);
  return fmt::format("Imported {} feed{} and {} folder{}; {} already there.", summary->feedsAdded,
                     summary->feedsAdded == 1 ? "" : "s", summary->foldersAdded, summary->foldersAdded == 1 ? "" : "s",
                     summary->feedsSkipped);
}

Result<void> DesktopController::exportOpml(const std::filesystem::path& file) {
  auto account = Account::localRSSAccount(context());
  if (!account) return lectern::fail(account.error());
  if (!*account) return lectern::fail(libraryError("There are no subscriptions of the built-in reader to export"));
  OPMLViewController controller(*account);
  return controller.exportOPMLToURL(file, OPMLViewController::ExistingFile::kOnlyOPML);
}

Result<std::int64_t> DesktopController::addSmartFolder(const std::string& title, const std::string& predicate) {
  auto parsed = predicateFromStoredText(predicate);
  if (!parsed) return lectern::fail(parsed.error());
  auto folder = addSmartFolderToLibrary(context(), title, *parsed);
  if (!folder) return lectern::fail(folder.error());
  reloadSources();
  return (*folder)->objectID().row;
}

Result<void> DesktopController::editSmartFolder(std::int64_t id, const std::string& title, const std::string& predicate) {
  auto parsed = predicateFromStoredText(predicate);
  if (!parsed) return lectern::fail(parsed.error());
  auto folder = context().existingObject<SmartFolder>(ObjectId{Entity::kSmartFolder, id});
  if (!folder) return lectern::fail(folder.error());
  if (!*folder) return lectern::fail(libraryError("The smart folder is no longer in the library"));
  (*folder)->setTitle(title);
  (*folder)->setPredicate(formatPredicate(*parsed));
  if (auto saved = context().save(); !saved) return saved;
  if (app_.smartFolders()) app_.smartFolders()->refresh(**folder);
  reloadSources();
  if (source_ == SourceKey{SourceKind::kSmartFolder, id}) loadArticles(/*replace=*/true);
  return {};
}

Result<void> DesktopController::removeSmartFolder(std::int64_t id) {
  auto folder = context().existingObject<SmartFolder>(ObjectId{Entity::kSmartFolder, id});
  if (!folder) return lectern::fail(folder.error());
  if (!*folder) return {};
  context().deleteObject(**folder);
  if (auto saved = context().save(); !saved) return saved;
  if (source_ == SourceKey{SourceKind::kSmartFolder, id}) selectSource({});
  reloadSources();
  return {};
}

Result<std::int64_t> DesktopController::saveSearchAsSmartFolder(const std::string& title) {
  if (search_.empty()) return lectern::fail(libraryError("There is no search to save"));
  auto predicate = QKSmartStreamExpression(search_).predicate();
  if (!predicate) return lectern::fail(predicate.error());
  auto folder = addSmartFolderToLibrary(context(), title, *predicate);
  if (!folder) return lectern::fail(folder.error());
  const std::int64_t id = (*folder)->objectID().row;
  reloadSources();
  selectSource({SourceKind::kSmartFolder, id});
  return id;
}

Result<std::pair<std::string, std::string>> DesktopController::smartFolder(std::int64_t id) const {
  auto folder = context().existingObject<SmartFolder>(ObjectId{Entity::kSmartFolder, id});
  if (!folder) return lectern::fail(folder.error());
  if (!*folder) return lectern::fail(libraryError("The smart folder is no longer in the library"));
  return std::pair((*folder)->title().value_or(""), (*folder)->predicate().value_or(""));
}

ActionEnablement DesktopController::enabledActions() const {
  ActionContext state;
  if (const ArticleRow* row = list_.selected()) state.article = *row;
  state.source = source_.kind;
  if (const SourceNode* node = sourceNode()) state.sourceService = node->service;
  state.syncing = syncing_;
  state.searchActive = !search_.empty();
  bool anyAccount = false;
  for (const auto& root : sources_.roots) {
    if (root.key.kind != SourceKind::kAccount) continue;
    if (root.service != ServiceType::kSmartFolders) anyAccount = true;
    if (isReadLaterService(root.service)) state.readLaterAccounts = true;
    if (root.service == ServiceType::kLocalRSS) state.builtInReader = true;
  }
  state.hasAccounts = anyAccount;
  return lectern::desktop::enabledActions(state, !list_.rows().empty());
}

}  // namespace lectern::desktop
