#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sync/AggregatorSyncOperation.h"

namespace lectern {

class QKFeverClient;

// One sync of a Fever account: groups as folders, feeds (sparks when the account asks for them),
// then the unread, saved and recent items. Made on the main thread; runs on one thread of the
// sync queue.
class FeverSyncOperation final : public AggregatorSyncOperation {
 public:
  FeverSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);

  std::string_view className() const override { return "FeverSyncOperation"; }

 private:
  bool prepareRun() override;
  // processFeedsAndFolders.
  bool syncFoldersAndFeeds() override;
  bool syncUnreadStories() override;
  bool syncStarredStories() override;
  bool syncReadStories() override;

  std::optional<std::string> itemId(const nlohmann::json& item) const override;
  std::optional<std::string> itemFeedId(const nlohmann::json& item) const override;
  std::optional<Date> itemDate(const nlohmann::json& item) const override;
  bool isValidItem(const nlohmann::json& item) const override;
  void mapItem(FeedStory& story, const nlohmann::json& item, Date date) const override;
  // Fever's items carry their own read and saved flags: a stored story takes them, a new one
  // was given them by its mapping.
  void updateExistingStory(Bookmark& story, const nlohmann::json& item, const MergeFlags& flags) override;
  void setNewStoryFlags(FeedStory&, const nlohmann::json&, const MergeFlags&) override {}

  // The account's folders of feeds and feeds while the server's lists are matched; local to the
  // step, as nothing of a context may outlive it.
  struct LocalLists {
    std::vector<std::shared_ptr<FeedFolder>> folders;                // not matched by a group yet
    std::vector<std::shared_ptr<Feed>> feeds;                        // not matched by a feed yet
    std::map<std::string, std::shared_ptr<FeedFolder>> foldersById;  // every folder, by folder_id
  };
  Result<LocalLists> fetchLocalLists();
  void processFolders(const nlohmann::json& groups, LocalLists& lists);
  // `groupsOfFeed`: feed id to the ids of its groups; none when the server's answer held no map,
  // and then the feeds keep their folders.
  void processFeeds(const nlohmann::json& feeds,
                    const std::map<std::string, std::vector<std::string>>* groupsOfFeed, LocalLists& lists);
  bool syncIdList(Result<nlohmann::json> answer, std::string_view key, ListedFlag flag,
                  std::string_view failedLog, std::string failedBatchLog);
  // The pieces of a comma-separated id list (or the members of a list), empty ones dropped.
  static std::vector<std::string> idsOf(const nlohmann::json& value);
  QKFeverClient& client() const;

  bool syncSparks_ = false;
  std::string sinceId_ = "0";  // the newest stored item when the run began
};

}  // namespace lectern
