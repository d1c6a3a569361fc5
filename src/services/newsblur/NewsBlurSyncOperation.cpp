#include "services/newsblur/NewsBlurSyncOperation.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "core/Strings.h"
#include "services/newsblur/QKNewsBlurClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kFeedFolderId = "feed-folder";
// Empty river pages in a row that the server says it emptied by hiding stories: paging goes on
// past them, but not forever.
constexpr int kMaxHiddenPages = 20;

// " " names the top level; a name of blanks only is read the same way.
bool isTopLevel(const std::string& name) { return trim(name).empty(); }

const json* memberOf(const json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

// A hash as NewsBlur lists it: the text, or the first member of [hash, timestamp].
std::optional<std::string> hashIn(const json& entry) {
  if (entry.is_array()) return entry.empty() ? std::nullopt : hashIn(entry.front());
  auto hash = safeStringValue(entry);
  if (!hash || hash->empty()) return std::nullopt;
  return hash;
}

bool readFlag(const json& item, std::string_view key) {
  const json* value = memberOf(item, key);
  return value != nullptr && safeBoolValue(*value);
}

bool hasValue(const json& item, std::string_view key) {
  const json* value = memberOf(item, key);
  return value != nullptr && !value->is_null();
}

Error unsynchronizableFolders() {
  return Error::make(kLecternErrorDomain, 0, "Unable to synchronize folders",
                     "An unexpected response was received from the server.");
}

}  // namespace

NewsBlurSyncOperation::NewsBlurSyncOperation(std::shared_ptr<Account> account,
                                             const SyncEnvironment& environment)
    : AggregatorSyncOperation(std::move(account), environment, "NewsBlur") {}

QKNewsBlurClient& NewsBlurSyncOperation::client() const {
  return static_cast<QKNewsBlurClient&>(*apiClient());
}

bool NewsBlurSyncOperation::openSession() {
  auto opened = client().loginSynchronously();
  if (!opened) {
    return failStep(opened.error(), fmt::format("Failed to login. Error: {}", opened.error().message()));
  }
  return true;
}

// ---- folders and feeds ----

bool NewsBlurSyncOperation::syncFoldersAndFeeds() {
  auto answer = client().getReaderFeeds();
  if (!answer) {
    return failStep(answer.error(),
                    fmt::format("Failed to fetch feeds. Error: {}", answer.error().message()));
  }
  const json* flatFolders = memberOf(*answer, "flat_folders");
  if (flatFolders == nullptr || !flatFolders->is_object()) {
    return failStep(unsynchronizableFolders(),
                    "Unable to synchronize folders: no flat folders in the answer");
  }
  auto folders = processFolders(*flatFolders);
  if (!folders) return false;
  // An answer without feeds says nothing about them: the library keeps its feeds, and their stories.
  if (const json* feeds = memberOf(*answer, "feeds"); feeds != nullptr && feeds->is_object()) {
    processFeeds(*feeds, *flatFolders, *folders);
  }
  return saveAndGoOn();
}

std::optional<std::vector<std::shared_ptr<FeedFolder>>> NewsBlurSyncOperation::processFolders(
    const json& flatFolders) {
  log("processing flat folders...");
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder'";
  request.arguments = {account().objectID().row};
  request.orderBy = "pos, id";
  auto stored = moc().fetch<FeedFolder>(std::move(request));
  if (!stored) {
    failStep(stored.error(), fmt::format("failed reading the local folders: {}", stored.error().message()));
    return std::nullopt;
  }
  std::vector<std::shared_ptr<FeedFolder>> kept;
  std::unordered_set<ObjectId> keptIds;
  for (const auto& [name, feedIds] : flatFolders.items()) {
    if (isTopLevel(name)) continue;
    auto found = std::find_if(stored->begin(), stored->end(), [&](const auto& folder) {
      return folder->title() == name && !keptIds.contains(folder->objectID());
    });
    std::shared_ptr<FeedFolder> folder;
    if (found != stored->end()) {
      folder = *found;
    } else {
      folder = account().addFeedFolderWithTitle(name, static_cast<std::int64_t>(stored->size() + kept.size()),
                                                std::string(kFeedFolderId));
      log("added new folder: {}", name);
    }
    keptIds.insert(folder->objectID());
    kept.push_back(std::move(folder));
  }
  for (const auto& folder : *stored) {
    if (!keptIds.contains(folder->objectID()) && !folder->isDeleted()) moc().deleteObject(*folder);
  }
  return kept;
}

