#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "accounts/FeedService.h"
#include "core/Error.h"

namespace lectern {

class Account;
class ObjectContext;

// Subscriptions of any feed account as library calls for the front ends: each goes through the
// account's service (its server first, then the library). Main context, main thread; completions
// run on the main queue.

// Subscribes `account` to `url` (see the service's addFeedWithUrl), inside its FeedFolder titled
// `folderTitle` when one is given: made when missing, and removed again when the subscription
// fails and left it empty.
void subscribeAccountToFeed(ObjectContext& mainContext, Account& account, std::string url,
                            std::optional<std::string> folderTitle, FeedService::FeedCompletion onCompleted);

// Unsubscribes from the feed whose local id (row) is `feedId`, whatever its account; its stories
// go too. kNoSuchFeed when no feed service has that feed.
void unsubscribeFromFeed(ObjectContext& mainContext, std::int64_t feedId, ServiceCompletion onCompleted);

// Moves the feed whose local id is `feedId` into its account's FeedFolder titled `folderTitle`
// (made when missing), or to the top level without one.
void moveFeedToFolder(ObjectContext& mainContext, std::int64_t feedId, std::optional<std::string> folderTitle,
                      ServiceCompletion onCompleted);

// Renames the feed account's FeedFolder whose local id is `folderId`. kNoSuchFolder when no feed
// service has that folder.
void renameFolder(ObjectContext& mainContext, std::int64_t folderId, std::string title, ServiceCompletion onCompleted);

// Every call above first asks whether the account's service offers the change (FeedService::offers):
// when it does not, it fails with kChangeNotOffered and the service's reason, and the service is
// not called.

}  // namespace lectern
