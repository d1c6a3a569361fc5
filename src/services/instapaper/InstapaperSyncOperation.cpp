#include "services/instapaper/InstapaperSyncOperation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "core/Log.h"
#include "core/Strings.h"
#include "services/instapaper/InstapaperService.h"
#include "services/instapaper/QKInstapaperClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {
namespace {

using nlohmann::json;

std::int64_t positionOf(const json& folder) {
  const auto text = safeStringValue(folder, "position");
  if (!text) return 0;
  const auto number = json::parse(trimView(*text), nullptr, /*allow_exceptions=*/false);
  if (!number.is_number()) return 0;
  const double value = number.get<double>();
  if (!std::isfinite(value)) return 0;
  return static_cast<std::int64_t>(std::clamp(value, -9.0e18, 9.0e18));
}

}  // namespace

InstapaperSyncOperation::InstapaperSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment)
    : SyncOperation(std::move(account), environment) {}

InstapaperSyncOperation::~InstapaperSyncOperation() = default;

std::shared_ptr<QKInstapaperClient> InstapaperSyncOperation::client() const {
  std::lock_guard lock(clientMutex_);
  return client_;
}

void InstapaperSyncOperation::cancelRequests() {
  if (auto running = client()) running->cancelAllHTTPOperations();
}

void InstapaperSyncOperation::main() {
  nameCurrentThread(kClassName);
  if (!setupManagedObjectContext()) {
    completeOperation();
    return;
  }
  auto service = std::dynamic_pointer_cast<InstapaperService>(this->service());
  auto instapaper = service ? service->instapaperClient() : nullptr;
  if (!instapaper) {
    setError(service ? service->clientUnavailableError("sync")
                     : Error::make(kLecternErrorDomain, 0, "Instapaper: Failed to sync"));
    completeOperation();
    return;
  }
  {
    std::lock_guard lock(clientMutex_);
    client_ = instapaper;
  }
  // Nothing is read or changed when the host cannot be reached.
  if (auto reachable = instapaper->isNetworkEndpointReachable(); !reachable) {
    setError(reachable.error());
    completeOperation();
    return;
  }
  // What the person did here reaches Instapaper before its state is read back.
  processOfflineOperations();
  if (!account().last_sync()) setIsForced(true);

  if (!checkIsCancelled() && syncFolders()) {
    auto folders = account().sortedFolders();
    if (!folders) {
      setError(folders.error());
    } else {
      std::vector<std::shared_ptr<Folder>> ordered = std::move(*folders);
      std::stable_sort(ordered.begin(), ordered.end(),
                       [](const auto& a, const auto& b) { return a->pos() < b->pos(); });
      for (const auto& folder : ordered) {
        if (checkIsCancelled()) break;
        syncInstapaperBookmarksInFolder(*folder);
      }
      if (!checkIsCancelled()) deleteObsoleteBookmarks();
    }
  }
  completeOperation();
}

bool InstapaperSyncOperation::syncFolders() {
  std::vector<std::string> live = {std::string(kStarredFolderId), std::string(kUnreadFolderId),
                                   std::string(kArchiveFolderId)};
  auto list = client()->getFolderList();
  if (!list) {
    if (!isCancelled()) {
      logError(kClassName, "Instapaper: {}", list.error().message());
      setError(list.error());
    }
    return false;
  }
  if (!list->is_array()) {
    setError(Error::make(kLecternErrorDomain, 0, "Instapaper: Failed to get folders",
                         "The folder list Instapaper sent is no list."));
    return false;
  }
  logDebugMessage(kClassName, "Instapaper: processing folders...");
  for (const auto& object : *list) {
    if (!object.is_object() || safeStringValue(object, "type").value_or("folder") != "folder") continue;
    const auto folderId = safeStringValue(object, "folder_id");
    if (!folderId || trimView(*folderId).empty()) continue;
    live.push_back(*folderId);
    auto found = account().findFolderWithId(*folderId);
    if (!found) {
      logError(kClassName, "Instapaper: {}", found.error().message());
      continue;
    }
    auto folder = *found;
    if (!folder) folder = account().addFolderWithTitle(std::nullopt, 0, *folderId);
    folder->setFolder_id(*folderId);
    folder->setTitle(safeStringValue(object, "title"));
    folder->setPos(positionOf(object));
    saveContext();
    logDebugMessage(kClassName, "Instapaper: process folders: {}", folder->title().value_or(*folderId));
  }
  deleteObsoleteFolders(live);
  return true;
}

void InstapaperSyncOperation::deleteObsoleteFolders(const std::vector<std::string>& liveFolderIds) {
  logDebugMessage(kClassName, "Instapaper: deleting obsolete folders...");
  auto folders = account().sortedFolders();
  if (!folders) {
    logError(kClassName, "Instapaper: {}", folders.error().message());
    return;
  }
  for (const auto& folder : *folders) {
    const std::string folderId = folder->folder_id().value_or("");
    if (std::find(liveFolderIds.begin(), liveFolderIds.end(), folderId) != liveFolderIds.end()) continue;
    moc().deleteObject(*folder);
  }
  saveContext();
}

