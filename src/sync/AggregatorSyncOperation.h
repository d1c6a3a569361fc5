#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/Clock.h"
#include "core/Log.h"
#include "sync/SyncOperation.h"

namespace lectern {

class AFHTTPClient;
class Feed;
class FeedFolder;
class FeedStory;
class StoryImageDownloader;

// The sync of a hosted feed service: the run's steps in their order, and the passes every such
// service shares (a server's id list made true here, the sorted merge of fetched items, the mark
// passes that only follow a complete list, the deletion of old read stories). A service's
// operation supplies its fetches and how its items read, and keeps no stored object in a member
// (the operation's context closes before the operation goes). Runs on one thread of the sync queue.
class AggregatorSyncOperation : public SyncOperation {
 public:
  AggregatorSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment,
                          std::string serviceName);
  ~AggregatorSyncOperation() override;

 protected:
  // Items merged in one batch, with a save after each.
  static constexpr size_t kMergeBatch = 500;
  // Read items older than this are never fetched, whatever the keep period.
  static constexpr std::chrono::seconds kReadItemsWindow{604'800};
  // Old stories deleted per fetch (and save) of the deletion pass.
  static constexpr int kObsoleteStoriesPerBatch = 500;

  // Name, reachability of the client's host, context, offline replay, keep date, then the steps
  // below in order, each stopping the run on an error or a cancel; then the deletion pass and,
  // after a clean run only, last_sync.
  void main() final;

  // ---- the service's steps; false stops the run ----
  // Before the offline replay: a service whose calls need a session opens it here, so that a
  // refused login ends the run before anything is sent or read.
  virtual bool openSession() { return true; }
  // After the keep date: the run's own state (local feeds, since-dates ...).
  virtual bool prepareRun() { return true; }
  virtual bool syncFoldersAndFeeds() = 0;
  virtual bool syncUnreadStories() = 0;
  virtual bool syncStarredStories() = 0;
  virtual bool syncReadStories() = 0;

  // ---- how the service's items read ----
  // The stored column items are matched on: "bookmark_id", or "bookmark_hash".
  virtual std::string_view itemIdKey() const { return "bookmark_id"; }
  virtual std::optional<std::string> itemId(const nlohmann::json& item) const = 0;
  // The remote id of the item's feed (a local Feed's folder_id).
  virtual std::optional<std::string> itemFeedId(const nlohmann::json& item) const = 0;
  virtual std::optional<Date> itemDate(const nlohmann::json& item) const = 0;
  virtual bool isValidItem(const nlohmann::json& item) const = 0;
  virtual void mapItem(FeedStory& story, const nlohmann::json& item, Date date) const = 0;

  // What a merge sets: the flags of the list the items came from, and the date new items must
  // be later than.
  struct MergeFlags {
    bool unread = false;
    bool favorited = false;
    std::optional<Date> tillDate;
  };
  // A stored story met again in a merge. By default it becomes starred when the items are the
  // starred ones; the unread comparison changes nothing on purpose (stored unread stories were
  // made unread before, so only duplicates get here).
  virtual void updateExistingStory(Bookmark& story, const nlohmann::json& item, const MergeFlags& flags);
  // A new story: read unless the items are unread ones, starred when they are starred ones.
  virtual void setNewStoryFlags(FeedStory& story, const nlohmann::json& item, const MergeFlags& flags);

  // ---- shared passes ----
  // "<Service>: <text>" to the debug log.
  template <class... Args>
  void log(fmt::format_string<Args...> format, Args&&... args) {
    logDebugMessage(className(), "{}: {}", serviceName_, fmt::format(format, std::forward<Args>(args)...));
  }
  // A failed fetch: logged as `message`, kept as the operation's error (unless the run was
  // cancelled, which is no failure). Always false, to stop the run.
  bool failStep(const Error& error, const std::string& message);
  // Saves, then false when the run has to stop (an error or a cancel).
  bool saveAndGoOn();

  struct MergeResult {
    std::vector<std::int64_t> stories;  // rows of the stored and new stories, in id order
    bool reachedTillDate = false;       // an item not later than the date limit was met
  };
  // The sorted walk: items ordered by id as text, the stored stories of those ids fetched once
  // in the same order, stored ones updated, new ones inserted where their feed exists, their
  // date is later than the limit and they are valid.
  MergeResult mergeItems(nlohmann::json items, const MergeFlags& flags);

  // A server's list of the unread (or starred) item ids made true here: stored items among them
  // become unread (starred) and are collected; the others are fetched `idsPerRequest` at a time,
  // merged in batches of kMergeBatch and collected. Only when all of it worked, every other
  // unread story becomes read (every other starred one unstarred). False: the run stops.
  enum class ListedFlag { kUnread, kStarred };
  struct ListedItems {
    ListedFlag flag = ListedFlag::kUnread;
    size_t idsPerRequest = 50;
    // The items of these ids, as a JSON list.
    std::function<Result<nlohmann::json>(const std::vector<std::string>& ids)> fetchItems;
    // Logged when a batch fails, with the ids and the error: "failed fetching entries with ids. Ids: {}.
    // Error: {}".
    std::string failedBatchLog;
    // Logged before each request with the number of ids not fetched yet ("fetching missing unread
    // items: {} remaining"); nothing when empty.
    std::string batchLog;
  };
  bool syncListedItems(std::vector<std::string> ids, const ListedItems& pass);

  // Appends `page` (a JSON list; anything else adds nothing) to `buffer` and merges the buffer
  // once it holds kMergeBatch items or `last` is set, saving after. The merge's answer, or
  // nothing when there was nothing to merge.
  std::optional<MergeResult> bufferItems(nlohmann::json& buffer, const nlohmann::json& page, bool last,
                                         const MergeFlags& flags);

  // The later of the keep date and the start of the read-items window; with `since` (the newest
  // stored item) the bound moves up to it unless the keep period was lengthened.
  Date readItemsSinceDate(std::optional<Date> since);

  // The account's feed whose folder_id is `remoteId`, from a map made at first use in the run
  // (after the feeds were processed).
  std::shared_ptr<Feed> feedWithRemoteId(const std::string& remoteId);
  // Removes the feed from its folders and deletes it (its stories follow).
  void deleteFeed(Feed& feed);
  // Gives the feed exactly these folders, writing only when they differ.
  void setFeedFolders(Feed& feed, const std::vector<std::shared_ptr<FeedFolder>>& folders);

  Date keepDate() const { return keepDate_; }
  const std::string& serviceName() const { return serviceName_; }
  // The service object's client in this operation's context; set before prepareRun.
  const std::shared_ptr<AFHTTPClient>& apiClient() const { return apiClient_; }

 private:
  bool runSteps();
  // The mark pass after a complete list: every other unread story read, or starred one unstarred.
  void unsetFlagOfStoriesNotIn(const std::vector<std::int64_t>& kept, ListedFlag flag);
  void deleteObsoleteStories();
  std::vector<std::int64_t> selectedStoryRows();
  void downloadImages(const std::vector<std::shared_ptr<Bookmark>>& stories);

  const std::string serviceName_;
  std::shared_ptr<AFHTTPClient> apiClient_;
  Date keepDate_{};
  std::optional<std::unordered_map<std::string, ObjectId>> feedsByRemoteId_;
  std::unique_ptr<StoryImageDownloader> images_;
};

}  // namespace lectern
