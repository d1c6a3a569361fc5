#include "accounts/ServiceBase.h"

#include <fmt/format.h>

#include "accounts/AccountErrors.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "net/AFHTTPClient.h"
#include "store/Account.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {

namespace {
constexpr std::string_view kLogCategory = "ServiceBase";
}

ServiceBase::ServiceBase(Account& account, const ServiceDependencies& dependencies)
    : account_(std::static_pointer_cast<Account>(account.shared_from_this())), dependencies_(dependencies) {}

ServiceBase::~ServiceBase() = default;

ObjectContext& ServiceBase::managedObjectContext() const {
  auto owner = account();
  if (!owner) throw InternalInconsistency("The service's account is gone");
  return owner->managedObjectContext();
}

std::shared_ptr<AFHTTPClient> ServiceBase::apiClient() {
  {
    std::lock_guard lock(clientMutex_);
    if (apiClientMade_) return apiClient_;
  }
  // Built outside the lock: making a client may ask the account (its endpoint, its secret).
  auto made = makeApiClient();
  std::lock_guard lock(clientMutex_);
  if (!apiClientMade_) {
    apiClient_ = std::move(made);
    apiClientMade_ = true;
  }
  return apiClient_;
}

void ServiceBase::resetApiClient() {
  std::shared_ptr<AFHTTPClient> old;
  {
    std::lock_guard lock(clientMutex_);
    old = std::move(apiClient_);
    apiClient_.reset();
    apiClientMade_ = false;
  }
  if (old) old->operationQueue().cancelAllOperations();
}

void ServiceBase::createDefaultFolders(Account& account) {
  std::int64_t pos = 0;
  for (const auto& folder : builtInFolders(serviceType())) {
    auto found = account.findFolderWithId(folder.folderId);
    if (!found) {
      logError(kLogCategory, "{}: failed to look for the folder {}: {}", descriptionName(), folder.folderId,
               found.error().message());
      return;
    }
    if (!*found) {
      if (isFeedService()) {
        account.addFeedFolderWithTitle(std::string(folder.title), pos, std::string(folder.folderId));
      } else {
        account.addFolderWithTitle(std::string(folder.title), pos, std::string(folder.folderId));
      }
    }
    ++pos;
  }
}

void ServiceBase::cancelAllRequests() {
  // Only a client already made has requests; asking must not build one.
  std::shared_ptr<AFHTTPClient> client;
  {
    std::lock_guard lock(clientMutex_);
    client = apiClient_;
  }
  if (client) client->operationQueue().cancelAllOperations();
}

void ServiceBase::authenticate(ServiceCompletion onCompleted) { complete(std::move(onCompleted), std::nullopt); }

std::string ServiceBase::serviceBaseURL(std::string_view defaultsKey, std::string_view builtIn) const {
  auto owner = account();
  if (owner) {
    if (auto endpoint = owner->api_endpoint(); endpoint && !trim(*endpoint).empty()) return trim(*endpoint);
    const std::string configured = owner->managedObjectContext().environment().defaults().stringForKey(defaultsKey);
    if (!trim(configured).empty()) return trim(configured);
  }
  return std::string(builtIn);
}

std::optional<std::string> ServiceBase::storedSecret() const {
  auto owner = account();
  if (!owner) return std::nullopt;
  auto secret = owner->tokenSecret();
  if (!secret || !*secret || (*secret)->empty()) {
    logError(kLogCategory, "{}: no secret stored for {}: {}", descriptionName(), owner->uniqueIdentifier(),
             secret ? "none" : secret.error().message());
    return std::nullopt;
  }
  return **secret;
}

Error ServiceBase::clientUnavailableError(std::string_view action) const {
  return Error::make(kAccountErrorDomain, kServiceClientUnavailable,
                     fmt::format("{}: Failed to {}", descriptionName(), action), unavailableReason());
}

std::string ServiceBase::unavailableReason() const {
  return fmt::format("This version of Lectern cannot talk to {} yet: nothing was sent.", descriptionName());
}

void ServiceBase::complete(ServiceCompletion onCompleted, std::optional<Error> error) const {
  if (!onCompleted) return;
  dependencies_.mainQueue.post(
      [onCompleted = std::move(onCompleted), error = std::move(error)] { onCompleted(error); });
}

void ServiceBase::completeWithoutClient(std::string_view action, ServiceCompletion onCompleted) const {
  complete(std::move(onCompleted), clientUnavailableError(action));
}

void ServiceBase::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>&, Account&, bool archived,
                                ServiceCompletion onCompleted) {
  completeWithoutClient(archived ? "mark items read" : "mark items unread", std::move(onCompleted));
}

void ServiceBase::markBookmarkFavorited(Bookmark&, bool favorited, ServiceCompletion onCompleted) {
  completeWithoutClient(favorited ? "star item" : "unstar item", std::move(onCompleted));
}

void ServiceBase::markBookmarkShared(Bookmark&, bool shared, ServiceCompletion onCompleted) {
  completeWithoutClient(shared ? "share item" : "unshare item", std::move(onCompleted));
}

void ServiceBase::deleteBookmark(Account&, const std::string&, const std::optional<std::string>&,
                                 ServiceCompletion onCompleted) {
  completeWithoutClient("delete item", std::move(onCompleted));
}

void ServiceBase::moveBookmark(Bookmark&, Folder&, ServiceCompletion onCompleted) {
  completeWithoutClient("move item", std::move(onCompleted));
}

void ServiceBase::updateTags(Bookmark&, ServiceCompletion onCompleted) {
  completeWithoutClient("update tags", std::move(onCompleted));
}

void ServiceBase::updateReadProgress(Bookmark&, double, ServiceCompletion onCompleted) {
  completeWithoutClient("update reading progress", std::move(onCompleted));
}

void ServiceBase::addBookmark(const PageToSave&, ServiceCompletion onCompleted) {
  completeWithoutClient("add bookmark", std::move(onCompleted));
}

}  // namespace lectern
