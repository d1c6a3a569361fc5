#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sync/SyncOperation.h"

namespace lectern {

class QKPocketClient;

// One sync of a Pocket account: the changes since the last sync, or (the first time, or when
// forced) the whole list, unread then archived, page by page. New items get their article text.
// Made on the main thread; runs on one thread of the sync queue.
class PocketSyncOperation final : public SyncOperation {
 public:
  // Items per page of a full sync.
  static constexpr int kPageSize = 50;
  // What Pocket hands back at most when no count is asked (an incremental sync asks none).
  static constexpr int kServerPageLimit = 30;

  PocketSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);

  std::string_view className() const override { return "PocketSyncOperation"; }

 protected:
  void main() override;

 private:
  // The pages of one list, from `parameters` on: false when the run stops (an error or a cancel).
  bool getPocketPages(nlohmann::json parameters);
  // One answer's items into the library; those whose article is wanted join `downloads`. The
  // number of items the answer held.
  size_t processPage(const nlohmann::json& list, std::vector<std::shared_ptr<Bookmark>>& downloads);
  // The answer's "since": the earliest of the run is the next sync's start.
  void noteSince(const nlohmann::json& answer);

  std::shared_ptr<QKPocketClient> client_;
  std::optional<double> since_;
};

}  // namespace lectern
