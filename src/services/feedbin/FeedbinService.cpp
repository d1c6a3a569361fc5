#include "services/feedbin/FeedbinService.h"

#include <fmt/format.h>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "services/feedbin/QKFeedbinClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLogCategory = "FeedbinService";

Error notAFeedError() {
  return Error::make(kLecternErrorDomain, 0, "Failed to fetch feed",
                     "Feed not found or it isn't a valid feed");
}

std::vector<std::string> bookmarkIds(const std::vector<std::shared_ptr<Bookmark>>& bookmarks) {
  std::vector<std::string> ids;
  for (const auto& bookmark : bookmarks) {
    if (auto id = bookmark->bookmark_id()) ids.push_back(*id);
  }
  return ids;
}

// Saves after a change the server agreed to; a failure is the caller's error.
std::optional<Error> saveAfterServer(ObjectContext& context, std::string_view what) {
  if (auto saved = context.save(); !saved) {
    logError(kLogCategory, "Failed to save {}: {}", what, saved.error().message());
    return saved.error();
  }
  return std::nullopt;
}

}  // namespace

std::shared_ptr<AFHTTPClient> FeedbinService::makeApiClient() {
  auto owner = account();
  if (!owner || dependencies().session == nullptr) return nullptr;
  auto password = owner->tokenSecret();
  if (!password || !*password) {
    logError(kLogCategory, "No password for {}: {}", owner->uniqueIdentifier(),
             password ? "none stored" : password.error().message());
    return nullptr;
  }
  auto client = std::make_shared<QKFeedbinClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKFeedbinClient::kDefaultBaseURL),
      owner->username().value_or(""), **password);
  // One request at a time per account: Feedbin sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::shared_ptr<QKFeedbinClient> FeedbinService::feedbinClient() {
  return std::static_pointer_cast<QKFeedbinClient>(apiClient());
}

std::string FeedbinService::unavailableReason() const {
  return "Lectern has no Feedbin password for this account: remove the account and add it again.";
}

void FeedbinService::authenticate(ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKFeedbinClient>("sign in", onCompleted))
    client->authenticate(std::move(onCompleted));
}

void FeedbinService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                   bool archived, ServiceCompletion onCompleted) {
  auto client =
      clientOrFail<QKFeedbinClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (client) client->markStories(bookmarkIds(bookmarks), archived, std::move(onCompleted));
}

void FeedbinService::markBookmarkFavorited(Bookmark& bookmark, bool favorited,
                                           ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKFeedbinClient>(favorited ? "star item" : "unstar item", onCompleted);
  if (client)
    client->markStoryStarred(bookmark.bookmark_id().value_or(""), favorited, std::move(onCompleted));
}

void FeedbinService::deleteBookmark(Account&, const std::string& bookmarkId,
                                    const std::optional<std::string>&, ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKFeedbinClient>("delete item", onCompleted)) {
    client->markStory(bookmarkId, /*readed=*/true, std::move(onCompleted));
  }
}

void FeedbinService::addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) {
  checkFolder(folder);
  auto client = feedbinClient();
  if (!client) {
    completeFeed(std::move(onCompleted), fail(clientUnavailableError("add subscription")));
    return;
  }
  std::shared_ptr<FeedFolder> target =
      folder ? std::static_pointer_cast<FeedFolder>(folder->shared_from_this()) : nullptr;
  // The completion holds the account (and so this service) until the answer arrives.
  client->addFeedWithUrl(trim(url), [self = std::static_pointer_cast<FeedbinService>(shared_from_this()),
                                     owner = account(), target, onCompleted](Result<json> answer) {
    if (!answer) {
      if (onCompleted) onCompleted(fail(answer.error()));
      return;
    }
    if (!answer->is_object()) {
      if (onCompleted) onCompleted(fail(notAFeedError()));
      return;
    }
    self->insertSubscribedFeed(*answer, target.get(), onCompleted);
  });
}

