#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "store/EntitySchema.h"
#include "sync/SmartFolderRearranging.h"

namespace lectern {

class Bookmark;
class ObjectContext;
class SmartFolder;
class UserDefaults;

// What each smart folder holds right now, for the sidebar and the lists: a cached bookmark list
// and count per folder, refreshed when the library changes (`refresh`), and for folders with a date
// row also when time passes (`rearrangeIfHasDatePredicate`, called by the sync manager after each
// pass). Observers hear "bookmarks" and "bookmarkCount" when a folder's answer changed.
// Lives on the thread of its context (the main queue).
class QKSmartFolderContents final : public SmartFolderRearranging {
 public:
  QKSmartFolderContents(ObjectContext& context, const Clock& clock, const UserDefaults& defaults);
  ~QKSmartFolderContents() override;
  QKSmartFolderContents(const QKSmartFolderContents&) = delete;
  QKSmartFolderContents& operator=(const QKSmartFolderContents&) = delete;

  // The folder's items, newest first (fetched when not cached).
  Result<std::vector<std::shared_ptr<Bookmark>>> bookmarks(SmartFolder& folder);
  // How many items the folder holds (counted when not cached).
  Result<std::int64_t> bookmarkCount(SmartFolder& folder);

  // Forgets every cached answer and re-counts the folders seen so far, telling observers of those
  // whose count changed. Runs by itself after each save of the context.
  void refresh();
  // The same for one folder.
  void refresh(SmartFolder& folder);
  void clearBookmarkCache();
  void rearrangeIfHasDatePredicate(SmartFolder& folder) override;
  // True when the folder's predicate holds a date row.
  static bool hasDatePredicate(const SmartFolder& folder);

  // The folder's badge: its badgeIndex 0 never shows one, 2 always does, 1 (the default) follows
  // "BookmarkCountDisplayIndex" (0: counts shown, anything else: hidden); a count of 0 shows none.
  bool isBadgeVisible(SmartFolder& folder);
  std::string badgeValue(SmartFolder& folder);

  using Observer = std::function<void(const SmartFolder& folder, std::string_view key)>;
  int addObserver(Observer observer);
  void removeObserver(int token);

 private:
  struct Cache {
    std::optional<std::vector<std::shared_ptr<Bookmark>>> bookmarks;
    std::optional<std::int64_t> count;
  };
  void notify(const SmartFolder& folder, std::string_view key);

  ObjectContext& context_;
  const Clock& clock_;
  const UserDefaults& defaults_;
  std::map<std::int64_t, Cache> cache_;  // by the folder's row
  std::map<std::int64_t, std::weak_ptr<SmartFolder>> seen_;
  std::map<int, Observer> observers_;
  int nextToken_ = 1;
  int contextObserver_ = 0;
};

}  // namespace lectern
