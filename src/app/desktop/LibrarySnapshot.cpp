#include "app/desktop/LibrarySnapshot.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "smart/QKSmartStreamExpression.h"
#include "smart/library/QKSmartFolderContents.h"
#include "smart/library/SmartFolderQuery.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedEnclosure.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ListCounts.h"
#include "store/ObjectContext.h"
#include "store/SmartFolder.h"

namespace lectern::desktop {
namespace {

const SourceNode* findIn(const std::vector<SourceNode>& nodes, const SourceKey& key) {
  for (const auto& node : nodes) {
    if (node.key == key) return &node;
    if (const auto* found = findIn(node.children, key)) return found;
  }
  return nullptr;
}

SourceNode feedNode(Feed& feed, const Account& account, std::int64_t unread) {
  SourceNode node;
  node.key = {SourceKind::kFeed, feed.objectID().row};
  node.title = feed.title().value_or(feed.folder_id().value_or("(untitled feed)"));
  node.unread = unread;
  if (feed.failing_since()) {
    node.failing = feed.last_error().value_or("The feed could not be refreshed.");
    node.failingSince = feed.failing_since();
  }
  node.site = feed.feed_link().value_or("");
  node.feedUrl = feed.folder_id().value_or("");
  node.service = account.serviceType();
  node.account = account.objectID().row;
  return node;
}

Result<SourceNode> accountNode(Account& account) {
  SourceNode node;
  node.key = {SourceKind::kAccount, account.objectID().row};
  node.title = account.title().value_or(account.service().value_or("(account)"));
  node.service = account.serviceType();
  node.account = account.objectID().row;
  auto unread = countBookmarks(account, BookmarkQuery{BookmarkFilter::kUnread, std::nullopt});
  if (!unread) return fail(unread.error());
  node.unread = *unread;

  auto feedCounts = account.unreadFeedCounts();
  if (!feedCounts) return fail(feedCounts.error());
  const auto unreadOf = [&](const Feed& feed) {
    auto found = feedCounts->find(feed.objectID());
    return found == feedCounts->end() ? std::int64_t{0} : found->second;
  };
  auto folders = account.sortedFolders();
  if (!folders) return fail(folders.error());
  std::set<std::int64_t> feedsInFolders;
  for (const auto& folder : *folders) {
    SourceNode child;
    child.key = {SourceKind::kFolder, folder->objectID().row};
    child.title = folder->title().value_or("(untitled folder)");
    child.service = node.service;
    child.account = node.account;
    if (auto* feedFolder = dynamic_cast<FeedFolder*>(folder.get())) {
      auto feeds = feedFolder->feeds();
      if (!feeds) return fail(feeds.error());
      for (const auto& feed : *feeds) {
        feedsInFolders.insert(feed->objectID().row);
        child.unread += unreadOf(*feed);
        child.children.push_back(feedNode(*feed, account, unreadOf(*feed)));
      }
    } else {
      auto count = folder->readerUnreadCount();
      if (!count) return fail(count.error());
      child.unread = *count;
    }
    node.children.push_back(std::move(child));
  }
  auto feeds = account.feeds();
  if (!feeds) return fail(feeds.error());
  for (const auto& feed : *feeds) {
    if (feedsInFolders.contains(feed->objectID().row)) continue;
    node.children.push_back(feedNode(*feed, account, unreadOf(*feed)));
  }
  return node;
}

Result<std::vector<std::shared_ptr<Bookmark>>> scopeItems(ObjectContext& context, const ArticleQuery& query, Date now,
                                                          std::int64_t& total) {
  BookmarkQuery page{query.filter == ArticleFilter::kUnread    ? BookmarkFilter::kUnread
                     : query.filter == ArticleFilter::kStarred ? BookmarkFilter::kStarred
                                                               : BookmarkFilter::kAll,
                     query.limit > 0 ? std::optional(query.limit) : std::nullopt};
  switch (query.source.kind) {
    case SourceKind::kFeed: {
      auto feed = context.existingObject<Feed>(ObjectId{Entity::kFeed, query.source.id});
      if (!feed) return fail(feed.error());
      if (!*feed) return fail(kLecternErrorDomain, 1, "The feed is no longer in the library");
      auto stories = (*feed)->stories(page);
      if (!stories) return fail(stories.error());
      auto counted = countStories(**feed, page);
      if (!counted) return fail(counted.error());
      total = *counted;
      return std::vector<std::shared_ptr<Bookmark>>(stories->begin(), stories->end());
    }
    case SourceKind::kFolder: {
      auto folder = context.existingObject<Folder>(ObjectId{Entity::kFolder, query.source.id});
      if (!folder) return fail(folder.error());
      if (!*folder) return fail(kLecternErrorDomain, 1, "The folder is no longer in the library");
      auto counted = countReaderItems(**folder, page);
      if (!counted) return fail(counted.error());
      total = *counted;
      return (*folder)->readerItems(page);
    }
    case SourceKind::kSmartFolder: {
      auto folder = context.existingObject<SmartFolder>(ObjectId{Entity::kSmartFolder, query.source.id});
      if (!folder) return fail(folder.error());
      if (!*folder) return fail(kLecternErrorDomain, 1, "The smart folder is no longer in the library");
      auto predicate = fetchPredicate(**folder);
      if (!predicate) return fail(predicate.error());
      LibraryScope scope;
      narrowToFilter(*predicate, scope, page.filter);
      auto counted = countMatchingBookmarks(context, *predicate, now, scope);
      if (!counted) return fail(counted.error());
      total = *counted;
      scope.limit = page.limit;
      return fetchMatchingBookmarks(context, *predicate, now, scope);
    }
    case SourceKind::kAccount:
    case SourceKind::kAll: {
      auto accounts = Account::services(context);
      if (!accounts) return fail(accounts.error());
      std::vector<std::shared_ptr<Bookmark>> items;
      total = 0;
      for (const auto& account : *accounts) {
        if (account->serviceType() == ServiceType::kSmartFolders) continue;
        if (query.source.kind == SourceKind::kAccount && account->objectID().row != query.source.id) continue;
        auto bookmarks = account->bookmarks(page);
        if (!bookmarks) return fail(bookmarks.error());
        items.insert(items.end(), bookmarks->begin(), bookmarks->end());
        auto counted = countBookmarks(*account, page);
        if (!counted) return fail(counted.error());
        total += *counted;
      }
      // Each account's page is newest first; merged, the limit holds for the whole list.
      std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
        return a->date_added().value_or(Date{}) > b->date_added().value_or(Date{});
      });
      if (page.limit && static_cast<std::int64_t>(items.size()) > *page.limit) items.resize(static_cast<size_t>(*page.limit));
      return items;
    }
  }
  return std::vector<std::shared_ptr<Bookmark>>{};
}

