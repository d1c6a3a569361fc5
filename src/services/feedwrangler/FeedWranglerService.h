#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "accounts/FeedService.h"

namespace lectern {

class QKFeedWranglerClient;

// What a person does with a Feed Wrangler account: sign in, subscribe, unsubscribe, mark items.
// Its folders are smart streams made on the service's site, so feeds are not moved from here.
// Owned by one Account object; used on that account's context thread.
class FeedWranglerService final : public FeedService {
 public:
  // The user default that points every Feed Wrangler account without an endpoint of its own elsewhere.
  static constexpr std::string_view kApiEndpointDefaultsKey = "feedwranglerApiEndpoint";
  // The user default holding the client key Feed Wrangler issues to an application.
  static constexpr std::string_view kClientKeyDefaultsKey = "feedwranglerClientKey";

  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFeedWrangler; }
  std::string_view descriptionName() const override { return "Feed Wrangler"; }
  std::string_view serviceIcon() const override { return "feedWranglerTemplate"; }

  // The account's client (its access token from the secret store), one request at a time;
  // nullptr when there is no token.
  std::shared_ptr<QKFeedWranglerClient> feedWranglerClient();

  // Signs in with the account's username (an e-mail address), the password the person typed
  // (the account's secret until then) and the client key; the access token then replaces the
  // password as the account's secret. Fails without a client key, naming how to set it.
  void authenticate(ServiceCompletion onCompleted) override;

  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  // Feed Wrangler keeps the items of its feeds: the item is marked read there, so it does not
  // come back unread.
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;

  // The feed goes to the top level: Feed Wrangler has no folders to file it in.
  void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) override;
  void deleteFeed(Feed& feed, ServiceCompletion handler) override;
  // Smart streams are made on the service's site: these do nothing and never call back, and
  // offers() says so first.
  void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) override;
  void addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                         FolderCompletion onCompleted) override;
  void createDefaultFolders(Account& account) override;
  bool offers(SubscriptionChange change) const override {
    return change == SubscriptionChange::kSubscribe || change == SubscriptionChange::kUnsubscribe;
  }
  std::string changeNotOfferedReason(SubscriptionChange change) const override;

  // Why there is no client: the access token is missing from the secret store.
  std::string unavailableReason() const override;

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;

 private:
  void finishSignIn(const QKFeedWranglerClient* client, Result<std::string> token,
                    ServiceCompletion onCompleted);
  void insertSubscribedFeed(const nlohmann::json& feed, FeedCompletion onCompleted);

  // The sign-in's own client until its answer came (main thread only).
  std::shared_ptr<QKFeedWranglerClient> signingIn_;
};

}  // namespace lectern