void FeedbinService::insertSubscribedFeed(const json& subscription, FeedFolder* folder,
                                          FeedCompletion onCompleted) {
  auto owner = account();
  if (!owner || owner->isDeleted()) {
    if (onCompleted) onCompleted(fail(notAFeedError()));
    return;
  }
  auto& context = owner->managedObjectContext();
  const auto feedId = safeStringValue(subscription, "feed_id");
  if (!feedId) {
    if (onCompleted) onCompleted(fail(notAFeedError()));
    return;
  }
  // A feed of that id already at the top level is the one subscribed; otherwise a new one comes
  // (a copy of a feed that sits in a folder goes again at the next sync).
  ObjectContext::FetchRequest request;
  request.where =
      "account = ? AND entity = 'Feed' AND folder_id = ?"
      " AND id NOT IN (SELECT feed FROM FeedFolder_feeds)";
  request.arguments = {owner->objectID().row, *feedId};
  auto found = context.fetchFirst<Feed>(std::move(request));
  if (!found) {
    if (onCompleted) onCompleted(fail(found.error()));
    return;
  }
  std::shared_ptr<Feed> feed = *found;
  if (!feed) {
    feed = owner->addFeedWithTitle(safeStringValue(subscription, "title"),
                                   safeStringValue(subscription, "feed_url"), *feedId);
    feed->setExt_id(safeStringValue(subscription, "id"));
  }
  if (auto error = saveAfterServer(context, "the new subscription")) {
    if (onCompleted) onCompleted(fail(*error));
    return;
  }
  if (folder == nullptr) {
    if (onCompleted) onCompleted(feed);
    return;
  }
  moveFeed(*feed, folder, [feed, onCompleted](std::optional<Error> error) {
    if (!onCompleted) return;
    if (error) {
      onCompleted(fail(*error));
    } else {
      onCompleted(feed);
    }
  });
}

void FeedbinService::deleteFeed(Feed& feed, ServiceCompletion handler) {
  checkFeed(feed);
  auto client = clientOrFail<QKFeedbinClient>("delete subscription", handler);
  if (!client) return;
  auto held = std::static_pointer_cast<Feed>(feed.shared_from_this());
  client->deleteFeed(feed.ext_id().value_or(""),
                     [self = std::static_pointer_cast<FeedbinService>(shared_from_this()), held,
                      handler](std::optional<Error> error) {
                       if (!error && !held->isDeleted()) {
                         self->deleteFeedFromLocalStore(*held);
                         error = saveAfterServer(held->managedObjectContext(), "the deleted subscription");
                       }
                       if (handler) handler(std::move(error));
                     });
}

void FeedbinService::moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) {
  checkFeed(feed);
  checkFolder(folder);
  auto client = clientOrFail<QKFeedbinClient>("move subscription", onComplete);
  if (!client) return;
  auto held = std::static_pointer_cast<Feed>(feed.shared_from_this());
  std::shared_ptr<FeedFolder> target =
      folder ? std::static_pointer_cast<FeedFolder>(folder->shared_from_this()) : nullptr;
  const std::optional<std::string> folderName = folder ? folder->title() : std::nullopt;
  client->moveFeed(feed.folder_id().value_or(""), folderName,
                   [self = std::static_pointer_cast<FeedbinService>(shared_from_this()), held, target,
                    onComplete](std::optional<Error> error) {
                     if (!error && !held->isDeleted()) {
                       if (auto moved = self->moveFeedInLocalStore(*held, target.get()); !moved) {
                         error = moved.error();
                       } else {
                         error = saveAfterServer(held->managedObjectContext(), "the moved subscription");
                       }
                     }
                     if (onComplete) onComplete(std::move(error));
                   });
}

void FeedbinService::addOrRenameFolder(std::string, FeedFolder* originalFolder, FolderCompletion) {
  checkFolder(originalFolder);
}

}  // namespace lectern
