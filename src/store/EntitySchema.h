#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace lectern {

// The entities of the library. Subentities share their root's table and are told apart by its
// "entity" column: Folder > FeedFolder > Feed and Folder > SmartFolder in Folder, Bookmark >
// FeedStory in Bookmark.
enum class Entity : int {
  kAccount,
  kFolder,
  kFeedFolder,
  kFeed,
  kSmartFolder,
  kBookmark,
  kFeedStory,
  kContent,
  kFeedEnclosure,
  kToken,
  kOfflineOperation,
};

enum class EntityTable : int {
  kAccount,
  kFolder,
  kBookmark,
  kContent,
  kFeedEnclosure,
  kToken,
  kOfflineOperation
};
inline constexpr int kEntityTableCount = 7;

std::string_view entityName(Entity entity);  // "FeedStory"
std::optional<Entity> entityNamed(std::string_view name);
EntityTable tableOf(Entity entity);
std::string_view tableName(EntityTable table);
Entity rootEntity(EntityTable table);  // Folder for the Folder table ...
// `entity` is `base` or one of its subentities.
bool isKindOf(Entity entity, Entity base);
// The SQL condition that selects the rows of `entity` and its subentities in its table
// ("entity IN ('FeedFolder','Feed')"), or "1" for tables without subentities. Fixed text.
std::string_view entityCondition(Entity entity);

// The persisted columns of each table of the current model, in storage order (the row id "id"
// comes first in every table and is not listed). Attribute columns carry the attribute's name;
// a to-one relationship is a column named after the relationship holding the row id.
enum class ColumnType { kText, kInteger, kBoolean, kReal, kDate, kReference };
struct ColumnInfo {
  std::string_view name;
  ColumnType type;
};
std::span<const ColumnInfo> columnsOf(EntityTable table);

namespace AccountColumn {
enum : int {
  kService,
  kUsername,
  kTitle,
  kApiEndpoint,
  kToken,
  kTokenExpire,
  kLastSync,
  kLastSyncKeepIndex,
  kIsExpanded,
  kPos
};
}
namespace FolderColumn {
enum : int {
  kEntity,
  kAccount,
  kTitle,
  kPos,
  kFolderId,
  kExtId,
  kIsExpanded,
  kFeedLink,
  kDateUpdated,
  kLastRefresh,
  kLastError,
  kFailingSince,
  kPredicate,
  kShowNotification,
  kBadgeIndex,
  kGroupIndex,
  kSortIndex,
  kHttpEtag,
  kHttpLastModified,
  kOlderNotKept,
  kBodyHash
};
}
namespace BookmarkColumn {
enum : int {
  kEntity,
  kAccount,
  kBookmarkId,
  kBookmarkHash,
  kTitle,
  kUrl,
  kTags,
  kDateAdded,
  kDateUpdated,
  kIsArchived,
  kIsFavorited,
  kIsShared,
  kIsOpened,
  kProgress,
  kAuthor,
  kPermalink,
  kFeed,
  kScore
};
}
namespace ContentColumn {
enum : int { kBookmark, kHtml, kPreviewText };
}
namespace FeedEnclosureColumn {
enum : int { kFeedstory, kUrl, kType, kLength };
}
namespace TokenColumn {
enum : int { kAccount, kTitle };
}
namespace OfflineOperationColumn {
enum : int { kAccount, kType, kBookmarkId, kFeedId, kCreatedAt };
}

// Identifies one stored object in every context: its entity and row id. Hand it between threads
// to fetch "the same object" in another context.
struct ObjectId {
  Entity entity = Entity::kAccount;
  std::int64_t row = 0;

  EntityTable table() const { return tableOf(entity); }
  bool operator==(const ObjectId& other) const { return table() == other.table() && row == other.row; }
  std::string description() const;  // "FeedStory/12"
};

}  // namespace lectern

template <>
struct std::hash<lectern::ObjectId> {
  size_t operator()(const lectern::ObjectId& id) const noexcept {
    return std::hash<std::int64_t>()(id.row * 8 + static_cast<int>(id.table()));
  }
};
