#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/ServiceDependencies.h"
#include "core/Error.h"
#include "store/AccountService.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {

class AFHTTPClient;
class Account;
class ObjectContext;

// A page a person keeps in a read-later or bookmark account (`lectern save`).
struct PageToSave {
  std::string url;
  std::optional<std::string> title;
  std::optional<std::string> description;
  std::string tags;                      // comma-separated, as the library keeps them; "" for none
  std::optional<std::string> folderId;   // the account folder's folder_id; none: the service's default
};

// The root of the service class tree: what every service answers (name, icon, capabilities,
// client, built-in folders) and the item calls of the store's AccountService interface.
// Owned by one Account object and used on that account's context thread.
class ServiceBase : public AccountService, public std::enable_shared_from_this<ServiceBase> {
 public:
  // initWithAccount: the account is held weakly (it owns the service).
  ServiceBase(Account& account, const ServiceDependencies& dependencies);
  ~ServiceBase() override;
  ServiceBase(const ServiceBase&) = delete;
  ServiceBase& operator=(const ServiceBase&) = delete;

  // nullptr once the account object is gone.
  std::shared_ptr<Account> account() const { return account_.lock(); }
  // The account's context. Throws InternalInconsistency once the account is gone.
  ObjectContext& managedObjectContext() const;

  // The service contract, in its order.
  virtual ServiceType serviceType() const = 0;
  virtual std::string_view descriptionName() const = 0;
  // The name of the service's icon image.
  virtual std::string_view serviceIcon() const = 0;
  virtual bool isFeedService() const { return false; }
  virtual bool isReadLaterService() const { return false; }
  virtual bool isBookmarkService() const { return false; }
  virtual bool canLogin() const { return true; }
  virtual bool isTagAccount() const { return false; }
  virtual bool isSmartFolderAccount() const { return false; }
  // The service's network client, made on first use; nullptr for services without one (the
  // built-in reader, smart folders) and for those whose client this version does not have.
  std::shared_ptr<AFHTTPClient> apiClient();
  // Drops the client so that the next use builds one with fresh credentials.
  void resetApiClient();
  // The service's built-in folders (title, folder_id) that the account lacks; never a second copy.
  void createDefaultFolders(Account& account) override;

  // clearAllRequest: cancels what the client has queued or running. Any thread (a sync operation
  // cancels its service's requests from the main thread while its own thread is blocked in one).
  void cancelAllRequests() override;

  // Item calls. Here they fail with kServiceClientUnavailable ("<service>: Failed to ..."), the
  // honest answer of a service whose client this version lacks; services with a client override them.
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) override;
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;
  // Saves a page to the service and, once it agreed, keeps the item it describes in the library
  // (saved, not yet with its article text). Online only: there is no offline add. Here it fails
  // with kServiceClientUnavailable. Completes on the main queue.
  virtual void addBookmark(const PageToSave& page, ServiceCompletion onCompleted);

  // Checks the account's credentials with its server (when an account is added). Here: nothing
  // to check, success. Completes on the main queue.
  virtual void authenticate(ServiceCompletion onCompleted);

  // "<service>: Failed to <action>", with unavailableReason() as recovery suggestion.
  Error clientUnavailableError(std::string_view action) const;
  // Why calls that need a client fail: here, that this version has none for the service.
  virtual std::string unavailableReason() const;

 protected:
  // Builds the client for the account (its endpoint, token, secret). None by default.
  virtual std::shared_ptr<AFHTTPClient> makeApiClient() { return nullptr; }

  const ServiceDependencies& dependencies() const { return dependencies_; }
  // Where the client connects: the account's api_endpoint, else the user default `defaultsKey`
  // ("feedbinApiEndpoint"), else `builtIn`. Self-hosted servers and tests set the first two.
  std::string serviceBaseURL(std::string_view defaultsKey, std::string_view builtIn) const;
  // The account's secret (password or token) from the secret store; nothing (logged) when there is
  // none or it cannot be read, and then no client can be made.
  std::optional<std::string> storedSecret() const;
  // Runs `onCompleted` with `error` on the main queue (never inline, even on the main thread).
  void complete(ServiceCompletion onCompleted, std::optional<Error> error) const;
  void completeWithoutClient(std::string_view action, ServiceCompletion onCompleted) const;
  // The service's client as its own class; without one, `onCompleted` gets the error of
  // clientUnavailableError(action) and the answer is nullptr.
  template <class Client>
  std::shared_ptr<Client> clientOrFail(std::string_view action, const ServiceCompletion& onCompleted) {
    auto client = std::static_pointer_cast<Client>(apiClient());
    if (!client) completeWithoutClient(action, onCompleted);
    return client;
  }

 private:
  std::weak_ptr<Account> account_;
  ServiceDependencies dependencies_;
  mutable std::mutex clientMutex_;  // guards apiClient_ and apiClientMade_
  std::shared_ptr<AFHTTPClient> apiClient_;
  bool apiClientMade_ = false;
};

}  // namespace lectern
