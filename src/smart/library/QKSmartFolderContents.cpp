#include "smart/library/QKSmartFolderContents.h"

#include <fmt/format.h>

#include "core/UserDefaults.h"
#include "smart/RowTemplates.h"
#include "smart/library/SmartFolderQuery.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/SmartFolder.h"

namespace lectern {

QKSmartFolderContents::QKSmartFolderContents(ObjectContext& context, const Clock& clock, const UserDefaults& defaults)
    : context_(context), clock_(clock), defaults_(defaults) {
  contextObserver_ = context_.addObserver([this](const ContextDidSave& changes) {
    if (!changes.empty()) refresh();
  });
}

QKSmartFolderContents::~QKSmartFolderContents() { context_.removeObserver(contextObserver_); }

Result<std::vector<std::shared_ptr<Bookmark>>> QKSmartFolderContents::bookmarks(SmartFolder& folder) {
  Cache& cache = cache_[folder.objectID().row];
  seen_[folder.objectID().row] = std::static_pointer_cast<SmartFolder>(folder.shared_from_this());
  if (!cache.bookmarks) {
    auto predicate = fetchPredicate(folder);
    if (!predicate) return fail(predicate.error());
    auto fetched = fetchMatchingBookmarks(context_, *predicate, clock_.now());
    if (!fetched) return fail(fetched.error());
    cache.bookmarks = std::move(*fetched);
    cache.count = static_cast<std::int64_t>(cache.bookmarks->size());
  }
  return *cache.bookmarks;
}

Result<std::int64_t> QKSmartFolderContents::bookmarkCount(SmartFolder& folder) {
  Cache& cache = cache_[folder.objectID().row];
  seen_[folder.objectID().row] = std::static_pointer_cast<SmartFolder>(folder.shared_from_this());
  if (!cache.count) {
    auto predicate = fetchPredicate(folder);
    if (!predicate) return fail(predicate.error());
    auto counted = countMatchingBookmarks(context_, *predicate, clock_.now());
    if (!counted) return fail(counted.error());
    cache.count = *counted;
  }
  return *cache.count;
}

void QKSmartFolderContents::refresh(SmartFolder& folder) {
  const std::int64_t row = folder.objectID().row;
  const auto before = cache_[row].count;
  cache_[row] = Cache{};
  auto after = bookmarkCount(folder);
  notify(folder, "bookmarks");
  if (!after || before != *after) notify(folder, "bookmarkCount");
}

void QKSmartFolderContents::refresh() {
  for (auto it = seen_.begin(); it != seen_.end();) {
    auto folder = it->second.lock();
    if (!folder || folder->isDeleted()) {
      cache_.erase(it->first);
      it = seen_.erase(it);
      continue;
    }
    refresh(*folder);
    ++it;
  }
}

void QKSmartFolderContents::clearBookmarkCache() { cache_.clear(); }

bool QKSmartFolderContents::hasDatePredicate(const SmartFolder& folder) {
  const auto stored = folder.predicate();
  if (!stored) return false;
  auto predicate = predicateFromStoredText(*stored);
  return predicate && lectern::hasDatePredicate(*predicate);
}

void QKSmartFolderContents::rearrangeIfHasDatePredicate(SmartFolder& folder) {
  if (hasDatePredicate(folder)) refresh(folder);
}

bool QKSmartFolderContents::isBadgeVisible(SmartFolder& folder) {
  const std::int64_t index = folder.badgeIndex();
  bool shown = false;
  if (index == 2) {
    shown = true;
  } else if (index == 1) {
    shown = defaults_.integerForKey(kBookmarkCountDisplayIndex) == 0;
  }
  if (!shown) return false;
  auto count = bookmarkCount(folder);
  return count && *count > 0;
}

std::string QKSmartFolderContents::badgeValue(SmartFolder& folder) {
  if (!isBadgeVisible(folder)) return "";
  auto count = bookmarkCount(folder);
  return count ? fmt::format("{}", *count) : "";
}

int QKSmartFolderContents::addObserver(Observer observer) {
  observers_[nextToken_] = std::move(observer);
  return nextToken_++;
}

void QKSmartFolderContents::removeObserver(int token) { observers_.erase(token); }

void QKSmartFolderContents::notify(const SmartFolder& folder, std::string_view key) {
  const auto observers = observers_;
  for (const auto& [token, observer] : observers) observer(folder, key);
}

}  // namespace lectern
