#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "sync/AggregatorSyncOperation.h"

namespace lectern {

class QKFeedbinClient;

// One sync of a Feedbin account: tags as folders, subscriptions as feeds, then the unread,
// starred and recently read entries. Made on the main thread; runs on one thread of the sync queue.
class FeedbinSyncOperation final : public AggregatorSyncOperation {
 public:
  FeedbinSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);

  std::string_view className() const override { return "FeedbinSyncOperation"; }

 private:
  bool prepareRun() override;
  // fetchRemoteTagsAndProcessSubscriptions.
  bool syncFoldersAndFeeds() override;
  bool syncUnreadStories() override;
  bool syncStarredStories() override;
  bool syncReadStories() override;
  // The entries of a server's unread or starred id list, 50 per request.
  bool syncEntries(std::vector<std::string> ids, ListedFlag flag);

  std::optional<std::string> itemId(const nlohmann::json& entry) const override;
  std::optional<std::string> itemFeedId(const nlohmann::json& entry) const override;
  std::optional<Date> itemDate(const nlohmann::json& entry) const override;
  bool isValidItem(const nlohmann::json& entry) const override;
  void mapItem(FeedStory& story, const nlohmann::json& entry, Date date) const override;

  // The account's feeds and folders while the subscriptions are matched. Local to that step:
  // nothing of a context may outlive it.
  struct LocalLists {
    std::vector<std::shared_ptr<Feed>> feeds;              // not matched by a subscription yet
    std::vector<std::shared_ptr<FeedFolder>> tags;         // the account's folders
    std::vector<std::shared_ptr<FeedFolder>> currentTags;  // confirmed by this run's taggings
  };
  Result<LocalLists> fetchLocalLists();
  void processTags(const nlohmann::json& taggings, LocalLists& lists);
  void deleteObsoleteTags(LocalLists& lists);
  // Without taggings (the server's answer was no list) the feeds keep their folders.
  void processFeeds(const nlohmann::json& subscriptions, const nlohmann::json* taggings, LocalLists& lists);
  void deleteObsoleteFeeds(LocalLists& lists);
  // Stories of the feed that share a bookmark_id: the oldest row of each stays.
  void deleteDuplicateStories(Feed& feed);
  // The ids of a server's list as text; anything but a list gives none.
  static std::vector<std::string> idsOf(const nlohmann::json& list);
  QKFeedbinClient& client() const;

  std::optional<Date> fetchSinceDate_;  // the newest stored update when the run began
};

}  // namespace lectern
