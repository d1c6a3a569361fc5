#include "store/Token.h"

#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"

namespace lectern {

using namespace TokenColumn;

std::optional<std::string> Token::title() const { return textValue(kTitle); }
void Token::setTitle(std::optional<std::string> title) { setText(kTitle, std::move(title)); }

std::optional<ObjectId> Token::accountID() const {
  const auto row = referenceValue(kAccount);
  return row ? std::optional<ObjectId>(ObjectId{Entity::kAccount, *row}) : std::nullopt;
}

void Token::setAccount(const Account& account) { setReference(kAccount, account.objectID().row); }

Result<std::vector<std::shared_ptr<Bookmark>>> Token::bookmarks() const {
  ObjectContext::FetchRequest request;
  request.where = "id IN (SELECT bookmark FROM Token_bookmarks WHERE token = ?)";
  request.arguments = {objectID().row};
  request.orderBy = "date_added DESC, id DESC";
  return managedObjectContext().fetch<Bookmark>(std::move(request));
}

void Token::addBookmark(const Bookmark& bookmark) {
  const SqlValue rows[] = {objectID().row, bookmark.objectID().row};
  managedObjectContext().writeRelationship(
      "INSERT OR IGNORE INTO Token_bookmarks (token, bookmark) VALUES (?, ?)", rows, objectID(),
      bookmark.objectID());
}

void Token::removeBookmark(const Bookmark& bookmark) {
  const SqlValue rows[] = {objectID().row, bookmark.objectID().row};
  managedObjectContext().writeRelationship("DELETE FROM Token_bookmarks WHERE token = ? AND bookmark = ?",
                                           rows, objectID(), bookmark.objectID());
}

Result<std::int64_t> Token::bookmarkCount() const {
  return managedObjectContext().count(
      Entity::kBookmark, "id IN (SELECT bookmark FROM Token_bookmarks WHERE token = ?)", {objectID().row});
}

}  // namespace lectern
