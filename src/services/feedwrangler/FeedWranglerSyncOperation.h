#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/AggregatorSyncOperation.h"

namespace lectern {

class QKFeedWranglerClient;

// One sync of a Feed Wrangler account: subscriptions as feeds, smart streams as folders, then
// the unread, starred and recently read items, and the items of the streams that search.
// Made on the main thread; runs on one thread of the sync queue.
class FeedWranglerSyncOperation final : public AggregatorSyncOperation {
 public:
  FeedWranglerSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);

  std::string_view className() const override { return "FeedWranglerSyncOperation"; }

 private:
  // fetchSubscriptions, then fetchListOfStreams.
  bool syncFoldersAndFeeds() override;
  bool syncUnreadStories() override;
  bool syncStarredStories() override;
  // The read items, then the items of the searching streams (which can only be matched to
  // stories once these are stored).
  bool syncReadStories() override;

  bool fetchSubscriptions();
  void processFeeds(const nlohmann::json& feeds);
  bool fetchListOfStreams();
  // The feeds a stream holds: those it lists, or every feed of the account.
  std::vector<std::shared_ptr<Feed>> feedsOfSmartStream(const nlohmann::json& stream);
  // The account's smart-stream folders no listed stream has any more.
  void deleteObsoleteStreams(const std::vector<std::shared_ptr<FeedFolder>>& folders,
                             const std::vector<std::string>& listed);
  bool fetchStreamItems();
  void setStreamItems(FeedFolder& folder, const std::vector<std::string>& itemIds);

  // The ids of the server's unread (or starred) list, paged until a short page; nothing when an
  // answer held no list, so that nothing is marked from a list that was not read.
  Result<std::optional<std::vector<std::string>>> fetchListedIds(ListedFlag flag);
  bool syncListed(ListedFlag flag);
  bool fetchReadStories();

  std::optional<std::string> itemId(const nlohmann::json& item) const override;
  std::optional<std::string> itemFeedId(const nlohmann::json& item) const override;
  std::optional<Date> itemDate(const nlohmann::json& item) const override;
  bool isValidItem(const nlohmann::json& item) const override;
  void mapItem(FeedStory& story, const nlohmann::json& item, Date date) const override;
  // A new story keeps the read and starred flags its item carries; only what the item leaves
  // out comes from the list it was fetched for.
  void setNewStoryFlags(FeedStory& story, const nlohmann::json& item, const MergeFlags& flags) override;

  Result<std::vector<std::shared_ptr<FeedFolder>>> fetchStreamFolders();
  QKFeedWranglerClient& client() const;

  // The stream_id of each stream with a search term, from this run's list of streams.
  std::vector<std::string> searchingStreams_;
};

}  // namespace lectern
