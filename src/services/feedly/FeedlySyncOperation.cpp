#include "services/feedly/FeedlySyncOperation.h"

#include <algorithm>
#include <map>

#include "core/Dates.h"
#include "core/Strings.h"
#include "net/URL.h"
#include "services/feedly/QKFeedlyClient.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kFeedFolderId = "feed-folder";
constexpr std::string_view kFeedPrefix = "feed/";
constexpr std::string_view kMustReadSuffix = "global.must";

std::string withoutFeedPrefix(const std::string& id) {
  return id.starts_with(kFeedPrefix) ? id.substr(kFeedPrefix.size()) : id;
}

}  // namespace

FeedlySyncOperation::FeedlySyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment)
    : AggregatorSyncOperation(std::move(account), environment, "Feedly") {}

QKFeedlyClient& FeedlySyncOperation::client() const { return static_cast<QKFeedlyClient&>(*apiClient()); }

std::string FeedlySyncOperation::feedTitleFromJson(const json& subscription) {
  if (auto title = safeStringValue(subscription, "title"); title && !trim(*title).empty()) return *title;
  std::string address = safeStringValue(subscription, "website").value_or("");
  if (address.empty()) address = withoutFeedPrefix(safeStringValue(subscription, "id").value_or(""));
  const auto url = URL::parse(address);
  std::string host = url && url->hasAuthority() ? toLowerASCII(url->host()) : std::string();
  if (host.empty()) return address;
  // "www.example.org" reads as "example.org"; a host of one part stays as it is.
  if (host.starts_with("www.") && std::count(host.begin(), host.end(), '.') >= 2) host = host.substr(4);
  return host;
}

bool FeedlySyncOperation::isIdList(const json& answer) {
  if (!answer.is_object()) return false;
  const auto list = answer.find("ids");
  return list != answer.end() && list->is_array();
}

std::vector<std::string> FeedlySyncOperation::idsOf(const json& answer) {
  std::vector<std::string> ids;
  if (!answer.is_object()) return ids;
  const auto list = answer.find("ids");
  if (list == answer.end() || !list->is_array()) return ids;
  for (const auto& id : *list) {
    if (ids.size() == QKFeedlyClient::kIdsPerStream) break;
    if (auto text = safeStringValue(id); text && !text->empty()) ids.push_back(std::move(*text));
  }
  return ids;
}

bool FeedlySyncOperation::prepareRun() {
  auto since = account().lastBookmarkUpdateDate();
  if (!since) return failStep(since.error(), "failed reading the newest story");
  fetchSinceDate_ = *since;
  return true;
}

bool FeedlySyncOperation::syncFoldersAndFeeds() {
  Folders folders;
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder'";
  request.arguments = {account().objectID().row};
  request.orderBy = "pos, id";
  auto local = moc().fetch<FeedFolder>(std::move(request));
  if (!local)
    return failStep(local.error(),
                    fmt::format("failed reading the local folders: {}", local.error().message()));
  folders.local = std::move(*local);

  auto categories = client().getCategories();
  if (!categories) {
    return failStep(categories.error(),
                    fmt::format("failed fetching categories. Error: {}", categories.error().message()));
  }
  // An answer that is no list says nothing: what is stored stays as it is.
  const bool knowCategories = categories->is_array();
  if (knowCategories) {
    processCategories(*categories, folders);
    deleteObsoleteCategories(folders);
  }
  auto subscriptions = client().getSubscriptions();
  if (!subscriptions) {
    return failStep(subscriptions.error(),
                    fmt::format("failed fetching subscriptions. Error: {}", subscriptions.error().message()));
  }
  if (subscriptions->is_array() && !processFeeds(*subscriptions, knowCategories ? &folders : nullptr))
    return false;
  return saveAndGoOn();
}

