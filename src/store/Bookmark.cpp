#include "store/Bookmark.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "core/Dates.h"
#include "core/HtmlStrings.h"
#include "core/Log.h"
#include "core/Regex.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/Content.h"
#include "store/Feed.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"
#include "store/StoreQueries.h"
#include "store/Token.h"
#include "store/UrlParts.h"

namespace lectern {

using namespace BookmarkColumn;

namespace {
constexpr std::string_view kLogCategory = "Bookmark";

const Regex& imagePattern() {
  static const Regex pattern = Regex::compileOrThrow("<img[^>]+src=\"([^\">]+)\"");
  return pattern;
}
}  // namespace

Result<std::shared_ptr<Bookmark>> Bookmark::bookmarkWithLocalId(ObjectContext& context, std::int64_t row) {
  return context.existingObject<Bookmark>(ObjectId{Entity::kBookmark, row});
}

std::optional<std::string> Bookmark::bookmark_id() const { return textValue(kBookmarkId); }
void Bookmark::setBookmark_id(std::optional<std::string> bookmarkId) {
  setText(kBookmarkId, std::move(bookmarkId));
}
std::optional<std::string> Bookmark::bookmark_hash() const { return textValue(kBookmarkHash); }
void Bookmark::setBookmark_hash(std::optional<std::string> hash) { setText(kBookmarkHash, std::move(hash)); }
std::optional<std::string> Bookmark::title() const { return textValue(kTitle); }
void Bookmark::setTitle(std::optional<std::string> title) { setText(kTitle, std::move(title)); }
std::optional<std::string> Bookmark::url() const { return textValue(kUrl); }
void Bookmark::setUrl(std::optional<std::string> url) { setText(kUrl, std::move(url)); }
std::optional<std::string> Bookmark::tags() const { return textValue(kTags); }
void Bookmark::setTags(std::optional<std::string> tags) { setText(kTags, std::move(tags)); }
std::optional<Date> Bookmark::date_added() const { return dateValue(kDateAdded); }
void Bookmark::setDate_added(std::optional<Date> date) { setDate(kDateAdded, date); }
std::optional<Date> Bookmark::date_updated() const { return dateValue(kDateUpdated); }
void Bookmark::setDate_updated(std::optional<Date> date) { setDate(kDateUpdated, date); }
bool Bookmark::is_archived() const { return boolValue(kIsArchived); }
bool Bookmark::is_favorited() const { return boolValue(kIsFavorited); }
bool Bookmark::is_shared() const { return boolValue(kIsShared); }
bool Bookmark::is_opened() const { return boolValue(kIsOpened); }
void Bookmark::setIs_opened(bool opened) { setBool(kIsOpened, opened); }
double Bookmark::progress() const { return realValue(kProgress); }
void Bookmark::setProgress(double progress) { setReal(kProgress, progress); }

std::optional<ObjectId> Bookmark::accountID() const {
  const auto row = referenceValue(kAccount);
  return row ? std::optional<ObjectId>(ObjectId{Entity::kAccount, *row}) : std::nullopt;
}

Result<std::shared_ptr<Account>> Bookmark::account() const {
  const auto id = accountID();
  if (!id) return std::shared_ptr<Account>();
  return managedObjectContext().existingObject<Account>(*id);
}

void Bookmark::setAccount(const Account& account) { setReference(kAccount, account.objectID().row); }

// Flags and the built-in folders.

Result<std::shared_ptr<Folder>> Bookmark::builtInFolder(Account& account, std::string_view folderId) const {
  return account.findFolderWithId(folderId);
}

void Bookmark::archiveFoldersFollow(Account& account, bool archived) {
  const ServiceType type = account.serviceType();
  auto unread = builtInFolder(account, kUnreadFolderId);
  auto archive = unread ? builtInFolder(account, kArchiveFolderId) : unread;
  if (!unread || !archive) {
    logError(kLogCategory, "Failed to set archived flag: {}", (!unread ? unread : archive).error().message());
    return;
  }
  if (!archived) {
    if (*archive) removeFromFolder(**archive);
    if (*unread) {
      bool keepOut = false;
      if (type == ServiceType::kInstapaper) {
        auto inSome = isInAnyFolder();
        if (!inSome) {
          logError(kLogCategory, "Failed to set archived flag: {}", inSome.error().message());
          return;
        }
        keepOut = *inSome;
      }
      if (!keepOut) addToFolder(**unread);
    }
    return;
  }
  if ((type == ServiceType::kPocket || type == ServiceType::kPinboard) && *unread) removeFromFolder(**unread);
  if (type == ServiceType::kInstapaper && *archive) removeFromAllFolderExcept(**archive);
  if (*archive) addToFolder(**archive);
}

void Bookmark::setIs_archived(bool archived) {
  const bool changed = archived != is_archived();
  auto owner = account();
  if (!owner) {
    logError(kLogCategory, "Failed to set archived flag: {}", owner.error().message());
  } else if (*owner && !isFeedService((*owner)->serviceType())) {
    archiveFoldersFollow(**owner, archived);
  }
  setBool(kIsArchived, archived);
  if (changed && entity() == Entity::kFeedStory) {
    // The feed's badge follows without a recount, when the feed is loaded here at all.
    if (const auto feedRow = referenceValue(kFeed)) {
      if (auto feed = managedObjectContext().registeredObject(ObjectId{Entity::kFeed, *feedRow})) {
        std::static_pointer_cast<Folder>(feed)->adjustBookmarkCount(archived ? -1 : 1);
      }
    }
  }
}

void Bookmark::setIs_favorited(bool favorited) {
  setBool(kIsFavorited, favorited);
  auto owner = account();
  if (!owner || !*owner || isFeedService((*owner)->serviceType())) return;
  auto starred = (*owner)->favoriteFolder();
  if (!starred) {
    logError(kLogCategory, "Failed to set favorited flag: {}", starred.error().message());
    return;
  }
  if (!*starred) return;
  if (favorited) {
    addToFolder(**starred);
  } else {
    removeFromFolder(**starred);
  }
}

void Bookmark::setIs_shared(bool shared) {
  auto owner = account();
  if (owner && *owner) {
    auto privateFolder = (*owner)->privateFolder();
    auto sharedFolder = (*owner)->sharedFolder();
    if (privateFolder && sharedFolder && *privateFolder && *sharedFolder) {
      if (shared) {
        removeFromFolder(**privateFolder);
        addToFolder(**sharedFolder);
      } else {
        removeFromFolder(**sharedFolder);
        addToFolder(**privateFolder);
      }
    }
  }
  setBool(kIsShared, shared);
}

// Content.

Result<std::shared_ptr<Content>> Bookmark::content() const {
  if (content_ && !content_->isDeleted()) return content_;
  if (isInserted() || contentLooked_) return content_;  // a new bookmark has no content row yet
  ObjectContext::FetchRequest request;
  request.where = "bookmark = ?";
  request.arguments = {objectID().row};
  auto found = managedObjectContext().fetchFirst<Content>(std::move(request));
  if (!found) return fail(found.error());
  content_ = *found;
  contentLooked_ = true;
  return content_;
}

Result<std::optional<std::string>> Bookmark::html() const {
  auto found = content();
  if (!found) return fail(found.error());
  return *found ? (*found)->html() : std::nullopt;
}

Result<std::optional<std::string>> Bookmark::preview_text() const {
  auto found = content();
  if (!found) return fail(found.error());
  return *found ? (*found)->preview_text() : std::nullopt;
}

std::shared_ptr<Content> Bookmark::contentForWriting(std::string_view what) {
  auto found = content();
  if (!found) {
    logError(kLogCategory, "Failed to store the article's {}: {}", what, found.error().message());
    return nullptr;
  }
  if (*found) return *found;
  auto target = managedObjectContext().insertNewObject<Content>();
  target->setBookmarkRow(objectID().row);
  content_ = target;
  contentLooked_ = true;
  // Other contexts holding this bookmark learned it had no content: the save tells them to look again.
  managedObjectContext().noteRelatedChange(objectID());
  return target;
}

void Bookmark::setHtml(std::optional<std::string> html, std::optional<std::string> preview) {
  images_.reset();
  auto target = contentForWriting("HTML");
  if (!target) return;
  bool withPreview = false;
  if (auto owner = account(); owner && *owner) {
    const ServiceType type = (*owner)->serviceType();
    withPreview = isFeedService(type) || isReadLaterService(type);
  }
  if (withPreview && html && !preview) preview = previewTextFromHtml(*html);
  if (!html) preview.reset();
  target->setHtml(std::move(html));
  if (withPreview) target->setPreview_text(std::move(preview));
}

void Bookmark::setPreview_text(std::optional<std::string> previewText) {
  auto target = contentForWriting("preview");
  if (!target) return;
  target->setPreview_text(std::move(previewText));
}

std::string Bookmark::previewTextFromHtml(std::string_view html) {
  return htmlToPlainText(decodeHtmlEntities(html));
}

// Folders.

Result<std::vector<std::shared_ptr<Folder>>> Bookmark::folders() const {
  ObjectContext::FetchRequest request;
  request.entity = Entity::kFolder;
  request.where = "id IN (SELECT folder FROM Folder_bookmarks WHERE bookmark = ?)";
  request.arguments = {objectID().row};
  request.orderBy = "pos, id";
  return managedObjectContext().fetch<Folder>(std::move(request));
}

Result<bool> Bookmark::isInFolder(const Folder& folder) const { return folder.containsBookmark(*this); }

Result<bool> Bookmark::isInAnyFolder() const {
  const SqlValue row[] = {objectID().row};
  auto found =
      managedObjectContext().select("SELECT 1 FROM Folder_bookmarks WHERE bookmark = ? LIMIT 1", row);
  if (!found) return fail(found.error());
  return !found->empty();
}

void Bookmark::addToFolder(Folder& folder) { folder.addBookmark(*this); }

void Bookmark::removeFromFolder(Folder& folder) { folder.removeBookmark(*this); }

void Bookmark::removeFromAllFolder() {
  const SqlValue row[] = {objectID().row};
  managedObjectContext().writeRelationship("DELETE FROM Folder_bookmarks WHERE bookmark = ?", row, objectID(),
                                           objectID());
}

void Bookmark::removeFromAllFolderExcept(const Folder& folder) {
  const SqlValue rows[] = {objectID().row, folder.objectID().row};
  managedObjectContext().writeRelationship("DELETE FROM Folder_bookmarks WHERE bookmark = ? AND folder != ?",
                                           rows, objectID(), folder.objectID());
}

// Tags.

std::vector<std::string> Bookmark::tagsArray() const {
  std::vector<std::string> names;
  for (auto& part : split(tags().value_or(""), ",")) {
    std::string name = trim(part);
    if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end())
      names.push_back(std::move(name));
  }
  return names;
}

