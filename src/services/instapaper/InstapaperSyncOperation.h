#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "sync/SyncOperation.h"

namespace lectern {

class Folder;
class QKInstapaperClient;

// One sync of an Instapaper account: the offline queue replayed, the folder list made true here
// (the three built-in folders always stay), then each folder in position order brought up to date
// with a `have` list of what the library holds, articles fetched for new bookmarks, and bookmarks
// left in no folder deleted. A forced run (the first) sends empty `have` lists and fetches every
// article again. Made on the main thread by the sync manager; runs on one thread of the sync queue.
class InstapaperSyncOperation final : public SyncOperation {
 public:
  static constexpr std::string_view kClassName = "InstapaperSyncOperation";

  InstapaperSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);
  ~InstapaperSyncOperation() override;

  std::string_view className() const override { return kClassName; }

 protected:
  void main() override;
  void cancelRequests() override;

 private:
  // False (the error kept) when the folder list could not be read: the run ends there.
  bool syncFolders();
  void deleteObsoleteFolders(const std::vector<std::string>& liveFolderIds);
  void syncInstapaperBookmarksInFolder(Folder& folder);
  // The "delete_ids" of a folder's answer: unstarred in "starred", deleted from the folder elsewhere.
  void applyDeletedIds(Folder& folder, const std::string& deleteIds);
  // Takes the bookmark out of `folder`; one left in no folder is deleted at the end of the run.
  void deleteBookmark(Bookmark& bookmark, Folder& folder);
  void deleteObsoleteBookmarks();

  std::shared_ptr<QKInstapaperClient> client() const;

  // The bookmark ids whose article this run fetched (the operation's thread only).
  std::set<std::string> downloaded_;
  mutable std::mutex clientMutex_;  // guards client_, which cancel reads from any thread
  std::shared_ptr<QKInstapaperClient> client_;
};

}  // namespace lectern
