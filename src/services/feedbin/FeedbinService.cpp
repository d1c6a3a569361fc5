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
using nlohmann::json;

std::shared_ptr<AFHTTPClient> FeedbinService::makeApiClient() {
  auto owner = account();
  auto password = storedSecret();
  if (!owner || !password || dependencies().session == nullptr) return nullptr;
  auto client = std::make_shared<QKFeedbinClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKFeedbinClient::kDefaultBaseURL),
      owner->username().value_or(""), *password);
  // One request at a time per account: Feedbin sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::shared_ptr<QKFeedbinClient> FeedbinService::feedbinClient() {
  return std::static_pointer_cast<QKFeedbinClient>(apiClient());
}

std::string FeedbinService::changeNotOfferedReason(SubscriptionChange change) const {
  if (change != SubscriptionChange::kRenameFolder) return FeedService::changeNotOfferedReason(change);
  return "A Feedbin folder is the name of a tag on its feeds: move the feeds into a folder of the new name "
         "(`lectern move FEED_ID --folder NAME`).";
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
  if (client) client->markStories(bookmarkIdsOf(bookmarks), archived, std::move(onCompleted));
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
  const auto feedId = safeStringValue(subscription, "feed_id");
  auto subscribed = feedId ? feedForSubscription(*feedId, safeStringValue(subscription, "title"),
                                                 safeStringValue(subscription, "feed_url"),
                                                 safeStringValue(subscription, "id"))
                           : Result<std::shared_ptr<Feed>>(fail(notAFeedError()));
  if (!subscribed) {
    if (onCompleted) onCompleted(fail(subscribed.error()));
    return;
  }
  auto feed = *subscribed;
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
                       if (!error) error = self->deleteFeedAfterServer(*held);
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
                     if (!error) error = self->moveFeedAfterServer(*held, target.get());
                     if (onComplete) onComplete(std::move(error));
                   });
}

void FeedbinService::addOrRenameFolder(std::string, FeedFolder* originalFolder, FolderCompletion) {
  checkFolder(originalFolder);
}

}  // namespace lectern
