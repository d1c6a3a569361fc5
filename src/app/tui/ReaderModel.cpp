#include "app/tui/ReaderModel.h"

#include <algorithm>

#include <fmt/format.h>

namespace lectern {
namespace {

// Short enough for 80 columns; every key is in `lectern read --help`.
constexpr std::string_view kListHelp = "q:quit Enter:open n/p:unread m:read s:star o:browser r:refresh /:search";
constexpr std::string_view kArticleHelp = "q:back space:page n/p:unread m:read s:star o:browser 1-9,f:link r:refresh";
constexpr std::string_view kSearchHelp = "Enter:search Esc:cancel (e.g. title:rust or \"exact words\")";
constexpr std::string_view kLinkHelp = "Enter:open the link Esc:cancel";

bool isTextByte(int key) { return (key >= 0x20 && key < 0x7F) || (key >= 0x80 && key < 0x100); }

std::string errorText(const Error& error) {
  return error.description.empty() ? error.recoverySuggestion : error.description;
}

}  // namespace

ReaderModel::ReaderModel(ReaderLibrary& library, std::string scopeTitle)
    : library_(library), scopeTitle_(std::move(scopeTitle)) {}

Result<void> ReaderModel::load() {
  auto items = library_.items("");
  if (!items) return fail(items.error());
  items_ = std::move(*items);
  selection_ = 0;
  listTop_ = 0;
  return {};
}

void ReaderModel::resize(int rows, int columns) {
  rows_ = std::max(rows, 4);
  columns_ = std::max(columns, 10);
  if (article_) {
    // Keep the reader near the same place of the text at the new width.
    const double at = page_.lines.empty() ? 0.0 : static_cast<double>(articleTop_) / static_cast<double>(page_.lines.size());
    renderArticle();
    articleTop_ = static_cast<size_t>(at * static_cast<double>(page_.lines.size()));
    const size_t last = page_.lines.size() > bodyRows() ? page_.lines.size() - bodyRows() : 0;
    articleTop_ = std::min(articleTop_, last);
  }
  moveSelection(0);
}

size_t ReaderModel::bodyRows() const { return static_cast<size_t>(std::max(rows_ - 3, 1)); }

void ReaderModel::handleKey(int key) {
  if (prompt_) {
    promptKey(key);
    return;
  }
  if (key == '/') {
    prompt_ = Prompt{Prompt::Kind::kSearch, ""};
    return;
  }
  if (key == 'r') {
    refresh();
    return;
  }
  if (screen_ == Screen::kList) {
    listKey(key);
  } else {
    articleKey(key);
  }
}

void ReaderModel::listKey(int key) {
  switch (key) {
    case 'j':
    case kKeyDown:
      moveSelection(1);
      return;
    case 'k':
    case kKeyUp:
      moveSelection(-1);
      return;
    case kKeyPageDown:
      moveSelection(static_cast<long>(bodyRows()));
      return;
    case kKeyPageUp:
      moveSelection(-static_cast<long>(bodyRows()));
      return;
    case 'g':
    case kKeyHome:
      moveSelection(-static_cast<long>(items_.size()));
      return;
    case 'G':
    case kKeyEnd:
      moveSelection(static_cast<long>(items_.size()));
      return;
    case kKeyEnter:
    case kKeyRight:
    case 'l':
      if (!items_.empty()) openItem(selection_);
      return;
    case ' ': {
      // The selected item when it is unread, else the next unread one.
      if (items_.empty()) return;
      if (items_[selection_].unread) {
        openItem(selection_);
      } else if (auto next = unreadAfter(selection_)) {
        openItem(*next);
      } else {
        status_ = "No unread articles below.";
      }
      return;
    }
    case 'n':
      if (auto next = unreadAfter(selection_)) {
        selection_ = *next;
        moveSelection(0);
      } else {
        status_ = "No unread articles below.";
      }
      return;
    case 'p':
      if (auto previous = unreadBefore(selection_)) {
        selection_ = *previous;
        moveSelection(0);
      } else {
        status_ = "No unread articles above.";
      }
      return;
    case 'm':
      toggleRead();
      return;
    case 's':
      toggleStar();
      return;
    case 'o':
      openInBrowser();
      return;
    case 'q':
    case kKeyEscape:
      if (search_) {
        search_.reset();
        reload("");
        return;
      }
      // Esc leaves a search but never the reader: it is too easily pressed.
      if (key == 'q') finished_ = true;
      return;
    default:
      return;
  }
}

void ReaderModel::articleKey(int key) {
  const size_t last = page_.lines.size() > bodyRows() ? page_.lines.size() - bodyRows() : 0;
  switch (key) {
    case 'j':
    case kKeyDown:
      articleTop_ = std::min(articleTop_ + 1, last);
      return;
    case 'k':
    case kKeyUp:
      if (articleTop_ > 0) --articleTop_;
      return;
    case ' ':
    case kKeyPageDown:
      pageDown();
      return;
    case 'b':
    case '-':
    case kKeyPageUp:
      articleTop_ = articleTop_ > bodyRows() ? articleTop_ - bodyRows() : 0;
      return;
    case 'g':
    case kKeyHome:
      articleTop_ = 0;
      return;
    case 'G':
    case kKeyEnd:
      articleTop_ = last;
      return;
    case 'n':
      if (auto next = unreadAfter(selection_)) {
        openItem(*next);
      } else {
        status_ = "No more unread articles.";
      }
      return;
    case 'p':
      if (auto previous = unreadBefore(selection_)) {
        openItem(*previous);
      } else {
        status_ = "No unread articles before this one.";
      }
      return;
    case 'm':
      toggleRead();
      return;
    case 's':
      toggleStar();
      return;
    case 'o':
      openInBrowser();
      return;
    case 'f':
      prompt_ = Prompt{Prompt::Kind::kLink, ""};
      return;
    case 'q':
    case kKeyEscape:
    case kKeyLeft:
    case 'h':
      screen_ = Screen::kList;
      article_.reset();
      page_ = {};
      articleTop_ = 0;
      moveSelection(0);
      return;
    default:
      if (key >= '0' && key <= '9') prompt_ = Prompt{Prompt::Kind::kLink, std::string(1, static_cast<char>(key))};
      return;
  }
}

void ReaderModel::promptKey(int key) {
  if (key == kKeyEscape) {
    prompt_.reset();
    return;
  }
  if (key == kKeyEnter) {
    submitPrompt();
    return;
  }
  if (key == kKeyBackspace) {
    auto& text = prompt_->text;
    // Back one character, not one byte.
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
    if (!text.empty()) text.pop_back();
    return;
  }
  if (prompt_->kind == Prompt::Kind::kLink) {
    if (key >= '0' && key <= '9') prompt_->text += static_cast<char>(key);
    return;
  }
  if (isTextByte(key)) prompt_->text += static_cast<char>(key);
}

void ReaderModel::submitPrompt() {
  const Prompt prompt = std::move(*prompt_);
  prompt_.reset();
  if (prompt.kind == Prompt::Kind::kLink) {
    openLink(prompt.text);
    return;
  }
  if (prompt.text.find_first_not_of(' ') == std::string::npos) return;
  auto found = library_.items(prompt.text);
  if (!found) {
    status_ = "Search: " + errorText(found.error());
    return;
  }
  items_ = std::move(*found);
  search_ = prompt.text;
  screen_ = Screen::kList;
  article_.reset();
  page_ = {};
  selection_ = 0;
  listTop_ = 0;
  status_ = fmt::format("{} found. q: back to the list", items_.size());
}

void ReaderModel::moveSelection(long delta) {
  if (items_.empty()) {
    selection_ = 0;
    listTop_ = 0;
    return;
  }
  const long last = static_cast<long>(items_.size()) - 1;
  selection_ = static_cast<size_t>(std::clamp(static_cast<long>(selection_) + delta, 0L, last));
  if (selection_ < listTop_) listTop_ = selection_;
  if (selection_ >= listTop_ + bodyRows()) listTop_ = selection_ - bodyRows() + 1;
}

std::optional<size_t> ReaderModel::unreadAfter(size_t from) const {
  for (size_t i = from + 1; i < items_.size(); ++i) {
    if (items_[i].unread) return i;
  }
  return std::nullopt;
}

std::optional<size_t> ReaderModel::unreadBefore(size_t from) const {
  for (size_t i = std::min(from, items_.size()); i-- > 0;) {
    if (items_[i].unread) return i;
  }
  return std::nullopt;
}

ReaderItem* ReaderModel::current() { return items_.empty() ? nullptr : &items_[selection_]; }

void ReaderModel::openItem(size_t index) {
  selection_ = index;
  moveSelection(0);
  auto& item = items_[index];
  auto article = library_.article(item.id);
  if (!article) {
    status_ = errorText(article.error());
    return;
  }
  article_ = std::move(*article);
  screen_ = Screen::kArticle;
  articleTop_ = 0;
  renderArticle();
  status_.clear();
  if (item.unread) setRead(item, true);
}

void ReaderModel::renderArticle() {
  if (article_) page_ = renderArticlePage(*article_, columns_);
}

void ReaderModel::pageDown() {
  const size_t rows = bodyRows();
  if (articleTop_ + rows < page_.lines.size()) {
    articleTop_ = std::min(articleTop_ + rows, page_.lines.size() - rows);
    return;
  }
  // At the end: on to the next unread article.
  if (auto next = unreadAfter(selection_)) {
    openItem(*next);
  } else {
    status_ = "No more unread articles.";
  }
}

void ReaderModel::setRead(ReaderItem& item, bool read) {
  item.unread = !read;
  ++pending_;
  const std::int64_t id = item.id;
  library_.markRead(id, read, [this, id, read](std::optional<Error> error) {
    --pending_;
    if (!error) return;
    for (auto& each : items_) {
      if (each.id == id) each.unread = read;  // put back what the service refused
    }
    status_ = fmt::format("Could not mark {} {}: {}", id, read ? "read" : "unread", errorText(*error));
  });
}

void ReaderModel::toggleRead() {
  auto* item = current();
  if (!item) return;
  setRead(*item, item->unread);
  status_ = item->unread ? "Marked unread." : "Marked read.";
}

void ReaderModel::toggleStar() {
  auto* item = current();
  if (!item) return;
  const bool starred = !item->starred;
  item->starred = starred;
  status_ = starred ? "Starred." : "Unstarred.";
  ++pending_;
  const std::int64_t id = item->id;
  library_.markStarred(id, starred, [this, id, starred](std::optional<Error> error) {
    --pending_;
    if (!error) return;
    for (auto& each : items_) {
      if (each.id == id) each.starred = !starred;
    }
    status_ = fmt::format("Could not {} {}: {}", starred ? "star" : "unstar", id, errorText(*error));
  });
}

void ReaderModel::openInBrowser() {
  auto* item = current();
  if (!item) return;
  const std::string url = article_ && !article_->baseUrl.empty() ? article_->baseUrl : item->url;
  if (url.empty()) {
    status_ = "This article has no address.";
    return;
  }
  if (auto opened = library_.openInBrowser(url); !opened) {
    status_ = errorText(opened.error());
    return;
  }
  status_ = "Opened in the browser: " + url;
  if (item->unread) setRead(*item, true);
}

void ReaderModel::openLink(const std::string& number) {
  const int wanted = number.empty() || number.size() > 6 ? 0 : std::stoi(number);
  const auto found = std::find_if(page_.links.begin(), page_.links.end(),
                                  [wanted](const ArticleLink& link) { return link.number == wanted; });
  if (found == page_.links.end()) {
    status_ = number.empty() ? "No link number given." : fmt::format("No link [{}] in this article.", number);
    return;
  }
  if (auto opened = library_.openInBrowser(found->url); !opened) {
    status_ = errorText(opened.error());
    return;
  }
  status_ = fmt::format("Opened [{}] {}", found->number, found->url);
}

void ReaderModel::refresh() {
  if (refreshing_) {
    status_ = "Already refreshing…";
    return;
  }
  refreshing_ = true;
  status_ = "Refreshing…";
  library_.refresh([this](std::string progress) { status_ = std::move(progress); },
                   [this](std::optional<Error> error) {
                     refreshing_ = false;
                     reload(search_.value_or(""));
                     status_ = error ? "Refresh: " + errorText(*error) : fmt::format("Refreshed: {} unread.",
                         std::count_if(items_.begin(), items_.end(), [](const auto& item) { return item.unread; }));
                   });
}

void ReaderModel::reload(const std::string& search) {
  const std::int64_t selected = items_.empty() ? 0 : items_[selection_].id;
  auto items = library_.items(search);
  if (!items) {
    status_ = errorText(items.error());
    return;
  }
  items_ = std::move(*items);
  // The same article stays selected when it is still listed.
  selection_ = 0;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (items_[i].id == selected) selection_ = i;
  }
  listTop_ = std::min(listTop_, selection_);
  moveSelection(0);
}

