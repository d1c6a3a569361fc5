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

  // Items shown in smart folders belong to their own accounts: item calls never concern this
  // service, and fail changing nothing.
  std::string unavailableReason() const override;
};

}  // namespace lectern
