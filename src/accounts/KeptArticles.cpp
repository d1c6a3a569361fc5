#include "accounts/KeptArticles.h"

#include "accounts/BuiltInReader.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/FeedEnclosure.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

// The built-in reader's "Kept" folder, made when missing; the second member says it was made here.
Result<std::pair<std::shared_ptr<Folder>, bool>> keptFolder(Account& reader) {
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'Folder' AND folder_id = ?";
  request.arguments = {reader.objectID().row, std::string(kKeptFolderId)};
  request.orderBy = "id";
  auto found = reader.managedObjectContext().fetchFirst<Folder>(std::move(request));
  if (!found) return fail(found.error());
  if (*found) return std::pair{*found, false};
  auto count = reader.managedObjectContext().count(Entity::kFolder, "account = ?", {reader.objectID().row});
  if (!count) return fail(count.error());
  return std::pair{reader.addFolderWithTitle(std::string(kKeptFolderTitle), *count, std::string(kKeptFolderId)),
                   true};
}

// A copy of `article` in `reader`'s account: everything a person reads or searches for.
Result<std::shared_ptr<Bookmark>> copyArticle(ObjectContext& context, const Bookmark& article, Account& reader) {
  auto html = article.html();
  if (!html) return fail(html.error());
  auto preview = article.preview_text();
  if (!preview) return fail(preview.error());
  auto copy = std::static_pointer_cast<Bookmark>(context.insertNewObject(article.entity()));
  // The account first: the flags below follow it into its folders.
  copy->setAccount(reader);
  copy->setBookmark_id(article.bookmark_id());
  copy->setBookmark_hash(article.bookmark_hash());
  copy->setTitle(article.title());
  copy->setUrl(article.url());
  copy->setTags(article.tags());
  copy->setDate_added(article.date_added());
  copy->setDate_updated(article.date_updated());
  copy->setIs_archived(article.is_archived());
  copy->setIs_favorited(true);
  copy->setIs_opened(article.is_opened());
  copy->setProgress(article.progress());
  if (*html) copy->setHtml(*html);
  if (*preview) copy->setPreview_text(*preview);
  if (const auto* story = dynamic_cast<const FeedStory*>(&article)) {
    auto* storyCopy = static_cast<FeedStory*>(copy.get());
    storyCopy->setAuthor(story->author());
    storyCopy->setPermalink(story->permalink());
    auto enclosures = story->enclosures();
    if (!enclosures) return fail(enclosures.error());
    for (const auto& enclosure : *enclosures) {
      storyCopy->addEnclosure(enclosure->url(), enclosure->type(), enclosure->length());
    }
  }
  return copy;
}

}  // namespace

Result<KeptArticles> keepStarredArticles(ObjectContext& mainContext,
                                         const std::vector<std::shared_ptr<Bookmark>>& articles,
                                         StarredArticles starred) {
  KeptArticles result;
  std::vector<std::shared_ptr<Bookmark>> keeping;
  for (const auto& article : articles) {
    if (starred == StarredArticles::kKeep && article->is_favorited() && !article->isDeleted()) {
      keeping.push_back(article);
    } else {
      ++result.going;
    }
  }
  if (keeping.empty()) return result;
  auto reader = ensureLocalRSSAccount(mainContext);
  if (!reader) return fail(reader.error());
  auto folder = keptFolder(**reader);
  if (!folder) return fail(folder.error());
  result.folder = folder->first;
  result.madeFolder = folder->second;
  for (const auto& article : keeping) {
    auto copy = copyArticle(mainContext, *article, **reader);
    if (!copy) {
      discardKeptArticles(mainContext, result);
      return fail(copy.error());
    }
    (*copy)->addToFolder(*result.folder);
    result.copies.push_back(*copy);
    ++result.kept;
  }
  return result;
}

void discardKeptArticles(ObjectContext& mainContext, const KeptArticles& kept) {
  for (const auto& copy : kept.copies) {
    if (copy->isInserted()) mainContext.deleteObject(*copy);
  }
  if (kept.madeFolder && kept.folder && kept.folder->isInserted()) mainContext.deleteObject(*kept.folder);
}

}  // namespace lectern
