#include "services/feedwrangler/FeedWranglerService.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "accounts/AccountErrors.h"
#include "accounts/TokenSignIn.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "services/feedwrangler/QKFeedWranglerClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kAuthenticateFailed = "Failed to authenticate";

Error signInError(std::string_view reason) {
  return Error::make(kAccountErrorDomain, kInvalidAccountSettings, kAuthenticateFailed, reason);
}

}  // namespace

std::shared_ptr<AFHTTPClient> FeedWranglerService::makeApiClient() {
  auto token = storedSecret();
  if (!token || dependencies().session == nullptr) return nullptr;
  auto client = std::make_shared<QKFeedWranglerClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKFeedWranglerClient::kDefaultBaseURL),
      *token);
  // One request at a time per account: Feed Wrangler sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::shared_ptr<QKFeedWranglerClient> FeedWranglerService::feedWranglerClient() {
  return std::static_pointer_cast<QKFeedWranglerClient>(apiClient());
}

std::string FeedWranglerService::unavailableReason() const {
  return "Lectern has no Feed Wrangler access token for this account: remove the account and add it again.";
}

std::string FeedWranglerService::changeNotOfferedReason(SubscriptionChange change) const {
  if (change == SubscriptionChange::kSubscribe || change == SubscriptionChange::kUnsubscribe) {
    return FeedService::changeNotOfferedReason(change);
  }
  return "Feed Wrangler's folders are its smart streams: change them on its web site, then `lectern sync`.";
}

void FeedWranglerService::authenticate(ServiceCompletion onCompleted) {
  auto owner = account();
  if (!owner || dependencies().session == nullptr) {
    completeWithoutClient("sign in", std::move(onCompleted));
    return;
  }
  const std::string clientKey =
      trim(owner->managedObjectContext().environment().defaults().stringForKey(kClientKeyDefaultsKey));
  if (clientKey.empty()) {
    complete(
        std::move(onCompleted),
        signInError(fmt::format("Lectern has no Feed Wrangler client key: set it with `lectern config set "
                                "{} KEY`, then add the account again.",
                                kClientKeyDefaultsKey)));
    return;
  }
  // Until the sign-in, the account's secret is the password the person typed.
  auto password = owner->tokenSecret();
  if (!password || !*password) {
    complete(std::move(onCompleted), signInError("Feed Wrangler needs the account's password to sign in."));
    return;
  }
  auto client = std::make_shared<QKFeedWranglerClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKFeedWranglerClient::kDefaultBaseURL),
      owner->username().value_or(""), **password, clientKey);
  signingIn_ = client;
  client->authenticate([self = std::static_pointer_cast<FeedWranglerService>(shared_from_this()),
                        signIn = client.get(), onCompleted](Result<std::string> token) {
    self->finishSignIn(signIn, std::move(token), onCompleted);
  });
}

void FeedWranglerService::finishSignIn(const QKFeedWranglerClient* client, Result<std::string> token,
                                       ServiceCompletion onCompleted) {
  // The sign-in's client is inside its own callback here: it goes once that has returned.
  if (signingIn_.get() == client) dependencies().mainQueue.post([done = std::move(signingIn_)] {});
  // The password is forgotten: from now on the client signs its calls with the token.
  auto error = keepSignInSecret(*this, std::move(token), kAuthenticateFailed);
  if (onCompleted) onCompleted(std::move(error));
}

void FeedWranglerService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                        bool archived, ServiceCompletion onCompleted) {
  auto client =
      clientOrFail<QKFeedWranglerClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (client) client->markStories(bookmarkIdsOf(bookmarks), archived, std::move(onCompleted));
}

void FeedWranglerService::markBookmarkFavorited(Bookmark& bookmark, bool favorited,
                                                ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKFeedWranglerClient>(favorited ? "star item" : "unstar item", onCompleted);
  if (client)
    client->markStoryStarred(bookmark.bookmark_id().value_or(""), favorited, std::move(onCompleted));
}

void FeedWranglerService::deleteBookmark(Account&, const std::string& bookmarkId,
                                         const std::optional<std::string>&, ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKFeedWranglerClient>("delete item", onCompleted)) {
    client->markStory(bookmarkId, /*readed=*/true, std::move(onCompleted));
  }
}

void FeedWranglerService::addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) {
  checkFolder(folder);
  auto client = feedWranglerClient();
  if (!client) {
    completeFeed(std::move(onCompleted), fail(clientUnavailableError("add subscription")));
    return;
  }
  // The completion holds the account (and so this service) until the answer arrives.
  client->addFeedWithUrl(trim(url), [self = std::static_pointer_cast<FeedWranglerService>(shared_from_this()),
                                     owner = account(), onCompleted](Result<json> answer) {
    if (!answer) {
      if (onCompleted) onCompleted(fail(answer.error()));
      return;
    }
    const auto feed = answer->is_object() ? answer->find("feed") : answer->end();
    if (feed == answer->end() || !feed->is_object()) {
      if (onCompleted) onCompleted(fail(notAFeedError()));
      return;
    }
    self->insertSubscribedFeed(*feed, onCompleted);
  });
}

void FeedWranglerService::insertSubscribedFeed(const json& subscribed, FeedCompletion onCompleted) {
  const auto feedId = safeStringValue(subscribed, "feed_id");
  auto feed = feedId ? feedForSubscription(*feedId, safeStringValue(subscribed, "title"),
                                           safeStringValue(subscribed, "feed_url"), std::nullopt)
                     : Result<std::shared_ptr<Feed>>(fail(notAFeedError()));
  if (onCompleted) onCompleted(std::move(feed));
}

void FeedWranglerService::deleteFeed(Feed& feed, ServiceCompletion handler) {
  checkFeed(feed);
  auto client = clientOrFail<QKFeedWranglerClient>("delete subscription", handler);
  if (!client) return;
  auto held = std::static_pointer_cast<Feed>(feed.shared_from_this());
  client->deleteFeed(feed.folder_id().value_or(""),
                     [self = std::static_pointer_cast<FeedWranglerService>(shared_from_this()), held,
                      handler](std::optional<Error> error) {
                       if (!error) error = self->deleteFeedAfterServer(*held);
                       if (handler) handler(std::move(error));
                     });
}

void FeedWranglerService::moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion) {
  checkFeed(feed);
  checkFolder(folder);
}

void FeedWranglerService::addOrRenameFolder(std::string, FeedFolder* originalFolder, FolderCompletion) {
  checkFolder(originalFolder);
}

void FeedWranglerService::createDefaultFolders(Account&) {}

}  // namespace lectern
