// The window's controller over a real library (offline, so nothing reaches a network): what the
// panes show, and that each action reaches the library.

#include <gtest/gtest.h>

#include "DesktopTestLibrary.h"
#include "support/TestSupport.h"
#include "accounts/BuiltInReader.h"
#include "app/AppEnvironment.h"
#include "app/QKApplicationController.h"
#include "app/desktop/DesktopController.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/SmartFolder.h"
#include "sync/SyncEnvironment.h"

namespace lectern::desktop {
namespace {

struct RecordingView final : DesktopController::View {
  int sources = 0, articles = 0, article = 0, rows = 0;
  void sourcesChanged() override { ++sources; }
  void articlesChanged() override { ++articles; }
  void articleRowChanged(std::int64_t) override { ++rows; }
  void articleChanged() override { ++article; }
};

class DesktopControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    AppOptions options;
    options.home = temp_.path();
    options.offline = true;
    auto environment = AppEnvironment::create(options);
    ASSERT_TRUE(environment) << environment.error().message();
    environment_ = std::move(*environment);
    auto manager = environment_->dataManager();
    ASSERT_TRUE(manager) << manager.error().message();
    SyncEnvironment sync{**manager, environment_->defaults(), environment_->mainQueue(), environment_->reachability(),
                         environment_->clock(), environment_->network()};
    app_ = std::make_unique<QKApplicationController>(sync);
    ASSERT_TRUE(app_->setupApp());
    context_ = *(*manager)->managedObjectContext();

    auto library = fixtures::fillTestLibrary(*context_, environment_->clock().now());
    account_ = library.account;
    fruit_ = library.fruit;
    news_ = library.news;
    apple_ = library.apple;
    pear_ = library.pear;

    controller_ = std::make_unique<DesktopController>(*environment_, *app_, view_);
  }

  void TearDown() override {
    controller_.reset();
    if (app_) app_->shutdown();
    app_.reset();
  }

  // Runs the main queue until the controller's reads and the library's completions are done.
  void settle() {
    environment_->mainQueue().runUntil([this] { return controller_->loading() == 0; }, std::chrono::seconds(20));
    environment_->mainQueue().drain();
  }

  std::shared_ptr<Bookmark> stored(std::int64_t id) {
    auto bookmark = Bookmark::bookmarkWithLocalId(*context_, id);
    if (!bookmark || !*bookmark) throw std::runtime_error("no such article");
    return *bookmark;
  }

  std::vector<std::string> titles() const {
    std::vector<std::string> out;
    for (const auto& row : controller_->articles().rows()) out.push_back(row.title);
    return out;
  }

  lectern::test::TempDir temp_;
  std::unique_ptr<AppEnvironment> environment_;
  std::unique_ptr<QKApplicationController> app_;
  ObjectContext* context_ = nullptr;
  std::shared_ptr<Account> account_;
  std::shared_ptr<Feed> fruit_, news_;
  std::int64_t apple_ = 0, pear_ = 0;
  RecordingView view_;
  std::unique_ptr<DesktopController> controller_;
};

TEST_F(DesktopControllerTest, TheSourcesTreeHasAccountsFoldersFeedsCountsAndFailures) {
  controller_->reloadSources();
  settle();
  const SourceTree& tree = controller_->sources();
  ASSERT_GE(tree.roots.size(), 2u);
  EXPECT_EQ(tree.roots[0].title, "All articles");
  EXPECT_EQ(tree.roots[0].unread, 2);
  const SourceNode* account = tree.find({SourceKind::kAccount, account_->objectID().row});
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->unread, 2);
  // The folder holds Fruit; News is in no folder.
  ASSERT_EQ(account->children.size(), 2u);
  EXPECT_EQ(account->children[0].title, "Food");
  EXPECT_EQ(account->children[0].unread, 2);
  ASSERT_EQ(account->children[0].children.size(), 1u);
  EXPECT_EQ(account->children[0].children[0].title, "Fruit");
  const SourceNode* news = tree.find({SourceKind::kFeed, news_->objectID().row});
  ASSERT_NE(news, nullptr);
  EXPECT_EQ(news->unread, 0);
  EXPECT_EQ(news->failing, "The server answered 404");
  EXPECT_EQ(news->feedUrl, "http://127.0.0.1:9/news");
  EXPECT_GT(view_.sources, 0);
}