void Bookmark::setTagsArray(const std::vector<std::string>& tags) { setTags(join(tags, ",")); }

void Bookmark::addTag(std::string_view tag) {
  const std::string current = tags().value_or("");
  setTags(current.empty() ? std::string(tag) : current + "," + std::string(tag));
}

Result<std::vector<std::shared_ptr<Token>>> Bookmark::tokens() const {
  ObjectContext::FetchRequest request;
  request.where = "id IN (SELECT token FROM Token_bookmarks WHERE bookmark = ?)";
  request.arguments = {objectID().row};
  request.orderBy = "title, id";
  return managedObjectContext().fetch<Token>(std::move(request));
}

Result<void> Bookmark::generateTags() {
  if (!changedSinceSave(kTags)) return {};
  auto owner = account();
  if (!owner) return fail(owner.error());
  if (!*owner) return {};
  auto& context = managedObjectContext();
  const std::vector<std::string> names = tagsArray();

  ObjectContext::FetchRequest request;
  request.where = "account = ? AND title IN (SELECT value FROM json_each(?))";
  request.arguments = {(*owner)->objectID().row, jsonList(names)};
  auto existing = context.fetch<Token>(std::move(request));
  if (!existing) return fail(existing.error());
  std::vector<std::shared_ptr<Token>> wanted = *existing;
  for (const auto& name : names) {
    const bool known =
        std::any_of(wanted.begin(), wanted.end(), [&](auto& token) { return token->title() == name; });
    if (known) continue;
    auto token = context.insertNewObject<Token>();
    token->setTitle(name);
    token->setAccount(**owner);
    wanted.push_back(std::move(token));
  }
  auto current = tokens();
  if (!current) return fail(current.error());
  std::set<std::int64_t> wantedRows;
  for (auto& token : wanted) wantedRows.insert(token->objectID().row);
  for (auto& token : *current) {
    if (!wantedRows.contains(token->objectID().row)) token->removeBookmark(*this);
  }
  for (auto& token : wanted) token->addBookmark(*this);
  return {};
}