Result<std::vector<std::shared_ptr<Bookmark>>> searchItems(ObjectContext& context, const ArticleQuery& query, Date now,
                                                           std::int64_t& total) {
  QKSmartStreamExpression expression(query.search);
  auto predicate = expression.predicate();
  if (!predicate) return fail(predicate.error());
  LibraryScope scope;
  // A search runs in the account of the selected source; from "All articles" or a smart folder,
  // across the library.
  if (query.source.kind != SourceKind::kAll && query.source.kind != SourceKind::kSmartFolder) {
    std::int64_t account = query.source.kind == SourceKind::kAccount ? query.source.id : 0;
    if (account == 0) {
      const Entity entity = query.source.kind == SourceKind::kFeed ? Entity::kFeed : Entity::kFolder;
      auto folder = context.existingObject<Folder>(ObjectId{entity, query.source.id});
      if (!folder) return fail(folder.error());
      if (*folder) {
        if (auto id = (*folder)->accountID()) account = id->row;
      }
    }
    if (account != 0) scope.accounts.push_back(ObjectId{Entity::kAccount, account});
  }
  narrowToFilter(*predicate, scope, query.filter == ArticleFilter::kUnread    ? BookmarkFilter::kUnread
                                    : query.filter == ArticleFilter::kStarred ? BookmarkFilter::kStarred
                                                                              : BookmarkFilter::kAll);
  auto counted = countMatchingBookmarks(context, *predicate, now, scope);
  if (!counted) return fail(counted.error());
  total = *counted;
  if (query.limit > 0) scope.limit = query.limit;
  return fetchMatchingBookmarks(context, *predicate, now, scope);
}

