#include "app/desktop/PaneModels.h"

#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "core/Dates.h"

namespace lectern::desktop {

void ArticleList::replaceRows(std::vector<ArticleRow> rows, std::int64_t total) {
  rows_ = std::move(rows);
  total_ = total;
  selected_.reset();
  readHere_.clear();
}

void ArticleList::setRows(std::vector<ArticleRow> rows, std::int64_t total) {
  const std::optional<std::int64_t> selectedId = selected_ ? std::optional(rows_[*selected_].id) : std::nullopt;
  for (const auto& kept : readHere_) {
    const bool present = std::any_of(rows.begin(), rows.end(), [&](const ArticleRow& row) { return row.id == kept.id; });
    if (present) continue;
    // Only rows still in the list a moment ago come back: a deletion elsewhere wins.
    if (!row(kept.id)) continue;
    auto at = std::find_if(rows.begin(), rows.end(), [&](const ArticleRow& row) {
      return row.date.value_or(Date{}) < kept.date.value_or(Date{});
    });
    rows.insert(at, kept);
    ++total;
  }
  rows_ = std::move(rows);
  total_ = total;
  selected_.reset();
  if (selectedId) select(*selectedId);
}

const ArticleRow* ArticleList::row(std::int64_t id) const {
  auto found = std::find_if(rows_.begin(), rows_.end(), [id](const ArticleRow& row) { return row.id == id; });
  return found == rows_.end() ? nullptr : &*found;
}

bool ArticleList::select(std::int64_t id) {
  auto found = std::find_if(rows_.begin(), rows_.end(), [id](const ArticleRow& row) { return row.id == id; });
  if (found == rows_.end()) return false;
  selected_ = static_cast<size_t>(found - rows_.begin());
  return true;
}

bool ArticleList::selectIndex(size_t index) {
  if (index >= rows_.size()) return false;
  selected_ = index;
  return true;
}

std::optional<size_t> ArticleList::nextIndex() const {
  if (rows_.empty()) return std::nullopt;
  if (!selected_) return 0;
  if (*selected_ + 1 >= rows_.size()) return std::nullopt;
  return *selected_ + 1;
}

std::optional<size_t> ArticleList::previousIndex() const {
  if (rows_.empty()) return std::nullopt;
  if (!selected_) return 0;
  if (*selected_ == 0) return std::nullopt;
  return *selected_ - 1;
}

std::optional<size_t> ArticleList::nextUnreadIndex() const {
  const size_t from = selected_ ? *selected_ + 1 : 0;
  for (size_t i = from; i < rows_.size(); ++i) {
    if (rows_[i].unread) return i;
  }
  return nextIndex();
}

void ArticleList::setUnread(std::int64_t id, bool unread) {
  for (auto& row : rows_) {
    if (row.id != id) continue;
    row.unread = unread;
    std::erase_if(readHere_, [id](const ArticleRow& kept) { return kept.id == id; });
    if (!unread) readHere_.push_back(row);
  }
}

void ArticleList::setStarred(std::int64_t id, bool starred) {
  for (auto& row : rows_) {
    if (row.id == id) row.starred = starred;
  }
  for (auto& row : readHere_) {
    if (row.id == id) row.starred = starred;
  }
}

void ArticleList::remove(std::int64_t id) {
  auto found = std::find_if(rows_.begin(), rows_.end(), [id](const ArticleRow& row) { return row.id == id; });
  std::erase_if(readHere_, [id](const ArticleRow& kept) { return kept.id == id; });
  if (found == rows_.end()) return;
  const size_t index = static_cast<size_t>(found - rows_.begin());
  rows_.erase(found);
  if (total_ > 0) --total_;
  if (!selected_) return;
  if (*selected_ > index) {
    --*selected_;
  } else if (*selected_ == index) {
    if (rows_.empty()) {
      selected_.reset();
    } else if (index >= rows_.size()) {
      selected_ = rows_.size() - 1;
    }
  }
}

std::vector<ArticleSection> ArticleList::sections(Date now, std::string_view timeZone) const {
  std::vector<ArticleSection> out;
  // The current section's day as [start, end): rows newest first mostly stay inside it, so the
  // calendar is asked twice per section rather than once per row.
  std::optional<std::pair<Date, Date>> day;
  bool undated = false;
  for (size_t i = 0; i < rows_.size(); ++i) {
    const auto& date = rows_[i].date;
    const bool same = date ? day && *date >= day->first && *date < day->second : undated && !out.empty();
    if (!same) {
      if (date) {
        const Date start = sectionDate(*date, timeZone);
        // 26 hours after midnight is always in the next day, whatever the clock change.
        day = std::pair(start, sectionDate(start + std::chrono::hours(26), timeZone));
        undated = false;
        out.push_back(ArticleSection{sectionTitle(start, now, timeZone), i, 0});
      } else {
        day.reset();
        undated = true;
        out.push_back(ArticleSection{"Undated", i, 0});
      }
    }
    ++out.back().count;
  }
  return out;
}

std::string ArticleList::summary() const {
  const auto unread = std::count_if(rows_.begin(), rows_.end(), [](const ArticleRow& row) { return row.unread; });
  if (rows_.empty()) return "No articles";
  const std::string shown = static_cast<std::int64_t>(rows_.size()) < total_
                                ? fmt::format("{} of {} articles", rows_.size(), total_)
                                : fmt::format("{} article{}", rows_.size(), rows_.size() == 1 ? "" : "s");
  return unread > 0 ? fmt::format("{}, {} unread", shown, unread) : shown;
}

bool canSubscribe(ServiceType service) { return isFeedService(service); }

std::optional<std::string> subscriptionAddressOfUri(std::string_view uri) {
  const auto startsWith = [uri](std::string_view prefix) {
    return uri.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), uri.begin(),
                      [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); });
  };
  std::string address;
  if (startsWith("feed:http://") || startsWith("feed:https://")) {
    address = std::string(uri.substr(5));
  } else if (startsWith("feed://")) {
    address = "http://" + std::string(uri.substr(7));
  } else if (startsWith("feeds://")) {
    address = "https://" + std::string(uri.substr(8));
  } else if (startsWith("feed:")) {
    address = "http://" + std::string(uri.substr(5));
  } else if (startsWith("http://") || startsWith("https://")) {
    address = std::string(uri);
  } else {
    return std::nullopt;
  }
  // Nothing after the scheme, or control characters, is not an address.
  const size_t schemeEnd = address.find("://");
  if (schemeEnd == std::string::npos || address.size() <= schemeEnd + 3) return std::nullopt;
  if (std::any_of(address.begin(), address.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; })) {
    return std::nullopt;
  }
  return address;
}