std::string ReaderModel::listLine(const ReaderItem& item) const {
  const size_t width = static_cast<size_t>(columns_);
  std::string line = fmt::format("{:>5} {}{} ", item.id, item.unread ? 'N' : ' ', item.starred ? '*' : ' ');
  if (width >= 60) line += fmt::format("{:10}  ", fitToWidth(item.date.substr(0, 10), 10));
  if (width >= 80 && !item.feed.empty()) {
    const std::string feed = fitToWidth(terminalSafe(item.feed), 18);
    line += feed + std::string(18 - std::min<size_t>(18, displayWidth(feed)), ' ') + "  ";
  }
  std::string title = terminalSafe(item.title.empty() ? "(untitled)" : item.title);
  std::replace(title.begin(), title.end(), '\n', ' ');
  std::replace(title.begin(), title.end(), '\t', ' ');
  return fitToWidth(line + title, width);
}

ReaderView ReaderModel::view() const {
  ReaderView view;
  const size_t width = static_cast<size_t>(columns_);
  const size_t rows = bodyRows();
  if (screen_ == Screen::kArticle && article_) {
    view.title = fitToWidth(fmt::format("{} ({}/{})", terminalSafe(article_->title), selection_ + 1, items_.size()), width);
    for (size_t i = articleTop_; i < page_.lines.size() && i < articleTop_ + rows; ++i) {
      view.lines.push_back(fitToWidth(page_.lines[i], width));
    }
    view.help = fitToWidth(kArticleHelp, width);
  } else {
    const auto unread = std::count_if(items_.begin(), items_.end(), [](const auto& item) { return item.unread; });
    view.title = search_ ? fmt::format("Search: {} ({} found)", terminalSafe(*search_), items_.size())
                         : fmt::format("{} ({} unread of {})", scopeTitle_, unread, items_.size());
    view.title = fitToWidth(view.title, width);
    for (size_t i = listTop_; i < items_.size() && i < listTop_ + rows; ++i) view.lines.push_back(listLine(items_[i]));
    if (items_.empty()) view.lines.push_back(search_ ? "Nothing matches." : "Nothing to read.");
    view.selected = items_.empty() ? -1 : static_cast<int>(selection_ - listTop_);
    view.help = fitToWidth(kListHelp, width);
  }
  if (prompt_) {
    view.status = (prompt_->kind == Prompt::Kind::kSearch ? "Search: " : "Open link: ") + prompt_->text;
    view.help = fitToWidth(prompt_->kind == Prompt::Kind::kSearch ? kSearchHelp : kLinkHelp, width);
  } else {
    view.status = status_;
  }
  view.status = fitToWidth(terminalSafe(view.status), width);
  return view;
}

}  // namespace lectern
