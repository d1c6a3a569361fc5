#include "services/feedwrangler/FeedWranglerSyncOperation.h"

#include <algorithm>
#include <charconv>
#include <unordered_map>
#include <unordered_set>

#include "core/Strings.h"
#include "services/feedwrangler/QKFeedWranglerClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kSmartStreamFolderId = "smart-stream";

std::string lowered(const std::optional<std::string>& text) { return toLowerASCII(text.value_or("")); }

// The list an answer holds under `key`, or nothing when it holds none.
const json* listIn(const json& answer, std::string_view key) {
  if (!answer.is_object()) return nullptr;
  const auto found = answer.find(key);
  return found != answer.end() && found->is_array() ? &*found : nullptr;
}

bool hasValue(const json& object, std::string_view key) {
  if (!object.is_object()) return false;
  const auto found = object.find(key);
  return found != object.end() && !found->is_null();
}

// Feed Wrangler writes times as seconds since 1970.
std::optional<Date> secondsValue(const json& object, std::string_view key) {
  const auto text = safeStringValue(object, key);
  if (!text) return std::nullopt;
  double seconds = 0;
  const char* end = text->data() + text->size();
  const auto [stop, failed] = fromChars(text->data(), end, seconds);
  if (failed != std::errc() || stop != end) return std::nullopt;
  return dateFromSecondsSince1970(seconds);
}

std::vector<std::string> itemIdsIn(const json& items) {
  std::vector<std::string> ids;
  for (const auto& item : items) {
    if (auto id = safeStringValue(item, "feed_item_id")) ids.push_back(std::move(*id));
  }
  return ids;
}

}  // namespace

FeedWranglerSyncOperation::FeedWranglerSyncOperation(std::shared_ptr<Account> account,
                                                     const SyncEnvironment& environment)
    : AggregatorSyncOperation(std::move(account), environment, "Feed Wrangler") {}

QKFeedWranglerClient& FeedWranglerSyncOperation::client() const {
  return static_cast<QKFeedWranglerClient&>(*apiClient());
}

bool FeedWranglerSyncOperation::syncFoldersAndFeeds() {
  return fetchSubscriptions() && saveAndGoOn() && fetchListOfStreams() && saveAndGoOn();
}

// ---- subscriptions ----

bool FeedWranglerSyncOperation::fetchSubscriptions() {
  log("fetching subscriptions...");
  auto answer = client().getFeeds();
  if (!answer) {
    return failStep(answer.error(),
                    fmt::format("failed fetching feeds. Error: {}", answer.error().message()));
  }
  // An answer without a list says nothing: the library keeps its feeds, and their stories.
  if (const json* feeds = listIn(*answer, "feeds")) processFeeds(*feeds);
  return true;
}

void FeedWranglerSyncOperation::processFeeds(const json& feeds) {
  log("processing feeds...");
  auto stored = account().feeds();
  if (!stored) {
    failStep(stored.error(), fmt::format("failed reading the local feeds: {}", stored.error().message()));
    return;
  }
  std::vector<std::shared_ptr<Feed>> local = std::move(*stored);
  // By title, so that of two local feeds of one subscription the same one is kept every time.
  std::stable_sort(local.begin(), local.end(),
                   [](const auto& a, const auto& b) { return lowered(a->title()) < lowered(b->title()); });
  for (const auto& remote : feeds) {
    const auto feedId = safeStringValue(remote, "feed_id");
    if (!feedId) continue;
    auto candidate = std::find_if(local.begin(), local.end(),
                                  [&](const auto& feed) { return feed->folder_id() == feedId; });
    std::shared_ptr<Feed> feed;
    if (candidate != local.end()) {
      feed = *candidate;
      local.erase(candidate);
    } else {
      feed = moc().insertNewObject<Feed>();
    }
    feed->setFolder_id(feedId);
    feed->setAccount(account());
    feed->setTitle(safeStringValue(remote, "title"));
    auto site = safeStringValue(remote, "site_url");
    feed->setFeed_link(site && !site->empty() ? site : safeStringValue(remote, "feed_url"));
    if (auto updated = secondsValue(remote, "last_updated_on_time")) feed->setDate_updated(updated);
    log("processing feed: {}", feed->title().value_or(""));
  }
  // Feeds no subscription matched, a second local copy of a subscription among them.
  for (const auto& feed : local) {
    if (!feed->isDeleted()) deleteFeed(*feed);
  }
}

// ---- smart streams ----

Result<std::vector<std::shared_ptr<FeedFolder>>> FeedWranglerSyncOperation::fetchStreamFolders() {
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder'";
  request.arguments = {account().objectID().row};
  request.orderBy = "pos, id";
  return moc().fetch<FeedFolder>(std::move(request));
}

