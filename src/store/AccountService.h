#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"

namespace lectern {

class Account;
class Bookmark;
class Folder;
class MainQueue;

// How a change ends: nothing, or the service's error. Always called on the main queue.
using ServiceCompletion = std::function<void(std::optional<Error>)>;

// What an account's service does with a user's change to its items (implemented per service by the
// accounts layer). Called on the objects' context thread; reads them before returning, completes on the main
// queue.
class AccountService {
 public:
  virtual ~AccountService() = default;

  virtual void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account,
                             bool archived, ServiceCompletion onCompleted) = 0;
  virtual void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) = 0;
  virtual void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) = 0;
  // The local bookmark is already gone; `feedId` is the feed's folder_id for feed stories.
  virtual void deleteBookmark(Account& account, const std::string& bookmarkId,
                              const std::optional<std::string>& feedId, ServiceCompletion onCompleted) = 0;
  virtual void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) = 0;
  // The bookmark's `tags` already hold the new names.
  virtual void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) = 0;
  virtual void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) = 0;

  // Folders the service adds beyond the built-in ones when an account is set up (smart folders).
  virtual void createDefaultFolders(Account& account);
  // clearAllRequest: cancels every request the service has under way.
  virtual void cancelAllRequests();
};

// Builds the service object of an account, or nullptr for a kind it does not know. The accounts
// layer registers the real factory with the data manager; until then the built-in reader's is used.
using AccountServiceFactory = std::function<std::shared_ptr<AccountService>(Account& account)>;

// The built-in reader has no server: every change is local and succeeds at once.
// Shared by the contexts of the data manager; completions are posted to the main queue.
class LocalAccountService final : public AccountService {
 public:
  explicit LocalAccountService(MainQueue& mainQueue) : mainQueue_(mainQueue) {}

  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) override;
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;

 private:
  void succeed(ServiceCompletion onCompleted);

  MainQueue& mainQueue_;
};

// The factory used until the accounts layer registers its own: the built-in reader's service for
// "localrss" accounts, nothing for the others.
AccountServiceFactory defaultAccountServiceFactory(MainQueue& mainQueue);

}  // namespace lectern
