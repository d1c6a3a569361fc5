#include "store/EntitySchema.h"

#include <fmt/format.h>

#include <array>

namespace lectern {
namespace {

struct EntityInfo {
  Entity entity;
  std::string_view name;
  EntityTable table;
  std::string_view condition;
};

constexpr EntityInfo kEntities[] = {
    {Entity::kAccount, "Account", EntityTable::kAccount, "1"},
    {Entity::kFolder, "Folder", EntityTable::kFolder, "1"},
    {Entity::kFeedFolder, "FeedFolder", EntityTable::kFolder, "entity IN ('FeedFolder','Feed')"},
    {Entity::kFeed, "Feed", EntityTable::kFolder, "entity = 'Feed'"},
    {Entity::kSmartFolder, "SmartFolder", EntityTable::kFolder, "entity = 'SmartFolder'"},
    {Entity::kBookmark, "Bookmark", EntityTable::kBookmark, "1"},
    {Entity::kFeedStory, "FeedStory", EntityTable::kBookmark, "entity = 'FeedStory'"},
    {Entity::kContent, "Content", EntityTable::kContent, "1"},
    {Entity::kFeedEnclosure, "FeedEnclosure", EntityTable::kFeedEnclosure, "1"},
    {Entity::kToken, "Token", EntityTable::kToken, "1"},
    {Entity::kOfflineOperation, "OfflineOperation", EntityTable::kOfflineOperation, "1"},
};

constexpr std::string_view kTableNames[] = {"Account",       "Folder", "Bookmark",        "Content",
                                            "FeedEnclosure", "Token",  "OfflineOperation"};

using enum ColumnType;
constexpr ColumnInfo kAccountColumns[] = {{"service", kText},        {"username", kText},
                                          {"title", kText},          {"api_endpoint", kText},
                                          {"token", kText},          {"token_expire", kDate},
                                          {"last_sync", kDate},      {"last_sync_keep_index", kInteger},
                                          {"is_expanded", kBoolean}, {"pos", kInteger}};
constexpr ColumnInfo kFolderColumns[] = {
    {"entity", kText},         {"account", kReference},        {"title", kText},
    {"pos", kInteger},         {"folder_id", kText},           {"ext_id", kText},
    {"is_expanded", kBoolean}, {"feed_link", kText},           {"date_updated", kDate},
    {"last_refresh", kDate},   {"last_error", kText},          {"failing_since", kDate},
    {"predicate", kText},      {"showNotification", kBoolean}, {"badgeIndex", kInteger},
    {"groupIndex", kInteger},  {"sortIndex", kInteger},        {"http_etag", kText},
    {"http_last_modified", kText}, {"older_not_kept", kInteger}, {"body_hash", kText}};
constexpr ColumnInfo kBookmarkColumns[] = {
    {"entity", kText},         {"account", kReference},    {"bookmark_id", kText},
    {"bookmark_hash", kText},  {"title", kText},           {"url", kText},
    {"tags", kText},           {"date_added", kDate},      {"date_updated", kDate},
    {"is_archived", kBoolean}, {"is_favorited", kBoolean}, {"is_shared", kBoolean},
    {"is_opened", kBoolean},   {"progress", kReal},        {"author", kText},
    {"permalink", kText},      {"feed", kReference},       {"score", kInteger}};
constexpr ColumnInfo kContentColumns[] = {{"bookmark", kReference}, {"html", kText}, {"preview_text", kText}};
constexpr ColumnInfo kFeedEnclosureColumns[] = {
    {"feedstory", kReference}, {"url", kText}, {"type", kText}, {"length", kInteger}};
constexpr ColumnInfo kTokenColumns[] = {{"account", kReference}, {"title", kText}};
constexpr ColumnInfo kOfflineOperationColumns[] = {{"account", kReference},
                                                   {"type", kInteger},
                                                   {"bookmark_id", kText},
                                                   {"feed_id", kText},
                                                   {"created_at", kDate}};

const EntityInfo& infoOf(Entity entity) { return kEntities[static_cast<int>(entity)]; }

}  // namespace

std::string_view entityName(Entity entity) { return infoOf(entity).name; }

std::optional<Entity> entityNamed(std::string_view name) {
  for (const auto& info : kEntities) {
    if (info.name == name) return info.entity;
  }
  return std::nullopt;
}

EntityTable tableOf(Entity entity) { return infoOf(entity).table; }

std::string_view tableName(EntityTable table) { return kTableNames[static_cast<int>(table)]; }

Entity rootEntity(EntityTable table) {
  constexpr Entity kRoots[] = {Entity::kAccount,         Entity::kFolder,        Entity::kBookmark,
                               Entity::kContent,         Entity::kFeedEnclosure, Entity::kToken,
                               Entity::kOfflineOperation};
  return kRoots[static_cast<int>(table)];
}

bool isKindOf(Entity entity, Entity base) {
  if (entity == base) return true;
  switch (base) {
    case Entity::kFolder:
      return tableOf(entity) == EntityTable::kFolder;
    case Entity::kFeedFolder:
      return entity == Entity::kFeed;
    case Entity::kBookmark:
      return entity == Entity::kFeedStory;
    default:
      return false;
  }
}

std::string_view entityCondition(Entity entity) { return infoOf(entity).condition; }

std::span<const ColumnInfo> columnsOf(EntityTable table) {
  switch (table) {
    case EntityTable::kAccount:
      return kAccountColumns;
    case EntityTable::kFolder:
      return kFolderColumns;
    case EntityTable::kBookmark:
      return kBookmarkColumns;
    case EntityTable::kContent:
      return kContentColumns;
    case EntityTable::kFeedEnclosure:
      return kFeedEnclosureColumns;
    case EntityTable::kToken:
      return kTokenColumns;
    case EntityTable::kOfflineOperation:
      return kOfflineOperationColumns;
  }
  return {};
}

std::string ObjectId::description() const { return fmt::format("{}/{}", entityName(entity), row); }

}  // namespace lectern
