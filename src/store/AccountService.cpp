#include "store/AccountService.h"

#include "core/MainQueue.h"
#include "store/Account.h"

namespace lectern {

void AccountService::createDefaultFolders(Account&) {}

void AccountService::cancelAllRequests() {}

void LocalAccountService::succeed(ServiceCompletion onCompleted) {
  if (!onCompleted) return;
  mainQueue_.post([onCompleted = std::move(onCompleted)] { onCompleted(std::nullopt); });
}

void LocalAccountService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>&, Account&, bool,
                                        ServiceCompletion onCompleted) {
  succeed(std::move(onCompleted));
}

void LocalAccountService::markBookmarkFavorited(Bookmark&, bool, ServiceCompletion onCompleted) {
  succeed(std::move(onCompleted));
}

void LocalAccountService::markBookmarkShared(Bookmark&, bool, ServiceCompletion onCompleted) {
  succeed(std::move(onCompleted));
}

void LocalAccountService::deleteBookmark(Account&, const std::string&, const std::optional<std::string>&,
                                         ServiceCompletion onCompleted) {
  succeed(std::move(onCompleted));
}

void LocalAccountService::moveBookmark(Bookmark&, Folder&, ServiceCompletion onCompleted) {
  succeed(std::move(onCompleted));
}

void LocalAccountService::updateTags(Bookmark&, ServiceCompletion onCompleted) {
  succeed(std::move(onCompleted));
}

void LocalAccountService::updateReadProgress(Bookmark&, double, ServiceCompletion onCompleted) {
  succeed(std::move(onCompleted));
}

AccountServiceFactory defaultAccountServiceFactory(MainQueue& mainQueue) {
  auto local = std::make_shared<LocalAccountService>(mainQueue);
  return [local](Account& account) -> std::shared_ptr<AccountService> {
    if (account.serviceType() == ServiceType::kLocalRSS) return local;
    return nullptr;
  };
}

}  // namespace lectern
