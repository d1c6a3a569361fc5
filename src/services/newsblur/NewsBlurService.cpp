#include "services/newsblur/NewsBlurService.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "core/Log.h"
#include "core/Strings.h"
#include "services/newsblur/QKNewsBlurClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kNestedFolderSeparator = " - ";
// What a folder made here is marked with, as the sync marks the folders it makes.
constexpr std::string_view kFeedFolderId = "feed-folder";
constexpr std::string_view kUpdateItemFailed = "Failed to update feed item";

std::vector<std::string> titlesOf(const std::vector<std::shared_ptr<FeedFolder>>& folders) {
  std::vector<std::string> titles;
  for (const auto& folder : folders) titles.push_back(folder->title().value_or(""));
  return titles;
}

}  // namespace

std::shared_ptr<AFHTTPClient> NewsBlurService::makeApiClient() {
  auto owner = account();
  if (!owner || dependencies().session == nullptr) return nullptr;
  auto password = owner->tokenSecret();
  if (!password || !*password) {
    logError("NewsBlurService", "NewsBlur: no password stored for {}: {}", owner->uniqueIdentifier(),
             password ? "none" : password.error().message());
    return nullptr;
  }
  auto client = std::make_shared<QKNewsBlurClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKNewsBlurClient::kDefaultBaseURL),
      owner->username().value_or(""), **password);
  // One request at a time per account: NewsBlur sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::shared_ptr<QKNewsBlurClient> NewsBlurService::newsBlurClient() {
  return std::static_pointer_cast<QKNewsBlurClient>(apiClient());
}

std::string NewsBlurService::unavailableReason() const {
  return "Lectern has no NewsBlur password for this account: remove the account and add it again (with an "
         "empty line for an account without a password).";
}

void NewsBlurService::authenticate(ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKNewsBlurClient>("sign in", onCompleted))
    client->login(std::move(onCompleted));
}

NewsBlurService::FolderName NewsBlurService::newsBlurFolderName(const std::string& title,
                                                                const std::vector<std::string>& titles) {
  const auto split = title.rfind(kNestedFolderSeparator);
  if (split != std::string::npos && split > 0) {
    const std::string parent = title.substr(0, split);
    if (std::find(titles.begin(), titles.end(), parent) != titles.end()) {
      // The parent is known by its own name in turn.
      return {title.substr(split + kNestedFolderSeparator.size()), newsBlurFolderName(parent, titles).name};
    }
  }
  return {title, ""};
}

NewsBlurService::FolderName NewsBlurService::folderNameOf(const FeedFolder* folder) const {
  if (folder == nullptr) return {};
  std::vector<std::string> titles;
  if (auto owner = account()) {
    ObjectContext::FetchRequest request;
    request.where = "account = ? AND entity = 'FeedFolder'";
    request.arguments = {owner->objectID().row};
    if (auto folders = owner->managedObjectContext().fetch<FeedFolder>(std::move(request))) {
      titles = titlesOf(*folders);
    }
  }
  return newsBlurFolderName(folder->title().value_or(""), titles);
}

std::optional<std::string> NewsBlurService::storyFeedId(const Bookmark& story) {
  if (auto feedId = story.offlineFeedId(); feedId && !feedId->empty()) return feedId;
  // Story hashes are "<feed id>:<hash>".
  const auto hash = story.bookmark_hash().value_or("");
  const auto colon = hash.find(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  return hash.substr(0, colon);
}

void NewsBlurService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                    bool archived, ServiceCompletion onCompleted) {
  auto client =
      clientOrFail<QKNewsBlurClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (!client) return;
  std::vector<QKNewsBlurClient::StoryRef> stories;
  for (const auto& bookmark : bookmarks) {
    auto id = bookmark->bookmark_id();
    auto feedId = storyFeedId(*bookmark);
    if (id && feedId) stories.push_back({*id, *feedId});
  }
  if (stories.empty()) return complete(std::move(onCompleted), std::nullopt);
  client->markStories(stories, archived, std::move(onCompleted));
}