ArticleRow rowOf(Bookmark& bookmark) {
  ArticleRow row;
  row.id = bookmark.objectID().row;
  row.title = bookmark.title().value_or("");
  row.url = bookmark.url().value_or("");
  row.date = bookmark.date_added();
  row.unread = !bookmark.is_archived();
  row.starred = bookmark.is_favorited();
  if (auto* story = dynamic_cast<FeedStory*>(&bookmark)) {
    if (auto feed = story->feed(); feed && *feed) row.feed = (*feed)->title().value_or("");
  }
  if (auto account = bookmark.account(); account && *account) {
    row.account = (*account)->objectID().row;
    if (row.feed.empty()) row.feed = (*account)->title().value_or("");
  }
  return row;
}

}  // namespace

const SourceNode* SourceTree::find(const SourceKey& key) const { return findIn(roots, key); }

Result<SourceTree> loadSourceTree(ObjectContext& context, const Clock& clock, const UserDefaults& defaults) {
  SourceTree tree;
  SourceNode all;
  all.title = "All articles";
  auto accounts = Account::services(context);
  if (!accounts) return fail(accounts.error());
  for (const auto& account : *accounts) {
    if (account->serviceType() == ServiceType::kSmartFolders) continue;
    auto node = accountNode(*account);
    if (!node) return fail(node.error());
    all.unread += node->unread;
    tree.roots.push_back(std::move(*node));
  }
  tree.roots.insert(tree.roots.begin(), std::move(all));

  auto smart = Account::smartFoldersAccount(context);
  if (!smart) return fail(smart.error());
  if (*smart) {
    SourceNode node;
    node.key = {SourceKind::kAccount, (*smart)->objectID().row};
    node.title = (*smart)->title().value_or("Smart Folders");
    node.service = ServiceType::kSmartFolders;
    node.account = (*smart)->objectID().row;
    ObjectContext::FetchRequest request;
    request.where = "account = ?";
    request.arguments = {(*smart)->objectID().row};
    request.orderBy = "pos, id";
    auto folders = context.fetch<SmartFolder>(std::move(request));
    if (!folders) return fail(folders.error());
    QKSmartFolderContents contents(context, clock, defaults);
    for (const auto& folder : *folders) {
      SourceNode child;
      child.key = {SourceKind::kSmartFolder, folder->objectID().row};
      child.title = folder->title().value_or("(untitled smart folder)");
      child.service = ServiceType::kSmartFolders;
      child.account = node.account;
      // A folder whose rules no longer read shows no count rather than hiding the tree.
      if (auto count = contents.bookmarkCount(*folder)) child.unread = *count;
      if (contents.isBadgeVisible(*folder)) child.badge = contents.badgeValue(*folder);
      node.children.push_back(std::move(child));
    }
    tree.roots.push_back(std::move(node));
  }
  return tree;
}

Result<ArticlePageOfRows> loadArticles(ObjectContext& context, const ArticleQuery& query, Date now) {
  ArticlePageOfRows page;
  auto items = query.search.empty() ? scopeItems(context, query, now, page.total) : searchItems(context, query, now, page.total);
  if (!items) return fail(items.error());
  page.rows.reserve(items->size());
  for (const auto& item : *items) page.rows.push_back(rowOf(*item));
  return page;
}

Result<StoredArticle> loadArticle(ObjectContext& context, std::int64_t id) {
  auto bookmark = Bookmark::bookmarkWithLocalId(context, id);
  if (!bookmark) return fail(bookmark.error());
  if (!*bookmark) {
    return fail(kLecternErrorDomain, 1, fmt::format("No article with id {}", id), "It may have been deleted by a sync.");
  }
  StoredArticle article;
  article.row = rowOf(**bookmark);
  auto html = (*bookmark)->html();
  if (!html) return fail(html.error());
  article.html = html->value_or("");
  if (auto account = (*bookmark)->account(); account && *account) article.imageFolder = (*account)->imageCacheFolder();
  if (auto* story = dynamic_cast<FeedStory*>(bookmark->get())) {
    article.author = story->author().value_or("");
    auto enclosures = story->enclosures();
    if (!enclosures) return fail(enclosures.error());
    for (const auto& enclosure : *enclosures) {
      if (!enclosure->url()) continue;
      article.enclosures.push_back({*enclosure->url(), enclosure->type().value_or(""), enclosure->length()});
    }
  }
  return article;
}

}  // namespace lectern::desktop