void FeedlySyncOperation::processCategories(const json& categories, Folders& folders) {
  log("processing folders...");
  for (const auto& category : categories) {
    const auto id = safeStringValue(category, "id");
    if (!id || id->empty()) continue;
    auto found = std::find_if(folders.local.begin(), folders.local.end(),
                              [&](const auto& folder) { return folder->ext_id() == id; });
    std::shared_ptr<FeedFolder> folder;
    if (found != folders.local.end()) {
      folder = *found;
    } else {
      folder = account().addFeedFolderWithTitle(safeStringValue(category, "label").value_or(*id),
                                                static_cast<std::int64_t>(folders.local.size()),
                                                std::string(kFeedFolderId));
      folder->setExt_id(id);
      folders.local.push_back(folder);
    }
    if (std::find(folders.current.begin(), folders.current.end(), folder) == folders.current.end())
      folders.current.push_back(folder);
    const std::string title = id->ends_with(kMustReadSuffix)
                                  ? std::string("Must Read")
                                  : safeStringValue(category, "label").value_or(*id);
    if (folder->title() != title) folder->setTitle(title);
    log("processing folder: {}", title);
  }
  saveContext();
}

void FeedlySyncOperation::deleteObsoleteCategories(Folders& folders) {
  log("removing obsolete categories...");
  for (const auto& folder : folders.local) {
    if (std::find(folders.current.begin(), folders.current.end(), folder) != folders.current.end()) continue;
    if (!folder->isDeleted()) moc().deleteObject(*folder);
  }
  saveContext();
}

bool FeedlySyncOperation::processFeeds(const json& subscriptions, const Folders* folders) {
  log("processing feeds...");
  // Subscriptions by id as text, each once.
  std::map<std::string, const json*> byId;
  for (const auto& subscription : subscriptions) {
    if (auto id = safeStringValue(subscription, "id"); id && !id->empty())
      byId.try_emplace(*id, &subscription);
  }
  auto feeds = account().feeds();
  if (!feeds)
    return failStep(feeds.error(),
                    fmt::format("failed reading the local feeds: {}", feeds.error().message()));
  // The stored feed of each subscription (the oldest of copies); the rest go at the end.
  std::map<std::string, std::shared_ptr<Feed>> stored;
  std::vector<std::shared_ptr<Feed>> kept;
  std::sort(feeds->begin(), feeds->end(),
            [](const auto& a, const auto& b) { return a->objectID().row < b->objectID().row; });
  for (const auto& feed : *feeds) {
    const auto id = feed->folder_id();
    if (id && byId.contains(*id)) stored.try_emplace(*id, feed);
  }
  for (const auto& [id, subscription] : byId) {
    std::shared_ptr<Feed> feed;
    if (auto found = stored.find(id); found != stored.end()) {
      feed = found->second;
    } else {
      feed = moc().insertNewObject<Feed>();
      feed->setFolder_id(id);
      feed->setExt_id(id);
      feed->setAccount(account());
    }
    const std::string title = feedTitleFromJson(*subscription);
    if (feed->title() != title) feed->setTitle(title);
    const std::string link = withoutFeedPrefix(id);
    if (feed->feed_link() != link) feed->setFeed_link(link);
    if (folders) {
      std::vector<std::shared_ptr<FeedFolder>> inFolders;
      const auto categories =
          subscription->is_object() ? subscription->find("categories") : subscription->end();
      if (categories != subscription->end() && categories->is_array()) {
        for (const auto& category : *categories) {
          const auto categoryId = safeStringValue(category, "id");
          for (const auto& folder : folders->current) {
            if (categoryId && folder->ext_id() == categoryId &&
                std::find(inFolders.begin(), inFolders.end(), folder) == inFolders.end()) {
              inFolders.push_back(folder);
            }
          }
        }
      }
      setFeedFolders(*feed, inFolders);
    }
    log("processing feed: {}", title);
    kept.push_back(feed);
  }
  log("removing obsolete feeds...");
  for (const auto& feed : *feeds) {
    if (std::find(kept.begin(), kept.end(), feed) == kept.end() && !feed->isDeleted()) deleteFeed(*feed);
  }
  saveContext();
  return true;
}

AggregatorSyncOperation::ListedItems FeedlySyncOperation::entriesPass(ListedFlag flag,
                                                                      std::string failedBatchLog) {
  ListedItems pass;
  pass.flag = flag;
  pass.idsPerRequest = QKFeedlyClient::kEntriesPerRequest;
  pass.fetchItems = [this](const std::vector<std::string>& batch) {
    return client().getEntriesWithIds(batch);
  };
  pass.failedBatchLog = std::move(failedBatchLog);
  return pass;
}

