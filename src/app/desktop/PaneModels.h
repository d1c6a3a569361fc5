#pragma once

// The window's panes without a toolkit: the article list with its sections and selection rules,
// and which actions make sense for what is selected. The GTK code only shows these.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/desktop/LibrarySnapshot.h"

namespace lectern::desktop {

// A run of rows under one date heading ("Today", "Yesterday", "Nov 20, 2026").
struct ArticleSection {
  std::string title;
  size_t first = 0;  // index of its first row
  size_t count = 0;
};

// The middle pane: rows newest first, the selected row, and where the keyboard goes next.
class ArticleList {
 public:
  // The same list read again (after a sync or a change). The selected article stays selected
  // when it is still there. Rows the person marked read here stay in an unread list until the
  // source or filter changes: a row must not vanish under the pointer.
  void setRows(std::vector<ArticleRow> rows, std::int64_t total);
  // As setRows, for a new source, filter or search: nothing is kept and nothing is selected.
  void replaceRows(std::vector<ArticleRow> rows, std::int64_t total);

  const std::vector<ArticleRow>& rows() const { return rows_; }
  std::int64_t total() const { return total_; }
  std::optional<size_t> selectedIndex() const { return selected_; }
  const ArticleRow* selected() const { return selected_ ? &rows_[*selected_] : nullptr; }
  const ArticleRow* row(std::int64_t id) const;

  bool select(std::int64_t id);
  bool selectIndex(size_t index);
  void clearSelection() { selected_.reset(); }

  // j/k and the arrows: the row after or before the selection (the first row when none is
  // selected); nothing at either end.
  std::optional<size_t> nextIndex() const;
  std::optional<size_t> previousIndex() const;
  // Space at the end of an article: the next unread row after the selection, else the next row.
  std::optional<size_t> nextUnreadIndex() const;

  // The row's marks changed (here or by a sync).
  void setUnread(std::int64_t id, bool unread);
  void setStarred(std::int64_t id, bool starred);
  // A deleted row goes; the selection moves to the row that took its place (or the one before
  // when it was the last).
  void remove(std::int64_t id);

  std::vector<ArticleSection> sections(Date now, std::string_view timeZone = {}) const;
  // "3 of 40 unread" style line for the list's foot: how many rows are shown of how many.
  std::string summary() const;

 private:
  std::vector<ArticleRow> rows_;
  std::int64_t total_ = 0;
  std::optional<size_t> selected_;
  std::vector<ArticleRow> readHere_;  // rows marked read since the list was replaced
};

// What the enablement of the actions depends on.
struct ActionContext {
  std::optional<ArticleRow> article;  // the selected article
  SourceKind source = SourceKind::kAll;
  ServiceType sourceService = ServiceType::kUnknown;  // of the selected source's account
  bool syncing = false;
  bool searchActive = false;
  bool readLaterAccounts = false;  // there is somewhere to send an article
  bool builtInReader = false;      // OPML is the built-in reader's
  bool hasAccounts = false;
};

struct ActionEnablement {
  bool next = false, previous = false;
  bool toggleRead = false, toggleStar = false, remove = false;
  bool openInBrowser = false, copyLink = false, email = false, sendToReadLater = false;
  bool readableView = false;
  bool syncAll = false, syncSource = false;
  bool unsubscribe = false, moveFeed = false, renameFolder = false;
  bool removeAccount = false, accountPreferences = false;
  bool saveSearch = false, editSmartFolder = false, removeSmartFolder = false;
  bool opmlExport = false;
};

ActionEnablement enabledActions(const ActionContext& context, bool hasRows);

// Whether an account of this kind takes subscriptions.
bool canSubscribe(ServiceType service);

// The address to subscribe to for a link a browser hands over: "feed:https://x/rss" and
// "feed://x/rss" (http), "feeds://x/rss" (https), or a web address as it is; nothing otherwise.
std::optional<std::string> subscriptionAddressOfUri(std::string_view uri);

}  // namespace lectern::desktop
