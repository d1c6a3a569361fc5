#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "accounts/ReadLaterService.h"

namespace lectern {

class QKInstapaperClient;

// What a person does with an Instapaper account: sign in once with the user name and password
// (xAuth), save pages, star, archive, delete, move and record reading progress. The account's
// secret is the token pair of the sign-in, never the password. Owned by one Account object; used
// on that account's context thread.
class InstapaperService final : public ReadLaterService {
 public:
  // The user default that points every Instapaper account without an endpoint of its own elsewhere.
  static constexpr std::string_view kApiEndpointDefaultsKey = "instapaperApiEndpoint";
  // The consumer pair Instapaper issues to an application.
  static constexpr std::string_view kConsumerKeyDefaultsKey = "instapaperConsumerKey";
  static constexpr std::string_view kConsumerSecretDefaultsKey = "instapaperConsumerSecret";

  using ReadLaterService::ReadLaterService;

  ServiceType serviceType() const override { return ServiceType::kInstapaper; }
  std::string_view descriptionName() const override { return "Instapaper"; }
  std::string_view serviceIcon() const override { return "instapaperTemplate"; }

  // The account's client (its token pair from the secret store), one request at a time; nullptr
  // without a consumer pair or a token pair.
  std::shared_ptr<QKInstapaperClient> instapaperClient();

  // How the token pair is kept as the account's one secret, and read back (nothing for anything
  // else, such as the password the secret holds until the sign-in).
  static std::string tokenPairSecret(const std::string& token, const std::string& secret);
  static std::optional<std::pair<std::string, std::string>> tokenPairFromSecret(std::string_view text);

  // Exchanges the account's user name and the password the person typed (the account's secret
  // until then) for a token pair, which then replaces the password. Fails before sending anything
  // when the consumer pair is not configured, naming how to set it.
  void authenticate(ServiceCompletion onCompleted) override;

  // folderId: an account folder's folder_id; "unread", "archive" and "starred" name the built-in
  // ones (the page is archived or starred after it is added), others Instapaper's own folders.
  void addBookmark(const PageToSave& page, ServiceCompletion onCompleted) override;
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void deleteBookmark(Account& account, const std::string& bookmarkId, const std::optional<std::string>& feedId,
                      ServiceCompletion onCompleted) override;
  // Into one of the person's folders; "unread" and "archive" unarchive and archive instead, as
  // Instapaper moves only into its own folders.
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;
  // Instapaper's API keeps neither tags nor shared items: both fail with kChangeNotOffered (the
  // tags stay in the library), or with kServiceClientUnavailable when there is no client at all.
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) override;

  std::string unavailableReason() const override;

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;

 private:
  // The configured consumer pair; nothing when either half is missing.
  std::optional<std::pair<std::string, std::string>> consumerPair() const;
  void finishSignIn(const QKInstapaperClient* client, Result<std::pair<std::string, std::string>> pair,
                    ServiceCompletion onCompleted);
  // Keeps the bookmark the add call answered with in the library, in `folderId`'s folder.
  std::optional<Error> keepAddedBookmark(const nlohmann::json& answer, const std::optional<std::string>& folderId);

  // The sign-in's own client until its answer came (main thread only).
  std::shared_ptr<QKInstapaperClient> signingIn_;
};

}  // namespace lectern
