#include "services/fever/FeverSyncOperation.h"

#include <algorithm>
#include <map>

#include "core/Strings.h"
#include "services/fever/QKFeverClient.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/QKAccountPreferences.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kHotFolderId = "hot";

std::string lowered(const std::optional<std::string>& text) { return toLowerASCII(text.value_or("")); }

// The list under `key` of a server's answer; nothing when the answer holds no list there.
const json* listIn(const json& answer, std::string_view key) {
  if (!answer.is_object()) return nullptr;
  auto found = answer.find(key);
  return found != answer.end() && found->is_array() ? &*found : nullptr;
}

}  // namespace

FeverSyncOperation::FeverSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment)
    : AggregatorSyncOperation(account, environment, "Fever"),
      syncSparks_(account->preferences().boolForKey("syncFeverSparks")) {}

QKFeverClient& FeverSyncOperation::client() const { return static_cast<QKFeverClient&>(*apiClient()); }

std::vector<std::string> FeverSyncOperation::idsOf(const json& value) {
  std::vector<std::string> ids;
  if (value.is_array()) {
    for (const auto& item : value) {
      if (auto id = safeStringValue(item); id && !id->empty()) ids.push_back(std::move(*id));
    }
    return ids;
  }
  for (auto& piece : split(safeStringValue(value).value_or(""), ",")) {
    piece = trim(piece);
    if (!piece.empty()) ids.push_back(std::move(piece));
  }
  return ids;
}

bool FeverSyncOperation::prepareRun() {
  // Asking the server to poll its feeds first is a favour: its failure stops nothing.
  if (account().preferences().boolForKey("refreshOnFeverServer")) {
    if (auto refreshed = client().refreshOnServer(); !refreshed) {
      logError(className(), "Fever: failed refreshing server. Error: {}", refreshed.error().message());
    }
  }
  // Older items are fetched again after the keep period grew.
  auto last = account().lastBookmarkId();
  if (!last) return failStep(last.error(), "failed reading the newest item");
  sinceId_ = account().isKeepIndexChangedToLonger() ? "0" : last->value_or("0");
  return true;
}

Result<FeverSyncOperation::LocalLists> FeverSyncOperation::fetchLocalLists() {
  LocalLists lists;
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder'";
  request.arguments = {account().objectID().row};
  request.orderBy = "pos, id";
  auto folders = moc().fetch<FeedFolder>(std::move(request));
  if (!folders) return fail(folders.error());
  lists.folders = std::move(*folders);
  for (const auto& folder : lists.folders) {
    if (auto id = folder->folder_id()) lists.foldersById.try_emplace(*id, folder);
  }
  auto feeds = account().feeds();
  if (!feeds) return fail(feeds.error());
  lists.feeds = std::move(*feeds);
  std::stable_sort(lists.feeds.begin(), lists.feeds.end(),
                   [](const auto& a, const auto& b) { return lowered(a->title()) < lowered(b->title()); });
  return lists;
}

bool FeverSyncOperation::syncFoldersAndFeeds() {
  auto lists = fetchLocalLists();
  if (!lists)
    return failStep(lists.error(),
                    fmt::format("failed reading the local feeds: {}", lists.error().message()));
  auto groups = client().getGroups();
  if (!groups) {
    return failStep(groups.error(),
                    fmt::format("failed fetching groups. Error: {}", groups.error().message()));
  }
  // feeds_groups: a group's feeds as a comma-separated list of ids.
  std::map<std::string, std::vector<std::string>> groupsOfFeed;
  const json* mappings = listIn(*groups, "feeds_groups");
  if (mappings) {
    for (const auto& mapping : *mappings) {
      const auto group = safeStringValue(mapping, "group_id");
      if (!group || !mapping.is_object()) continue;
      for (const auto& feed : idsOf(mapping.value("feed_ids", json()))) groupsOfFeed[feed].push_back(*group);
    }
  }
  const json* groupList = listIn(*groups, "groups");
  if (groupList) processFolders(*groupList, *lists);

  log("fetching feeds...");
  auto feeds = client().getFeeds();
  if (!feeds)
    return failStep(feeds.error(), fmt::format("failed fetching feeds. Error: {}", feeds.error().message()));
  const json* feedList = listIn(*feeds, "feeds");
  // Without the server's groups the feeds keep the folders they have.
  if (feedList) processFeeds(*feedList, mappings ? &groupsOfFeed : nullptr, *lists);
  saveContext();

  // What the server did not list goes, but only when it sent a list: an odd answer says nothing.
  if (feedList) {
    for (const auto& feed : lists->feeds) {
      if (!feed->isDeleted()) deleteFeed(*feed);
    }
  }
  if (groupList) {
    for (const auto& folder : lists->folders) {
      const auto id = folder->folder_id();
      if (id == kHotFolderId || id == kSparksFolderId || folder->isDeleted()) continue;
      moc().deleteObject(*folder);
    }
  }
  return saveAndGoOn();
}