ActionEnablement enabledActions(const ActionContext& context, bool hasRows) {
  ActionEnablement on;
  on.next = hasRows;
  on.previous = hasRows;
  if (context.article) {
    on.toggleRead = true;
    on.toggleStar = true;
    on.remove = true;
    const bool link = !context.article->url.empty();
    on.openInBrowser = link;
    on.copyLink = link;
    on.email = link;
    on.readableView = link;
    on.sendToReadLater = link && context.readLaterAccounts;
  }
  on.syncAll = context.hasAccounts && !context.syncing;
  const bool inAccount = context.source != SourceKind::kAll && context.sourceService != ServiceType::kSmartFolders;
  on.syncSource = inAccount && !context.syncing;
  on.unsubscribe = context.source == SourceKind::kFeed && isFeedService(context.sourceService);
  on.moveFeed = on.unsubscribe;
  on.renameFolder = context.source == SourceKind::kFolder && isFeedService(context.sourceService);
  on.removeAccount = context.source == SourceKind::kAccount && context.sourceService != ServiceType::kSmartFolders;
  on.accountPreferences = on.removeAccount;
  on.saveSearch = context.searchActive;
  on.editSmartFolder = context.source == SourceKind::kSmartFolder;
  on.removeSmartFolder = on.editSmartFolder;
  on.opmlExport = context.builtInReader;
  return on;
}

}  // namespace lectern::desktop
