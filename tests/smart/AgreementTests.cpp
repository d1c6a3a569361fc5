// One truth: random predicates over a generated library give the same answer in memory and as SQL
// (with the search index and without), and the index follows every change of the texts.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/Strings.h"
#include "smart/RowTemplates.h"
#include "smart/SqlCompiler.h"
#include "smart/TextMatching.h"
#include "smart/library/BookmarkPredicateObject.h"
#include "smart/library/SmartFolderQuery.h"
#include "SmartTestSupport.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"

namespace lectern::test {

const std::vector<std::string>& GeneratedLibraryTest::words() {
  static const std::vector<std::string> pool = {"Café", "cafe", "CAFÉ", "résumé", "Resume", "naïve", "Naive",
                                                "straße", "STRASSE", "art",  "Party", "smart", "Über",   "uber",
                                                "news",   "NEWS",   "Ação",   "acao", "x",     "zebra",  "Émile"};
  return pool;
}

void GeneratedLibraryTest::generateLibrary(std::uint32_t seed, int storiesPerAccount) {
  std::mt19937 random(seed);
  auto pick = [&](const std::vector<std::string>& from) { return from[random() % from.size()]; };
  auto chance = [&](int percent) { return static_cast<int>(random() % 100) < percent; };
  auto phrase = [&](int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += (i ? " " : "") + pick(words());
    return out;
  };
  const std::vector<std::string> tagPool = {"art", "party", "smart", "x", "Art", "café", "y"};
  const double now = nowSeconds();
  for (std::string service : {"localrss", "instapaper", "pinboard"}) {
    auto account = makeAccount(service);
    std::vector<std::shared_ptr<Folder>> folders;
    if (auto all = account->allFolders()) folders = *all;
    folders.push_back(account->addFolderWithTitle("Nouvelles Été", 10, "custom-1"));
    folders.push_back(account->addFolderWithTitle("news", 11, "custom-2"));
    std::vector<std::shared_ptr<Feed>> feeds;
    if (service == "localrss") {
      feeds.push_back(account->addFeedWithTitle("Le Monde Café", "https://example.org/a", "feed-a"));
      feeds.push_back(account->addFeedWithTitle("tech NEWS", "https://example.org/b", "feed-b"));
    }
    for (int i = 0; i < storiesPerAccount; ++i) {
      std::shared_ptr<Bookmark> bookmark;
      if (!feeds.empty() && !chance(10)) {
        auto story = context().insertNewObject<FeedStory>();
        story->setFeed(*feeds[random() % feeds.size()]);
        if (chance(70)) story->setAuthor(pick(words()));
        bookmark = story;
      } else {
        bookmark = context().insertNewObject<Bookmark>();
      }
      bookmark->setAccount(*account);
      bookmark->setBookmark_id(fmt::format("{}-{}", service, i));
      if (chance(95)) bookmark->setTitle(phrase(1 + static_cast<int>(random() % 4)));
      if (chance(85)) bookmark->setPreview_text(phrase(3 + static_cast<int>(random() % 8)));
      if (chance(60)) bookmark->setUrl("https://example.org/" + pick(words()));
      if (chance(70)) {
        std::vector<std::string> tags;
        const int count = 1 + static_cast<int>(random() % 3);
        for (int t = 0; t < count; ++t) tags.push_back(pick(tagPool));
        bookmark->setTags(join(tags, ","));
      }
      if (chance(90)) bookmark->setDate_added(dateFromSecondsSince1970(now - static_cast<double>(random() % (90 * 86400))));
      bookmark->setIs_archived(chance(50));
      bookmark->setIs_favorited(chance(30));
      if (chance(50)) bookmark->setProgress(static_cast<double>(random() % 5) / 4);
      for (const auto& folder : folders) {
        if (chance(20)) bookmark->addToFolder(*folder);
      }
    }
    if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  }
  auto all = context().select("SELECT id FROM Bookmark ORDER BY id");
  if (!all) throw std::runtime_error(all.error().message());
  for (const auto& row : *all) rows_.push_back(integerOf(row[0]).value_or(0));
}

std::vector<SnapshotObject> GeneratedLibraryTest::snapshots() {
  std::vector<SnapshotObject> out;
  ObjectContext::FetchRequest request;
  auto bookmarks = context().fetch<Bookmark>(request);
  if (!bookmarks) throw std::runtime_error(bookmarks.error().message());
  for (const auto& bookmark : *bookmarks) {
    const BookmarkPredicateObject object(*bookmark);
    SnapshotObject snapshot;
    snapshot.row = bookmark->objectID().row;
    for (const auto& info : supportedKeyPaths()) {
      std::string path(info.path);
      if (path.ends_with(".@count")) path = path.substr(0, path.size() - 7);
      snapshot.values[path] = object.valueForKeyPath(path);
    }
    out.push_back(std::move(snapshot));
  }
  return out;
}

std::set<std::int64_t> GeneratedLibraryTest::inMemory(const Predicate& predicate,
                                                     const std::vector<SnapshotObject>& objects) const {
  std::set<std::int64_t> rows;
  for (const auto& object : objects) {
    if (evaluatePredicate(predicate, object, EvaluationContext{nowSeconds()})) rows.insert(object.row);
  }
  return rows;
}

std::set<std::int64_t> GeneratedLibraryTest::bySql(const Predicate& predicate, bool useIndex) {
  auto compiled = compileToSql(predicate, SqlCompileOptions{nowSeconds(), useIndex});
  if (!compiled) throw std::runtime_error(formatPredicate(predicate) + ": " + compiled.error().message());
  std::vector<SqlValue> arguments;
  for (const auto& value : compiled->arguments) {
    if (const auto* text = value.text()) {
      arguments.emplace_back(*text);
    } else if (const auto number = value.number()) {
      arguments.emplace_back(*number);
    } else {
      arguments.emplace_back();
    }
  }
  auto rows = context().select("SELECT id FROM Bookmark WHERE " + compiled->where, arguments);
  if (!rows) throw std::runtime_error(formatPredicate(predicate) + ": " + rows.error().message());
  std::set<std::int64_t> out;
  for (const auto& row : *rows) out.insert(integerOf(row[0]).value_or(0));
  return out;
}

namespace {

// Random comparisons of every supported kind, combined into trees.
class PredicateGenerator {
 public:
  PredicateGenerator(std::uint32_t seed, std::vector<std::string> words, std::vector<std::int64_t> rows)
      : random_(seed), words_(std::move(words)), rows_(std::move(rows)) {}

