// The terminal reader's model driven by keys, over a library that records what it is asked.
#include "app/tui/ReaderModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include <fmt/format.h>

namespace lectern::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class FakeReaderLibrary final : public ReaderLibrary {
 public:
  Result<std::vector<ReaderItem>> items(const std::string& search) override {
    searches.push_back(search);
    if (search == "bad(") return fail(kLecternErrorDomain, 2, "Unexpected end of the search");
    if (search.empty()) return list;
    std::vector<ReaderItem> found;
    for (const auto& item : list) {
      if (item.title.find(search) != std::string::npos) found.push_back(item);
    }
    return found;
  }
  Result<ArticleDocument> article(std::int64_t id) override {
    opened.push_back(id);
    ArticleDocument document;
    document.title = fmt::format("Article {}", id);
    document.baseUrl = fmt::format("https://example.org/{}", id);
    document.html = bodies.contains(id) ? bodies[id] : "<p>Short.</p>";
    return document;
  }
  void markRead(std::int64_t id, bool read, Completion done) override {
    calls.push_back(fmt::format("{} {}", read ? "read" : "unread", id));
    if (deferred) {
      waiting.push_back(std::move(done));
    } else {
      done(refuse ? std::optional(Error::make("test", 1, "refused")) : std::nullopt);
    }
  }
  void markStarred(std::int64_t id, bool starred, Completion done) override {
    calls.push_back(fmt::format("{} {}", starred ? "star" : "unstar", id));
    done(refuse ? std::optional(Error::make("test", 1, "refused")) : std::nullopt);
  }
  Result<void> openInBrowser(const std::string& url) override {
    browsed.push_back(url);
    return {};
  }
  void refresh(std::function<void(std::string)> progress, Completion done) override {
    refreshProgress = std::move(progress);
    refreshDone = std::move(done);
  }

  std::vector<ReaderItem> list;
  std::map<std::int64_t, std::string> bodies;
  std::vector<std::string> searches;
  std::vector<std::int64_t> opened;
  std::vector<std::string> calls;
  std::vector<std::string> browsed;
  std::vector<Completion> waiting;
  bool deferred = false;
  bool refuse = false;
  std::function<void(std::string)> refreshProgress;
  Completion refreshDone;
};

class ReaderModelTest : public ::testing::Test {
 protected:
  ReaderModelTest() {
    // Newest first: 1 read, 2 unread, 3 read, 4 unread, 5 unread.
    for (int id = 1; id <= 5; ++id) {
      library_.list.push_back({id, fmt::format("Story {}", id), "Feed", "2026-11-2" + std::to_string(id),
                               fmt::format("https://example.org/{}", id),
                               /*unread=*/id % 2 == 0 || id == 5, /*starred=*/false});
    }
    std::string longBody;
    for (int i = 1; i <= 50; ++i) longBody += fmt::format("<p>Paragraph {}</p>", i);
    library_.bodies[2] = longBody;
    library_.bodies[4] = "<p>Read <a href=\"/more\">more</a> or <a href=\"https://x.example/\">elsewhere</a>.</p>";
    EXPECT_TRUE(model_.load());
    model_.resize(12, 60);  // nine body lines
  }

  void keys(std::string_view typed) {
    for (char c : typed) model_.handleKey(c == '\n' ? static_cast<int>(kKeyEnter) : static_cast<unsigned char>(c));
  }

  FakeReaderLibrary library_;
  ReaderModel model_{library_, "All articles"};
};

TEST_F(ReaderModelTest, ListMovesOpensAndMarksReadOnOpening) {
  auto view = model_.view();
  EXPECT_EQ(view.title, "All articles (3 unread of 5)");
  ASSERT_EQ(view.lines.size(), 5u);
  EXPECT_THAT(view.lines[1], HasSubstr("2 N  2026-11-22  Story 2"));
  EXPECT_EQ(view.selected, 0);
  keys("jjjjjjk");  // past the end stays on the last, then back one
  EXPECT_EQ(model_.selection(), 3u);
  keys("\n");
  EXPECT_EQ(model_.screen(), ReaderModel::Screen::kArticle);
  EXPECT_THAT(library_.calls, ElementsAre("read 4"));
  EXPECT_FALSE(model_.items()[3].unread);
  // A read article opens without another mark; q goes back, then quits.
  keys("qk\n");
  EXPECT_THAT(library_.calls, ElementsAre("read 4"));
  keys("qq");
  EXPECT_TRUE(model_.finished());
}

