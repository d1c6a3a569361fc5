#include <gtest/gtest.h>

#include "app/desktop/PaneModels.h"
#include "app/desktop/SmartFolderDraft.h"
#include "core/Dates.h"

namespace lectern::desktop {
namespace {

const Date kNow = dateFromSecondsSince1970(1'764'154'800);  // 2025-11-26 11:00 UTC

ArticleRow row(std::int64_t id, std::chrono::hours age, bool unread = true) {
  ArticleRow out;
  out.id = id;
  out.title = "Article " + std::to_string(id);
  out.feed = "Feed";
  out.date = kNow - age;
  out.unread = unread;
  return out;
}

std::vector<std::int64_t> ids(const ArticleList& list) {
  std::vector<std::int64_t> out;
  for (const auto& item : list.rows()) out.push_back(item.id);
  return out;
}

TEST(ArticleListTest, KeyboardMovesStopAtTheEndsAndSpaceFindsTheNextUnread) {
  ArticleList list;
  list.replaceRows({row(1, std::chrono::hours(1)), row(2, std::chrono::hours(2), false), row(3, std::chrono::hours(3)),
                    row(4, std::chrono::hours(4), false)},
                   4);
  // Nothing selected: both directions start at the top.
  EXPECT_EQ(list.nextIndex(), 0u);
  EXPECT_EQ(list.previousIndex(), 0u);
  ASSERT_TRUE(list.select(1));
  EXPECT_EQ(list.previousIndex(), std::nullopt);
  EXPECT_EQ(list.nextIndex(), 1u);
  // The read row 2 is skipped.
  EXPECT_EQ(list.nextUnreadIndex(), 2u);
  ASSERT_TRUE(list.select(3));
  // No unread row after 3: Space still moves on, to the next row.
  EXPECT_EQ(list.nextUnreadIndex(), 3u);
  ASSERT_TRUE(list.select(4));
  EXPECT_EQ(list.nextIndex(), std::nullopt);
  EXPECT_EQ(list.nextUnreadIndex(), std::nullopt);
  EXPECT_FALSE(list.select(99));
  EXPECT_EQ(list.selected()->id, 4);
}

TEST(ArticleListTest, DeletingMovesTheSelectionToTheRowThatTookItsPlace) {
  ArticleList list;
  list.replaceRows({row(1, std::chrono::hours(1)), row(2, std::chrono::hours(2)), row(3, std::chrono::hours(3))}, 3);
  list.select(2);
  list.remove(2);
  EXPECT_EQ(ids(list), (std::vector<std::int64_t>{1, 3}));
  EXPECT_EQ(list.selected()->id, 3);
  EXPECT_EQ(list.total(), 2);
  // The last row deleted: the one before it.
  list.remove(3);
  EXPECT_EQ(list.selected()->id, 1);
  // A row above the selection goes: the same article stays selected.
  list.replaceRows({row(1, std::chrono::hours(1)), row(2, std::chrono::hours(2))}, 2);
  list.select(2);
  list.remove(1);
  EXPECT_EQ(list.selected()->id, 2);
  list.remove(2);
  EXPECT_EQ(list.selected(), nullptr);
}

TEST(ArticleListTest, AReloadKeepsTheSelectionAndTheRowsReadHere) {
  ArticleList list;
  list.replaceRows({row(1, std::chrono::hours(1)), row(2, std::chrono::hours(2)), row(3, std::chrono::hours(3))}, 3);
  list.select(2);
  list.setUnread(2, false);
  // An unread list read again no longer has row 2; it stays where it was, read, and selected.
  list.setRows({row(1, std::chrono::hours(1)), row(3, std::chrono::hours(3)), row(5, std::chrono::hours(5))}, 3);
  EXPECT_EQ(ids(list), (std::vector<std::int64_t>{1, 2, 3, 5}));
  EXPECT_EQ(list.selected()->id, 2);
  EXPECT_FALSE(list.selected()->unread);
  EXPECT_EQ(list.total(), 4);
  // Marked unread again, it is an ordinary row: a reload without it drops it.
  list.setUnread(2, true);
  list.setRows({row(1, std::chrono::hours(1)), row(3, std::chrono::hours(3))}, 2);
  EXPECT_EQ(ids(list), (std::vector<std::int64_t>{1, 3}));
  EXPECT_EQ(list.selected(), nullptr);
  // A new source or filter starts afresh.
  list.select(1);
  list.setUnread(1, false);
  list.replaceRows({row(3, std::chrono::hours(3))}, 1);
  list.setRows({row(3, std::chrono::hours(3))}, 1);
  EXPECT_EQ(ids(list), (std::vector<std::int64_t>{3}));
}

TEST(ArticleListTest, SectionsFollowTheLocalDayAndTheSummaryCountsUnread) {
  ArticleList list;
  ArticleRow undated = row(5, std::chrono::hours(0));
  undated.date.reset();
  list.replaceRows({row(1, std::chrono::hours(1)), row(2, std::chrono::hours(2), false), row(3, std::chrono::hours(25)),
                    row(4, std::chrono::hours(24 * 5)), undated},
                   9);
  // 11:00 in UTC, 20:00 in Tokyo: an hour ago and two are both today there too; 25 hours ago is yesterday.
  for (const char* zone : {"UTC", "Asia/Tokyo"}) {
    const auto sections = list.sections(kNow, zone);
    ASSERT_EQ(sections.size(), 4u) << zone;
    EXPECT_EQ(sections[0].title, "Today");
    EXPECT_EQ(sections[0].count, 2u);
    EXPECT_EQ(sections[1].title, "Yesterday");
    EXPECT_EQ(sections[1].first, 2u);
    EXPECT_NE(sections[2].title.find("2025"), std::string::npos) << sections[2].title;
    EXPECT_EQ(sections[3].title, "Undated");
  }
  // At 15:00 UTC it is past midnight in Tokyo: the same rows are yesterday's there, today's in UTC.
  const Date later = kNow + std::chrono::hours(4) + std::chrono::minutes(5);
  EXPECT_EQ(list.sections(later, "UTC")[0].title, "Today");
  EXPECT_EQ(list.sections(later, "Asia/Tokyo")[0].title, "Yesterday");
  EXPECT_EQ(list.summary(), "5 of 9 articles, 4 unread");
  list.replaceRows({}, 0);
  EXPECT_EQ(list.summary(), "No articles");
}

TEST(ActionEnablementTest, ActionsFollowTheSelection) {
  ActionContext context;
  context.hasAccounts = true;
  auto on = enabledActions(context, /*hasRows=*/false);
  EXPECT_FALSE(on.toggleRead);
  EXPECT_FALSE(on.next);
  EXPECT_TRUE(on.syncAll);
  EXPECT_FALSE(on.syncSource);  // "All articles" is no account
  EXPECT_FALSE(on.unsubscribe);

  context.article = row(1, std::chrono::hours(1));
  context.article->url = "https://example.com/a";
  context.source = SourceKind::kFeed;
  context.sourceService = ServiceType::kFeedbin;
  on = enabledActions(context, true);
  EXPECT_TRUE(on.toggleRead && on.toggleStar && on.remove && on.openInBrowser && on.readableView);
  EXPECT_FALSE(on.sendToReadLater);  // nowhere to send it
  EXPECT_TRUE(on.unsubscribe && on.moveFeed && on.syncSource);
  EXPECT_FALSE(on.renameFolder);

  context.article->url.clear();
  context.readLaterAccounts = true;
  context.syncing = true;
  on = enabledActions(context, true);
  EXPECT_FALSE(on.openInBrowser || on.copyLink || on.sendToReadLater || on.readableView);
  EXPECT_FALSE(on.syncAll || on.syncSource);  // one pass at a time

  // A read-later account's folder is not a folder of feeds; the smart folders are edited, not synced.
  context.source = SourceKind::kFolder;
  context.sourceService = ServiceType::kPocket;
  EXPECT_FALSE(enabledActions(context, true).renameFolder);
  context.sourceService = ServiceType::kLocalRSS;
  EXPECT_TRUE(enabledActions(context, true).renameFolder);
  context.syncing = false;
  context.source = SourceKind::kSmartFolder;
  context.sourceService = ServiceType::kSmartFolders;
  on = enabledActions(context, true);
  EXPECT_TRUE(on.editSmartFolder && on.removeSmartFolder);
  EXPECT_FALSE(on.syncSource || on.removeAccount);
  context.source = SourceKind::kAccount;
  EXPECT_FALSE(enabledActions(context, true).removeAccount);  // the smart-folders account stays
  context.sourceService = ServiceType::kInstapaper;
  EXPECT_TRUE(enabledActions(context, true).removeAccount);
}

TEST(SubscriptionAddressTest, FeedLinksBecomeAddresses) {
  EXPECT_EQ(subscriptionAddressOfUri("feed:https://example.com/rss"), "https://example.com/rss");
  EXPECT_EQ(subscriptionAddressOfUri("feed://example.com/rss?x=1"), "http://example.com/rss?x=1");
  EXPECT_EQ(subscriptionAddressOfUri("FEEDS://example.com/atom"), "https://example.com/atom");
  EXPECT_EQ(subscriptionAddressOfUri("feed:example.com/rss"), "http://example.com/rss");
  EXPECT_EQ(subscriptionAddressOfUri("https://example.com/"), "https://example.com/");
  EXPECT_EQ(subscriptionAddressOfUri("feed://"), std::nullopt);
  EXPECT_EQ(subscriptionAddressOfUri("javascript:alert(1)"), std::nullopt);
  EXPECT_EQ(subscriptionAddressOfUri("file:///etc/passwd"), std::nullopt);
  EXPECT_EQ(subscriptionAddressOfUri("feed://example.com/\n"), std::nullopt);
}

TEST(SmartFolderDraftTest, RowsBecomeAConditionAndComeBack) {
  SmartFolderDraft draft;
  draft.title = "Apple news";
  draft.any = true;
  draft.rows = {DraftRow{0, 0, "apple pie"}, DraftRow{6, 0, "2 weeks"}, DraftRow{7, 0, "yes"}};
  auto text = draft.predicateText();
  ASSERT_TRUE(text) << text.error().message();
  auto back = SmartFolderDraft::fromPredicateText(draft.title, *text);
  ASSERT_TRUE(back) << back.error().message();
  EXPECT_EQ(back->rows, draft.rows);
  EXPECT_TRUE(back->any);
  EXPECT_EQ(back->title, "Apple news");

  draft.any = false;
  draft.rows = {DraftRow{9, 1, "video"}};
  text = draft.predicateText();
  ASSERT_TRUE(text);
  back = SmartFolderDraft::fromPredicateText("", *text);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->rows, draft.rows);
}

TEST(SmartFolderDraftTest, RulesThatDoNotReadAreRefusedByNumber) {
  SmartFolderDraft draft;
  draft.rows = {DraftRow{0, 0, "fine"}, DraftRow{0, 0, "   "}};
  auto text = draft.predicateText();
  ASSERT_FALSE(text);
  EXPECT_EQ(text.error().description, "Rule 2 has no value");
  draft.rows = {DraftRow{6, 0, "two weeks"}};
  text = draft.predicateText();
  ASSERT_FALSE(text);
  EXPECT_EQ(text.error().description, "Rule 1 does not read");
  EXPECT_FALSE(text.error().recoverySuggestion.empty());
  draft.rows = {DraftRow{7, 0, "maybe"}};
  EXPECT_FALSE(draft.predicateText());
  draft.rows.clear();
  EXPECT_FALSE(draft.predicateText());
  // A condition written as predicate text, not rows, is not shown as rows.
  EXPECT_FALSE(SmartFolderDraft::fromPredicateText("x", "title CONTAINS[cd] \"a\" AND (is_archived == 0 OR score > 2)"));
  EXPECT_FALSE(SmartFolderDraft::fromPredicateText("x", "title CONTAINS ("));
}

}  // namespace
}  // namespace lectern::desktop