void NewsBlurSyncOperation::processFeeds(const json& feeds, const json& flatFolders,
                                         const std::vector<std::shared_ptr<FeedFolder>>& folders) {
  log("processing feeds...");
  auto stored = account().feeds();
  if (!stored) {
    failStep(stored.error(), fmt::format("failed reading the local feeds: {}", stored.error().message()));
    return;
  }
  std::map<std::string, std::shared_ptr<FeedFolder>> folderByName;
  for (const auto& folder : folders) folderByName.emplace(folder->title().value_or(""), folder);
  // The folders that list each feed id.
  std::unordered_map<std::string, std::vector<std::shared_ptr<FeedFolder>>> foldersOfFeed;
  for (const auto& [name, feedIds] : flatFolders.items()) {
    const auto folder = folderByName.find(name);
    if (isTopLevel(name) || folder == folderByName.end() || !feedIds.is_array()) continue;
    for (const auto& feedId : feedIds) {
      if (auto id = safeStringValue(feedId)) foldersOfFeed[*id].push_back(folder->second);
    }
  }
  std::unordered_map<std::string, std::shared_ptr<Feed>> local;
  for (const auto& feed : *stored) {
    // Of two local feeds of one NewsBlur feed, the first stays and the other goes below.
    if (auto id = feed->folder_id()) local.try_emplace(*id, feed);
  }
  std::unordered_set<ObjectId> seen;
  const Date now = environment().clock.now();
  for (const auto& [key, remote] : feeds.items()) {
    if (!remote.is_object()) continue;
    auto feedId = safeStringValue(remote, "id");
    if (!feedId || feedId->empty()) feedId = key;
    std::shared_ptr<Feed> feed;
    if (auto found = local.find(*feedId); found != local.end()) {
      feed = found->second;
    } else {
      feed = moc().insertNewObject<Feed>();
      feed->setFolder_id(*feedId);
      feed->setAccount(account());
      local.emplace(*feedId, feed);
      log("added new feed: {}", safeStringValue(remote, "feed_title").value_or(*feedId));
    }
    seen.insert(feed->objectID());
    feed->setTitle(safeStringValue(remote, "feed_title"));
    // The site is what a person opens; the feed's own address only when NewsBlur has no site.
    auto link = safeStringValue(remote, "feed_link");
    feed->setFeed_link(link && !link->empty() ? link : safeStringValue(remote, "feed_address"));
    if (const json* age = memberOf(remote, "updated_seconds_ago"); age != nullptr && age->is_number()) {
      feed->setDate_updated(now - std::chrono::seconds(age->get<std::int64_t>()));
    }
    setFeedFolders(*feed, foldersOfFeed[*feedId]);
  }
  for (const auto& feed : *stored) {
    if (!seen.contains(feed->objectID()) && !feed->isDeleted()) deleteFeed(*feed);
  }
}

// ---- unread and starred ----

bool NewsBlurSyncOperation::syncListed(ListedFlag flag, std::vector<std::string> hashes) {
  const bool unread = flag == ListedFlag::kUnread;
  ListedItems pass;
  pass.flag = flag;
  pass.idsPerRequest = kHashesPerRequest;
  pass.fetchItems = [this, unread](const std::vector<std::string>& batch) -> Result<json> {
    auto answer =
        unread ? client().getUnreadStoriesWithHashes(batch) : client().getStarredStoriesWithHashes(batch);
    if (!answer) return answer;
    const json* stories = memberOf(*answer, "stories");
    return stories != nullptr && stories->is_array() ? *stories : json::array();
  };
  pass.failedBatchLog = "failed fetching entry ids. Ids: {}. Error: {}";
  return syncListedItems(std::move(hashes), pass);
}

bool NewsBlurSyncOperation::syncUnreadStories() {
  // Asks the server to recount; what it answers is not needed, and a failure stops nothing.
  if (auto refreshed = client().refreshFeeds(); !refreshed) {
    if (isCancelled()) return false;
    log("failed to refresh feeds. Error: {}", refreshed.error().message());
  }
  log("fetching unread stories...");
  auto answer = client().getUnreadStoryHashes();
  if (!answer) {
    return failStep(answer.error(),
                    fmt::format("failed to fetch unread story hashes. Error: {}", answer.error().message()));
  }
  const json* byFeed = memberOf(*answer, "unread_feed_story_hashes");
  // A list that was not read marks nothing read.
  if (byFeed == nullptr || !byFeed->is_object()) return true;
  std::vector<std::string> hashes;
  std::unordered_set<std::string> unique;
  for (const auto& [feedId, list] : byFeed->items()) {
    if (!list.is_array()) continue;
    for (const auto& entry : list) {
      if (auto hash = hashIn(entry); hash && unique.insert(*hash).second) hashes.push_back(std::move(*hash));
    }
  }
  return syncListed(ListedFlag::kUnread, std::move(hashes));
}

