#include "smart/library/SmartFolderLibrary.h"

#include "accounts/AccountLifecycle.h"
#include "store/Account.h"
#include "store/ObjectContext.h"
#include "store/ServiceIdentifiers.h"
#include "store/SmartFolder.h"

namespace lectern {
namespace {

Result<std::shared_ptr<Account>> smartAccount(ObjectContext& context) {
  auto account = ensureSmartFoldersAccount(context);
  if (!account) return fail(account.error());
  if (auto saved = context.save(); !saved) return fail(saved.error());
  return *account;
}

}  // namespace

Result<std::vector<std::shared_ptr<SmartFolder>>> librarySmartFolders(ObjectContext& mainContext) {
  auto account = smartAccount(mainContext);
  if (!account) return fail(account.error());
  ObjectContext::FetchRequest request;
  request.where = "account = ?";
  request.arguments = {(*account)->objectID().row};
  request.orderBy = "pos, id";
  return mainContext.fetch<SmartFolder>(std::move(request));
}

Result<std::shared_ptr<SmartFolder>> addSmartFolderToLibrary(ObjectContext& mainContext, const std::string& title,
                                                             const Predicate& predicate) {
  auto folders = librarySmartFolders(mainContext);
  if (!folders) return fail(folders.error());
  auto account = smartAccount(mainContext);
  if (!account) return fail(account.error());
  std::int64_t pos = 0;
  for (const auto& folder : *folders) pos = std::max(pos, folder->pos() + 1);
  auto folder = mainContext.insertNewObject<SmartFolder>();
  folder->setTitle(title);
  folder->setFolder_id(std::string(kSmartFolderId));
  folder->setPos(pos);
  folder->setPredicate(formatPredicate(predicate));
  folder->setShowNotification(false);
  folder->setBadgeIndex(1);
  folder->setAccount(**account);
  if (auto saved = mainContext.save(); !saved) return fail(saved.error());
  return folder;
}

}  // namespace lectern