  Predicate tree(int depth) {
    const int kind = static_cast<int>(random_() % 10);
    if (depth <= 0 || kind < 5) return comparison();
    if (kind == 9) return Predicate::notOf(tree(depth - 1));
    std::vector<Predicate> parts;
    const int count = 2 + static_cast<int>(random_() % 2);
    for (int i = 0; i < count; ++i) parts.push_back(tree(depth - 1));
    return kind < 7 ? Predicate::andOf(std::move(parts)) : Predicate::orOf(std::move(parts));
  }

 private:
  template <class T>
  const T& pick(const std::vector<T>& from) { return from[random_() % from.size()]; }

  // A word, a piece of one (as short as a letter, so both index and scan paths run), or a
  // two-word phrase, in any case.
  std::string text() {
    std::string word = pick(words_);
    switch (random_() % 6) {
      case 0: return word;
      case 1: return toUpperASCII(word);
      case 2: {
        const size_t length = 1 + random_() % std::min<size_t>(5, word.size());
        return word.substr(0, length);
      }
      case 3: return word.size() > 2 ? word.substr(1) : word;
      case 4: return word + " " + pick(words_);
      default: return pick(std::vector<std::string>{"art", "art,", ",art", ",art,", "smart", "news", ""});
    }
  }

  ComparisonOptions options() {
    const int bits = static_cast<int>(random_() % 4);
    return {(bits & 1) != 0, (bits & 2) != 0};
  }

