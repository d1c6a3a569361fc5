#include "services/feedly/FeedlyService.h"

#include <fmt/format.h>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "net/URL.h"
#include "services/feedly/QKFeedlyClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"
#include "store/QKAccountPreferences.h"
#include "store/StoreEnvironment.h"

namespace lectern {
using nlohmann::json;

namespace {
constexpr std::string_view kFeedFolderId = "feed-folder";
constexpr std::string_view kFeedPrefix = "feed/";
}  // namespace

Result<FeedlyApplication> FeedlyService::application(const UserDefaults& defaults, std::string_view baseURL) {
  FeedlyApplication application;
  application.clientId = trim(defaults.stringForKey(kClientIdDefaultsKey));
  application.clientSecret = trim(defaults.stringForKey(kClientSecretDefaultsKey));
  application.scope = trim(defaults.stringForKey(kScopeDefaultsKey));
  if (application.clientId.empty() || application.clientSecret.empty()) {
    return fail(
        kLecternErrorDomain, 0, "Feedly: Lectern has no client id and secret",
        "Feedly issues them to an application. Set them with `lectern config set feedlyClientId ID` and "
        "`lectern config set feedlyClientSecret SECRET` (or pass --client-id and --client-secret), or "
        "sign in with a developer access token: `lectern account add feedly --token TOKEN`.");
  }
  if (application.scope.empty()) {
    const auto base = URL::parse(baseURL);
    const std::string host =
        base && base->hasAuthority() ? base->origin() : std::string("https://cloud.feedly.com");
    application.scope = host + "/subscriptions";
  }
  return application;
}

std::shared_ptr<AFHTTPClient> FeedlyService::makeApiClient() {
  auto owner = account();
  auto accessToken = storedSecret();
  if (!owner || !accessToken || dependencies().session == nullptr) return nullptr;
  const std::string baseURL = serviceBaseURL(kApiEndpointDefaultsKey, QKFeedlyClient::kDefaultBaseURL);
  // A developer token needs no application: only a renewal does, and it says so when it fails.
  auto app = application(owner->managedObjectContext().environment().defaults(), baseURL);
  FeedlyTokens tokens{*accessToken, owner->token(), owner->token_expire()};
  auto client =
      std::make_shared<QKFeedlyClient>(*dependencies().session, baseURL, app ? *app : FeedlyApplication{},
                                       std::move(tokens), dependencies().clock);
  // One request at a time per account: Feedly sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  // The client is the service's: it never outlives it, so a weak hold is enough.
  client->setTokenDelegate([weak = std::weak_ptr<FeedlyService>(std::static_pointer_cast<FeedlyService>(
                                shared_from_this()))](const std::string& token, Date expire) {
    if (auto self = weak.lock()) self->feedlyTokenRefreshed(token, expire);
  });
  // The profile id builds the stream ids; kept with the account so that a sync need not ask.
  auto& defaults = owner->managedObjectContext().environment().defaults();
  const std::string identifier = owner->uniqueIdentifier();
  const auto known = QKAccountPreferences(defaults, identifier).valueForKey(kProfileIdPreferenceKey);
  if (known.is_string()) client->setProfileId(known.get<std::string>());
  client->setProfileDelegate([&defaults, identifier](const std::string& profileId) {
    (void)QKAccountPreferences(defaults, identifier).setValue(kProfileIdPreferenceKey, profileId);
  });
  return client;
}

std::shared_ptr<QKFeedlyClient> FeedlyService::feedlyClient() {
  return std::static_pointer_cast<QKFeedlyClient>(apiClient());
}

void FeedlyService::feedlyTokenRefreshed(const std::string& accessToken, Date expire) {
  auto owner = account();
  if (!owner || owner->isDeleted()) return;
  if (auto stored = owner->setTokenSecret(accessToken); !stored) {
    logError(descriptionName(), "Failed to keep the renewed token: {}", stored.error().message());
  }
  owner->setToken_expire(expire);
  if (auto saved = owner->managedObjectContext().save(); !saved) {
    logError(descriptionName(), "Failed to save the token's expiry: {}", saved.error().message());
  }
}

std::string FeedlyService::unavailableReason() const {
  return "Lectern has no Feedly token for this account: sign in again with `lectern account remove` and "
         "`lectern account add feedly`.";
}

void FeedlyService::authenticate(ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKFeedlyClient>("sign in", onCompleted))
    client->authenticate(std::move(onCompleted));
}

void FeedlyService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                  bool archived, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKFeedlyClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (client) client->markStories(bookmarkIdsOf(bookmarks), archived, std::move(onCompleted));
}

void FeedlyService::markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKFeedlyClient>(favorited ? "star item" : "unstar item", onCompleted);
  if (client) client->markStory(bookmark.bookmark_id().value_or(""), favorited, std::move(onCompleted));
}

void FeedlyService::deleteBookmark(Account&, const std::string& bookmarkId, const std::optional<std::string>&,
                                   ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKFeedlyClient>("delete item", onCompleted)) {
    client->markStories({bookmarkId}, /*readed=*/true, std::move(onCompleted));
  }
}

