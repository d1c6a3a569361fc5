#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "accounts/BookmarkService.h"
#include "services/pinboard/PinboardPacer.h"

namespace lectern {

class QKPinboardClient;
struct PinboardPostFields;

// What a person does with a Pinboard account: sign in, save a page, archive, share, tag, delete.
// Pinboard changes a post only by sending it again whole, so every change but a delete re-adds
// the post. Owned by one Account object; used on that account's context thread.
class PinboardService final : public BookmarkService {
 public:
  // The user default that points every Pinboard account without an endpoint of its own elsewhere.
  static constexpr std::string_view kApiEndpointDefaultsKey = "pinboardApiEndpoint";
  // Whether a page saved without a folder is public at Pinboard (no by default).
  static constexpr std::string_view kSharedByDefaultKey = "pinboardSharedByDefault";
  // Seconds between two calls, and between two full lists, when not Pinboard's own 3 and 300.
  static constexpr std::string_view kCallIntervalKey = "pinboardCallInterval";
  static constexpr std::string_view kAllPostsIntervalKey = "pinboardAllPostsInterval";

  using BookmarkService::BookmarkService;

  ServiceType serviceType() const override { return ServiceType::kPinboard; }
  std::string_view descriptionName() const override { return "Pinboard"; }
  std::string_view serviceIcon() const override { return "pinboardTemplate"; }
  bool isTagAccount() const override { return true; }

  // The account's client (its API token from the secret store), one request at a time; nullptr
  // when there is no token.
  std::shared_ptr<QKPinboardClient> pinboardClient();
  // The intervals the account's calls keep (the user defaults, else Pinboard's own).
  PinboardPacer::Intervals pacing() const;

  // Trades the user name and the password the person typed (the account's secret until then) for
  // the API token, which then replaces the password as the account's secret.
  void authenticate(ServiceCompletion onCompleted) override;

  // posts/add, then posts/get of the url, and the post it answers kept as a bookmark. The folder
  // says how: "archive" read (toread=no), "private" not shared, "shared" public; otherwise unread
  // and shared as kSharedByDefaultKey says.
  void addBookmark(const PageToSave& page, ServiceCompletion onCompleted) override;
  // The post as it is now, as a bookmark of the account (found by hash, else made when valid).
  Result<std::shared_ptr<Bookmark>> createBookmarkFromJSONObject(const nlohmann::json& post);

  // Archived is toread=no: each post is sent again, one after the other.
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  // Pinboard has no favourites: the star stays in Lectern (the sync never clears it).
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) override;
  // By url: `feedId` carries it (see Bookmark::offlineFeedId), else the last full list names it.
  // A post Pinboard no longer has counts as deleted.
  void deleteBookmark(Account& account, const std::string& bookmarkId, const std::optional<std::string>& feedId,
                      ServiceCompletion onCompleted) override;
  // Into a built-in folder only: "unread"/"archive" set toread, "private"/"shared" set shared.
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  // The post is sent again with replace=yes and the tags space-separated.
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  // Pinboard keeps no reading progress: it stays in Lectern.
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;

  // The urls of the posts of the last full list by hash: a queued delete of a bookmark stored
  // before its url travelled with the change finds it there. Set by the sync before its replay.
  void setKnownPostUrls(std::map<std::string, std::string> urlsByHash);

  // The address Pinboard knows the bookmark by: the library keeps it percent-decoded, so it is
  // encoded again when that gives the post's hash (the MD5 of its address).
  static std::string pinboardUrlOf(const std::string& url, const std::string& hash);
  // What posts/add sends for the bookmark as it stands, over the existing post.
  static PinboardPostFields postFieldsOf(const Bookmark& bookmark);

  std::string unavailableReason() const override;

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;

 private:
  std::shared_ptr<PinboardPacer> makePacer() const;
  void finishSignIn(const QKPinboardClient* client, Result<std::string> token, ServiceCompletion onCompleted);
  // Sends each post again, in order; the first failure ends them.
  void sendPosts(std::shared_ptr<QKPinboardClient> client, std::vector<PinboardPostFields> posts,
                 ServiceCompletion onCompleted);
  void keepAddedPost(const std::string& url, Result<nlohmann::json> answer, ServiceCompletion onCompleted);

  // The sign-in's own client until its answer came (main thread only).
  std::shared_ptr<QKPinboardClient> signingIn_;
  mutable std::mutex knownMutex_;  // guards knownPostUrls_
  std::map<std::string, std::string> knownPostUrls_;
};

}  // namespace lectern
