#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "store/FeedFolder.h"

namespace lectern {

class Clock;
class FeedStory;
class UserDefaults;

// One subscription, with its stories and its health (when it was last refreshed, the last
// error, since when it fails). Lives in one context.
class Feed final : public FeedFolder {
 public:
  static constexpr Entity kEntity = Entity::kFeed;
  Feed(Key key, ObjectContext& context, ObjectId id) : FeedFolder(key, context, id) {}

  std::optional<std::string> feed_link() const;
  void setFeed_link(std::optional<std::string> link);
  std::optional<Date> date_updated() const;
  // Stores the value only when it differs from the stored one.
  void setDate_updated(std::optional<Date> date);

  std::optional<Date> last_refresh() const;
  void setLast_refresh(std::optional<Date> date);
  std::optional<std::string> last_error() const;
  void setLast_error(std::optional<std::string> error);
  std::optional<Date> failing_since() const;
  void setFailing_since(std::optional<Date> date);
  // A refresh that worked clears the error; one that failed keeps the first failure's date.
  void recordRefreshSucceeded(Date at);
  void recordRefreshFailed(Date at, std::string error);

  // The validators of the last full answer, sent back as If-None-Match and If-Modified-Since.
  std::optional<std::string> http_etag() const;
  void setHttp_etag(std::optional<std::string> etag);
  std::optional<std::string> http_last_modified() const;
  void setHttp_last_modified(std::optional<std::string> date);
  // How many entries the feed's first refresh left out as older than the keep period (0: none).
  std::int64_t older_not_kept() const;
  void setOlder_not_kept(std::int64_t count);
  // The hash of the last document merged whole: the same document again needs no parse or merge.
  std::optional<std::string> body_hash() const;
  void setBody_hash(std::optional<std::string> hash);

  // The entries of this feed the person deleted (by the link a refresh compares), recorded for as
  // long as the feed lists them so that a refresh does not bring them back. Written at the save.
  Result<std::set<std::string>> deletedEntryIds() const;
  void recordDeletedEntry(const std::string& entryId);
  // Drops the records of `entryIds`: entries the feed no longer lists.
  void forgetDeletedEntries(const std::vector<std::string>& entryIds);

  Result<std::vector<std::shared_ptr<FeedStory>>> stories(const BookmarkQuery& query = {}) const;
  Result<std::int64_t> unreadCount() const override;
  Result<std::vector<std::shared_ptr<FeedFolder>>> feedFolders() const;
  // The feed's folder in the sidebar: the first of its folders by position, or none.
  Result<std::shared_ptr<FeedFolder>> firstFolder() const;
  // The position used when feeds are listed: the first folder's position, else the feed's own.
  Result<std::int64_t> feedPos() const;
  // The document's address: feed_link, or folder_id for the built-in reader's feeds.
  std::optional<std::string> URL() const;
  std::optional<std::string> urlDomain() const;

  // The "DaysKeepFeedReadItemsIndex" preference.
  static std::int64_t daysKeepUnreadItems(const UserDefaults& defaults);
  // The keep period, in days, that the index selects.
  static std::int64_t keepPeriodDays(const UserDefaults& defaults);
  // Now minus the keep period the index selects: read stories older than this are deleted.
  static Date calculateKeepDate(const UserDefaults& defaults, const Clock& clock);

  std::string folderTypeIdentifier() const override { return "Feed"; }

 protected:
  // Detaches the feed from its folders and deletes its stories.
  void prepareForDeletion() override;
};

}  // namespace lectern
