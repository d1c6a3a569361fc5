#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "sync/AggregatorSyncOperation.h"

namespace lectern {

class QKFeedlyClient;

// One sync of a Feedly account: categories as folders, subscriptions as feeds, then the unread,
// saved and recently read entries. Made on the main thread; runs on one thread of the sync queue.
class FeedlySyncOperation final : public AggregatorSyncOperation {
 public:
  FeedlySyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);

  std::string_view className() const override { return "FeedlySyncOperation"; }

  // The subscription's "title"; without one, the host of its "website" or else of its feed
  // address, less a leading "www.".
  static std::string feedTitleFromJson(const nlohmann::json& subscription);

 private:
  bool prepareRun() override;
  // fetchRemoteCategoriesAndProcessSubscriptions.
  bool syncFoldersAndFeeds() override;
  bool syncUnreadStories() override;
  bool syncStarredStories() override;
  bool syncReadStories() override;

  std::optional<std::string> itemId(const nlohmann::json& entry) const override;
  std::optional<std::string> itemFeedId(const nlohmann::json& entry) const override;
  std::optional<Date> itemDate(const nlohmann::json& entry) const override;
  bool isValidItem(const nlohmann::json& entry) const override;
  void mapItem(FeedStory& story, const nlohmann::json& entry, Date date) const override;

  // The run's folders while subscriptions are matched; local to that step.
  struct Folders {
    std::vector<std::shared_ptr<FeedFolder>> local;    // the account's FeedFolders
    std::vector<std::shared_ptr<FeedFolder>> current;  // confirmed by this run's categories
  };
  void processCategories(const nlohmann::json& categories, Folders& folders);
  void deleteObsoleteCategories(Folders& folders);
  // Without categories (the server's answer was no list) the feeds keep their folders.
  bool processFeeds(const nlohmann::json& subscriptions, const Folders* folders);
  // The ids of a stream answer's "ids", at most a stream's worth; anything else gives none.
  static std::vector<std::string> idsOf(const nlohmann::json& answer);
  static bool isIdList(const nlohmann::json& answer);
  ListedItems entriesPass(ListedFlag flag, std::string failedBatchLog);
  QKFeedlyClient& client() const;

  std::optional<Date> fetchSinceDate_;  // the newest stored update when the run began
};

}  // namespace lectern
