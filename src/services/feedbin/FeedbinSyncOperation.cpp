#include "services/feedbin/FeedbinSyncOperation.h"

#include <algorithm>

#include "core/Dates.h"
#include "core/Strings.h"
#include "services/feedbin/QKFeedbinClient.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kFeedFolderId = "feed-folder";

std::string lowered(const std::optional<std::string>& text) { return toLowerASCII(text.value_or("")); }

}  // namespace

FeedbinSyncOperation::FeedbinSyncOperation(std::shared_ptr<Account> account,
                                           const SyncEnvironment& environment)
    : AggregatorSyncOperation(std::move(account), environment, "Feedbin") {}

QKFeedbinClient& FeedbinSyncOperation::client() const { return static_cast<QKFeedbinClient&>(*apiClient()); }

std::vector<std::string> FeedbinSyncOperation::idsOf(const json& list) {
  std::vector<std::string> ids;
  if (!list.is_array()) return ids;
  ids.reserve(list.size());
  for (const auto& id : list) {
    if (auto text = safeStringValue(id)) ids.push_back(std::move(*text));
  }
  return ids;
}

bool FeedbinSyncOperation::prepareRun() {
  auto since = account().lastBookmarkUpdateDate();
  if (!since) return failStep(since.error(), "failed reading the newest story");
  fetchSinceDate_ = *since;
  return true;
}

Result<FeedbinSyncOperation::LocalLists> FeedbinSyncOperation::fetchLocalLists() {
  LocalLists lists;
  auto feeds = account().feeds();
  if (!feeds) return fail(feeds.error());
  lists.feeds = std::move(*feeds);
  // By title, so that of two local feeds of one subscription the same one is kept every time.
  std::stable_sort(lists.feeds.begin(), lists.feeds.end(),
                   [](const auto& a, const auto& b) { return lowered(a->title()) < lowered(b->title()); });
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder'";
  request.arguments = {account().objectID().row};
  request.orderBy = "pos, id";
  auto tags = moc().fetch<FeedFolder>(std::move(request));
  if (!tags) return fail(tags.error());
  lists.tags = std::move(*tags);
  return lists;
}

bool FeedbinSyncOperation::syncFoldersAndFeeds() {
  auto lists = fetchLocalLists();
  if (!lists)
    return failStep(lists.error(),
                    fmt::format("failed reading the local feeds: {}", lists.error().message()));
  auto taggings = client().getTags();
  if (!taggings) {
    return failStep(taggings.error(),
                    fmt::format("failed fetching tags. Error: {}", taggings.error().message()));
  }
  // An answer that is no list says nothing: what is stored stays as it is (a server's odd answer
  // must not empty the library of its folders, feeds and stories).
  const bool knowTags = taggings->is_array();
  if (knowTags) {
    processTags(*taggings, *lists);
    deleteObsoleteTags(*lists);
  }
  auto subscriptions = client().getFeeds();
  if (!subscriptions) {
    return failStep(subscriptions.error(),
                    fmt::format("failed fetching feeds. Error: {}", subscriptions.error().message()));
  }
  if (subscriptions->is_array()) {
    processFeeds(*subscriptions, knowTags ? &*taggings : nullptr, *lists);
    deleteObsoleteFeeds(*lists);
  }
  return saveAndGoOn();
}

void FeedbinSyncOperation::processTags(const json& taggings, LocalLists& lists) {
  log("processing folders...");
  for (const auto& tagging : taggings) {
    const auto name = safeStringValue(tagging, "name");
    if (!name) continue;
    auto found = std::find_if(lists.tags.begin(), lists.tags.end(),
                              [&](const auto& folder) { return folder->title() == name; });
    std::shared_ptr<FeedFolder> folder;
    if (found != lists.tags.end()) {
      folder = *found;
    } else {
      folder = account().addFeedFolderWithTitle(*name, static_cast<std::int64_t>(lists.tags.size()),
                                                std::string(kFeedFolderId));
      lists.tags.push_back(folder);
    }
    lists.currentTags.push_back(folder);
    log("processing folder: {}", *name);
  }
  saveContext();
}

void FeedbinSyncOperation::deleteObsoleteTags(LocalLists& lists) {
  log("removing obsolete folders...");
  for (const auto& folder : lists.tags) {
    if (std::find(lists.currentTags.begin(), lists.currentTags.end(), folder) != lists.currentTags.end())
      continue;
    if (!folder->isDeleted()) moc().deleteObject(*folder);
  }
  saveContext();
}

