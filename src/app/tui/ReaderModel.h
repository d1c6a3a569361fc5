#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/text/ArticleText.h"
#include "core/Error.h"

namespace lectern {

// One row of the reader's list.
struct ReaderItem {
  std::int64_t id = 0;  // the local id `lectern show` takes
  std::string title;
  std::string feed;
  std::string date;  // as the list shows it
  std::string url;
  bool unread = false;
  bool starred = false;
};

// What the terminal reader asks of the library. The program's implementation calls the store,
// the sync manager and the browser; tests give their own. Called on the main thread only.
class ReaderLibrary {
 public:
  using Completion = std::function<void(std::optional<Error>)>;
  virtual ~ReaderLibrary() = default;
  // The articles the reader was opened on, newest first; with a search expression, the articles
  // it matches instead. An expression that does not read is an error.
  virtual Result<std::vector<ReaderItem>> items(const std::string& search) = 0;
  virtual Result<ArticleDocument> article(std::int64_t id) = 0;
  // The change goes to the account's service, or to its offline queue; `done` runs later, on
  // the main queue.
  virtual void markRead(std::int64_t id, bool read, Completion done) = 0;
  virtual void markStarred(std::int64_t id, bool starred, Completion done) = 0;
  virtual Result<void> openInBrowser(const std::string& url) = 0;
  // Starts bringing the library up to date and returns at once: `progress` hears what is being
  // done, `done` the end (both on the main queue).
  virtual void refresh(std::function<void(std::string)> progress, Completion done) = 0;
};

// Keys that are not characters, as the screen code hands them on.
enum ReaderKey : int {
  kKeyUp = 0x10000,
  kKeyDown,
  kKeyLeft,
  kKeyRight,
  kKeyPageUp,
  kKeyPageDown,
  kKeyHome,
  kKeyEnd,
  kKeyEnter,
  kKeyEscape,
  kKeyBackspace,
};

// What the screen shows, every line already cut to the screen's width.
struct ReaderView {
  std::string title;               // the top bar
  std::vector<std::string> lines;  // the body
  int selected = -1;               // the highlighted body line; -1 for none
  std::string help;                // the keys, above the status line
  std::string status;              // the last thing that happened, or the prompt being typed
};

// The terminal reader without a terminal: the list, the open article, paging, the prompt and
// what each key does. Owned by the `read` command; main thread only.
class ReaderModel {
 public:
  enum class Screen { kList, kArticle };

  ReaderModel(ReaderLibrary& library, std::string scopeTitle);

  // Reads the list; an error means there is nothing to show.
  Result<void> load();
  void resize(int rows, int columns);
  void handleKey(int key);

  ReaderView view() const;
  bool finished() const { return finished_; }
  // Changes sent to the library whose completion has not come yet.
  int pendingChanges() const { return pending_; }

  Screen screen() const { return screen_; }
  const std::vector<ReaderItem>& items() const { return items_; }
  size_t selection() const { return selection_; }
  // The first article line on screen.
  size_t articleTop() const { return articleTop_; }
  const std::string& status() const { return status_; }

 private:
  struct Prompt {
    enum class Kind { kSearch, kLink } kind;
    std::string text;
  };

  void listKey(int key);
  void articleKey(int key);
  void promptKey(int key);
  void submitPrompt();

  // The body's height in lines.
  size_t bodyRows() const;
  void moveSelection(long delta);
  // The next unread item after (or before) `from`, in list order.
  std::optional<size_t> unreadAfter(size_t from) const;
  std::optional<size_t> unreadBefore(size_t from) const;
  void openItem(size_t index);
  void renderArticle();
  void pageDown();
  void toggleRead();
  void toggleStar();
  void openInBrowser();
  void openLink(const std::string& number);
  void refresh();
  void reload(const std::string& search);
  void setRead(ReaderItem& item, bool read);
  ReaderItem* current();
  std::string listLine(const ReaderItem& item) const;

  ReaderLibrary& library_;
  const std::string scopeTitle_;
  int rows_ = 24;
  int columns_ = 80;
  Screen screen_ = Screen::kList;
  std::vector<ReaderItem> items_;
  size_t selection_ = 0;
  size_t listTop_ = 0;
  std::optional<std::string> search_;  // the list shows a search's results
  std::optional<ArticleDocument> article_;
  ArticleText page_;
  size_t articleTop_ = 0;
  std::optional<Prompt> prompt_;
  std::string status_;
  bool refreshing_ = false;
  bool finished_ = false;
  int pending_ = 0;
};

}  // namespace lectern
