#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/desktop/LibrarySnapshot.h"
#include "app/desktop/PaneModels.h"
#include "core/Error.h"
#include "core/OperationQueue.h"
#include "accounts/AccountCommands.h"
#include "feeds/QKFeedLinkItem.h"
#include "sync/SyncAppControllerDelegate.h"
#include "sync/SyncPassObserver.h"

namespace lectern {
class AppEnvironment;
class Bookmark;
class QKApplicationController;
class QKContentParserAsync;
}  // namespace lectern

namespace lectern::desktop {

// The window's state and every action it offers, without a toolkit. Reads run on a worker with
// their own context and land on the main queue; changes go through the library's calls (the
// same ones the command line uses), so they reach each account's service or its offline queue.
// The window (or a test) listens through `View`. Main thread only.
class DesktopController final : private SyncPassObserver, private SyncAppControllerDelegate {
 public:
  class View {
   public:
    virtual ~View() = default;
    virtual void sourcesChanged() {}
    // The list was replaced (new source, filter or search) or read again.
    virtual void articlesChanged() {}
    // One row's marks changed.
    virtual void articleRowChanged(std::int64_t id) { (void)id; }
    // The open article, or its readable view, changed.
    virtual void articleChanged() {}
    virtual void statusChanged() {}
  };

  using Done = std::function<void(std::optional<Error>)>;

  DesktopController(AppEnvironment& environment, QKApplicationController& app, View& view);
  ~DesktopController() override;
  DesktopController(const DesktopController&) = delete;
  DesktopController& operator=(const DesktopController&) = delete;

  // ---- the sources pane ----
  void reloadSources();
  const SourceTree& sources() const { return sources_; }
  const SourceKey& source() const { return source_; }
  const SourceNode* sourceNode() const { return sources_.find(source_); }
  void selectSource(SourceKey key);

  // ---- the list ----
  ArticleFilter filter() const { return filter_; }
  void setFilter(ArticleFilter filter);
  const std::string& search() const { return search_; }
  void setSearch(std::string text);
  const ArticleList& articles() const { return list_; }
  // Reads the list again keeping the selection (after a sync or a change).
  void reloadArticles();
  // Loads still running (for tests and a busy cursor).
  int loading() const { return loading_; }

  // ---- the article ----
  // Selects the row, shows its article and marks it read.
  void openArticle(std::int64_t id);
  bool openNext();
  bool openPrevious();
  // Space past the end of the article: the next unread one.
  bool openNextUnread();
  const std::optional<StoredArticle>& article() const { return article_; }
  bool readableView() const { return readable_; }
  // The readable text of the article's page instead of the feed's (downloaded and extracted on a
  // worker); a failure is said in the status and the feed's text stays.
  void setReadableView(bool on);
  const std::optional<std::string>& readableHtml() const { return readableHtml_; }

  // ---- changes to the selected article ----
  void toggleRead();
  void toggleStar();
  void deleteSelected();
  Result<void> openSelectedInBrowser();
  // Saves the selected article's page to a read-later or bookmark account.
  void sendSelectedTo(std::int64_t account, Done done);

  // ---- sync ----
  void syncAll();
  void syncSelectedAccount();
  bool syncing() const { return syncing_; }
  bool online() const;
  const std::string& statusText() const { return status_; }
  // The last failure worth a dialog or banner, with its recovery suggestion.
  const std::optional<Error>& lastError() const { return lastError_; }
  void clearError();

  // ---- the library ----
  struct AccountChoice {
    std::int64_t id = 0;
    std::string title;
    ServiceType service = ServiceType::kUnknown;
  };
  std::vector<AccountChoice> accounts() const;
  std::vector<AccountChoice> feedAccounts() const;
  std::vector<AccountChoice> readLaterAccounts() const;
  // The folders of feeds of an account, by title, for the subscribe and move choices.
  std::vector<std::string> feedFolderTitles(std::int64_t account) const;

  // The feeds a typed address offers (network on a worker).
  void discoverFeeds(std::string address, std::function<void(Result<std::vector<QKFeedLinkItem>>)> done);
  // Subscribes (the built-in reader when `account` is 0, made on first use), inside `folder` when given.
  void subscribe(std::int64_t account, std::string url, std::optional<std::string> folder, Done done);
  void unsubscribe(std::int64_t feed, Done done);
  void moveFeed(std::int64_t feed, std::optional<std::string> folder, Done done);
  void renameFolder(std::int64_t folder, std::string title, Done done);
  void removeAccount(std::int64_t account, Done done);
  // Adds an account after its service accepted the credentials (the account is selected).
  void addAccount(NewAccount account, Done done);
  // Feedly and Pocket: signs in through the browser (waiting on a worker for it to come back to
  // 127.0.0.1), then adds the account. `showPage` hears the sign-in page's address.
  void signInWithBrowser(std::string service, std::optional<std::string> endpoint,
                         std::function<void(std::string)> showPage, Done done);
  // What an import did, in one sentence.
  Result<std::string> importOpml(const std::filesystem::path& file);
  Result<void> exportOpml(const std::filesystem::path& file);

  // Smart folders: `predicate` is stored predicate text (from the editor's rows or a search).
  Result<std::int64_t> addSmartFolder(const std::string& title, const std::string& predicate);
  Result<void> editSmartFolder(std::int64_t id, const std::string& title, const std::string& predicate);
  Result<void> removeSmartFolder(std::int64_t id);
  // The current search saved as a smart folder, which is then selected.
  Result<std::int64_t> saveSearchAsSmartFolder(const std::string& title);
  // A smart folder's title and stored predicate, for the editor.
  Result<std::pair<std::string, std::string>> smartFolder(std::int64_t id) const;

  ActionEnablement enabledActions() const;

 private:
  void loadArticles(bool replace);
  void loadArticle(std::int64_t id);
  void markSelected(bool read);
  // The selected article in the main context, or why there is none.
  Result<std::shared_ptr<Bookmark>> selectedBookmark() const;
  void setStatus(std::string text);
  void fail(const Error& error);
  ObjectContext& context() const;
  template <class T>
  void runRead(const char* what, std::function<Result<T>(ObjectContext&)> read, std::function<void(Result<T>)> done);

  // SyncPassObserver
  void accountSyncStarted(Account& account) override;
  void accountSyncFinished(Account& account, const AccountSyncReport& report) override;
  void syncPassFinished(const std::vector<AccountSyncReport>& reports) override;
  // SyncAppControllerDelegate: a background save changed an account.
  void syncOperationDidUpdateAccount(Account& account) override;
  void syncOperationDidCompletedForAccount(Account& account) override;

  AppEnvironment& environment_;
  QKApplicationController& app_;
  View& view_;

  SourceTree sources_;
  SourceKey source_;
  ArticleFilter filter_ = ArticleFilter::kAll;
  std::string search_;
  ArticleList list_;
  std::optional<StoredArticle> article_;
  bool readable_ = false;
  std::optional<std::string> readableHtml_;
  bool syncing_ = false;
  std::string status_;
  std::optional<Error> lastError_;
  int loading_ = 0;
  std::uint64_t listGeneration_ = 0;
  std::uint64_t articleGeneration_ = 0;
  int reachabilityObserver_ = 0;
  bool pendingSourceReload_ = false;

  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // posted completions check it first
  std::unique_ptr<QKContentParserAsync> extraction_;
  OperationQueue reads_;    // store reads, one at a time, in order
  OperationQueue network_;  // discovery and the like
};

}  // namespace lectern::desktop
