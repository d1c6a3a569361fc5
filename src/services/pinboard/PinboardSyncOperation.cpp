#include "services/pinboard/PinboardSyncOperation.h"

#include <fmt/format.h>

#include "core/Log.h"
#include "core/Strings.h"
#include "net/AFHTTPClient.h"
#include "services/pinboard/PinboardService.h"
#include "services/pinboard/QKPinboardClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/OfflineOperation.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kGetBookmarksFailed = "Pinboard: Failed to get bookmarks";

}  // namespace

PinboardSyncOperation::PinboardSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment)
    : SyncOperation(std::move(account), environment) {}

void PinboardSyncOperation::main() {
  nameCurrentThread(className());
  if (!setupManagedObjectContext()) {
    completeOperation();
    return;
  }
  if (!openClient() || !fetchAllPosts()) {
    completeOperation();
    return;
  }
  replayOfflineChanges();
  if (processExistingBookmarks()) {
    deleteObsoleteBookmarks();
    if (addNewBookmarks()) {
      saveContext();
      downloadArticles(added_);
      if (!checkIsCancelled()) {
        account().setLast_sync(environment().clock.now());
        saveContext();
      }
    }
  }
  completeOperation();
}

void PinboardSyncOperation::cancelRequests() {
  if (client_) client_->cancelAllHTTPOperations();
}

bool PinboardSyncOperation::openClient() {
  auto service = std::dynamic_pointer_cast<PinboardService>(this->service());
  client_ = service ? service->pinboardClient() : nullptr;
  if (!client_) {
    setError(service ? service->clientUnavailableError("sync")
                     : Error::make(kLecternErrorDomain, 0, "Pinboard: Failed to sync"));
    return false;
  }
  pinboardService_ = std::move(service);
  // Nothing is read or changed when Pinboard cannot be reached.
  if (auto reachable = client_->isNetworkEndpointReachable(); !reachable) {
    setError(reachable.error());
    return false;
  }
  return true;
}

bool PinboardSyncOperation::fetchAllPosts() {
  auto& pacer = client_->pacer();
  const auto wait = pacer.waitBefore(PinboardPacer::Call::kAllPosts);
  if (wait > kLongestWaitForAllPosts) {
    // Holding the sync for minutes would look like a hang; nothing is lost by coming back.
    // Say which of the two limits holds the call back: the one that makes the longer wait.
    const auto intervals = pacer.intervals();
    const bool fullListLimit = intervals.allPosts >= intervals.call;
    logInfo(className(), "Pinboard: the full list is due in {}", describeWait(wait));
    setError(Error::make(QKPinboardClient::kErrorDomain, QKPinboardClient::kResponseErrorCode, kGetBookmarksFailed,
                         fullListLimit ? fmt::format("Pinboard allows the full list once every {}: try again in {}.",
                                                     describeWait(intervals.allPosts), describeWait(wait))
                                       : fmt::format("Pinboard allows one call every {}: try again in {}.",
                                                     describeWait(intervals.call), describeWait(wait))));
    return false;
  }
  // "meta" tells a changed post from an unchanged one: asked for, as it is documented as optional.
  auto posts = client_->getAllBookmarksWithParams({{"meta", "yes"}}, [this] { return isCancelled(); });
  if (!posts) {
    if (!isCancelled()) {
      logError(className(), "Pinboard: {}", posts.error().message());
      setError(posts.error());
    }
    return false;
  }
  indexPosts(*posts);
  return !checkIsCancelled();
}

void PinboardSyncOperation::indexPosts(const json& posts) {
  std::map<std::string, std::string> urls;
  for (const auto& post : posts) {
    auto hash = post.is_object() ? safeStringValue(post, "hash") : std::nullopt;
    if (!hash || hash->empty()) continue;
    if (auto href = safeStringValue(post, "href")) urls.emplace(*hash, *href);
    remote_.emplace(std::move(*hash), post);
  }
  pinboardService_->setKnownPostUrls(std::move(urls));
}

void PinboardSyncOperation::replayOfflineChanges() {
  std::set<std::string> deleted;
  if (auto queued = account().offlineOperationsWithType(OfflineOperationType::kDelete)) {
    for (const auto& operation : *queued) deleted.insert(operation->bookmark_id().value_or(""));
  }
  processOfflineOperations();
  // Deleted here: sent now or still waiting, the post must not come back as a new bookmark.
  for (const auto& hash : deleted) remote_.erase(hash);
}

bool PinboardSyncOperation::processExistingBookmarks() {
  logInfo(className(), "Pinboard: processing existing bookmarks...");
  auto bookmarks = account().bookmarks();
  if (!bookmarks) {
    setError(bookmarks.error());
    return false;
  }
  for (const auto& bookmark : *bookmarks) {
    if (checkIsCancelled()) return false;
    const auto post = remote_.find(bookmark->bookmark_id().value_or(""));
    if (post != remote_.end() && Bookmark::isValidForPinboardMapping(post->second)) {
      bookmark->mapFromPinboardDictionary(post->second);
      remote_.erase(post);
    } else {
      obsolete_.push_back(bookmark);
    }
  }
  return true;
}

void PinboardSyncOperation::deleteObsoleteBookmarks() {
  logInfo(className(), "Pinboard: deleting obsolete bookmarks...");
  for (const auto& bookmark : obsolete_) moc().deleteObject(*bookmark);
  obsolete_.clear();
}

bool PinboardSyncOperation::addNewBookmarks() {
  for (const auto& [hash, post] : remote_) {
    if (checkIsCancelled()) return false;
    if (!Bookmark::isValidForPinboardMapping(post)) {
      logInfo(className(), "Pinboard: skipping a post that cannot be read: {}", hash);
      continue;
    }
    auto bookmark = moc().insertNewObject<Bookmark>();
    bookmark->setAccount(account());
    bookmark->mapFromPinboardDictionary(post);
    logInfo(className(), "Pinboard: add bookmark: {}", bookmark->url().value_or(""));
    added_.push_back(std::move(bookmark));
  }
  remote_.clear();
  return true;
}

}  // namespace lectern
