#include "accounts/FeedService.h"

#include <fmt/format.h>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"

namespace lectern {

std::string FeedService::changeNotOfferedReason(SubscriptionChange change) const {
  switch (change) {
    case SubscriptionChange::kSubscribe:
    case SubscriptionChange::kUnsubscribe:
    case SubscriptionChange::kMoveFeed:
      return fmt::format("{} manages its subscriptions on the server: change them there (its web page), then "
                         "`lectern sync`.",
                         descriptionName());
    case SubscriptionChange::kRenameFolder:
      return fmt::format("{} folders cannot be renamed from here: rename it on the server, then `lectern sync`.",
                         descriptionName());
  }
  return {};
}

void FeedService::addFeedWithUrl(std::string, FeedFolder* folder, FeedCompletion onCompleted) {
  checkFolder(folder);
  completeFeed(std::move(onCompleted), fail(clientUnavailableError("add subscription")));
}

void FeedService::deleteFeed(Feed& feed, ServiceCompletion handler) {
  checkFeed(feed);
  completeWithoutClient("delete subscription", std::move(handler));
}

void FeedService::moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) {
  checkFeed(feed);
  checkFolder(folder);
  completeWithoutClient("move subscription", std::move(onComplete));
}

void FeedService::addOrRenameFolder(std::string, FeedFolder* originalFolder, FolderCompletion onCompleted) {
  checkFolder(originalFolder);
  completeFolder(std::move(onCompleted),
                 fail(clientUnavailableError(originalFolder != nullptr ? "rename folder" : "add folder")));
}

Result<std::shared_ptr<FeedFolder>> FeedService::createOrRenameLocalFolder(FeedFolder* folder,
                                                                           const std::string& title) {
  checkFolder(folder);
  if (folder != nullptr) {
    folder->setTitle(title);
    return std::static_pointer_cast<FeedFolder>(folder->shared_from_this());
  }
  auto owner = account();
  if (!owner) throw InternalInconsistency("The service's account is gone");
  auto& context = owner->managedObjectContext();
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder' AND title = ?";
  request.arguments = {owner->objectID().row, title};
  request.orderBy = "pos, id";
  auto found = context.fetchFirst<FeedFolder>(std::move(request));
  if (!found) return fail(found.error());
  if (*found) return *found;
  auto count =
      context.count(Entity::kFeedFolder, "account = ? AND entity = 'FeedFolder'", {owner->objectID().row});
  if (!count) return fail(count.error());
  // A local folder has no remote id; a UUID keeps it apart from the built-in ids ("unread" ...).
  return owner->addFeedFolderWithTitle(title, *count, UUIDString());
}

void FeedService::deleteFeedFromLocalStore(Feed& feed) {
  checkFeed(feed);
  feed.managedObjectContext().deleteObject(feed);
}

Result<void> FeedService::moveFeedInLocalStore(Feed& feed, FeedFolder* folder) {
  checkFeed(feed);
  checkFolder(folder);
  auto folders = feed.feedFolders();
  if (!folders) return fail(folders.error());
  for (const auto& current : *folders) {
    if (current.get() != folder) current->removeFeed(feed);
  }
  if (folder != nullptr) folder->addFeed(feed);
  return {};
}

Result<std::shared_ptr<Feed>> FeedService::feedForSubscription(const std::string& remoteId,
                                                               std::optional<std::string> title,
                                                               std::optional<std::string> feedLink,
                                                               std::optional<std::string> extId) {
  auto owner = account();
  if (!owner || owner->isDeleted()) return fail(notAFeedError());
  auto& context = owner->managedObjectContext();
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'Feed' AND folder_id = ? AND id NOT IN (SELECT feed FROM FeedFolder_feeds)";
  request.arguments = {owner->objectID().row, remoteId};
  auto found = context.fetchFirst<Feed>(std::move(request));
  if (!found) return fail(found.error());
  std::shared_ptr<Feed> feed = *found;
  if (!feed) {
    feed = owner->addFeedWithTitle(std::move(title), std::move(feedLink), remoteId);
    if (extId) feed->setExt_id(std::move(extId));
  }
  if (auto saved = context.save(); !saved) {
    logError(descriptionName(), "Failed to save the new subscription: {}", saved.error().message());
    return fail(saved.error());
  }
  return feed;
}

std::optional<Error> FeedService::deleteFeedAfterServer(Feed& feed) {
  if (feed.isDeleted()) return std::nullopt;
  auto& context = feed.managedObjectContext();
  deleteFeedFromLocalStore(feed);
  if (auto saved = context.save(); !saved) {
    logError(descriptionName(), "Failed to save the deleted subscription: {}", saved.error().message());
    return saved.error();
  }
  return std::nullopt;
}

std::optional<Error> FeedService::moveFeedAfterServer(Feed& feed, FeedFolder* folder) {
  if (feed.isDeleted()) return std::nullopt;
  if (auto moved = moveFeedInLocalStore(feed, folder); !moved) return moved.error();
  if (auto saved = feed.managedObjectContext().save(); !saved) {
    logError(descriptionName(), "Failed to save the moved subscription: {}", saved.error().message());
    return saved.error();
  }
  return std::nullopt;
}

Error FeedService::notAFeedError() {
  return Error::make(kLecternErrorDomain, 0, "Failed to fetch feed", "Feed not found or it isn't a valid feed");
}

std::vector<std::string> FeedService::bookmarkIdsOf(const std::vector<std::shared_ptr<Bookmark>>& bookmarks) {
  std::vector<std::string> ids;
  for (const auto& bookmark : bookmarks) {
    if (auto id = bookmark->bookmark_id()) ids.push_back(*id);
  }
  return ids;
}

void FeedService::checkFolder(const FeedFolder* folder) const {
  if (folder == nullptr) return;
  auto owner = account();
  if (folder->entity() != Entity::kFeedFolder) throw InternalInconsistency("A feed cannot hold feeds");
  if (!owner || &folder->managedObjectContext() != &owner->managedObjectContext() ||
      folder->accountID() != owner->objectID()) {
    throw InternalInconsistency("The folder belongs to another account");
  }
}

void FeedService::checkFeed(const Feed& feed) const {
  auto owner = account();
  if (!owner || &feed.managedObjectContext() != &owner->managedObjectContext() ||
      feed.accountID() != owner->objectID()) {
    throw InternalInconsistency("The feed belongs to another account");
  }
}

void FeedService::completeFeed(FeedCompletion onCompleted, Result<std::shared_ptr<Feed>> result) const {
  if (!onCompleted) return;
  dependencies().mainQueue.post(
      [onCompleted = std::move(onCompleted), result = std::move(result)] { onCompleted(result); });
}

void FeedService::completeFolder(FolderCompletion onCompleted,
                                 Result<std::shared_ptr<FeedFolder>> result) const {
  if (!onCompleted) return;
  dependencies().mainQueue.post(
      [onCompleted = std::move(onCompleted), result = std::move(result)] { onCompleted(result); });
}

}  // namespace lectern
