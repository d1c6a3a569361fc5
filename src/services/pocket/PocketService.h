#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "accounts/ReadLaterService.h"
#include "core/Error.h"

namespace lectern {

class QKPocketClient;
class UserDefaults;

// What a person does with a Pocket account: archive, favourite, tag, delete and save pages. The
// account's secret is the access token of a sign-in through the browser (PocketSignIn). Owned by
// one Account object; used on that account's context thread.
class PocketService final : public ReadLaterService {
 public:
  // The user default that points every Pocket account without an endpoint of its own elsewhere.
  static constexpr std::string_view kApiEndpointDefaultsKey = "pocketApiEndpoint";
  // The web host of the sign-in page, when it is not the API's.
  static constexpr std::string_view kWebEndpointDefaultsKey = "pocketWebEndpoint";
  // The user default holding the consumer key Pocket issues to an application.
  static constexpr std::string_view kConsumerKeyDefaultsKey = "pocketConsumerKey";

  using ReadLaterService::ReadLaterService;

  ServiceType serviceType() const override { return ServiceType::kPocket; }
  std::string_view descriptionName() const override { return "Pocket"; }
  std::string_view serviceIcon() const override { return "pocketTemplate"; }
  bool isTagAccount() const override { return true; }

  // The consumer key from the user defaults, or the error that says how to set it.
  static Result<std::string> consumerKey(const UserDefaults& defaults);

  // The account's client (its access token from the secret store), one request at a time; nullptr
  // without a token or a consumer key.
  std::shared_ptr<QKPocketClient> pocketClient();

  // Checks the account's access token with one small list request: a refused token deletes the
  // account again.
  void authenticate(ServiceCompletion onCompleted) override;

  // Archive, or back to the list: one send per item, in order.
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;
  // The bookmark's tags replace Pocket's; no tags clear them.
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  // Pocket files items by itself (its list, archive, favourites and kinds): nothing to move them into.
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  // Pocket keeps no reading position.
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;
  // The page joins Pocket's list; the item Pocket answers with is kept in the "unread" folder. The
  // folder may be none or "unread" (the list), "starred" (favourited once added) or "archive"
  // (archived once added); another is refused before anything is sent.
  void addBookmark(const PageToSave& page, ServiceCompletion onCompleted) override;

  // Why there is no client: no access token, or no consumer key.
  std::string unavailableReason() const override;

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;

 private:
  ServiceCompletion holdingAccount(ServiceCompletion onCompleted) const;
  void keepAddedItem(const nlohmann::json& item, const PageToSave& page, ServiceCompletion onCompleted);
};

}  // namespace lectern