void FeedbinSyncOperation::processFeeds(const json& subscriptions, const json* taggings, LocalLists& lists) {
  log("processing feeds...");
  for (const auto& subscription : subscriptions) {
    const auto feedId = safeStringValue(subscription, "feed_id");
    if (!feedId) continue;
    // The folders of its taggings: for each, the last confirmed folder of that name.
    std::vector<std::shared_ptr<FeedFolder>> folders;
    if (taggings) {
      for (const auto& tagging : *taggings) {
        if (safeStringValue(tagging, "feed_id") != feedId) continue;
        const auto name = safeStringValue(tagging, "name");
        auto last = std::find_if(lists.currentTags.rbegin(), lists.currentTags.rend(),
                                 [&](const auto& folder) { return folder->title() == name; });
        if (last != lists.currentTags.rend() &&
            std::find(folders.begin(), folders.end(), *last) == folders.end()) {
          folders.push_back(*last);
        }
      }
    }
    auto candidate = std::find_if(lists.feeds.begin(), lists.feeds.end(),
                                  [&](const auto& feed) { return feed->folder_id() == feedId; });
    std::shared_ptr<Feed> feed;
    if (candidate != lists.feeds.end()) {
      feed = *candidate;
      lists.feeds.erase(candidate);
    } else {
      feed = moc().insertNewObject<Feed>();
    }
    feed->setFolder_id(feedId);
    feed->setExt_id(safeStringValue(subscription, "id"));
    feed->setAccount(account());
    feed->setTitle(safeStringValue(subscription, "title"));
    const auto& site = subscription.is_object() ? subscription.value("site_url", json()) : json();
    feed->setFeed_link(site.is_string() ? safeStringValue(site) : safeStringValue(subscription, "feed_url"));
    if (taggings) setFeedFolders(*feed, folders);
    deleteDuplicateStories(*feed);
    log("processing feed: {}", feed->title().value_or(""));
  }
}

void FeedbinSyncOperation::deleteDuplicateStories(Feed& feed) {
  if (feed.isInserted()) return;  // a new feed has no stories yet
  ObjectContext::FetchRequest request;
  request.where =
      "feed = ? AND bookmark_id IN (SELECT bookmark_id FROM Bookmark WHERE feed = ? GROUP BY bookmark_id "
      "HAVING count(*) > 1)";
  request.arguments = {feed.objectID().row, feed.objectID().row};
  request.orderBy = "id";
  auto duplicated = moc().fetch<Bookmark>(std::move(request));
  if (!duplicated) {
    log("failed reading the stories of {}: {}", feed.title().value_or(""), duplicated.error().message());
    return;
  }
  if (!duplicated->empty()) findAndDeleteDuplicatesInContainer(*duplicated, &SyncOperation::bookmarkIdOf);
}

void FeedbinSyncOperation::deleteObsoleteFeeds(LocalLists& lists) {
  log("removing obsolete feeds...");
  // Feeds no subscription matched, a second local copy of a subscription among them.
  for (const auto& feed : lists.feeds) {
    if (!feed->isDeleted()) deleteFeed(*feed);
  }
  lists.feeds.clear();
  saveContext();
}

bool FeedbinSyncOperation::syncUnreadStories() {
  log("fetching unread stories...");
  auto ids = client().getUnreadEntryIds();
  if (!ids)
    return failStep(ids.error(), fmt::format("failed fetching unread ids. Error: {}", ids.error().message()));
  return syncEntries(idsOf(*ids), ListedFlag::kUnread);
}

bool FeedbinSyncOperation::syncStarredStories() {
  log("fetching starred stories...");
  auto ids = client().getStarredEntryIds();
  if (!ids) {
    return failStep(ids.error(),
                    fmt::format("failed fetching starred entry ids. Error: {}", ids.error().message()));
  }
  return syncEntries(idsOf(*ids), ListedFlag::kStarred);
}

bool FeedbinSyncOperation::syncEntries(std::vector<std::string> ids, ListedFlag flag) {
  ListedItems pass;
  pass.flag = flag;
  pass.idsPerRequest = QKFeedbinClient::kEntriesPerPage;
  pass.fetchItems = [this](const std::vector<std::string>& batch) {
    return client().getEntriesWithIds(batch, 1);
  };
  pass.failedBatchLog = "failed fetching entries with ids. Ids: {}. Error: {}";
  return syncListedItems(std::move(ids), pass);
}

bool FeedbinSyncOperation::syncReadStories() {
  const Date since = readItemsSinceDate(fetchSinceDate_);
  log("fetching read stories...");
  const MergeFlags flags{/*unread=*/false, /*favorited=*/false, since};
  json buffer = json::array();
  for (int page = 1;; ++page) {
    auto entries = client().getReadEntriesSince(since, page);
    if (!entries) {
      return failStep(entries.error(), fmt::format("failed fetching read articles. Since: {}. Error: {}",
                                                   rfc3339String(since), entries.error().message()));
    }
    // Past the last page the answer is no list (a 404's body, or nothing): that ends the paging.
    const bool empty = !entries->is_array() || entries->empty();
    bufferItems(buffer, *entries, empty, flags);
    if (empty) return !error();
    if (checkIsCancelled()) return false;
  }
}

std::optional<std::string> FeedbinSyncOperation::itemId(const json& entry) const {
  return safeStringValue(entry, "id");
}

std::optional<std::string> FeedbinSyncOperation::itemFeedId(const json& entry) const {
  return safeStringValue(entry, "feed_id");
}

std::optional<Date> FeedbinSyncOperation::itemDate(const json& entry) const {
  const auto published = safeStringValue(entry, "published");
  return published ? dateFromISO8601String(*published) : std::nullopt;
}

bool FeedbinSyncOperation::isValidItem(const json& entry) const {
  return FeedStory::isValidForFeedbinMapping(entry);
}

void FeedbinSyncOperation::mapItem(FeedStory& story, const json& entry, Date date) const {
  story.mapFromFeedbinDictionary(entry, date, environment().clock);
}

}  // namespace lectern