TEST_F(DesktopControllerTest, OpeningAnArticleShowsItAndMarksItReadInTheLibrary) {
  controller_->selectSource({SourceKind::kFeed, fruit_->objectID().row});
  settle();
  EXPECT_EQ(titles(), (std::vector<std::string>{"Apple harvest", "Pear season"}));
  controller_->openArticle(apple_);
  settle();
  ASSERT_TRUE(controller_->article());
  EXPECT_EQ(controller_->article()->row.title, "Apple harvest");
  EXPECT_EQ(controller_->article()->author, "Ann Author");
  EXPECT_EQ(controller_->article()->html, "<p>Apples everywhere this autumn.</p><p>Orchards report a record year.</p>");
  EXPECT_FALSE(controller_->articles().selected()->unread);
  EXPECT_TRUE(stored(apple_)->is_archived());

  // m marks it unread again, s stars it: both reach the library.
  controller_->toggleRead();
  controller_->toggleStar();
  settle();
  EXPECT_FALSE(stored(apple_)->is_archived());
  EXPECT_TRUE(stored(apple_)->is_favorited());
  EXPECT_TRUE(controller_->articles().selected()->starred);

  // j opens the next; at the end it stays.
  EXPECT_TRUE(controller_->openNext());
  settle();
  EXPECT_EQ(controller_->article()->row.id, pear_);
  EXPECT_FALSE(controller_->openNext());
  EXPECT_TRUE(controller_->openPrevious());
  settle();
  EXPECT_EQ(controller_->article()->row.id, apple_);
}

TEST_F(DesktopControllerTest, FiltersSearchesAndSavedSearches) {
  controller_->selectSource({});
  controller_->setFilter(ArticleFilter::kUnread);
  settle();
  EXPECT_EQ(titles(), (std::vector<std::string>{"Apple harvest", "Pear season"}));
  // Read here, the row stays in the unread list until the list is replaced.
  controller_->openArticle(apple_);
  controller_->reloadArticles();
  settle();
  EXPECT_EQ(titles(), (std::vector<std::string>{"Apple harvest", "Pear season"}));

  controller_->setFilter(ArticleFilter::kAll);
  controller_->setSearch("apple OR votes");
  settle();
  EXPECT_EQ(titles(), (std::vector<std::string>{"Apple harvest", "Election night"}));

  auto saved = controller_->saveSearchAsSmartFolder("Apples and votes");
  ASSERT_TRUE(saved) << saved.error().message();
  settle();
  EXPECT_EQ(controller_->source(), (SourceKey{SourceKind::kSmartFolder, *saved}));
  EXPECT_TRUE(controller_->search().empty());
  EXPECT_EQ(titles(), (std::vector<std::string>{"Apple harvest", "Election night"}));
  const SourceNode* node = controller_->sources().find({SourceKind::kSmartFolder, *saved});
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->title, "Apples and votes");

  // A search that does not read is said, and the list stays empty rather than wrong.
  controller_->setSearch("(apple");
  settle();
  EXPECT_TRUE(controller_->articles().rows().empty());
  EXPECT_FALSE(controller_->statusText().empty());
}

TEST_F(DesktopControllerTest, SmartFoldersAreAddedEditedAndRemoved) {
  auto added = controller_->addSmartFolder("Pears", "title CONTAINS[cd] \"pear\"");
  ASSERT_TRUE(added) << added.error().message();
  controller_->selectSource({SourceKind::kSmartFolder, *added});
  settle();
  EXPECT_EQ(titles(), (std::vector<std::string>{"Pear season"}));
  ASSERT_TRUE(controller_->editSmartFolder(*added, "Fruit", "title CONTAINS[cd] \"apple\" OR title CONTAINS[cd] \"pear\""));
  settle();
  EXPECT_EQ(titles(), (std::vector<std::string>{"Apple harvest", "Pear season"}));
  auto folder = controller_->smartFolder(*added);
  ASSERT_TRUE(folder);
  EXPECT_EQ(folder->first, "Fruit");
  EXPECT_FALSE(controller_->addSmartFolder("Broken", "title CONTAINS ("));
  ASSERT_TRUE(controller_->removeSmartFolder(*added));
  settle();
  EXPECT_EQ(controller_->source().kind, SourceKind::kAll);
  EXPECT_FALSE(controller_->smartFolder(*added));
}