bool NewsBlurSyncOperation::syncStarredStories() {
  log("fetching hashes of starred stories...");
  auto answer = client().getStarredStoryHashes();
  if (!answer) {
    return failStep(answer.error(),
                    fmt::format("failed to fetch starred story hashes. Error: {}", answer.error().message()));
  }
  const json* list = memberOf(*answer, "starred_story_hashes");
  if (list == nullptr || !list->is_array()) return true;
  std::vector<std::string> hashes;
  std::unordered_set<std::string> unique;
  for (const auto& entry : *list) {
    if (auto hash = hashIn(entry); hash && unique.insert(*hash).second) hashes.push_back(std::move(*hash));
  }
  return syncListed(ListedFlag::kStarred, std::move(hashes));
}

// ---- read ----

bool NewsBlurSyncOperation::syncReadStories() {
  log("fetching read stories...");
  const Date limit = readItemsSinceDate(std::nullopt);
  const MergeFlags flags{/*unread=*/false, /*favorited=*/false, limit};
  json buffer = json::array();
  int hiddenPages = 0;
  for (int page = 1;; ++page) {
    log("fetching read stories of page: {}", page);
    auto answer = client().getRiverStoriesOfPage(page, /*unreadOnly=*/false);
    if (!answer) {
      return failStep(answer.error(),
                      fmt::format("failed to fetch read stories. Error: {}", answer.error().message()));
    }
    const json* stories = memberOf(*answer, "stories");
    json kept = json::array();
    bool older = false;
    if (stories != nullptr && stories->is_array()) {
      // Newest first: the first story older than the limit ends paging, and the rest of its page
      // is older still.
      for (const auto& story : *stories) {
        const auto date = itemDate(story);
        if (date && *date < limit) {
          older = true;
          break;
        }
        kept.push_back(story);
      }
    }
    const bool empty = stories == nullptr || !stories->is_array() || stories->empty();
    // A page NewsBlur emptied by hiding stories the person trained away is not the last one.
    const json* hidden = memberOf(*answer, "hidden_stories_removed");
    const bool hiddenOnly = empty && hidden != nullptr && hidden->is_number() && hidden->get<double>() > 0 &&
                            ++hiddenPages <= kMaxHiddenPages;
    if (!empty) hiddenPages = 0;
    const bool last = older || (empty && !hiddenOnly);
    const auto merged = bufferItems(buffer, kept, last, flags);
    if (last || (merged && merged->reachedTillDate)) return !error();
    if (error() || checkIsCancelled()) return false;
  }
}

// ---- stories ----

std::optional<std::string> NewsBlurSyncOperation::itemId(const json& item) const {
  auto hash = safeStringValue(item, "story_hash");
  if (!hash || hash->empty()) return std::nullopt;
  return hash;
}

std::optional<std::string> NewsBlurSyncOperation::itemFeedId(const json& item) const {
  return safeStringValue(item, "story_feed_id");
}

std::optional<Date> NewsBlurSyncOperation::itemDate(const json& item) const {
  return FeedStory::newsBlurStoryDate(item);
}

bool NewsBlurSyncOperation::isValidItem(const json& item) const {
  return FeedStory::isValidForNewsBlurMapping(item);
}

void NewsBlurSyncOperation::mapItem(FeedStory& story, const json& item, Date date) const {
  story.mapFromNewsBlurDictionary(item, date, readFlag(item, "read_status"), readFlag(item, "starred"),
                                  environment().clock);
}

void NewsBlurSyncOperation::setNewStoryFlags(FeedStory& story, const json& item, const MergeFlags& flags) {
  if (!hasValue(item, "read_status")) story.setIs_archived(!flags.unread);
  // "starred" is often left out when false: only the starred list makes a story starred then.
  if (!hasValue(item, "starred")) story.setIs_favorited(flags.favorited);
}

}  // namespace lectern