void NewsBlurService::markBookmarkFavorited(Bookmark& bookmark, bool favorited,
                                            ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKNewsBlurClient>(favorited ? "star item" : "unstar item", onCompleted);
  if (!client) return;
  const auto feedId = storyFeedId(bookmark);
  if (!feedId) {
    Error error = Error::make(QKNewsBlurClient::kErrorDomain, QKNewsBlurClient::kRefusedCode,
                              kUpdateItemFailed, "The story's NewsBlur feed is not known.");
    error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = "400";  // sending it again would not help
    return complete(std::move(onCompleted), error);
  }
  client->markStoryStarred({bookmark.bookmark_id().value_or(""), *feedId}, favorited, std::move(onCompleted));
}

void NewsBlurService::deleteBookmark(Account&, const std::string& bookmarkId,
                                     const std::optional<std::string>& feedId,
                                     ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKNewsBlurClient>("delete item", onCompleted);
  if (!client) return;
  if (!feedId || feedId->empty()) {
    // The story is gone here and NewsBlur cannot be told which one it was: nothing to send.
    logInfo("NewsBlurService", "NewsBlur: a deleted story without its feed id stays unread at NewsBlur");
    return complete(std::move(onCompleted), std::nullopt);
  }
  client->markStory({bookmarkId, *feedId}, /*readed=*/true, std::move(onCompleted));
}

void NewsBlurService::addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) {
  checkFolder(folder);
  auto client = newsBlurClient();
  if (!client) {
    completeFeed(std::move(onCompleted), fail(clientUnavailableError("add subscription")));
    return;
  }
  std::shared_ptr<FeedFolder> target =
      folder ? std::static_pointer_cast<FeedFolder>(folder->shared_from_this()) : nullptr;
  // The completion holds the account (and so this service) until the answer arrives.
  client->addFeedWithUrl(trim(url), folderNameOf(folder).name,
                         [self = std::static_pointer_cast<NewsBlurService>(shared_from_this()),
                          owner = account(), target, onCompleted](Result<json> answer) {
                           if (!answer) {
                             if (onCompleted) onCompleted(fail(answer.error()));
                             return;
                           }
                           self->insertSubscribedFeed(*answer, target.get(), onCompleted);
                         });
}

void NewsBlurService::insertSubscribedFeed(const json& answer, FeedFolder* folder,
                                           FeedCompletion onCompleted) {
  const auto feed = answer.is_object() ? answer.find("feed") : answer.end();
  const auto feedId = feed != answer.end() && feed->is_object() ? safeStringValue(*feed, "id") : std::nullopt;
  if (!feedId || feedId->empty()) {
    if (onCompleted) onCompleted(fail(notAFeedError()));
    return;
  }
  auto link = safeStringValue(*feed, "feed_link");
  if (!link || link->empty()) link = safeStringValue(*feed, "feed_address");
  auto subscribed = feedForSubscription(*feedId, safeStringValue(*feed, "feed_title"), link, std::nullopt);
  if (subscribed && folder != nullptr) {
    // NewsBlur filed it in the folder already: the library follows.
    if (auto error = moveFeedAfterServer(**subscribed, folder)) subscribed = fail(*error);
  }
  if (onCompleted) onCompleted(std::move(subscribed));
}

void NewsBlurService::deleteFeed(Feed& feed, ServiceCompletion handler) {
  checkFeed(feed);
  auto client = clientOrFail<QKNewsBlurClient>("delete subscription", handler);
  if (!client) return;
  auto held = std::static_pointer_cast<Feed>(feed.shared_from_this());
  std::vector<std::string> folders;
  if (auto current = feed.feedFolders(); current && !current->empty()) {
    for (const auto& folder : *current) folders.push_back(folderNameOf(folder.get()).name);
  } else {
    folders.push_back("");
  }
  auto done = [self = std::static_pointer_cast<NewsBlurService>(shared_from_this()), held,
               handler](std::optional<Error> error) {
    if (!error) error = self->deleteFeedAfterServer(*held);
    if (handler) handler(std::move(error));
  };
  client->deleteFeedFromFolders(feed.folder_id().value_or(""), folders, std::move(done));
}