TEST_F(DesktopControllerTest, DeletingMovesOnAndOfflineChangesAreQueued) {
  controller_->selectSource({SourceKind::kFeed, fruit_->objectID().row});
  settle();
  controller_->openArticle(apple_);
  settle();
  controller_->deleteSelected();
  settle();
  EXPECT_EQ(titles(), (std::vector<std::string>{"Pear season"}));
  ASSERT_TRUE(controller_->article());
  EXPECT_EQ(controller_->article()->row.id, pear_);
  EXPECT_FALSE(Bookmark::bookmarkWithLocalId(*context_, apple_).value_or(nullptr));
  // Offline: a sync is refused with what to do, and the window says it is offline.
  controller_->syncAll();
  EXPECT_FALSE(controller_->online());
  ASSERT_TRUE(controller_->lastError());
  EXPECT_FALSE(controller_->lastError()->recoverySuggestion.empty());
  EXPECT_FALSE(controller_->syncing());
}

TEST_F(DesktopControllerTest, FoldersAreRenamedAndFeedsMovedAndUnsubscribed) {
  std::optional<std::optional<Error>> done;
  auto wait = [&] {
    environment_->mainQueue().runUntil([&] { return done.has_value(); }, std::chrono::seconds(20));
    ASSERT_TRUE(done.has_value());
    EXPECT_FALSE(*done) << (*done)->message();
    done.reset();
  };
  auto folders = account_->sortedFolders();
  ASSERT_TRUE(folders);
  controller_->renameFolder((*folders)[0]->objectID().row, "Groceries", [&](std::optional<Error> e) { done = e; });
  wait();
  controller_->moveFeed(news_->objectID().row, "Groceries", [&](std::optional<Error> e) { done = e; });
  wait();
  settle();
  const SourceNode* account = controller_->sources().find({SourceKind::kAccount, account_->objectID().row});
  ASSERT_NE(account, nullptr);
  ASSERT_EQ(account->children.size(), 1u);
  EXPECT_EQ(account->children[0].title, "Groceries");
  EXPECT_EQ(account->children[0].children.size(), 2u);
  EXPECT_EQ(controller_->feedFolderTitles(account_->objectID().row), (std::vector<std::string>{"Groceries"}));

  controller_->selectSource({SourceKind::kFeed, news_->objectID().row});
  controller_->unsubscribe(news_->objectID().row, [&](std::optional<Error> e) { done = e; });
  wait();
  settle();
  EXPECT_EQ(controller_->source().kind, SourceKind::kAll);
  EXPECT_EQ(controller_->sources().find({SourceKind::kFeed, news_->objectID().row}), nullptr);
}

TEST_F(DesktopControllerTest, OpmlGoesOutAndComesBack) {
  const auto file = temp_.path() / "subscriptions.opml";
  ASSERT_TRUE(controller_->exportOpml(file));
  std::optional<std::optional<Error>> done;
  controller_->unsubscribe(fruit_->objectID().row, [&](std::optional<Error> e) { done = e; });
  environment_->mainQueue().runUntil([&] { return done.has_value(); }, std::chrono::seconds(20));
  auto imported = controller_->importOpml(file);
  ASSERT_TRUE(imported) << imported.error().message();
  EXPECT_EQ(*imported, "Imported 1 feed and 0 folders; 1 already there.");
  EXPECT_FALSE(controller_->importOpml(temp_.path() / "missing.opml"));
}

}  // namespace
}  // namespace lectern::desktop
