#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/Folder.h"

namespace lectern {

class Feed;

// A folder of feeds, and the base of Feed. Services without nesting store nested folders flat,
// their titles joined by " - ". Lives in one context.
class FeedFolder : public Folder {
 public:
  static constexpr Entity kEntity = Entity::kFeedFolder;
  static constexpr std::string_view kPathSeparator = " - ";
  FeedFolder(Key key, ObjectContext& context, ObjectId id) : Folder(key, context, id) {}

  bool is_expanded() const;
  void setIs_expanded(bool expanded);

  Result<std::vector<std::shared_ptr<Feed>>> feeds() const;
  void addFeed(const Feed& feed);
  void removeFeed(const Feed& feed);

  // The title's components ("News - Tech" gives {"News", "Tech"}).
  std::vector<std::string> titlePath() const;
  // The part after the last " - " (the whole title when there is none).
  std::string titleOfLastComponent() const;
  // The part before the last " - ", or nothing for a top-level folder.
  std::optional<std::string> titleOfParentComponent() const;
  // The title of a child folder named `title`: "<this title> - <title>".
  std::string appendTitleToPath(std::string_view title) const;

  // Deletes the folder (its feeds are detached, not deleted) and saves. A failure is logged as
  // "Cannot delete folder. Error description: ..." and returned.
  static Result<void> deleteFolder(FeedFolder& folder);

  Result<std::vector<std::shared_ptr<Bookmark>>> readerItems(const BookmarkQuery& query = {}) const override;
  Result<std::int64_t> readerUnreadCount() const override;

  std::string folderTypeIdentifier() const override { return "FeedFolder"; }
};

}  // namespace lectern
