#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/FeedService.h"
#include "accounts/KeptArticles.h"
#include "core/Error.h"

namespace lectern {

class Account;
class Feed;
class FeedFolder;
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

// The same, keeping the feed's starred stories in the built-in reader's "Kept" folder unless
// `starred` says otherwise (see keepStarredArticles); the completion gets what was kept and what
// went. When the service refuses, nothing is kept and nothing goes.
using UnsubscribeCompletion = std::function<void(Result<KeptArticles>)>;
void unsubscribeFromFeed(ObjectContext& mainContext, std::int64_t feedId, StarredArticles starred,
                         UnsubscribeCompletion onCompleted);

// Renames the feed whose local id is `feedId`. The built-in reader's feeds only (a local change):
// kChangeNotOffered for other services', kNoSuchFeed without such a feed.
void renameFeed(ObjectContext& mainContext, std::int64_t feedId, std::string title, ServiceCompletion onCompleted);

// Moves the feed whose local id is `feedId` into its account's FeedFolder titled `folderTitle`
// (made when missing), or to the top level without one.
void moveFeedToFolder(ObjectContext& mainContext, std::int64_t feedId, std::optional<std::string> folderTitle,
                      ServiceCompletion onCompleted);

// Renames the feed account's FeedFolder whose local id is `folderId`. kNoSuchFolder when no feed
// service has that folder.
void renameFolder(ObjectContext& mainContext, std::int64_t folderId, std::string title, ServiceCompletion onCompleted);

// The folder of feeds a person names: its local id (any feed account's), else its title among the
// built-in reader's folders. kNoSuchFolder when nothing matches.
Result<std::shared_ptr<FeedFolder>> findFolderOfFeeds(ObjectContext& mainContext, std::string_view idOrTitle);

// Deletes a folder of the built-in reader (a local change); its feeds stay, in their other folders
// or in none. Answers the feeds that are in no folder now. kChangeNotOffered for another
// service's folder.
Result<std::vector<std::shared_ptr<Feed>>> deleteFolderOfFeeds(FeedFolder& folder);

// The account's feed at `url`, or null: addresses are compared by comparableFeedAddress against
// each feed's feed_link and the address it was subscribed at, so "HTTP://Example.org/feed" finds
// "http://example.org/feed" and nothing less alike.
Result<std::shared_ptr<Feed>> subscribedFeedWithURL(Account& account, std::string_view url);

// Every call above first asks whether the account's service offers the change (FeedService::offers):
// when it does not, it fails with kChangeNotOffered and the service's reason, and the service is
// not called.

}  // namespace lectern
