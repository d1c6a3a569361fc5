#include "store/Feed.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

#include "core/UserDefaults.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/ListCounts.h"
#include "store/StoreQueries.h"
#include "store/UrlParts.h"

namespace lectern {

using namespace FolderColumn;

std::optional<std::string> Feed::feed_link() const { return textValue(kFeedLink); }
void Feed::setFeed_link(std::optional<std::string> link) { setText(kFeedLink, std::move(link)); }
std::optional<Date> Feed::date_updated() const { return dateValue(kDateUpdated); }

void Feed::setDate_updated(std::optional<Date> date) {
  const auto stored = date_updated();
  if (stored && date && secondsSince1970(*stored) == secondsSince1970(*date)) return;
  setDate(kDateUpdated, date);
}

std::optional<Date> Feed::last_refresh() const { return dateValue(kLastRefresh); }
void Feed::setLast_refresh(std::optional<Date> date) { setDate(kLastRefresh, date); }
std::optional<std::string> Feed::last_error() const { return textValue(kLastError); }
void Feed::setLast_error(std::optional<std::string> error) { setText(kLastError, std::move(error)); }
std::optional<Date> Feed::failing_since() const { return dateValue(kFailingSince); }
void Feed::setFailing_since(std::optional<Date> date) { setDate(kFailingSince, date); }

void Feed::recordRefreshSucceeded(Date at) {
  setLast_refresh(at);
  setLast_error(std::nullopt);
  setFailing_since(std::nullopt);
}

void Feed::recordRefreshFailed(Date at, std::string error) {
  setLast_refresh(at);
  setLast_error(std::move(error));
  if (!failing_since()) setFailing_since(at);
}

std::optional<std::string> Feed::http_etag() const { return textValue(kHttpEtag); }
void Feed::setHttp_etag(std::optional<std::string> etag) { setText(kHttpEtag, std::move(etag)); }
std::optional<std::string> Feed::http_last_modified() const { return textValue(kHttpLastModified); }
void Feed::setHttp_last_modified(std::optional<std::string> date) {
  setText(kHttpLastModified, std::move(date));
}
std::int64_t Feed::older_not_kept() const { return integerValue(kOlderNotKept); }
void Feed::setOlder_not_kept(std::int64_t count) { setInteger(kOlderNotKept, count); }
std::optional<std::string> Feed::body_hash() const { return textValue(kBodyHash); }
void Feed::setBody_hash(std::optional<std::string> hash) { setText(kBodyHash, std::move(hash)); }

Result<std::set<std::string>> Feed::deletedEntryIds() const {
  const SqlValue row[] = {objectID().row};
  auto rows = managedObjectContext().select("SELECT entry_id FROM DeletedEntry WHERE feed = ?", row);
  if (!rows) return fail(rows.error());
  std::set<std::string> ids;
  for (const auto& found : *rows) {
    if (auto id = textOf(found[0])) ids.insert(std::move(*id));
  }
  return ids;
}

void Feed::recordDeletedEntry(const std::string& entryId) {
  // The feed may go in the same save: a record of a feed that is gone is not written.
  const SqlValue arguments[] = {objectID().row, entryId, objectID().row};
  managedObjectContext().writeRelationship(
      "INSERT OR IGNORE INTO DeletedEntry (feed, entry_id) SELECT ?, ? WHERE EXISTS"
      " (SELECT 1 FROM Folder WHERE id = ?)",
      arguments, objectID(), objectID());
}

void Feed::forgetDeletedEntries(const std::vector<std::string>& entryIds) {
  if (entryIds.empty()) return;
  const SqlValue arguments[] = {objectID().row, nlohmann::json(entryIds).dump()};
  managedObjectContext().writeRelationship(
      "DELETE FROM DeletedEntry WHERE feed = ? AND entry_id IN (SELECT value FROM json_each(?))", arguments,
      objectID(), objectID());
}

namespace {
ObjectContext::FetchRequest feedStoriesRequest(std::int64_t feed, const BookmarkQuery& query) {
  ObjectContext::FetchRequest request;
  request.entity = Entity::kFeedStory;
  request.where = "feed = ?";
  request.arguments = {feed};
  applyBookmarkQuery(request, query);
  return request;
}
}  // namespace

Result<std::vector<std::shared_ptr<FeedStory>>> Feed::stories(const BookmarkQuery& query) const {
  return managedObjectContext().fetch<FeedStory>(feedStoriesRequest(objectID().row, query));
}

Result<std::int64_t> countStories(const Feed& feed, const BookmarkQuery& query) {
  return countOf(feed.managedObjectContext(), feedStoriesRequest(feed.objectID().row, query));
}

Result<std::int64_t> Feed::unreadCount() const {
  return managedObjectContext().count(Entity::kFeedStory, "feed = ? AND is_archived = 0", {objectID().row});
}

Result<std::vector<std::shared_ptr<FeedFolder>>> Feed::feedFolders() const {
  ObjectContext::FetchRequest request;
  request.where = "id IN (SELECT feedfolder FROM FeedFolder_feeds WHERE feed = ?)";
  request.arguments = {objectID().row};
  request.orderBy = "pos, id";
  return managedObjectContext().fetch<FeedFolder>(std::move(request));
}

Result<std::shared_ptr<FeedFolder>> Feed::firstFolder() const {
  auto folders = feedFolders();
  if (!folders) return fail(folders.error());
  return folders->empty() ? std::shared_ptr<FeedFolder>() : folders->front();
}

Result<std::int64_t> Feed::feedPos() const {
  auto folder = firstFolder();
  if (!folder) return fail(folder.error());
  return *folder ? (*folder)->pos() : pos();
}

std::optional<std::string> Feed::URL() const {
  auto link = feed_link();
  if (link && !link->empty()) return link;
  return folder_id();
}

std::optional<std::string> Feed::urlDomain() const {
  const auto address = URL();
  return address ? lectern::urlDomain(*address) : std::nullopt;
}

std::int64_t Feed::daysKeepUnreadItems(const UserDefaults& defaults) {
  return defaults.integerForKey(kDaysKeepFeedReadItemsIndex);
}

Date Feed::calculateKeepDate(const UserDefaults& defaults, const Clock& clock) {
  return clock.now() - std::chrono::hours(24 * keepPeriodDays(defaults));
}

std::int64_t Feed::keepPeriodDays(const UserDefaults& defaults) {
  std::int64_t days = 7;
  switch (daysKeepUnreadItems(defaults)) {
    case 1:
      days = 1;
      break;
    case 2:
      days = 2;
      break;
    case 3:
      days = 3;
      break;
    case 4:
      days = 7;
      break;
    case 5:
      days = 14;
      break;
    case 6:
      days = 28;
      break;
    case 7:
      days = 70;
      break;
    case 99:
      days = 70;
      break;
    default:
      days = 7;
      break;
  }
  return days;
}

void Feed::prepareForDeletion() {
  auto& context = managedObjectContext();
  const SqlValue row[] = {objectID().row};
  context.writeRelationship("DELETE FROM FeedFolder_feeds WHERE feed = ?", row, objectID(), objectID());
  // Each story goes through the context so that its own clean-up (cached images) runs.
  if (auto owned = stories(); owned) {
    for (auto& story : *owned) context.deleteObject(*story);
  }
}

}  // namespace lectern