bool FeedWranglerSyncOperation::fetchListOfStreams() {
  log("fetching smart streams...");
  auto answer = client().getListOfStreams();
  if (!answer) {
    return failStep(answer.error(),
                    fmt::format("failed fetching list of streams. Error: {}", answer.error().message()));
  }
  searchingStreams_.clear();
  const json* streams = listIn(*answer, "streams");
  if (!streams) return true;  // the folders stay as they are
  auto folders = fetchStreamFolders();
  if (!folders) {
    return failStep(folders.error(),
                    fmt::format("failed reading the local folders: {}", folders.error().message()));
  }
  std::vector<std::string> listed;
  std::unordered_map<ObjectId, std::vector<std::shared_ptr<FeedFolder>>> foldersOfFeed;
  for (const auto& stream : *streams) {
    const auto streamId = safeStringValue(stream, "stream_id");
    if (!streamId) continue;
    listed.push_back(*streamId);
    const auto title = safeStringValue(stream, "title");
    auto found = std::find_if(folders->begin(), folders->end(),
                              [&](const auto& folder) { return folder->ext_id() == streamId; });
    std::shared_ptr<FeedFolder> folder;
    if (found != folders->end()) {
      folder = *found;
    } else {
      folder = account().addFeedFolderWithTitle(title, static_cast<std::int64_t>(folders->size()),
                                                std::string(kSmartStreamFolderId));
      folder->setExt_id(streamId);
      folders->push_back(folder);
    }
    if (folder->title() != title) folder->setTitle(title);
    // A stream that searches holds the items it finds (collected once the stories are stored), not feeds.
    const auto searchTerm = safeStringValue(stream, "search_term");
    if (searchTerm && !trim(*searchTerm).empty()) {
      searchingStreams_.push_back(*streamId);
    } else {
      for (const auto& feed : feedsOfSmartStream(stream)) foldersOfFeed[feed->objectID()].push_back(folder);
    }
    log("updated feed folder: {}", title.value_or(""));
  }
  deleteObsoleteStreams(*folders, listed);
  auto feeds = account().feeds();
  if (!feeds) {
    return failStep(feeds.error(),
                    fmt::format("failed reading the local feeds: {}", feeds.error().message()));
  }
  for (const auto& feed : *feeds) setFeedFolders(*feed, foldersOfFeed[feed->objectID()]);
  return true;
}

std::vector<std::shared_ptr<Feed>> FeedWranglerSyncOperation::feedsOfSmartStream(const json& stream) {
  if (safeBoolValue(stream, "all_feeds")) {
    auto all = account().feeds();
    return all ? std::move(*all) : std::vector<std::shared_ptr<Feed>>();
  }
  std::vector<std::shared_ptr<Feed>> feeds;
  const json* listedFeeds = listIn(stream, "feeds");
  if (!listedFeeds) return feeds;
  std::unordered_set<ObjectId> seen;
  for (const auto& entry : *listedFeeds) {
    const auto feedId = safeStringValue(entry, "feed_id");
    auto feed = feedId ? feedWithRemoteId(*feedId) : nullptr;
    if (feed && seen.insert(feed->objectID()).second) feeds.push_back(std::move(feed));
  }
  return feeds;
}

void FeedWranglerSyncOperation::deleteObsoleteStreams(const std::vector<std::shared_ptr<FeedFolder>>& folders,
                                                      const std::vector<std::string>& listed) {
  for (const auto& folder : folders) {
    const auto streamId = folder->ext_id();
    if (!streamId || folder->isDeleted()) continue;
    if (std::find(listed.begin(), listed.end(), *streamId) == listed.end()) moc().deleteObject(*folder);
  }
}

bool FeedWranglerSyncOperation::fetchStreamItems() {
  if (searchingStreams_.empty()) return true;
  auto folders = fetchStreamFolders();
  if (!folders) {
    return failStep(folders.error(),
                    fmt::format("failed reading the local folders: {}", folders.error().message()));
  }
  for (const auto& streamId : searchingStreams_) {
    auto answer = client().getItemIdsOfStream(streamId);
    if (!answer) {
      return failStep(answer.error(),
                      fmt::format("failed fetching stream items. Error: {}", answer.error().message()));
    }
    const json* items = listIn(*answer, "feed_items");
    auto folder = std::find_if(folders->begin(), folders->end(),
                               [&](const auto& candidate) { return candidate->ext_id() == streamId; });
    if (items && folder != folders->end()) setStreamItems(**folder, itemIdsIn(*items));
    if (checkIsCancelled()) return false;
  }
  return saveAndGoOn();
}

void FeedWranglerSyncOperation::setStreamItems(FeedFolder& folder, const std::vector<std::string>& itemIds) {
  auto found = account().findBookmarksWithIds(itemIds);
  auto current = folder.bookmarks();
  if (!found || !current) {
    log("failed reading the stories of {}: {}", folder.title().value_or(""),
        (found ? current.error() : found.error()).message());
    return;
  }
  std::unordered_set<ObjectId> wanted, held;
  for (const auto& story : *found) wanted.insert(story->objectID());
  for (const auto& story : *current) {
    held.insert(story->objectID());
    if (!wanted.contains(story->objectID())) folder.removeBookmark(*story);
  }
  for (const auto& story : *found) {
    if (held.insert(story->objectID()).second) folder.addBookmark(*story);
  }
}