void FeedlyService::addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) {
  checkFolder(folder);
  auto client = feedlyClient();
  if (!client) {
    completeFeed(std::move(onCompleted), fail(clientUnavailableError("add subscription")));
    return;
  }
  std::shared_ptr<FeedFolder> target =
      folder ? std::static_pointer_cast<FeedFolder>(folder->shared_from_this()) : nullptr;
  url = trim(url);
  const std::optional<std::string> folderId = folder ? folder->ext_id() : std::nullopt;
  const std::optional<std::string> folderName = folder ? folder->title() : std::nullopt;
  client->addFeedWithUrl(url, folderId, folderName,
                         [self = std::static_pointer_cast<FeedlyService>(shared_from_this()),
                          owner = account(), target, url, onCompleted](Result<json> answer) {
                           if (!answer) {
                             if (onCompleted) onCompleted(fail(answer.error()));
                             return;
                           }
                           // Feedly answers with the subscription in a list (or nothing worth reading): the
                           // feed is named by its address until the next sync brings its title.
                           const json* subscription =
                               answer->is_array() && !answer->empty() ? &answer->front() : &*answer;
                           const std::string feedId = std::string(kFeedPrefix) + url;
                           if (subscription->is_object()) {
                             if (auto id = safeStringValue(*subscription, "id"); id && *id != feedId) {
                               if (onCompleted) onCompleted(fail(notAFeedError()));
                               return;
                             }
                           }
                           auto feed = self->feedForSubscription(
                               feedId, safeStringValue(*subscription, "title").value_or(url), url, feedId);
                           if (!feed) {
                             if (onCompleted) onCompleted(fail(feed.error()));
                             return;
                           }
                           if (target) {
                             self->adoptCategoryId(target.get());
                             if (auto error = self->moveFeedAfterServer(**feed, target.get())) {
                               if (onCompleted) onCompleted(fail(*error));
                               return;
                             }
                           }
                           if (onCompleted) onCompleted(*feed);
                         });
}

void FeedlyService::deleteFeed(Feed& feed, ServiceCompletion handler) {
  checkFeed(feed);
  auto client = clientOrFail<QKFeedlyClient>("delete subscription", handler);
  if (!client) return;
  auto held = std::static_pointer_cast<Feed>(feed.shared_from_this());
  client->deleteFeed(feed.folder_id().value_or(""),
                     [self = std::static_pointer_cast<FeedlyService>(shared_from_this()), held,
                      handler](std::optional<Error> error) {
                       if (!error) error = self->deleteFeedAfterServer(*held);
                       if (handler) handler(std::move(error));
                     });
}

void FeedlyService::moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) {
  checkFeed(feed);
  checkFolder(folder);
  auto client = clientOrFail<QKFeedlyClient>("move subscription", onComplete);
  if (!client) return;
  auto held = std::static_pointer_cast<Feed>(feed.shared_from_this());
  std::shared_ptr<FeedFolder> target =
      folder ? std::static_pointer_cast<FeedFolder>(folder->shared_from_this()) : nullptr;
  client->moveFeed(feed.folder_id().value_or(""), feed.title(), folder ? folder->ext_id() : std::nullopt,
                   folder ? folder->title() : std::nullopt,
                   [self = std::static_pointer_cast<FeedlyService>(shared_from_this()), held, target,
                    onComplete](std::optional<Error> error) {
                     if (!error) {
                       self->adoptCategoryId(target.get());
                       error = self->moveFeedAfterServer(*held, target.get());
                     }
                     if (onComplete) onComplete(std::move(error));
                   });
}

void FeedlyService::adoptCategoryId(FeedFolder* folder) {
  if (folder == nullptr || folder->ext_id()) return;
  auto client = feedlyClient();
  auto id = client ? client->categoryIdForLabel(folder->title().value_or("")) : std::nullopt;
  if (!id) return;  // the next sync finds the category by its id and files the feed there
  folder->setExt_id(id);
  folder->setFolder_id(std::string(kFeedFolderId));
}

void FeedlyService::addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                                      FolderCompletion onCompleted) {
  checkFolder(originalFolder);
  auto finishLocally = [self = std::static_pointer_cast<FeedlyService>(shared_from_this()), title,
                        onCompleted](FeedFolder* folder) {
    auto changed = self->createOrRenameLocalFolder(folder, title);
    if (changed) {
      if (auto saved = (*changed)->managedObjectContext().save(); !saved) changed = fail(saved.error());
    }
    if (onCompleted) onCompleted(std::move(changed));
  };
  auto client = feedlyClient();
  if (!client) {
    dependencies().mainQueue.post([onCompleted, error = clientUnavailableError("rename folder")] {
      if (onCompleted) onCompleted(fail(error));
    });
    return;
  }
  if (originalFolder == nullptr || !originalFolder->ext_id()) {
    // Feedly makes a category when a feed is filed in it: nothing to tell it yet.
    dependencies().mainQueue.post(
        [finishLocally, held = originalFolder
                                   ? std::static_pointer_cast<FeedFolder>(originalFolder->shared_from_this())
                                   : nullptr] { finishLocally(held.get()); });
    return;
  }
  auto held = std::static_pointer_cast<FeedFolder>(originalFolder->shared_from_this());
  client->renameFolder(*originalFolder->ext_id(), title,
                       [held, finishLocally, onCompleted](std::optional<Error> error) {
                         if (error) {
                           if (onCompleted) onCompleted(fail(*error));
                           return;
                         }
                         finishLocally(held.get());
                       });
}

}  // namespace lectern
