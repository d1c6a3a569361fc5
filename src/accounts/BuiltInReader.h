#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "accounts/FeedService.h"
#include "accounts/Subscriptions.h"
#include "core/Error.h"

namespace lectern {

class Account;
class ObjectContext;

// The built-in reader's subscriptions as library calls for the `lectern` commands.
// Main context, main thread; completions run on the main queue.

inline constexpr std::string_view kBuiltInReaderTitle = "Built-in RSS Reader";

// The "localrss" account, created (titled "Built-in RSS Reader") and saved when missing.
Result<std::shared_ptr<Account>> ensureLocalRSSAccount(ObjectContext& mainContext);

// Subscribes the built-in reader to `url` (see subscribeAccountToFeed), making its account when
// missing. Needs the registered service factory.
void subscribeToFeed(ObjectContext& mainContext, std::string url, std::optional<std::string> folderTitle,
                     FeedService::FeedCompletion onCompleted);

}  // namespace lectern
