#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "sync/SyncOperation.h"

namespace lectern {

class PinboardService;
class QKPinboardClient;

// One sync of a Pinboard account, always the whole list: the posts are fetched first, the
// offline changes replayed on top, then every bookmark is matched to its post by hash, updated
// when its post changed, deleted when its post is gone, and new posts added (their article text
// downloaded). Made on the main thread; runs on one thread of the sync queue.
class PinboardSyncOperation final : public SyncOperation {
 public:
  // A full list due later than this ends the sync with when to try again, instead of holding it.
  static constexpr std::chrono::seconds kLongestWaitForAllPosts{30};

  PinboardSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);

  std::string_view className() const override { return "PinboardSyncOperation"; }

 protected:
  void main() override;
  void cancelRequests() override;

 private:
  bool openClient();
  bool fetchAllPosts();
  // The posts by hash; a second post of a hash is left out.
  void indexPosts(const nlohmann::json& posts);
  // Replays the offline queue; posts whose delete was queued are never added back.
  void replayOfflineChanges();
  bool processExistingBookmarks();
  void deleteObsoleteBookmarks();
  bool addNewBookmarks();

  std::shared_ptr<PinboardService> pinboardService_;
  std::shared_ptr<QKPinboardClient> client_;
  std::map<std::string, nlohmann::json> remote_;  // by hash
  std::vector<std::shared_ptr<Bookmark>> obsolete_;
  std::vector<std::shared_ptr<Bookmark>> added_;
};

}  // namespace lectern