// ---- unread and starred ----

Result<std::optional<std::vector<std::string>>> FeedWranglerSyncOperation::fetchListedIds(ListedFlag flag) {
  const bool unread = flag == ListedFlag::kUnread;
  std::vector<std::string> ids;
  for (int page = 1;; ++page) {
    if (unread) {
      log("fetching unread statuses. Page: {}", page);
    } else {
      log("fetching starred statuses. Page: {}", page);
    }
    auto answer = unread ? client().getUnreadStoryIdsOnPage(page) : client().getStarredStoryIdsOnPage(page);
    if (!answer) return fail(answer.error());
    const json* items = listIn(*answer, "feed_items");
    if (!items) return std::optional<std::vector<std::string>>();
    for (auto& id : itemIdsIn(*items)) ids.push_back(std::move(id));
    // A full page may be followed by more, even by an empty one.
    if (items->size() < static_cast<size_t>(QKFeedWranglerClient::kIdsPerPage)) return ids;
    if (checkIsCancelled()) return fail(kLecternErrorDomain, 0, "Cancelled");
  }
}

bool FeedWranglerSyncOperation::syncListed(ListedFlag flag) {
  const bool unread = flag == ListedFlag::kUnread;
  auto ids = fetchListedIds(flag);
  if (!ids) {
    // Both lists log their failure as the starred one's: the text Lectern has always written.
    return failStep(ids.error(),
                    fmt::format("failed fetching starred ids. Error: {}", ids.error().message()));
  }
  if (!*ids) return true;
  ListedItems pass;
  pass.flag = flag;
  pass.idsPerRequest = QKFeedWranglerClient::kItemsPerPage;
  pass.fetchItems = [this](const std::vector<std::string>& batch) -> Result<json> {
    auto answer = client().getEntriesWithIds(batch);
    if (!answer) return answer;
    const json* items = listIn(*answer, "feed_items");
    return items ? *items : json::array();
  };
  pass.failedBatchLog = "failed fetching entries with ids. Ids: {}. Error: {}";
  pass.batchLog =
      unread ? "fetching missing unread items: {} remaining" : "fetching missing starred items: {} remaining";
  return syncListedItems(std::move(**ids), pass);
}

bool FeedWranglerSyncOperation::syncUnreadStories() {
  log("fetching unread stories...");
  return syncListed(ListedFlag::kUnread);
}

bool FeedWranglerSyncOperation::syncStarredStories() {
  log("fetching starred statuses...");
  return syncListed(ListedFlag::kStarred);
}

// ---- read ----

bool FeedWranglerSyncOperation::syncReadStories() { return fetchReadStories() && fetchStreamItems(); }

bool FeedWranglerSyncOperation::fetchReadStories() {
  log("fetching read stories");
  const MergeFlags flags{/*unread=*/false, /*favorited=*/false, keepDate()};
  json buffer = json::array();
  for (int page = 1;; ++page) {
    log("fetching read stories. Page: {}", page);
    auto answer = client().getStoriesReadStatus(/*read=*/true, page);
    if (!answer) {
      return failStep(answer.error(),
                      fmt::format("failed fetching read stories. Error: {}", answer.error().message()));
    }
    const json* items = listIn(*answer, "feed_items");
    const bool shortPage = !items || items->size() < static_cast<size_t>(QKFeedWranglerClient::kItemsPerPage);
    const auto merged = bufferItems(buffer, items ? *items : json::array(), shortPage, flags);
    // Newest first: past an item older than the keep date, every later page is older still.
    if (shortPage || (merged && merged->reachedTillDate)) return !error();
    if (error() || checkIsCancelled()) return false;
  }
}

// ---- items ----

std::optional<std::string> FeedWranglerSyncOperation::itemId(const json& item) const {
  return safeStringValue(item, "feed_item_id");
}

std::optional<std::string> FeedWranglerSyncOperation::itemFeedId(const json& item) const {
  return safeStringValue(item, "feed_id");
}

std::optional<Date> FeedWranglerSyncOperation::itemDate(const json& item) const {
  return secondsValue(item, "published_at");
}

bool FeedWranglerSyncOperation::isValidItem(const json& item) const {
  return FeedStory::isValidForFeedWranglerMapping(item);
}

void FeedWranglerSyncOperation::mapItem(FeedStory& story, const json& item, Date date) const {
  story.mapFromFeedWranglerDictionary(item, date, environment().clock);
}

void FeedWranglerSyncOperation::setNewStoryFlags(FeedStory& story, const json& item,
                                                 const MergeFlags& flags) {
  if (!hasValue(item, "read")) story.setIs_archived(!flags.unread);
  if (!hasValue(item, "starred")) story.setIs_favorited(flags.favorited);
}

}  // namespace lectern
