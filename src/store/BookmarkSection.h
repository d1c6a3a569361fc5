#pragma once

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "core/Clock.h"

namespace lectern {

class Bookmark;
class Folder;

// A group of bookmarks in the article list: a day, or a folder or feed. A plain value made on the
// main thread.
class BookmarkSection {
 public:
  using RepresentedObject = std::variant<std::monostate, Date, std::shared_ptr<Folder>>;

  // Refused: a section needs a title or a represented object. Throws InternalInconsistency
  // "Must use initWithTitle:sectionIdentifier: instead.".
  BookmarkSection();
  BookmarkSection(std::string title, std::string sectionIdentifier);
  // A day's section is titled "Today", "Yesterday" or the date written out; `day` is a section date.
  BookmarkSection(Date day, const Clock& clock);
  // A folder's section is titled with its title, entities decoded and markup removed.
  explicit BookmarkSection(std::shared_ptr<Folder> folder);

  const std::string& title() const { return title_; }
  const std::string& sectionIdentifier() const { return sectionIdentifier_; }
  const RepresentedObject& representedObject() const { return representedObject_; }
  const std::vector<std::shared_ptr<Bookmark>>& contents() const { return contents_; }
  void addBookmark(std::shared_ptr<Bookmark> bookmark) { contents_.push_back(std::move(bookmark)); }

 private:
  std::string title_;
  std::string sectionIdentifier_;
  RepresentedObject representedObject_;
  std::vector<std::shared_ptr<Bookmark>> contents_;
};

}  // namespace lectern