void Bookmark::willSave() {
  if (isDeleted()) return;
  if (!changedSinceSave(kTags)) return;
  auto owner = account();
  if (!owner || !*owner || !isTagAccount((*owner)->serviceType())) return;
  if (auto generated = generateTags(); !generated) {
    logError(kLogCategory, "Failed to update the tags of {}: {}", objectID().description(),
             generated.error().message());
  }
}

// Images.

std::vector<BookmarkImage> Bookmark::parseImages() const {
  std::vector<BookmarkImage> images;
  auto text = html();
  if (!text || !*text) return images;
  for (const auto& match : imagePattern().allMatches(**text)) {
    BookmarkImage image(match.group(1));
    if (std::find(images.begin(), images.end(), image) == images.end()) images.push_back(std::move(image));
  }
  return images;
}

const std::vector<BookmarkImage>& Bookmark::images() {
  if (!images_) images_ = parseImages();
  return *images_;
}

std::filesystem::path Bookmark::imageCacheFolder() const {
  return Account::imageCacheFolderOfAccount(managedObjectContext().environment().paths().imageCacheFolder(),
                                            referenceValue(kAccount).value_or(0));
}

std::string Bookmark::replaceImagesWithCachedRepresentation(std::string_view html) const {
  const auto folder = imageCacheFolder();
  return imagePattern().replaceAll(html, [&](const RegexMatch& match) {
    const auto& source = match.groups[1];
    const auto cached = BookmarkImage(source.text).cachedImagePath(folder);
    std::error_code error;
    if (!std::filesystem::exists(cached, error)) return match.text();
    std::string rewritten = match.text();
    rewritten.replace(source.begin - match.begin(), source.end - source.begin, "file://" + cached.string());
    return rewritten;
  });
}

void Bookmark::removeCachedImages() {
  const auto folder = imageCacheFolder();
  std::error_code error;
  if (folder.empty() || !std::filesystem::is_directory(folder, error)) return;  // nothing was ever cached
  for (const auto& image : parseImages()) std::filesystem::remove(image.cachedImagePath(folder), error);
}

void Bookmark::prepareForDeletion() { removeCachedImages(); }

void Bookmark::didRefresh() {
  images_.reset();
  contentLooked_ = false;
  if (content_ && content_->isDeleted()) content_.reset();
}

// Presentation.

std::optional<std::string> Bookmark::urlDomain() const {
  const auto address = url();
  return address ? lectern::urlDomain(*address) : std::nullopt;
}

Date Bookmark::sectionDate() const {
  const auto added = date_added();
  return lectern::sectionDate(added ? *added : managedObjectContext().environment().clock().now());
}

std::string Bookmark::sectionIdentifier() const {
  return fmt::format("{:.0f}", secondsSince1970(sectionDate()));
}

std::optional<std::string> Bookmark::offlineFeedId() const {
  auto owner = account();
  if (!owner || !*owner || (*owner)->serviceType() != ServiceType::kPinboard) return std::nullopt;
  return url();
}

}  // namespace lectern