TEST_F(ReaderModelTest, SpacePagesThenGoesToTheNextUnread) {
  keys("n");
  EXPECT_EQ(model_.selection(), 1u);
  keys(" ");  // the selected article is unread: space opens it
  ASSERT_EQ(model_.screen(), ReaderModel::Screen::kArticle);
  EXPECT_THAT(model_.view().lines.front(), HasSubstr("Article 2"));
  size_t pages = 0;
  while (library_.opened.size() == 1 && pages < 100) {
    const size_t top = model_.articleTop();
    keys(" ");
    ++pages;
    if (library_.opened.size() == 1) {
      EXPECT_GT(model_.articleTop(), top);
    }
  }
  // 100 lines of text on 9 rows: a dozen pages, then the next unread one (4, skipping read 3).
  EXPECT_GE(pages, 11u);
  EXPECT_THAT(library_.opened, ElementsAre(2, 4));
  EXPECT_THAT(library_.calls, ElementsAre("read 2", "read 4"));
  keys("n");
  EXPECT_THAT(library_.opened, ElementsAre(2, 4, 5));
  keys("n");  // nothing unread is left below
  EXPECT_EQ(model_.status(), "No more unread articles.");
  keys("p");  // and nothing unread above either: all three were read on opening
  EXPECT_THAT(library_.opened, ElementsAre(2, 4, 5));
}

TEST_F(ReaderModelTest, TogglesGoToTheLibraryAndARefusalIsPutBack) {
  keys("ms");  // story 1: read -> unread, starred
  EXPECT_THAT(library_.calls, ElementsAre("unread 1", "star 1"));
  EXPECT_TRUE(model_.items()[0].unread);
  EXPECT_TRUE(model_.items()[0].starred);
  EXPECT_THAT(model_.view().lines[0], HasSubstr("1 N*"));
  library_.refuse = true;
  keys("s");
  EXPECT_TRUE(model_.items()[0].starred);
  EXPECT_THAT(model_.status(), HasSubstr("refused"));
  // A change still on its way is counted until its completion comes.
  library_.refuse = false;
  library_.deferred = true;
  keys("m");
  EXPECT_EQ(model_.pendingChanges(), 1);
  library_.waiting.front()(std::nullopt);
  EXPECT_EQ(model_.pendingChanges(), 0);
  EXPECT_FALSE(model_.items()[0].unread);
}

TEST_F(ReaderModelTest, LinksOpenByNumberAndTheArticleInTheBrowser) {
  keys("jjj\n");
  EXPECT_THAT(model_.view().lines, ::testing::Contains("Read more[1] or elsewhere[2]."));
  keys("2\n");
  keys("f1\n");
  keys("9\n");
  EXPECT_EQ(model_.status(), "No link [9] in this article.");
  keys("o");
  EXPECT_THAT(library_.browsed, ElementsAre("https://x.example/", "https://example.org/more", "https://example.org/4"));
  // From the list, o opens the selected article and marks it read.
  keys("qj");
  keys("o");
  EXPECT_EQ(library_.browsed.back(), "https://example.org/5");
  EXPECT_THAT(library_.calls, ElementsAre("read 4", "read 5"));
}

TEST_F(ReaderModelTest, SearchShowsMatchesAndQGoesBackToTheList) {
  keys("/Story 3");
  EXPECT_EQ(model_.view().status, "Search: Story 3");
  keys("\n");
  EXPECT_THAT(library_.searches.back(), "Story 3");
  ASSERT_EQ(model_.items().size(), 1u);
  EXPECT_EQ(model_.view().title, "Search: Story 3 (1 found)");
  keys("q");
  EXPECT_FALSE(model_.finished());
  EXPECT_EQ(model_.items().size(), 5u);
  // A search that does not read says why and keeps the list; Esc cancels a prompt.
  keys("/bad(\n");
  EXPECT_THAT(model_.status(), HasSubstr("Unexpected end"));
  EXPECT_EQ(model_.items().size(), 5u);
  model_.handleKey('/');
  model_.handleKey('x');
  model_.handleKey(kKeyBackspace);
  model_.handleKey(kKeyEscape);
  EXPECT_EQ(model_.view().status, model_.status());
}

TEST_F(ReaderModelTest, RefreshReportsProgressAndKeepsTheSelection) {
  keys("jj");
  keys("r");
  EXPECT_EQ(model_.view().status, "Refreshing…");
  keys("r");
  EXPECT_EQ(model_.status(), "Already refreshing…");
  library_.refreshProgress("Refreshing Built-in reader…");
  EXPECT_EQ(model_.view().status, "Refreshing Built-in reader…");
  // A new story arrives at the top; story 3 stays selected.
  library_.list.insert(library_.list.begin(), ReaderItem{6, "Story 6", "Feed", "2026-11-26", "", true, false});
  library_.refreshDone(std::nullopt);
  EXPECT_EQ(model_.items().size(), 6u);
  EXPECT_EQ(model_.items()[model_.selection()].id, 3);
  EXPECT_EQ(model_.status(), "Refreshed: 4 unread.");
}

TEST_F(ReaderModelTest, ResizeRewrapsTheArticleAndFitsEveryLine) {
  library_.bodies[1] = "<p>" + std::string(200, 'w') + "</p>";
  keys("\n");
  model_.resize(12, 30);
  for (const auto& line : model_.view().lines) EXPECT_LE(displayWidth(line), 30u) << line;
  model_.resize(12, 100);
  EXPECT_THAT(model_.view().lines, ::testing::Contains(std::string(100, 'w')));
  // A tiny window still works.
  model_.resize(2, 5);
  keys(" jk");
  EXPECT_LE(model_.view().lines.size(), 1u);
}

}  // namespace
}  // namespace lectern::test
