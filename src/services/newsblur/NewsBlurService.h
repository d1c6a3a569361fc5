#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "accounts/FeedService.h"

namespace lectern {

class QKNewsBlurClient;

// What a person does with a NewsBlur account: log in, mark stories, subscribe into a folder,
// move and unsubscribe feeds, add and rename folders (NewsBlur names folders, not ids).
// Owned by one Account object; used on that account's context thread.
class NewsBlurService final : public FeedService {
 public:
  // The user default that points every NewsBlur account without an endpoint of its own elsewhere
  // (a self-hosted NewsBlur).
  static constexpr std::string_view kApiEndpointDefaultsKey = "newsblurApiEndpoint";

  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kNewsBlur; }
  std::string_view descriptionName() const override { return "NewsBlur"; }
  std::string_view serviceIcon() const override { return "newsBlurTemplate"; }

  // The account's client (its username and password, which may be empty: NewsBlur has accounts
  // without one), one request at a time; nullptr when no password is stored.
  std::shared_ptr<QKNewsBlurClient> newsBlurClient();

  // Logs in: a refusal is "Failed to login" / "Invalid user name or password".
  void authenticate(ServiceCompletion onCompleted) override;

  // NewsBlur marks a story by its id and its feed's id, both kept with the story.
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  // NewsBlur keeps the stories of its feeds: the story is marked read there, so that it does not
  // come back unread. `feedId` is the one queued with the deletion.
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;

  void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) override;
  // The feed leaves every folder it sits in at NewsBlur, then the library.
  void deleteFeed(Feed& feed, ServiceCompletion handler) override;
  // Creates the target folder at NewsBlur first (one that exists already is no failure).
  void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) override;
  void addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                         FolderCompletion onCompleted) override;

  // NewsBlur names a nested folder by its own name and its parent's, and lists it flat as
  // "Parent - Name". The name and parent ("" for the top level) of the folder titled `title`:
  // split at its last " - " when the part before is the title of another of `titles`.
  struct FolderName {
    std::string name;
    std::string parent;
  };
  static FolderName newsBlurFolderName(const std::string& title, const std::vector<std::string>& titles);
  // The NewsBlur feed id of a story: its feed's, else the part of its hash before ":".
  static std::optional<std::string> storyFeedId(const Bookmark& story);

  std::string unavailableReason() const override;

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;

 private:
  // The NewsBlur name of `folder` (none: the top level, "").
  FolderName folderNameOf(const FeedFolder* folder) const;
  void insertSubscribedFeed(const nlohmann::json& answer, FeedFolder* folder, FeedCompletion onCompleted);
  void finishFolder(std::optional<Error> error, std::shared_ptr<FeedFolder> original, std::string title,
                    FolderCompletion onCompleted);
};

}  // namespace lectern
