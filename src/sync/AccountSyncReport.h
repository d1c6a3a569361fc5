#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "store/EntitySchema.h"

namespace lectern {

// One feed that could not be refreshed during a sync, and why.
struct FeedRefreshFailure {
  ObjectId feed;
  std::string title;
  std::string url;
  Error error;
};

// How one account's sync ended: its error (also stored as the account's syncError), the feeds
// that failed without failing the account, and whether it was cancelled. A plain value.
struct AccountSyncReport {
  ObjectId account;
  std::string title;
  std::optional<Error> error;
  std::vector<FeedRefreshFailure> failedFeeds;
  bool cancelled = false;
};

}  // namespace lectern
