#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "store/AccountService.h"
#include "store/BookmarkImage.h"
#include "store/BookmarkQuery.h"
#include "store/ManagedObject.h"

namespace lectern {

class Account;
class Content;
class Folder;
class Token;

// One saved article or feed item of an account, and the base of FeedStory. Its large text lives
// in a Content row. Flag setters keep the built-in folders in step. Lives in one context.
class Bookmark : public ManagedObject {
 public:
  static constexpr Entity kEntity = Entity::kBookmark;
  Bookmark(Key, ObjectContext& context, ObjectId id) : ManagedObject(context, id) {}

  // The bookmark (or story) stored under `row` (its objectID().row), or nullptr.
  static Result<std::shared_ptr<Bookmark>> bookmarkWithLocalId(ObjectContext& context, std::int64_t row);

  std::optional<std::string> bookmark_id() const;
  void setBookmark_id(std::optional<std::string> bookmarkId);
  std::optional<std::string> bookmark_hash() const;
  void setBookmark_hash(std::optional<std::string> hash);
  std::optional<std::string> title() const;
  void setTitle(std::optional<std::string> title);
  std::optional<std::string> url() const;
  void setUrl(std::optional<std::string> url);
  std::optional<std::string> tags() const;
  void setTags(std::optional<std::string> tags);
  std::optional<Date> date_added() const;
  void setDate_added(std::optional<Date> date);
  std::optional<Date> date_updated() const;
  void setDate_updated(std::optional<Date> date);
  bool is_archived() const;
  bool is_favorited() const;
  bool is_shared() const;
  bool is_opened() const;
  void setIs_opened(bool opened);
  double progress() const;
  void setProgress(double progress);

  // Read (feed services) or archived (read-later services). Except on feed services, the item
  // leaves "unread" for "archive" or comes back (Instapaper: only when it is in no other folder;
  // archiving there leaves every folder but "archive"). A story also moves its feed's badge count.
  void setIs_archived(bool archived);
  // Except on feed services, joins or leaves the account's "starred" folder when it has one.
  void setIs_favorited(bool favorited);
  // With both a "private" and a "shared" folder, moves between them.
  void setIs_shared(bool shared);

  std::optional<ObjectId> accountID() const;
  Result<std::shared_ptr<Account>> account() const;
  void setAccount(const Account& account);

  // The Content row (created by setHtml when missing); nullptr when the bookmark has none.
  Result<std::shared_ptr<Content>> content() const;

  // The feed id an offline operation records: the feed's folder_id for stories, else none; for
  // a Pinboard bookmark its url, as Pinboard deletes by address and the item is gone by then.
  virtual std::optional<std::string> offlineFeedId() const;

  Result<std::optional<std::string>> html() const;
  // Stores the HTML in Content and, for feed and read-later accounts, its preview text. A caller
  // that made the preview already (previewTextFromHtml of the same HTML, on another thread) hands
  // it in as `preview`.
  void setHtml(std::optional<std::string> html, std::optional<std::string> preview = std::nullopt);
  Result<std::optional<std::string>> preview_text() const;
  void setPreview_text(std::optional<std::string> previewText);
  // HTML entities decoded, then the HTML turned into plain text.
  static std::string previewTextFromHtml(std::string_view html);

  Result<std::vector<std::shared_ptr<Folder>>> folders() const;
  Result<bool> isInFolder(const Folder& folder) const;
  Result<bool> isInAnyFolder() const;
  void addToFolder(Folder& folder);
  void removeFromFolder(Folder& folder);
  void removeFromAllFolder();
  void removeFromAllFolderExcept(const Folder& folder);

  // `tags` holds names joined by ",".
  std::vector<std::string> tagsArray() const;
  void setTagsArray(const std::vector<std::string>& tags);
  void addTag(std::string_view tag);
  Result<std::vector<std::shared_ptr<Token>>> tokens() const;
  // Makes the tokens follow `tags` (only when `tags` changed since the last save) and refreshes
  // the account's unread tokens. Runs in willSave for tag accounts.
  Result<void> generateTags();

