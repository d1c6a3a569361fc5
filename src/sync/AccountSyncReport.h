#pragma once

#include <cstdint>
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

// A feed whose first refresh kept nothing: every entry was older than the keep period.
struct FeedEntriesNotKept {
  ObjectId feed;
  std::string title;
  std::int64_t count = 0;
};

// How one account's sync ended: its error (also stored as the account's syncError), the feeds
// that failed without failing the account, and whether it was cancelled. A plain value.
struct AccountSyncReport {
  ObjectId account;
  std::string title;
  std::optional<Error> error;
  std::vector<FeedRefreshFailure> failedFeeds;
  bool cancelled = false;
  std::vector<FeedEntriesNotKept> olderNotKept;
};

// What a person is told about entries a refresh left out as older than the keep period of
// `keepDays` days, with the setting that changes it.
std::string olderEntriesNotKeptNote(std::int64_t count, std::int64_t keepDays);

}  // namespace lectern