void FeverSyncOperation::processFolders(const json& groups, LocalLists& lists) {
  log("processing folders...");
  for (const auto& group : groups) {
    const auto id = safeStringValue(group, "id");
    if (!id) continue;
    auto found = std::find_if(lists.folders.begin(), lists.folders.end(),
                              [&](const auto& folder) { return folder->folder_id() == id; });
    std::shared_ptr<FeedFolder> folder;
    if (found != lists.folders.end()) {
      folder = *found;
      lists.folders.erase(found);
    } else {
      folder = moc().insertNewObject<FeedFolder>();
      folder->setAccount(account());
      lists.foldersById.try_emplace(*id, folder);
    }
    folder->setTitle(safeStringValue(group, "title"));
    folder->setFolder_id(id);
    log("processing folder: {}", folder->title().value_or(""));
  }
}

void FeverSyncOperation::processFeeds(const json& feeds,
                                      const std::map<std::string, std::vector<std::string>>* groupsOfFeed,
                                      LocalLists& lists) {
  log("processing feeds...");
  auto folderWithId = [&](const std::string& id) -> std::shared_ptr<FeedFolder> {
    auto found = lists.foldersById.find(id);
    return found == lists.foldersById.end() ? nullptr : found->second;
  };
  const auto sparks = folderWithId(std::string(kSparksFolderId));
  for (const auto& remote : feeds) {
    const auto id = safeStringValue(remote, "id");
    if (!id) continue;
    std::vector<std::shared_ptr<FeedFolder>> folders;
    if (safeBoolValue(remote, "is_spark")) {
      if (!syncSparks_) continue;
      if (sparks) folders.push_back(sparks);
    } else if (groupsOfFeed) {
      if (auto groups = groupsOfFeed->find(*id); groups != groupsOfFeed->end()) {
        for (const auto& group : groups->second) {
          if (auto folder = folderWithId(group)) folders.push_back(folder);
        }
      }
    }
    auto local = std::find_if(lists.feeds.begin(), lists.feeds.end(),
                              [&](const auto& feed) { return feed->folder_id() == id; });
    std::shared_ptr<Feed> feed;
    if (local != lists.feeds.end()) {
      feed = *local;
      lists.feeds.erase(local);
    } else {
      feed = moc().insertNewObject<Feed>();
    }
    feed->setFolder_id(id);
    feed->setAccount(account());
    feed->setTitle(safeStringValue(remote, "title"));
    const json site = remote.is_object() ? remote.value("site_url", json()) : json();
    feed->setFeed_link(site.is_string() ? safeStringValue(site) : safeStringValue(remote, "url"));
    if (auto updated = safeStringValue(remote, "last_updated_on_time")) {
      feed->setDate_updated(dateFromSecondsSince1970(std::strtod(updated->c_str(), nullptr)));
    }
    if (groupsOfFeed || safeBoolValue(remote, "is_spark")) setFeedFolders(*feed, folders);
    log("processing feed: {}", feed->title().value_or(""));
  }
}