bool FeedlySyncOperation::syncUnreadStories() {
  log("fetching unread stories...");
  auto ids = client().getUnreadEntryIds();
  if (!ids) {
    return failStep(ids.error(),
                    fmt::format("failed fetching unread entry ids. Error: {}", ids.error().message()));
  }
  // A list of the wrong shape says nothing: no story becomes read because of it.
  if (!isIdList(*ids)) {
    log("unexpected answer for the unread entry ids");
    return true;
  }
  // The misspelling is the text this log line has always had.
  return syncListedItems(idsOf(*ids),
                         entriesPass(ListedFlag::kUnread, "failed fetching entri ids. Ids: {}. Error: {}"));
}

bool FeedlySyncOperation::syncStarredStories() {
  log("fetching starred stories...");
  auto ids = client().getStarredEntryIds();
  if (!ids) {
    return failStep(ids.error(),
                    fmt::format("failed fetching starred entry ids. Error: {}", ids.error().message()));
  }
  if (!isIdList(*ids)) {
    log("unexpected answer for the starred entry ids");
    return true;
  }
  return syncListedItems(idsOf(*ids),
                         entriesPass(ListedFlag::kStarred, "failed fetching entry ids. Ids: {}. Error: {}"));
}

bool FeedlySyncOperation::syncReadStories() {
  const Date since = readItemsSinceDate(fetchSinceDate_);
  log("fetching read stories...");
  auto answer = client().getReadEntryIdsSince(since);
  if (!answer) {
    return failStep(answer.error(), fmt::format("failed fetching entry ids since: {}. Error: {}",
                                                rfc3339String(since), answer.error().message()));
  }
  // Stored entries among them only become read; the others are fetched.
  const auto ids = idsOf(*answer);
  auto found = findExistingBookmarksForIds(json(ids), /*isUnread=*/false, /*isFavorited=*/false, itemIdKey());
  if (!found) {
    return failStep(found.error(), fmt::format("failed reading stored stories: {}", found.error().message()));
  }
  for (const auto& story : found->existing) {
    if (!story->is_archived()) story->setIs_archived(true);
  }
  if (!saveAndGoOn()) return false;
  const MergeFlags flags{/*unread=*/false, /*favorited=*/false, since};
  json buffer = json::array();
  const auto& missing = found->missing;
  for (size_t first = 0; first < missing.size(); first += QKFeedlyClient::kEntriesPerRequest) {
    const auto last = std::min(missing.size(), first + QKFeedlyClient::kEntriesPerRequest);
    const std::vector<std::string> batch(missing.begin() + static_cast<std::ptrdiff_t>(first),
                                         missing.begin() + static_cast<std::ptrdiff_t>(last));
    auto entries = client().getEntriesWithIds(batch);
    if (!entries) {
      return failStep(entries.error(), fmt::format("failed fetching entries with ids. Ids: {}. Error: {}",
                                                   join(batch, ", "), entries.error().message()));
    }
    bufferItems(buffer, *entries, last == missing.size(), flags);
    if (error() || checkIsCancelled()) return false;
  }
  return !error();
}

std::optional<std::string> FeedlySyncOperation::itemId(const json& entry) const {
  return safeStringValue(entry, "id");
}

std::optional<std::string> FeedlySyncOperation::itemFeedId(const json& entry) const {
  if (!entry.is_object()) return std::nullopt;
  const auto origin = entry.find("origin");
  return origin == entry.end() ? std::nullopt : safeStringValue(*origin, "streamId");
}

std::optional<Date> FeedlySyncOperation::itemDate(const json& entry) const {
  const std::string published = FeedStory::stringValueOfFeedItemPublishedDate(entry);
  const auto milliseconds = json::parse(published, nullptr, /*allow_exceptions=*/false);
  if (published.empty() || !milliseconds.is_number()) return std::nullopt;
  return dateFromMillisecondsSince1970(milliseconds.get<std::int64_t>());
}

bool FeedlySyncOperation::isValidItem(const json& entry) const {
  return FeedStory::isValidForFeedlyMapping(entry);
}

void FeedlySyncOperation::mapItem(FeedStory& story, const json& entry, Date date) const {
  story.mapFromFeedlyDictionary(entry, date, environment().clock);
}

}  // namespace lectern