  Predicate comparison() {
    static const std::vector<std::string> textPaths = {"title",  "content.preview_text", "tags", "url",
                                                       "author", "account.service",      "feed.title",
                                                       "folders.title", "tokens.title", "folders.folder_id"};
    static const std::vector<ComparisonOperator> textOps = {
        ComparisonOperator::kEqual,    ComparisonOperator::kNotEqual,   ComparisonOperator::kLess,
        ComparisonOperator::kGreaterOrEqual, ComparisonOperator::kContains, ComparisonOperator::kContains,
        ComparisonOperator::kContains, ComparisonOperator::kBeginsWith, ComparisonOperator::kEndsWith,
        ComparisonOperator::kLike,     ComparisonOperator::kIn};
    const int family = static_cast<int>(random_() % 10);
    if (family < 6) {
      const std::string path = pick(textPaths);
      const ComparisonOperator op = pick(textOps);
      Value right;
      if (op == ComparisonOperator::kIn) {
        right = std::vector<Value>{text(), text(), pick(words_)};
      } else if (op == ComparisonOperator::kLike) {
        std::string pattern = text();
        pattern.insert(random_() % (pattern.size() + 1), random_() % 2 ? "*" : "?");
        right = "*" + pattern + (random_() % 2 ? "*" : "");
      } else if (random_() % 25 == 0) {
        right = Value();
      } else {
        right = text();
      }
      ComparisonModifier modifier = ComparisonModifier::kDirect;
      if (path == "folders.title" || path == "tokens.title" || path == "folders.folder_id") {
        modifier = pick(std::vector<ComparisonModifier>{ComparisonModifier::kDirect, ComparisonModifier::kAny,
                                                        ComparisonModifier::kAll});
      }
      return Predicate::comparison(Expression::ofKeyPath(path), op, Expression::ofConstant(std::move(right)),
                                   options(), modifier);
    }
    if (family == 6) {
      const std::string flag = pick(std::vector<std::string>{"is_archived", "is_favorited", "is_shared"});
      return Predicate::comparison(Expression::ofKeyPath(flag),
                                   random_() % 2 ? ComparisonOperator::kEqual : ComparisonOperator::kNotEqual,
                                   Expression::ofConstant(random_() % 2 ? Value(true) : Value(0)));
    }
    if (family == 7) {
      // A date row, or a fixed date.
      if (random_() % 2) {
        return QKDateIntervalRowTemplate{"date_added", random_() % 2 == 0,
                                         {1 + static_cast<long>(random_() % 6), static_cast<long>(random_() % 4)}}
            .predicateWithSubpredicates();
      }
      const double at = 1.7e9 - static_cast<double>(random_() % (60 * 86400));
      return Predicate::comparison(Expression::ofKeyPath("date_added"),
                                   pick(std::vector<ComparisonOperator>{ComparisonOperator::kLess, ComparisonOperator::kGreaterOrEqual,
                                                                        ComparisonOperator::kEqual}),
                                   Expression::ofConstant(DateValue{at}));
    }
    if (family == 8) {
      if (random_() % 2) {
        const double low = static_cast<double>(random_() % 3) / 4;
        return Predicate::comparison(Expression::ofKeyPath("progress"), ComparisonOperator::kBetween,
                                     Expression::ofConstant(std::vector<Value>{low, low + 0.5}));
      }
      return Predicate::comparison(Expression::ofKeyPath(random_() % 2 ? "folders.@count" : "tokens.@count"),
                                   pick(std::vector<ComparisonOperator>{ComparisonOperator::kGreater, ComparisonOperator::kEqual}),
                                   Expression::ofConstant(static_cast<double>(random_() % 3)));
    }
    std::vector<Value> ids;
    for (int i = 0; i < 5; ++i) ids.push_back(pick(rows_));
    return Predicate::comparison(Expression::ofSelf(), ComparisonOperator::kIn, Expression::ofConstant(std::move(ids)));
  }

