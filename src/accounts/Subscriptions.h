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

}  // namespace lectern