  // Instapaper: a bookmark object of a list answer needs a "bookmark_id". The mapping reads ids,
  // times and flags as numbers or text, and sets is_archived from the account's "archive" folder,
  // so it runs after the bookmark was placed in its folders.
  static bool isValidForInstapaperMapping(const nlohmann::json& item);
  void mapFromInstapaperDictionary(const nlohmann::json& item);
  // The `have` entry Instapaper compares with its own copy: the id, then ":hash" when there is one,
  // then ":progress:seconds" when progress is known (not -1).
  std::string instapaperHaveEntry() const;
  // The entries of `bookmarks` joined by ",".
  static std::string instapaperHaveString(const std::vector<std::shared_ptr<Bookmark>>& bookmarks);
  // Pinboard posts: a post is mapped only with its "hash" and "href".
  static bool isValidForPinboardMapping(const nlohmann::json& post);
  // Nothing changes when the post's "meta" is the bookmark's bookmark_hash (unchanged since it was
  // last mapped). Otherwise every field is the post's, and the flags put the bookmark in its
  // built-in folders: "unread" or "archive", "private" or "shared".
  void mapFromPinboardDictionary(const nlohmann::json& post);
  // Puts the bookmark in the built-in folders its flags say, out of the opposite ones.
  void placeInPinboardFolders();

  // The images of the HTML (the src of every img tag), parsed once.
  const std::vector<BookmarkImage>& images();
  std::vector<BookmarkImage> parseImages() const;
  // Image tags whose picture is cached point at the cached file instead.
  std::string replaceImagesWithCachedRepresentation(std::string_view html) const;
  void removeCachedImages();

  // Pocket's items (a "list" entry of its get answer): an item id is all it needs.
  static bool isValidForPocketMapping(const nlohmann::json& item);
  // Title, address, dates, tags, flags, and the account's article, video and image folders.
  void mapFromPocketDictionary(const nlohmann::json& item, Account& account);

  // "scheme://host" of the address.
  std::optional<std::string> urlDomain() const;
  // date_added cut to its local day, or today when there is none.
  Date sectionDate() const;
  std::string sectionIdentifier() const;

  // The single entry points for a user's change. Offline, read/star/delete changes are queued for
  // the next sync and the context saved; online, the flag is set, the context saved and the
  // account's service called. The completion always runs on the main queue. Move, share and
  // progress have nothing to queue: offline they fail and change nothing (tags are saved locally
  // and the completion gets the offline error).
  struct Favorited {
    bool value;
  };
  struct Shared {
    bool value;
  };
  static void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account,
                            bool archived, ServiceCompletion onCompleted);
  static void markBookmark(Bookmark& bookmark, Favorited favorited, ServiceCompletion onCompleted);
  static void markBookmark(Bookmark& bookmark, Shared shared, ServiceCompletion onCompleted);
  // Offline the bookmark stays until the queued delete is replayed (replay needs it).
  static void deleteBookmarkWithId(std::string_view bookmarkId, Account& account, ServiceCompletion handler);
  static void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted);
  // The bookmark's `tags` hold the new names already.
  static void updateTagsOfBookmark(Bookmark& bookmark, ServiceCompletion handler);
  static void updateBookmark(Bookmark& bookmark, double readProgress, ServiceCompletion onComplete);

 protected:
  void willSave() override;
  void prepareForDeletion() override;
  void didRefresh() override;


 private:
  Result<std::shared_ptr<Folder>> builtInFolder(Account& account, std::string_view folderId) const;
  void archiveFoldersFollow(Account& account, bool archived);
  // The account's folder in the image cache.
  std::filesystem::path imageCacheFolder() const;
  // The content row, made when missing; nullptr (logged) when it can't be read.
  std::shared_ptr<Content> contentForWriting(std::string_view what);

  mutable std::shared_ptr<Content> content_;
  mutable bool contentLooked_ = false;
  std::optional<std::vector<BookmarkImage>> images_;
};

}  // namespace lectern
