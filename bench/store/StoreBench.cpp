// Store benchmarks: 100,000 feed stories with 2 KB of HTML each, inserted in batches of 500 with a
// save after each, through the store and through plain SQLite statements (the floor); then the
// reads the reader makes on such a library. Last, the stories of one cold refresh (15,000 of
// 5 KB HTML) through the store, one save per feed, beside a bare SQLite insert loop of rows of
// the same sizes: the floor of "storing the refresh's stories".
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/Clock.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/UserDefaults.h"
#include "feeds/RSSFeed.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/ModelVersion.h"
#include "store/QKDataManager.h"
#include "store/SqliteDatabase.h"

namespace lectern {
namespace {

constexpr int kStories = 100'000;
constexpr int kBatch = 500;
constexpr int kFeeds = 1'000;

// About 2 KB of article HTML, different for each story.
std::string articleHtml(int index) {
  std::string html = fmt::format("<h2>Story {}</h2>", index);
  int paragraph = 0;
  while (html.size() < 2048) {
    html += fmt::format(
        "<p>Paragraph {} of story {}: the council&#8217;s plan for <a href=\"https://example.com/{}/{}\">the "
        "new "
        "library</a> was <em>approved</em> &amp; work starts in spring. <img "
        "src=\"https://img.example.com/{}.jpg\"> "
        "Residents asked about parking, opening hours and the caf&eacute;.</p>",
        ++paragraph, index, index, paragraph, index);
  }
  return html;
}

RSSEntry entryFor(int index) {
  RSSEntry entry;
  entry.url = fmt::format("https://example.com/feed{}/story{}", index % kFeeds, index);
  entry.title = fmt::format("Story number {}", index);
  entry.author = "Reporter";
  entry.date = dateFromSecondsSince1970(1'600'000'000.0 + index * 60.0);
  entry.content = articleHtml(index);
  return entry;
}

// One library folder with its own preferences and main queue, made on the benchmark's thread.
struct Library {
  std::filesystem::path root;
  Paths paths;
  UserDefaults defaults;
  MainQueue mainQueue;
  FixedClock clock{dateFromSecondsSince1970(1'700'000'000)};
  FixedReachability reachability;
  std::unique_ptr<QKDataManager> manager;

  explicit Library(const std::string& name)
      : root(std::filesystem::temp_directory_path() / ("lectern-store-bench-" + name)),
        paths(Paths::under(root)) {}
  ~Library() {
    manager.reset();
    std::error_code error;
    std::filesystem::remove_all(root, error);
  }
  void open() {
    manager = std::make_unique<QKDataManager>(paths, defaults, mainQueue, clock, reachability);
    if (auto opened = manager->openStore(); !opened) throw std::runtime_error(opened.error().message());
  }
  ObjectContext& context() { return *manager->managedObjectContext().value(); }
};

// Inserts the 100,000 stories through the store; the library is kept for the read benchmarks.
Library& populatedLibrary(bool* insertedNow = nullptr) {
  static std::unique_ptr<Library> library;
  if (library) return *library;
  library = std::make_unique<Library>("populated");
  std::filesystem::remove_all(library->root);
  library->open();
  auto& context = library->context();
  auto account = Account::create(context, "localrss");
  std::vector<std::shared_ptr<Feed>> feeds;
  for (int f = 0; f < kFeeds; ++f) {
    feeds.push_back(account->addFeedWithTitle(fmt::format("Feed {}", f), std::nullopt,
                                              fmt::format("https://example.com/feed{}", f)));
  }
  if (!context.save()) throw std::runtime_error("save failed");
  if (insertedNow != nullptr) *insertedNow = true;
  for (int i = 0; i < kStories; ++i) {
    auto story = context.insertNewObject<FeedStory>();
    story->setAccount(*account);
    story->setFeed(*feeds[static_cast<size_t>(i % kFeeds)]);
    story->mapFromRSSEntry(entryFor(i), library->clock);
    if (i % 3 == 0) story->setIs_archived(true);
    if ((i + 1) % kBatch == 0) {
      if (auto saved = context.save(); !saved) throw std::runtime_error(saved.error().message());
    }
  }
  return *library;
}

void BM_InsertStoriesThroughTheStore(benchmark::State& state) {
  for (auto _ : state) {
    bool inserted = false;
    populatedLibrary(&inserted);
    if (!inserted) state.SkipWithError("the library was already populated");
  }
  state.counters["stories/s"] = benchmark::Counter(kStories, benchmark::Counter::kIsRate);
}

// The floor: the same rows (stories and their content with its preview text), in the same schema,
// through prepared statements in transactions of 500.
void insertPlain(benchmark::State& state, bool previewInLoop) {
  std::vector<std::string> previews;
  if (!previewInLoop) {
    previews.reserve(kStories);
    for (int i = 0; i < kStories; ++i)
      previews.push_back(Bookmark::previewTextFromHtml(*entryFor(i).content));
  }
  for (auto _ : state) {
    state.PauseTiming();
    Library library(previewInLoop ? "plain-preview" : "plain");
    std::filesystem::remove_all(library.root);
    std::filesystem::create_directories(library.paths.applicationFolder);
    auto db = SqliteDatabase::open(library.paths.storeFile(), SqliteDatabase::OpenMode::kReadWriteCreate,
                                   std::chrono::seconds(5))
                  .value();
    if (!createSchema(*db, currentModelVersion())) throw std::runtime_error("schema");
    (void)db->selectOne("PRAGMA journal_mode = WAL");
    (void)db->execute("PRAGMA foreign_keys = ON; PRAGMA synchronous = NORMAL");
    (void)db->execute("INSERT INTO Account (id, service) VALUES (1, 'localrss')");
    for (int f = 0; f < kFeeds; ++f) {
      const SqlValue row[] = {std::int64_t{f + 1}, fmt::format("https://example.com/feed{}", f)};
      (void)db->execute("INSERT INTO Folder (id, entity, account, folder_id) VALUES (?, 'Feed', 1, ?)", row);
    }
    state.ResumeTiming();
    sqlite3* handle = db->handle();
    sqlite3_stmt* story = nullptr;
    sqlite3_stmt* content = nullptr;
    sqlite3_prepare_v2(handle,
                       "INSERT INTO Bookmark (entity, account, bookmark_id, title, url, author, date_added,"
                       " is_archived, is_favorited, is_shared, is_opened, feed)"
                       " VALUES ('FeedStory', 1, ?, ?, ?, ?, ?, ?, 0, 0, 0, ?)",
                       -1, &story, nullptr);
    sqlite3_prepare_v2(handle, "INSERT INTO Content (bookmark, html, preview_text) VALUES (?, ?, ?)", -1,
                       &content, nullptr);
    for (int i = 0; i < kStories; ++i) {
      if (i % kBatch == 0) sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
      const RSSEntry entry = entryFor(i);
      const std::string preview =
          previewInLoop ? Bookmark::previewTextFromHtml(*entry.content) : previews[static_cast<size_t>(i)];
      sqlite3_bind_text(story, 1, entry.url->c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(story, 2, entry.title->c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(story, 3, entry.url->c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(story, 4, entry.author->c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_double(story, 5, secondsSince1970(*entry.date));
      sqlite3_bind_int(story, 6, i % 3 == 0 ? 1 : 0);
      sqlite3_bind_int(story, 7, i % kFeeds + 1);
      sqlite3_step(story);
      sqlite3_reset(story);
      sqlite3_bind_int64(content, 1, sqlite3_last_insert_rowid(handle));
      sqlite3_bind_text(content, 2, entry.content->c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(content, 3, preview.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(content);
      sqlite3_reset(content);
      if ((i + 1) % kBatch == 0) sqlite3_exec(handle, "COMMIT", nullptr, nullptr, nullptr);
    }
    sqlite3_finalize(story);
    sqlite3_finalize(content);
    state.PauseTiming();
    db.reset();
    state.ResumeTiming();
  }
  state.counters["stories/s"] = benchmark::Counter(kStories, benchmark::Counter::kIsRate);
}

void BM_InsertStoriesPlainSqlite(benchmark::State& state) { insertPlain(state, /*previewInLoop=*/true); }
void BM_InsertStoriesPlainSqlitePrecomputedPreview(benchmark::State& state) { insertPlain(state, false); }

// The stories of one cold refresh of 300 feeds x 50 items, with the sizes of a typical article:
// a title of about 40 bytes, about 5 KB of HTML whose text is about 4 KB.
constexpr int kRefreshFeeds = 300;
constexpr int kRefreshStoriesPerFeed = 50;
constexpr int kRefreshStories = kRefreshFeeds * kRefreshStoriesPerFeed;

RSSEntry refreshEntryFor(int index) {
  RSSEntry entry;
  entry.url = fmt::format("https://example.com/feed{}/story{}", index / kRefreshStoriesPerFeed, index);
  entry.title = fmt::format("Council approves library plan, story {:05}", index);
  entry.author = "Reporter";
  entry.date = dateFromSecondsSince1970(1'600'000'000.0 + index * 60.0);
  std::string html = fmt::format("<h2>Story {}</h2>", index);
  for (int paragraph = 1; html.size() < 5000; ++paragraph) {
    html += fmt::format(
        "<p>Paragraph {} of story {}: the council voted on <a href=\"https://example.com/{}\">the new "
        "library</a> and work starts in spring, residents asked about parking and opening hours, "
        "and the architect showed the plans for the reading rooms and the garden.</p>",
        paragraph, index, index);
  }
  entry.content = std::move(html);
  return entry;
}

// Through the store, as a refresh saves: one save per feed of 50 new stories, the preview text
// computed on the way, and (argument 1) the search index too, as any other save would; a
// refresh's context leaves it for later (argument 0).
void BM_StoreRefreshStories(benchmark::State& state) {
  const bool indexing = state.range(0) != 0;
  std::vector<RSSEntry> entries;
  entries.reserve(kRefreshStories);
  for (int i = 0; i < kRefreshStories; ++i) entries.push_back(refreshEntryFor(i));
  for (auto _ : state) {
    state.PauseTiming();
    Library library("refresh");
    std::filesystem::remove_all(library.root);
    library.open();
    auto& context = library.context();
    context.setDefersSearchIndex(!indexing);
    auto account = Account::create(context, "localrss");
    std::vector<std::shared_ptr<Feed>> feeds;
    for (int f = 0; f < kRefreshFeeds; ++f) {
      feeds.push_back(account->addFeedWithTitle(fmt::format("Feed {}", f), std::nullopt,
                                                fmt::format("https://example.com/feed{}", f)));
    }
    if (auto saved = context.save(); !saved) throw std::runtime_error(saved.error().message());
    state.ResumeTiming();
    for (int i = 0; i < kRefreshStories; ++i) {
      auto story = context.insertNewObject<FeedStory>();
      story->setAccount(*account);
      story->setFeed(*feeds[static_cast<size_t>(i / kRefreshStoriesPerFeed)]);
      story->mapFromRSSEntry(entries[static_cast<size_t>(i)], library.clock);
      if ((i + 1) % kRefreshStoriesPerFeed == 0) {
        if (auto saved = context.save(); !saved) throw std::runtime_error(saved.error().message());
      }
    }
    state.PauseTiming();
    library.manager.reset();
    state.ResumeTiming();
  }
  state.counters["stories"] = kRefreshStories;
  state.counters["stories/s"] =
      benchmark::Counter(static_cast<double>(kRefreshStories) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}

// The floor: SQLite alone writing rows of the same sizes (title, URL, 5 KB of HTML, its 4 KB of
// text, computed beforehand) with the store's journal settings, in one transaction through one
// prepared statement. No schema of ours, no indexes, no objects: what any store must pay.
void BM_BareSqliteRefreshStories(benchmark::State& state) {
  struct Row {
    std::string id, title, html, text;
    double date = 0;
  };
  std::vector<Row> rows;
  rows.reserve(kRefreshStories);
  std::size_t bytes = 0;
  for (int i = 0; i < kRefreshStories; ++i) {
    RSSEntry entry = refreshEntryFor(i);
    std::string text = Bookmark::previewTextFromHtml(*entry.content);
    rows.push_back({*entry.url, *entry.title, std::move(*entry.content), std::move(text),
                    secondsSince1970(*entry.date)});
    bytes += rows.back().id.size() + rows.back().title.size() + rows.back().html.size() + rows.back().text.size();
  }
  for (auto _ : state) {
    state.PauseTiming();
    Library library("bare");
    std::filesystem::remove_all(library.root);
    std::filesystem::create_directories(library.paths.applicationFolder);
    auto db = SqliteDatabase::open(library.paths.storeFile(), SqliteDatabase::OpenMode::kReadWriteCreate,
                                   std::chrono::seconds(5))
                  .value();
    (void)db->selectOne("PRAGMA journal_mode = WAL");
    (void)db->execute("PRAGMA synchronous = NORMAL");
    (void)db->execute(
        "CREATE TABLE story (id INTEGER PRIMARY KEY, bookmark_id TEXT, title TEXT, url TEXT, date_added REAL,"
        " feed INTEGER, html TEXT, preview_text TEXT)");
    state.ResumeTiming();
    sqlite3* handle = db->handle();
    sqlite3_stmt* insert = nullptr;
    sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(handle,
                       "INSERT INTO story (bookmark_id, title, url, date_added, feed, html, preview_text)"
                       " VALUES (?, ?, ?, ?, ?, ?, ?)",
                       -1, &insert, nullptr);
    for (int i = 0; i < kRefreshStories; ++i) {
      const Row& row = rows[static_cast<size_t>(i)];
      sqlite3_bind_text(insert, 1, row.id.data(), static_cast<int>(row.id.size()), SQLITE_STATIC);
      sqlite3_bind_text(insert, 2, row.title.data(), static_cast<int>(row.title.size()), SQLITE_STATIC);
      sqlite3_bind_text(insert, 3, row.id.data(), static_cast<int>(row.id.size()), SQLITE_STATIC);
      sqlite3_bind_double(insert, 4, row.date);
      sqlite3_bind_int(insert, 5, i / kRefreshStoriesPerFeed + 1);
      sqlite3_bind_text(insert, 6, row.html.data(), static_cast<int>(row.html.size()), SQLITE_STATIC);
      sqlite3_bind_text(insert, 7, row.text.data(), static_cast<int>(row.text.size()), SQLITE_STATIC);
      if (sqlite3_step(insert) != SQLITE_DONE) state.SkipWithError(sqlite3_errmsg(handle));
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    if (sqlite3_exec(handle, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
      state.SkipWithError(sqlite3_errmsg(handle));
    state.PauseTiming();
    db.reset();
    state.ResumeTiming();
  }
  state.counters["stories"] = kRefreshStories;
  state.counters["bytes_per_story"] = static_cast<double>(bytes) / kRefreshStories;
  state.counters["stories/s"] =
      benchmark::Counter(static_cast<double>(kRefreshStories) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}

void BM_UnreadCountsPerFeed(benchmark::State& state) {
  auto& library = populatedLibrary();
  auto account = Account::localRSSAccount(library.context()).value();
  for (auto _ : state) {
    auto counts = account->unreadFeedCounts();
    if (!counts || counts->size() != kFeeds) state.SkipWithError("wrong counts");
    benchmark::DoNotOptimize(counts);
  }
}

void BM_FetchFiveHundredBookmarksById(benchmark::State& state) {
  auto& library = populatedLibrary();
  auto account = Account::localRSSAccount(library.context()).value();
  std::mt19937 random(7);
  std::uniform_int_distribution<int> pick(0, kStories - 1);
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<std::string> ids;
    for (int i = 0; i < 500; ++i) {
      const int index = pick(random);
      ids.push_back(fmt::format("https://example.com/feed{}/story{}", index % kFeeds, index));
    }
    state.ResumeTiming();
    auto found = account->findBookmarksWithIds(ids);
    if (!found || found->size() < 490) state.SkipWithError("missing bookmarks");
    benchmark::DoNotOptimize(found);
  }
}

void BM_OpenExistingLibrary(benchmark::State& state) {
  auto& library = populatedLibrary();
  for (auto _ : state) {
    QKDataManager manager(library.paths, library.defaults, library.mainQueue, library.clock,
                          library.reachability);
    auto context = manager.managedObjectContext();
    if (!context) state.SkipWithError("open failed");
    benchmark::DoNotOptimize(context);
  }
}

BENCHMARK(BM_InsertStoriesThroughTheStore)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_InsertStoriesPlainSqlite)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_InsertStoriesPlainSqlitePrecomputedPreview)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_StoreRefreshStories)->ArgName("indexing")->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BareSqliteRefreshStories)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UnreadCountsPerFeed)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FetchFiveHundredBookmarksById)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenExistingLibrary)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace lectern

BENCHMARK_MAIN();
