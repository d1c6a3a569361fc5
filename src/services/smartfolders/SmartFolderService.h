#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "accounts/ServiceBase.h"

namespace lectern {

// The "smart-folders" account's service: no server, no login, no items of its own; it owns the
// saved searches across accounts. Owned by one Account object; its context's thread.
class SmartFolderService final : public ServiceBase {
 public:
  struct DefaultSmartFolder {
    std::string title;
    std::string predicate;  // predicate-format text
  };
  // "Read Later", "RSS News", "RSS Starred", in sidebar order.
  static const std::vector<DefaultSmartFolder>& defaultSmartFolders();
  // The default smart folders `account` lacks (by title), with folder_id "smart-folder".
  static void addDefaultSmartFolders(Account& account);

  using ServiceBase::ServiceBase;

  ServiceType serviceType() const override { return ServiceType::kSmartFolders; }
  std::string_view descriptionName() const override { return "Smart Folder"; }
  std::string_view serviceIcon() const override { return "smartFoldersTemplate"; }
  bool canLogin() const override { return false; }
  bool isSmartFolderAccount() const override { return true; }

  void createDefaultFolders(Account& account) override { addDefaultSmartFolders(account); }

  // Items shown in smart folders belong to their own accounts, so these calls never concern this
  // service: they fail and change nothing.
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) override;
  void deleteBookmark(Account& account, const std::string& bookmarkId, const std::optional<std::string>& feedId,
                      ServiceCompletion onCompleted) override;
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;

 private:
  void refuse(std::string_view action, ServiceCompletion onCompleted) const;
};

}  // namespace lectern