void InstapaperSyncOperation::syncInstapaperBookmarksInFolder(Folder& folder) {
  const std::string folderId = folder.folder_id().value_or("");
  logDebugMessage(kClassName, "Instapaper: fetcing bookmarks in folder: {}", folder.title().value_or(folderId));
  std::string have;
  if (!isForced()) {
    auto held = folder.bookmarks();
    if (!held) {
      logError(kClassName, "Instapaper: {}", held.error().message());
      return;
    }
    have = Bookmark::instapaperHaveString(*held);
  }
  auto answer = client()->getBookmarksInFolder(folderId, QKInstapaperClient::kBookmarkListLimit, have);
  if (!answer) {
    // This folder stays as it was; the others go on.
    if (!isCancelled()) {
      logError(kClassName, "Instapaper: {}", answer.error().message());
      setError(answer.error());
    }
    return;
  }
  const bool isStarredFolder = folderId == kStarredFolderId;
  std::vector<std::shared_ptr<Bookmark>> downloads;
  for (const auto& object : *answer) {
    if (checkIsCancelled()) break;
    if (!object.is_object()) continue;
    const std::string type = safeStringValue(object, "type").value_or("");
    if (type == "meta") {
      if (auto deleteIds = safeStringValue(object, "delete_ids"); deleteIds && !deleteIds->empty()) {
        applyDeletedIds(folder, *deleteIds);
      } else if (auto list = object.find("delete_ids"); list != object.end() && list->is_array()) {
        std::vector<std::string> ids;
        for (const auto& id : *list) {
          if (auto text = safeStringValue(id)) ids.push_back(*text);
        }
        applyDeletedIds(folder, join(ids, ","));
      }
      continue;
    }
    if (type != "bookmark") continue;
    if (!Bookmark::isValidForInstapaperMapping(object)) {
      logDebugMessage(kClassName, "Instapaper: validation failed for bookmark: {}", object.dump());
      continue;
    }
    const std::string id = safeStringValue(object, "bookmark_id").value_or("");
    auto found = account().findBookmarkWithId(id);
    if (!found) {
      logError(kClassName, "Instapaper: {}", found.error().message());
      continue;
    }
    auto bookmark = *found;
    if (!bookmark) {
      bookmark = moc().insertNewObject<Bookmark>();
      bookmark->setAccount(account());
    }
    // A bookmark lies in one folder at Instapaper; "starred" is a view across them.
    if (!isStarredFolder) bookmark->removeFromAllFolder();
    bookmark->addToFolder(folder);
    // The mapping's star flag puts the bookmark back in "starred" (or takes it out).
    bookmark->mapFromInstapaperDictionary(object);
    auto html = bookmark->html();
    // A forced run fetches every article again, but each once, though a bookmark lies in two folders.
    const bool fetchedThisRun = downloaded_.contains(id);
    if ((isForced() && !fetchedThisRun) || !html || !*html || (*html)->empty()) {
      downloads.push_back(bookmark);
      downloaded_.insert(id);
    }
    logDebugMessage(kClassName, "Instapaper: adding bookmark: {}", bookmark->title().value_or(id));
  }
  saveContext();
  downloadArticles(downloads);
  saveContext();
}

void InstapaperSyncOperation::applyDeletedIds(Folder& folder, const std::string& deleteIds) {
  const bool isStarredFolder = folder.folder_id() == kStarredFolderId;
  for (const auto& rawId : split(deleteIds, ",")) {
    const std::string id = trim(rawId);
    if (id.empty()) continue;
    auto found = account().findBookmarkWithId(id);
    if (!found || !*found) continue;
    Bookmark& bookmark = **found;
    if (isStarredFolder) {
      // Gone from "starred" means no longer starred, not deleted.
      bookmark.setIs_favorited(false);
    } else {
      logDebugMessage(kClassName, "Instapaper: deleting bookmark: {}", id);
      deleteBookmark(bookmark, folder);
    }
  }
}

void InstapaperSyncOperation::deleteBookmark(Bookmark& bookmark, Folder& folder) {
  // Left in no folder it goes at the end of the run (deleteObsoleteBookmarks), not now: a bookmark
  // moved to a folder whose pass comes later is found there again with its article.
  bookmark.removeFromFolder(folder);
}

void InstapaperSyncOperation::deleteObsoleteBookmarks() {
  logDebugMessage(kClassName, "Instapaper: deleting obsolete bookmarks...");
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND NOT EXISTS (SELECT 1 FROM Folder_bookmarks WHERE Folder_bookmarks.bookmark = Bookmark.id)";
  request.arguments = {account().objectID().row};
  auto orphans = moc().fetch<Bookmark>(std::move(request));
  if (!orphans) {
    logError(kClassName, "Instapaper: {}", orphans.error().message());
    return;
  }
  for (const auto& bookmark : *orphans) moc().deleteObject(*bookmark);
  account().setLast_sync(environment().clock.now());
  saveContext();
}

}  // namespace lectern