bool FeverSyncOperation::syncIdList(Result<json> answer, std::string_view key, ListedFlag flag,
                                    std::string_view failedLog, std::string failedBatchLog) {
  if (!answer)
    return failStep(answer.error(), fmt::format(fmt::runtime(failedLog), answer.error().message()));
  ListedItems pass;
  pass.flag = flag;
  pass.idsPerRequest = QKFeverClient::kItemsPerPage;
  pass.fetchItems = [this](const std::vector<std::string>& ids) -> Result<json> {
    auto items = client().getStoriesWithIds(ids);
    if (!items) return items;
    const json* list = listIn(*items, "items");
    return list ? *list : json::array();
  };
  pass.failedBatchLog = std::move(failedBatchLog);
  return syncListedItems(idsOf(answer->is_object() ? answer->value(std::string(key), json()) : json()), pass);
}

bool FeverSyncOperation::syncUnreadStories() {
  log("downloading unread stories...");
  return syncIdList(client().getUnreadStoryIds(), "unread_item_ids", ListedFlag::kUnread,
                    "failed fetching unread story ids. Error: {}",
                    "Failed to fetch unread stories. Ids: {}. Error: {}");
}

bool FeverSyncOperation::syncStarredStories() {
  log("downloading starred stories...");
  return syncIdList(client().getFavoriteStoryIds(), "saved_item_ids", ListedFlag::kStarred,
                    "failed fetching favorite story ids. Error: {}",
                    "Failed to fetch starred stories. Ids: {}. Error: {}");
}

bool FeverSyncOperation::syncReadStories() {
  log("downloading stories...");
  const MergeFlags flags{/*unread=*/false, /*favorited=*/false, readItemsSinceDate(std::nullopt)};
  json buffer = json::array();
  std::string since = sinceId_;
  for (;;) {
    auto answer = client().getStoriesSinceId(since);
    if (!answer) {
      return failStep(answer.error(), fmt::format("Failed to fetch read stories. Since: {}. Error: {}", since,
                                                  answer.error().message()));
    }
    const json* items = listIn(*answer, "items");
    // A page of 50 may have more behind it; a shorter one (or none) is the last.
    const bool last = !items || items->size() < QKFeverClient::kItemsPerPage;
    bufferItems(buffer, items ? *items : json::array(), last, flags);
    if (last) return !error();
    if (checkIsCancelled()) return false;
    // The largest id of the page: some servers do not order a page.
    std::optional<std::string> next;
    for (const auto& item : *items) {
      auto id = itemId(item);
      if (id && (!next || id->size() > next->size() || (id->size() == next->size() && *id > *next)))
        next = id;
    }
    if (!next || *next == since) return !error();  // no progress: stop rather than ask forever
    since = *next;
  }
}

std::optional<std::string> FeverSyncOperation::itemId(const json& item) const {
  return safeStringValue(item, "id");
}

std::optional<std::string> FeverSyncOperation::itemFeedId(const json& item) const {
  return safeStringValue(item, "feed_id");
}

std::optional<Date> FeverSyncOperation::itemDate(const json& item) const {
  const auto created = safeStringValue(item, "created_on_time");
  if (!created) return std::nullopt;
  char* end = nullptr;
  const double seconds = std::strtod(created->c_str(), &end);
  if (end == created->c_str()) return std::nullopt;
  return dateFromSecondsSince1970(seconds);
}

bool FeverSyncOperation::isValidItem(const json& item) const {
  return FeedStory::isValidForFeverMapping(item);
}

void FeverSyncOperation::mapItem(FeedStory& story, const json& item, Date date) const {
  story.mapFromFeverDictionary(item, date, environment().clock);
}

void FeverSyncOperation::updateExistingStory(Bookmark& story, const json& item, const MergeFlags&) {
  const bool read = safeBoolValue(item, "is_read");
  if (story.is_archived() != read) {
    story.setIs_archived(read);
    log("update archive flag: {}", story.title().value_or(""));
  }
  const bool saved = safeBoolValue(item, "is_saved");
  if (story.is_favorited() != saved) {
    story.setIs_favorited(saved);
    log("update favorite flag: {}", story.title().value_or(""));
  }
}

}  // namespace lectern