void NewsBlurService::moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) {
  checkFeed(feed);
  checkFolder(folder);
  auto client = clientOrFail<QKNewsBlurClient>("move subscription", onComplete);
  if (!client) return;
  auto held = std::static_pointer_cast<Feed>(feed.shared_from_this());
  std::shared_ptr<FeedFolder> target =
      folder ? std::static_pointer_cast<FeedFolder>(folder->shared_from_this()) : nullptr;
  std::string from;
  if (auto current = feed.feedFolders(); current && !current->empty())
    from = folderNameOf(current->front().get()).name;
  const FolderName to = folderNameOf(folder);
  auto move = [self = std::static_pointer_cast<NewsBlurService>(shared_from_this()),
               weak = std::weak_ptr(client), feedId = feed.folder_id().value_or(""), from, to = to.name, held,
               target, onComplete](std::optional<Error> error) {
    // A folder NewsBlur has already is no reason to stop; any other refusal is the move's own.
    auto client = weak.lock();
    if (error &&
        !(error->domain == QKNewsBlurClient::kErrorDomain && error->code == QKNewsBlurClient::kRefusedCode)) {
      if (onComplete) onComplete(std::move(error));
      return;
    }
    if (!client) {
      if (onComplete) onComplete(self->clientUnavailableError("move subscription"));
      return;
    }
    client->moveFeed(feedId, from, to, [self, held, target, onComplete](std::optional<Error> moved) {
      if (!moved) moved = self->moveFeedAfterServer(*held, target.get());
      if (onComplete) onComplete(std::move(moved));
    });
  };
  if (folder == nullptr) return move(std::nullopt);
  client->addFolder(to.name, to.parent, std::move(move));
}

void NewsBlurService::addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                                        FolderCompletion onCompleted) {
  checkFolder(originalFolder);
  auto client = newsBlurClient();
  if (!client) {
    completeFolder(std::move(onCompleted),
                   fail(clientUnavailableError(originalFolder != nullptr ? "rename folder" : "add folder")));
    return;
  }
  std::shared_ptr<FeedFolder> original =
      originalFolder ? std::static_pointer_cast<FeedFolder>(originalFolder->shared_from_this()) : nullptr;
  auto finish = [self = std::static_pointer_cast<NewsBlurService>(shared_from_this()), original,
                 onCompleted](std::string localTitle) {
    return [self, original, onCompleted, localTitle](std::optional<Error> error) {
      self->finishFolder(std::move(error), original, localTitle, onCompleted);
    };
  };
  if (!originalFolder) {
    client->addFolder(title, "", finish(title));
    return;
  }
  const FolderName current = folderNameOf(originalFolder);
  // A nested folder keeps its parent: NewsBlur renames it in place and lists it under it.
  std::string newName = title;
  std::string localTitle = title;
  if (!current.parent.empty()) {
    const std::string prefix = originalFolder->title().value_or("").substr(
        0, originalFolder->title().value_or("").size() - current.name.size());
    if (newName.starts_with(prefix)) newName = newName.substr(prefix.size());
    localTitle = prefix + newName;
  }
  client->renameFolder(current.name, newName, current.parent, finish(localTitle));
}

void NewsBlurService::finishFolder(std::optional<Error> error, std::shared_ptr<FeedFolder> original,
                                   std::string title, FolderCompletion onCompleted) {
  if (error) {
    if (onCompleted) onCompleted(fail(*error));
    return;
  }
  auto owner = account();
  if (!owner || owner->isDeleted() || (original && original->isDeleted())) {
    if (onCompleted) onCompleted(fail(clientUnavailableError("rename folder")));
    return;
  }
  auto folder = createOrRenameLocalFolder(original.get(), title);
  if (folder && !original) (*folder)->setFolder_id(std::string(kFeedFolderId));
  if (folder) {
    if (auto saved = owner->managedObjectContext().save(); !saved) folder = fail(saved.error());
  }
  if (onCompleted) onCompleted(std::move(folder));
}

}  // namespace lectern
