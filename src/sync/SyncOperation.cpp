#include "sync/SyncOperation.h"

#include <fmt/format.h>
#include <pthread.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "content/BookmarkArticleDownload.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "sync/SyncAppControllerDelegate.h"

namespace lectern {
namespace {

std::string titleOf(const Account& account) { return account.title().value_or(account.uniqueIdentifier()); }

}  // namespace

SyncOperation::SyncOperation(std::shared_ptr<Account> originalAccount, const SyncEnvironment& environment)
    : environment_(environment),
      originalAccount_(std::move(originalAccount)),
      accountID_(originalAccount_->objectID()),
      accountTitle_(titleOf(*originalAccount_)),
      serviceType_(originalAccount_->serviceType()),
      initialSync_(originalAccount_->isInitialSync() || !originalAccount_->last_sync()) {}

SyncOperation::~SyncOperation() {
  // The main context's objects live and die on the main thread; the last reference to an
  // operation is often dropped by the sync queue's thread.
  if (originalAccount_ && !environment_.mainQueue.isMainThread()) {
    environment_.mainQueue.post([account = std::move(originalAccount_)] {});
  }
}

void SyncOperation::cancel() {
  Operation::cancel();
  cancelServiceRequests();
  cancelRequests();
}

std::shared_ptr<AccountService> SyncOperation::service() const {
  std::lock_guard lock(serviceMutex_);
  return service_;
}

void SyncOperation::cancelServiceRequests() {
  if (auto held = service()) held->cancelAllRequests();
}

void SyncOperation::mainDidReturn() {
  if (completed_) return;
  Error error = Error::make(kLecternErrorDomain, kSyncOperationIncompleteErrorCode,
                            fmt::format("Internal inconsistency: {} returned without completing", className()),
                            "The sync ended early; it starts again at the next sync.");
  logError(className(), "{}", error.message());
  if (!this->error()) setError(std::move(error));
  completeOperation();
}

std::optional<Error> SyncOperation::error() const {
  std::lock_guard lock(errorMutex_);
  return error_;
}

void SyncOperation::setError(Error error) {
  std::lock_guard lock(errorMutex_);
  error_ = std::move(error);
}

std::optional<std::string> SyncOperation::bookmarkIdOf(const Bookmark& bookmark) {
  return bookmark.bookmark_id();
}

void SyncOperation::nameCurrentThread(std::string_view name) {
  // Linux keeps 15 characters of a thread's name.
  pthread_setname_np(pthread_self(), std::string(name.substr(0, 15)).c_str());
}

bool SyncOperation::setupManagedObjectContext() {
  auto context = environment_.dataManager.newBackgroundContext();
  if (!context) {
    logError(className(), "Failed to transfer the Account object between MOCs: {}",
             context.error().message());
    return false;
  }
  auto found = (*context)->existingObject<Account>(accountID_);
  if (!found || !*found) {
    logError(className(), "Failed to transfer the Account object between MOCs: {}",
             found ? std::string("the account is gone") : found.error().message());
    return false;
  }
  moc_ = std::move(*context);
  // A sync stores stories in bulk: they are indexed for search after the pass, not in its saves.
  moc_->setDefersSearchIndex(true);
  account_ = std::move(*found);
  account_->setIsInitialSync(initialSync_);
  {
    std::lock_guard lock(serviceMutex_);
    service_ = account_->serviceObject();
  }
  // A cancel that came before the service was known must still stop its requests.
  if (isCancelled()) cancelServiceRequests();
  return true;
}

bool SyncOperation::checkIsCancelled() {
  if (!isCancelled()) return false;
  logDebugMessage(className(), "Sync operation cancelled: {}", className());
  cancelServiceRequests();
  cancelRequests();
  return true;
}

void SyncOperation::saveOwnContext() {
  if (!moc_ || !moc_->hasChanges()) return;
  if (auto saved = moc_->save(); !saved) {
    logError(className(), "Failed to save account ({}) in background thread!", accountTitle_);
    logError(className(), "Reason: {}", saved.error().message());
    // What could not be saved is lost for this sync (the next one fetches it again), so the
    // account's sync failed: a full disk must not end in "up to date".
    if (!error()) setError(saved.error());
  }
}

void SyncOperation::saveParent(ParentSave which) {
  // The background save was posted to the main queue before this task, so the main context has
  // merged it by the time the delegate hears of it.
  environment_.mainQueue.runSync([&] {
    // After the main loop shut down this runs on the sync thread: the main context is not ours.
    if (!environment_.mainQueue.isMainThread()) return;
    auto main = environment_.dataManager.managedObjectContext();
    if (main && (*main)->hasChanges()) {
      if (auto saved = (*main)->save(); !saved) {
        logError(className(), "Failed to merge changes into the main context:\n{}", saved.error().message());
      }
    }
    if (appControllerDelegate_ == nullptr || originalAccount_->isDeleted()) return;
    if (which == ParentSave::kUpdate) {
      appControllerDelegate_->syncOperationDidUpdateAccount(*originalAccount_);
    } else {
      appControllerDelegate_->syncOperationDidCompletedForAccount(*originalAccount_);
    }
  });
}

void SyncOperation::saveContext() {
  if (!moc_ || !moc_->hasChanges()) return;
  saveOwnContext();
  saveParent(ParentSave::kUpdate);
}

void SyncOperation::completeOperation() {
  if (completed_) return;
  completed_ = true;
  logDebugMessage(className(), "Sync operation completed: {}", className());
  if (moc_) {
    saveOwnContext();
    // Told even when the last step saved already: the front end re-reads the account once more.
    saveParent(ParentSave::kCompletion);
  }
  account_.reset();
  moc_.reset();
  nameCurrentThread("");
  finish();
  // The service object belonged to the context's account: it goes with it, on this thread.
  std::lock_guard lock(serviceMutex_);
  service_.reset();
}

void SyncOperation::processOfflineOperations() {
  if (!account_) return;
  if (auto replayed = account_->processOfflineOperations([this] { return isCancelled(); }); !replayed) {
    logError(className(), "Failed to replay the offline changes of {}: {}", accountTitle_,
             replayed.error().message());
  }
}

void SyncOperation::downloadArticles(const std::vector<std::shared_ptr<Bookmark>>& bookmarks) {
  for (const auto& bookmark : bookmarks) {
    if (checkIsCancelled()) return;
    downloadArticle(*bookmark);
    // Never hold the library's write lock across the next download.
    saveOwnContext();
  }
}

void SyncOperation::downloadArticle(Bookmark& bookmark) {
  if (auto downloaded = lectern::downloadArticle(bookmark, environment_.session); !downloaded) {
    logError(className(), "{}", downloaded.error().message());
  }
}

Result<SyncOperation::ExistingBookmarks> SyncOperation::findExistingBookmarksForIds(const nlohmann::json& ids,
                                                                                  bool isUnread, bool isFavorited,
                                                                                  std::string_view idKey) {
  const bool byHash = idKey == "bookmark_hash";
  if (!byHash && idKey != "bookmark_id") {
    throw InternalInconsistency(fmt::format("Items are matched on bookmark_id or bookmark_hash, not {}", idKey));
  }
  ExistingBookmarks result;
  std::vector<std::string> wanted;
  if (ids.is_array()) {
    for (const auto& item : ids) {
      auto id = item.is_object() ? safeStringValue(item, idKey) : safeStringValue(item);
      if (id) wanted.push_back(std::move(*id));
    }
  }
  if (wanted.empty() || !account_) {
    result.missing = std::move(wanted);
    return result;
  }
  auto stored = byHash ? account_->findBookmarksWithHashes(wanted) : account_->findBookmarksWithIds(wanted);
  if (!stored) return fail(stored.error());
  std::set<std::string> known;
  for (auto& bookmark : *stored) {
    if (isUnread && bookmark->is_archived()) bookmark->setIs_archived(false);
    if (isFavorited && !bookmark->is_favorited()) bookmark->setIs_favorited(true);
    known.insert((byHash ? bookmark->bookmark_hash() : bookmark->bookmark_id()).value_or(""));
    result.existing.push_back(std::move(bookmark));
  }
  std::set<std::string> seen;
  for (auto& id : wanted) {
    if (known.contains(id) || !seen.insert(id).second) continue;
    result.missing.push_back(std::move(id));
  }
  return result;
}

std::vector<std::shared_ptr<Bookmark>> SyncOperation::findAndDeleteDuplicatesInContainer(
    const std::vector<std::shared_ptr<Bookmark>>& container, const UniqueId& uniqueId) {
  std::vector<std::shared_ptr<Bookmark>> kept;
  std::set<std::string> seen;
  for (const auto& item : container) {
    const auto value = uniqueId(*item);
    if (!value || seen.insert(*value).second) {
      kept.push_back(item);
      continue;
    }
    logDebugMessage(className(), "Remove duplicate of {}: {}", *value, item->objectID().description());
    item->managedObjectContext().deleteObject(*item);
  }
  return kept;
}

}  // namespace lectern