  std::mt19937 random_;
  std::vector<std::string> words_;
  std::vector<std::int64_t> rows_;
};

class AgreementTest : public GeneratedLibraryTest {};

TEST_F(AgreementTest, GeneratedPredicatesGiveTheSameAnswerInMemoryAndAsSql) {
  clock_.set(dateFromSecondsSince1970(1.7e9));
  generateLibrary(7, 60);
  const auto objects = snapshots();
  ASSERT_EQ(objects.size(), rows_.size());
  PredicateGenerator generator(11, words(), rows_);
  int nonTrivial = 0;
  for (int i = 0; i < 600; ++i) {
    const Predicate predicate = generator.tree(3);
    // Through the text form, as a stored folder would be.
    auto stored = parsePredicate(formatPredicate(predicate));
    ASSERT_TRUE(stored) << formatPredicate(predicate) << ": " << stored.error().message();
    ASSERT_EQ(*stored, predicate) << formatPredicate(predicate);
    const auto expected = inMemory(*stored, objects);
    if (!expected.empty() && expected.size() != objects.size()) ++nonTrivial;
    EXPECT_EQ(bySql(*stored, true), expected) << formatPredicate(*stored);
    EXPECT_EQ(bySql(*stored, false), expected) << formatPredicate(*stored);
  }
  // The generator is useful only if most predicates split the library.
  EXPECT_GT(nonTrivial, 300);
}

TEST_F(AgreementTest, TheSearchIndexFollowsInsertsUpdatesAndDeletes) {
  clock_.set(dateFromSecondsSince1970(1.7e9));
  generateLibrary(3, 20);
  auto indexRows = [&]() {
    auto rows = context().select("SELECT rowid, title, preview_text FROM StorySearch ORDER BY rowid");
    EXPECT_TRUE(rows);
    return rows ? *rows : std::vector<SqlRow>{};
  };
  auto expectIndexMatchesLibrary = [&]() {
    auto library = context().select(
        "SELECT b.id, lectern_fold(b.title), lectern_fold(c.preview_text) FROM Bookmark b "
        "LEFT JOIN Content c ON c.bookmark = b.id ORDER BY b.id");
    ASSERT_TRUE(library);
    EXPECT_EQ(indexRows(), *library);
  };
  expectIndexMatchesLibrary();

  auto bookmarks = context().fetch<Bookmark>(ObjectContext::FetchRequest{});
  ASSERT_TRUE(bookmarks);
  ASSERT_GE(bookmarks->size(), 10u);
  (*bookmarks)[0]->setTitle("Überraschung im Café");
  (*bookmarks)[1]->setPreview_text("Une Crème Brûlée");
  (*bookmarks)[2]->setTitle(std::nullopt);
  context().deleteObject(*(*bookmarks)[3]);
  ASSERT_TRUE(context().save());
  expectIndexMatchesLibrary();

  const auto search = [&](std::string_view text) {
    return bySql(parsePredicate(fmt::format("title CONTAINS[cd] \"{0}\" OR content.preview_text CONTAINS[cd] \"{0}\"",
                                            text))
                     .value(),
                 true);
  };
  EXPECT_EQ(search("UBERRASCH"), (std::set<std::int64_t>{(*bookmarks)[0]->objectID().row}));
  EXPECT_EQ(search("creme brulee"), (std::set<std::int64_t>{(*bookmarks)[1]->objectID().row}));
}

TEST_F(AgreementTest, StoriesAwaitingTheIndexAreFoundUntilItCatchesUp) {
  clock_.set(dateFromSecondsSince1970(1.7e9));
  generateLibrary(5, 40);
  const auto awaiting = [&] { return context().storiesAwaitingSearchIndex().value(); };
  ASSERT_EQ(awaiting(), 0);

  // A sync's context stores without indexing: new stories, and index rows gone stale.
  context().setDefersSearchIndex(true);
  auto bookmarks = context().fetch<Bookmark>(ObjectContext::FetchRequest{});
  ASSERT_TRUE(bookmarks);
  for (size_t i = 0; i < bookmarks->size(); i += 3) {
    (*bookmarks)[i]->setTitle(fmt::format("Neue Überschrift {} {}", i, words()[i % words().size()]));
    (*bookmarks)[i]->setPreview_text(fmt::format("Crème brûlée {}", words()[(i + 1) % words().size()]));
  }
  generateLibrary(6, 15);
  const std::int64_t stale = awaiting();
  EXPECT_GT(stale, 20);
  context().setDefersSearchIndex(false);

  const auto objects = snapshots();
  PredicateGenerator generator(12, words(), rows_);
  for (int i = 0; i < 200; ++i) {
    const Predicate predicate = generator.tree(3);
    EXPECT_EQ(bySql(predicate, true), inMemory(predicate, objects)) << formatPredicate(predicate);
  }
  const Predicate search = parsePredicate("title CONTAINS[cd] \"uberschrift\" OR content.preview_text CONTAINS[cd] \"CREME\"").value();
  EXPECT_EQ(bySql(search, true), inMemory(search, objects));
  EXPECT_FALSE(bySql(search, true).empty());

  // A save of the person's own changes indexes those stories, not the backlog: [0] was awaiting
  // the index, [1] was not.
  (*bookmarks)[0]->setTitle("Kaffee");
  (*bookmarks)[1]->setTitle("Tee");
  ASSERT_TRUE(context().save());
  EXPECT_EQ(awaiting(), stale - 1);

  // Catching up in batches leaves the index equal to the library.
  std::int64_t total = 0;
  for (;;) {
    auto indexed = context().indexStoriesAwaitingSearch(7);
    ASSERT_TRUE(indexed) << indexed.error().message();
    EXPECT_LE(*indexed, 7);
    total += *indexed;
    if (*indexed < 7) break;
  }
  EXPECT_EQ(awaiting(), 0);
  auto library = context().select(
      "SELECT b.id, lectern_fold(b.title), lectern_fold(c.preview_text) FROM Bookmark b "
      "LEFT JOIN Content c ON c.bookmark = b.id ORDER BY b.id");
  ASSERT_TRUE(library);
  EXPECT_EQ(context().select("SELECT rowid, title, preview_text FROM StorySearch ORDER BY rowid").value(), *library);
  EXPECT_EQ(bySql(search, true), inMemory(search, snapshots()));
}

TEST_F(AgreementTest, QueriesThroughTheStoreUseTheScopeAndFallBackToMemory) {
  clock_.set(dateFromSecondsSince1970(1.7e9));
  generateLibrary(5, 30);
  const auto objects = snapshots();
  const Predicate favorites = parsePredicate("is_favorited == 1 AND title CONTAINS[cd] \"a\"").value();
  auto fetched = fetchMatchingBookmarks(context(), favorites, clock_.now());
  ASSERT_TRUE(fetched);
  std::set<std::int64_t> rows;
  for (const auto& bookmark : *fetched) rows.insert(bookmark->objectID().row);
  EXPECT_EQ(rows, inMemory(favorites, objects));
  // Newest first.
  for (size_t i = 1; i < fetched->size(); ++i) {
    EXPECT_GE((*fetched)[i - 1]->date_added().value_or(Date{}), (*fetched)[i]->date_added().value_or(Date{}));
  }
  EXPECT_EQ(countMatchingBookmarks(context(), favorites, clock_.now()).value(), static_cast<std::int64_t>(rows.size()));

  // Comparing two key paths cannot be SQL; the same answer comes from memory.
  const Predicate twoPaths = parsePredicate("title == author OR title == url").value();
  ASSERT_FALSE(compileToSql(twoPaths, {}));
  auto slow = fetchMatchingBookmarks(context(), twoPaths, clock_.now());
  ASSERT_TRUE(slow);
  std::set<std::int64_t> slowRows;
  for (const auto& bookmark : *slow) slowRows.insert(bookmark->objectID().row);
  EXPECT_EQ(slowRows, inMemory(twoPaths, objects));

  LibraryScope unread;
  unread.unreadOnly = true;
  unread.limit = 5;
  auto limited = fetchMatchingBookmarks(context(), Predicate::truePredicate(), clock_.now(), unread);
  ASSERT_TRUE(limited);
  EXPECT_LE(limited->size(), 5u);
  for (const auto& bookmark : *limited) EXPECT_FALSE(bookmark->is_archived());
}

}  // namespace
}  // namespace lectern::test
