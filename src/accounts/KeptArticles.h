#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "core/Error.h"

namespace lectern {

class Bookmark;
class Folder;
class ObjectContext;

// Starred articles that would go with their feed or account, kept as copies in the built-in
// reader's "Kept" folder. Main context, main thread.

inline constexpr std::string_view kKeptFolderTitle = "Kept";
inline constexpr std::string_view kKeptFolderId = "kept";

// Whether the starred articles of a feed or an account that goes are kept or go with it.
enum class StarredArticles { kKeep, kDelete };

// What keeping did: for the person's report and to undo it when the change that needed it fails.
struct KeptArticles {
  std::int64_t going = 0;  // articles that go (the kept ones not counted)
  std::int64_t kept = 0;
  std::shared_ptr<Folder> folder;  // the "Kept" folder; null when nothing was kept
  std::vector<std::shared_ptr<Bookmark>> copies;
  bool madeFolder = false;
};

// Copies every starred article of `articles` into the built-in reader's "Kept" folder (a plain
// folder of that account, folder_id "kept"), with its content, enclosures and read and starred
// state; the built-in reader's account is made (and saved) when missing, the folder too (unsaved).
// The copies are not saved: the deletion that follows saves them with it, so a failing save
// keeps neither. Articles of the built-in reader's own account are kept the same way.
Result<KeptArticles> keepStarredArticles(ObjectContext& mainContext,
                                         const std::vector<std::shared_ptr<Bookmark>>& articles,
                                         StarredArticles starred);

// Takes back what keepStarredArticles added and was not saved: for a change that failed before
// its save (a server that refused).
void discardKeptArticles(ObjectContext& mainContext, const KeptArticles& kept);

}  // namespace lectern
