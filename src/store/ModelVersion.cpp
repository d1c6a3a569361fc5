#include "store/ModelVersion.h"

#include <fmt/format.h>

#include <array>

#include "store/SqliteDatabase.h"

namespace lectern {
namespace {

// Deferred foreign keys: a context allocates row ids itself and writes its rows in any order
// before the commit checks them. Deletes still cascade at once.
#define LECTERN_FK(table) " REFERENCES " table "(id) ON DELETE CASCADE DEFERRABLE INITIALLY DEFERRED"

constexpr std::string_view kMetadataTable =
    "CREATE TABLE Metadata (key TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID";

constexpr std::string_view kAccountTable =
    "CREATE TABLE Account (id INTEGER PRIMARY KEY AUTOINCREMENT, service TEXT, username TEXT, title TEXT,"
    " api_endpoint TEXT, token TEXT, token_expire REAL, last_sync REAL, last_sync_keep_index INTEGER,"
    " is_expanded INTEGER, pos INTEGER)";

constexpr std::string_view kFolderIndexes =
    "CREATE INDEX Folder_account_folder_id ON Folder(account, folder_id)";

constexpr std::string_view kBookmarkIndexes[] = {
    "CREATE INDEX Bookmark_account_bookmark_id ON Bookmark(account, bookmark_id)",
    "CREATE INDEX Bookmark_account_bookmark_hash ON Bookmark(account, bookmark_hash)",
    "CREATE INDEX Bookmark_feed_is_archived ON Bookmark(feed, is_archived)",
    "CREATE INDEX Bookmark_account_date_added ON Bookmark(account, date_added)",
    "CREATE INDEX Bookmark_account_is_archived ON Bookmark(account, is_archived, date_added)",
    "CREATE INDEX Bookmark_account_is_favorited ON Bookmark(account, is_favorited, date_added)",
};

constexpr std::string_view kOtherTables[] = {
    "CREATE TABLE FeedEnclosure (id INTEGER PRIMARY KEY AUTOINCREMENT, feedstory INTEGER" LECTERN_FK("Bookmark")
    ", url TEXT, type TEXT, length INTEGER)",
    "CREATE INDEX FeedEnclosure_feedstory ON FeedEnclosure(feedstory)",
    "CREATE TABLE Token (id INTEGER PRIMARY KEY AUTOINCREMENT, account INTEGER" LECTERN_FK("Account") ", title TEXT)",
    "CREATE INDEX Token_account_title ON Token(account, title)",
    "CREATE TABLE OfflineOperation (id INTEGER PRIMARY KEY AUTOINCREMENT, account INTEGER" LECTERN_FK("Account")
    ", type INTEGER, bookmark_id TEXT, feed_id TEXT, created_at REAL)",
    "CREATE INDEX OfflineOperation_account_type ON OfflineOperation(account, type, created_at)",
    "CREATE INDEX OfflineOperation_account_bookmark_id ON OfflineOperation(account, bookmark_id)",
    // Many-to-many memberships: deleting either end detaches, never deletes the other end.
    "CREATE TABLE Folder_bookmarks (folder INTEGER NOT NULL" LECTERN_FK("Folder") ", bookmark INTEGER NOT NULL"
    LECTERN_FK("Bookmark") ", PRIMARY KEY (folder, bookmark)) WITHOUT ROWID",
    "CREATE INDEX Folder_bookmarks_bookmark ON Folder_bookmarks(bookmark)",
    "CREATE TABLE FeedFolder_feeds (feedfolder INTEGER NOT NULL" LECTERN_FK("Folder") ", feed INTEGER NOT NULL"
    LECTERN_FK("Folder") ", PRIMARY KEY (feedfolder, feed)) WITHOUT ROWID",
    "CREATE INDEX FeedFolder_feeds_feed ON FeedFolder_feeds(feed)",
    "CREATE TABLE Token_bookmarks (token INTEGER NOT NULL" LECTERN_FK("Token") ", bookmark INTEGER NOT NULL"
    LECTERN_FK("Bookmark") ", PRIMARY KEY (token, bookmark)) WITHOUT ROWID",
    "CREATE INDEX Token_bookmarks_bookmark ON Token_bookmarks(bookmark)",
};

template <size_t... N>
constexpr auto concat(const std::array<std::string_view, N>&... parts) {
  std::array<std::string_view, (N + ...)> out{};
  size_t i = 0;
  ((std::copy(parts.begin(), parts.end(), out.begin() + i), i += N), ...);
  return out;
}
template <size_t N>
constexpr std::array<std::string_view, N> arrayOf(const std::string_view (&items)[N]) {
  std::array<std::string_view, N> out{};
  for (size_t i = 0; i < N; ++i) out[i] = items[i];
  return out;
}

// Lectern 2.4: the article's HTML and preview lived inside the bookmark row.
constexpr auto kSchema24 = concat(
    std::array<std::string_view, 5>{
        kMetadataTable, kAccountTable,
        "CREATE TABLE Folder (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", title TEXT, pos INTEGER, folder_id TEXT, ext_id TEXT, is_expanded INTEGER,"
                       " feed_link TEXT, date_updated REAL, predicate TEXT, showNotification INTEGER, "
                       "groupIndex INTEGER,"
                       " sortIndex INTEGER)",
        kFolderIndexes,
        "CREATE TABLE Bookmark (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", bookmark_id TEXT, bookmark_hash TEXT, title TEXT, url TEXT, tags TEXT,"
                       " date_added REAL, date_updated REAL, is_archived INTEGER, is_favorited INTEGER, "
                       "is_shared INTEGER,"
                       " is_opened INTEGER, progress REAL, html TEXT, preview_text TEXT, author TEXT, "
                       "permalink TEXT,"
                       " feed INTEGER" LECTERN_FK("Folder") ")"},
    arrayOf(kBookmarkIndexes), arrayOf(kOtherTables));

// Lectern 2.41: the large text moved into Content; smart folders gained a badge setting.
constexpr auto kSchema241 = concat(
    std::array<std::string_view, 7>{
        kMetadataTable, kAccountTable,
        "CREATE TABLE Folder (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", title TEXT, pos INTEGER, folder_id TEXT, ext_id TEXT, is_expanded INTEGER,"
                       " feed_link TEXT, date_updated REAL, predicate TEXT, showNotification INTEGER, "
                       "badgeIndex INTEGER,"
                       " groupIndex INTEGER, sortIndex INTEGER)",
        kFolderIndexes,
        "CREATE TABLE Bookmark (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", bookmark_id TEXT, bookmark_hash TEXT, title TEXT, url TEXT, tags TEXT,"
                       " date_added REAL, date_updated REAL, is_archived INTEGER, is_favorited INTEGER, "
                       "is_shared INTEGER,"
                       " is_opened INTEGER, progress REAL, author TEXT, permalink TEXT, feed "
                       "INTEGER" LECTERN_FK("Folder") ")",
        "CREATE TABLE Content (id INTEGER PRIMARY KEY AUTOINCREMENT, bookmark INTEGER UNIQUE" LECTERN_FK(
            "Bookmark") ", html TEXT, preview_text TEXT)",
        "CREATE INDEX Content_bookmark ON Content(bookmark)"},
    arrayOf(kBookmarkIndexes), arrayOf(kOtherTables));

// Lectern 2.5: each feed records its health (last refresh, last error, failing since).
constexpr auto kSchema25 = concat(
    std::array<std::string_view, 7>{
        kMetadataTable, kAccountTable,
        "CREATE TABLE Folder (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", title TEXT, pos INTEGER, folder_id TEXT, ext_id TEXT, is_expanded INTEGER,"
                       " feed_link TEXT, date_updated REAL, last_refresh REAL, last_error TEXT, "
                       "failing_since REAL,"
                       " predicate TEXT, showNotification INTEGER, badgeIndex INTEGER, groupIndex INTEGER, "
                       "sortIndex INTEGER)",
        kFolderIndexes,
        "CREATE TABLE Bookmark (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", bookmark_id TEXT, bookmark_hash TEXT, title TEXT, url TEXT, tags TEXT,"
                       " date_added REAL, date_updated REAL, is_archived INTEGER, is_favorited INTEGER, "
                       "is_shared INTEGER,"
                       " is_opened INTEGER, progress REAL, author TEXT, permalink TEXT, feed "
                       "INTEGER" LECTERN_FK("Folder") ")",
        "CREATE TABLE Content (id INTEGER PRIMARY KEY AUTOINCREMENT, bookmark INTEGER UNIQUE" LECTERN_FK(
            "Bookmark") ", html TEXT, preview_text TEXT)",
        "CREATE INDEX Content_bookmark ON Content(bookmark)"},
    arrayOf(kBookmarkIndexes), arrayOf(kOtherTables));

// Lectern 2.6: a story keeps the intelligence score its service gave it (NewsBlur), so that stories
// the person trained away can be hidden.
constexpr auto kSchema26 = concat(
    std::array<std::string_view, 7>{
        kMetadataTable, kAccountTable,
        "CREATE TABLE Folder (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", title TEXT, pos INTEGER, folder_id TEXT, ext_id TEXT, is_expanded INTEGER,"
                       " feed_link TEXT, date_updated REAL, last_refresh REAL, last_error TEXT, "
                       "failing_since REAL,"
                       " predicate TEXT, showNotification INTEGER, badgeIndex INTEGER, groupIndex INTEGER, "
                       "sortIndex INTEGER)",
        kFolderIndexes,
        "CREATE TABLE Bookmark (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", bookmark_id TEXT, bookmark_hash TEXT, title TEXT, url TEXT, tags TEXT,"
                       " date_added REAL, date_updated REAL, is_archived INTEGER, is_favorited INTEGER, "
                       "is_shared INTEGER,"
                       " is_opened INTEGER, progress REAL, author TEXT, permalink TEXT, feed "
                       "INTEGER" LECTERN_FK("Folder") ", score INTEGER)",
        "CREATE TABLE Content (id INTEGER PRIMARY KEY AUTOINCREMENT, bookmark INTEGER UNIQUE" LECTERN_FK(
            "Bookmark") ", html TEXT, preview_text TEXT)",
        "CREATE INDEX Content_bookmark ON Content(bookmark)"},
    arrayOf(kBookmarkIndexes), arrayOf(kOtherTables));

// Lectern 2.7: a full-text index of each story's title and preview text, for search and smart
// folders. It holds the texts folded for case and diacritics (lectern_fold, registered on every
// connection), so the trigram index answers CONTAINS[cd] as a substring match. Triggers only note
// which stories changed (StorySearchPending, whoever writes); each save indexes them once
// (updateSearchIndex). Indexing in the triggers cost every insert a fold and two index writes, and
// did it again for each read a context with unsaved rows makes (they are written and rolled back).
constexpr std::string_view kSearchIndex[] = {
    "CREATE VIRTUAL TABLE StorySearch USING fts5(title, preview_text, tokenize = 'trigram case_sensitive 1')",
    "CREATE TABLE StorySearchPending (id INTEGER PRIMARY KEY)",
    "CREATE TRIGGER StorySearch_bookmark_insert AFTER INSERT ON Bookmark BEGIN"
    " INSERT OR IGNORE INTO StorySearchPending VALUES (new.id); END",
    "CREATE TRIGGER StorySearch_bookmark_title AFTER UPDATE OF title ON Bookmark BEGIN"
    " INSERT OR IGNORE INTO StorySearchPending VALUES (new.id); END",
    "CREATE TRIGGER StorySearch_bookmark_delete AFTER DELETE ON Bookmark BEGIN"
    " INSERT OR IGNORE INTO StorySearchPending VALUES (old.id); END",
    "CREATE TRIGGER StorySearch_content_insert AFTER INSERT ON Content BEGIN"
    " INSERT OR IGNORE INTO StorySearchPending SELECT new.bookmark WHERE new.bookmark IS NOT NULL; END",
    "CREATE TRIGGER StorySearch_content_update AFTER UPDATE OF preview_text, bookmark ON Content BEGIN"
    " INSERT OR IGNORE INTO StorySearchPending SELECT old.bookmark WHERE old.bookmark IS NOT NULL;"
    " INSERT OR IGNORE INTO StorySearchPending SELECT new.bookmark WHERE new.bookmark IS NOT NULL; END",
    "CREATE TRIGGER StorySearch_content_delete AFTER DELETE ON Content BEGIN"
    " INSERT OR IGNORE INTO StorySearchPending SELECT old.bookmark WHERE old.bookmark IS NOT NULL; END",
};
constexpr auto kSchema27 = concat(kSchema26, arrayOf(kSearchIndex));

// Lectern 2.8: a feed keeps its validators (ETag, Last-Modified) for conditional requests and how
// many entries its first refresh left out as older than the keep period; the built-in reader
// remembers the entries the person deleted (by the link the refresh compares) for as long as the
// feed still lists them, so that a refresh does not bring them back.
constexpr auto kSchema28 = concat(
    std::array<std::string_view, 7>{
        kMetadataTable, kAccountTable,
        "CREATE TABLE Folder (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", title TEXT, pos INTEGER, folder_id TEXT, ext_id TEXT, is_expanded INTEGER,"
                       " feed_link TEXT, date_updated REAL, last_refresh REAL, last_error TEXT, "
                       "failing_since REAL,"
                       " predicate TEXT, showNotification INTEGER, badgeIndex INTEGER, groupIndex INTEGER, "
                       "sortIndex INTEGER, http_etag TEXT, http_last_modified TEXT, older_not_kept INTEGER)",
        kFolderIndexes,
        "CREATE TABLE Bookmark (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", bookmark_id TEXT, bookmark_hash TEXT, title TEXT, url TEXT, tags TEXT,"
                       " date_added REAL, date_updated REAL, is_archived INTEGER, is_favorited INTEGER, "
                       "is_shared INTEGER,"
                       " is_opened INTEGER, progress REAL, author TEXT, permalink TEXT, feed "
                       "INTEGER" LECTERN_FK("Folder") ", score INTEGER)",
        "CREATE TABLE Content (id INTEGER PRIMARY KEY AUTOINCREMENT, bookmark INTEGER UNIQUE" LECTERN_FK(
            "Bookmark") ", html TEXT, preview_text TEXT)",
        "CREATE INDEX Content_bookmark ON Content(bookmark)"},
    arrayOf(kBookmarkIndexes), arrayOf(kOtherTables), arrayOf(kSearchIndex),
    // The key answers the lookups by feed, the cascade of a deleted feed included.
    std::array<std::string_view, 1>{
        "CREATE TABLE DeletedEntry (feed INTEGER NOT NULL" LECTERN_FK("Folder") ", entry_id TEXT NOT NULL,"
        " PRIMARY KEY (feed, entry_id)) WITHOUT ROWID"});

// Lectern 2.9: a feed keeps the hash of the last document the built-in reader merged, so that a
// refresh answered in full with the same document needs no parse and no merge.
constexpr auto kSchema29 = concat(
    std::array<std::string_view, 7>{
        kMetadataTable, kAccountTable,
        "CREATE TABLE Folder (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", title TEXT, pos INTEGER, folder_id TEXT, ext_id TEXT, is_expanded INTEGER,"
                       " feed_link TEXT, date_updated REAL, last_refresh REAL, last_error TEXT, "
                       "failing_since REAL,"
                       " predicate TEXT, showNotification INTEGER, badgeIndex INTEGER, groupIndex INTEGER, "
                       "sortIndex INTEGER, http_etag TEXT, http_last_modified TEXT, older_not_kept INTEGER, body_hash TEXT)",
        kFolderIndexes,
        "CREATE TABLE Bookmark (id INTEGER PRIMARY KEY AUTOINCREMENT, entity TEXT NOT NULL, account "
        "INTEGER" LECTERN_FK(
            "Account") ", bookmark_id TEXT, bookmark_hash TEXT, title TEXT, url TEXT, tags TEXT,"
                       " date_added REAL, date_updated REAL, is_archived INTEGER, is_favorited INTEGER, "
                       "is_shared INTEGER,"
                       " is_opened INTEGER, progress REAL, author TEXT, permalink TEXT, feed "
                       "INTEGER" LECTERN_FK("Folder") ", score INTEGER)",
        "CREATE TABLE Content (id INTEGER PRIMARY KEY AUTOINCREMENT, bookmark INTEGER UNIQUE" LECTERN_FK(
            "Bookmark") ", html TEXT, preview_text TEXT)",
        "CREATE INDEX Content_bookmark ON Content(bookmark)"},
    arrayOf(kBookmarkIndexes), arrayOf(kOtherTables), arrayOf(kSearchIndex),
    // The key answers the lookups by feed, the cascade of a deleted feed included.
    std::array<std::string_view, 1>{
        "CREATE TABLE DeletedEntry (feed INTEGER NOT NULL" LECTERN_FK("Folder") ", entry_id TEXT NOT NULL,"
        " PRIMARY KEY (feed, entry_id)) WITHOUT ROWID"});

#undef LECTERN_FK

const ModelVersion kVersions[] = {
    {"Lectern 2.4", "2.4", 1, kSchema24},
    {"Lectern 2.41", "2.41", 2, kSchema241},
    {"Lectern 2.5", "2.5", 3, kSchema25},
    {"Lectern 2.6", "2.6", 4, kSchema26},
    {"Lectern 2.7", "2.7", 5, kSchema27},
    {"Lectern 2.8", "2.8", 6, kSchema28},
    {"Lectern 2.9", "2.9", 7, kSchema29},
};

}  // namespace

std::span<const ModelVersion> modelVersions() { return kVersions; }

const ModelVersion& currentModelVersion() { return kVersions[std::size(kVersions) - 1]; }

const ModelVersion* modelVersionNumbered(int number) {
  for (const auto& version : kVersions) {
    if (version.number == number) return &version;
  }
  return nullptr;
}

const ModelVersion* modelVersionNamed(std::string_view name) {
  for (const auto& version : kVersions) {
    if (version.name == name) return &version;
  }
  return nullptr;
}

Result<StoreMetadata> readStoreMetadata(SqliteDatabase& db) {
  StoreMetadata metadata;
  auto version = db.selectOne("PRAGMA user_version");
  if (!version) return fail(version.error());
  auto application = db.selectOne("PRAGMA application_id");
  if (!application) return fail(application.error());
  auto tables =
      db.selectOne("SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'");
  if (!tables) return fail(tables.error());
  metadata.versionNumber = static_cast<int>(integerOf((**version)[0]).value_or(0));
  metadata.applicationId = static_cast<std::int32_t>(integerOf((**application)[0]).value_or(0));
  metadata.hasTables = integerOf((**tables)[0]).value_or(0) > 0;
  auto hasMetadata = db.selectOne("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'Metadata'");
  if (!hasMetadata) return fail(hasMetadata.error());
  if (*hasMetadata) {
    const SqlValue key[] = {std::string("modelVersion")};
    auto name = db.selectOne("SELECT value FROM Metadata WHERE key = ?", key);
    if (!name) return fail(name.error());
    if (*name) metadata.versionName = textOf((**name)[0]).value_or("");
  }
  return metadata;
}

std::string describeStoreVersion(const StoreMetadata& metadata) {
  const ModelVersion* named = modelVersionNamed(metadata.versionName);
  if (!metadata.versionName.empty() && (named == nullptr || named->number == metadata.versionNumber)) {
    return metadata.versionName;
  }
  return fmt::format("version {}", metadata.versionNumber);
}

Result<void> createSchema(SqliteDatabase& db, const ModelVersion& version) {
  auto transaction = Transaction::begin(db, Transaction::Kind::kImmediate);
  if (!transaction) return fail(transaction.error());
  auto existing = readStoreMetadata(db);
  if (!existing) return fail(existing.error());
  if (existing->hasTables) {
    return fail(kStoreErrorDomain, 1, "Failed to create the library: the file already holds tables");
  }
  for (std::string_view statement : version.schema) {
    if (auto created = db.execute(statement); !created) return created;
  }
  const SqlValue row[] = {std::string("modelVersion"), std::string(version.name)};
  if (auto stored = db.execute("INSERT INTO Metadata (key, value) VALUES (?, ?)", row); !stored)
    return stored;
  // Pragmas take no bound values; both numbers are the code's own constants.
  if (auto pragma = db.execute(fmt::format("PRAGMA user_version = {}", version.number)); !pragma)
    return pragma;
  if (auto pragma = db.execute(fmt::format("PRAGMA application_id = {}", kLecternApplicationId)); !pragma) {
    return pragma;
  }
  return transaction->commit();
}

}  // namespace lectern
