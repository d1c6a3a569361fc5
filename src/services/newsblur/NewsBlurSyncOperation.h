#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/AggregatorSyncOperation.h"

namespace lectern {

class QKNewsBlurClient;

// One sync of a NewsBlur account: a login first, then flat folders and feeds, the unread and
// starred story hashes with the stories missing here, and the recently read stories. Stories are
// matched on their hash. Made on the main thread; runs on one thread of the sync queue.
class NewsBlurSyncOperation final : public AggregatorSyncOperation {
 public:
  NewsBlurSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);

  std::string_view className() const override { return "NewsBlurSyncOperation"; }

  // Stories requested by hash at a time.
  static constexpr size_t kHashesPerRequest = 50;

 private:
  bool openSession() override;
  bool syncFoldersAndFeeds() override;
  bool syncUnreadStories() override;
  bool syncStarredStories() override;
  bool syncReadStories() override;

  // The account's folders made true to the flat folder names (" " is the top level); the
  // folders by title. Nothing when the folders could not be read.
  std::optional<std::vector<std::shared_ptr<FeedFolder>>> processFolders(const nlohmann::json& flatFolders);
  void processFeeds(const nlohmann::json& feeds, const nlohmann::json& flatFolders,
                    const std::vector<std::shared_ptr<FeedFolder>>& folders);
  bool syncListed(ListedFlag flag, std::vector<std::string> hashes);

  std::string_view itemIdKey() const override { return "bookmark_hash"; }
  std::optional<std::string> itemId(const nlohmann::json& item) const override;
  std::optional<std::string> itemFeedId(const nlohmann::json& item) const override;
  std::optional<Date> itemDate(const nlohmann::json& item) const override;
  bool isValidItem(const nlohmann::json& item) const override;
  void mapItem(FeedStory& story, const nlohmann::json& item, Date date) const override;
  // A new story keeps the read and starred flags its item carries; only what the item leaves
  // out comes from the list it was fetched for.
  void setNewStoryFlags(FeedStory& story, const nlohmann::json& item, const MergeFlags& flags) override;

  QKNewsBlurClient& client() const;
};

}  // namespace lectern
