#include "store/FeedStory.h"

#include "core/Dates.h"
#include "feeds/RSSFeed.h"
#include "store/Feed.h"
#include "store/FeedEnclosure.h"
#include "store/ObjectContext.h"

namespace lectern {

using namespace BookmarkColumn;

std::optional<std::string> FeedStory::author() const { return textValue(kAuthor); }
void FeedStory::setAuthor(std::optional<std::string> author) { setText(kAuthor, std::move(author)); }
std::optional<std::string> FeedStory::permalink() const { return textValue(kPermalink); }
void FeedStory::setPermalink(std::optional<std::string> permalink) {
  setText(kPermalink, std::move(permalink));
}

std::optional<ObjectId> FeedStory::feedID() const {
  const auto row = referenceValue(kFeed);
  return row ? std::optional<ObjectId>(ObjectId{Entity::kFeed, *row}) : std::nullopt;
}

Result<std::shared_ptr<Feed>> FeedStory::feed() const {
  const auto id = feedID();
  if (!id) return std::shared_ptr<Feed>();
  return managedObjectContext().existingObject<Feed>(*id);
}

void FeedStory::setFeed(const Feed& feed) { setReference(kFeed, feed.objectID().row); }

Result<std::vector<std::shared_ptr<FeedEnclosure>>> FeedStory::enclosures() const {
  ObjectContext::FetchRequest request;
  request.where = "feedstory = ?";
  request.arguments = {objectID().row};
  request.orderBy = "id";
  return managedObjectContext().fetch<FeedEnclosure>(std::move(request));
}

std::shared_ptr<FeedEnclosure> FeedStory::addEnclosure(std::optional<std::string> url,
                                                       std::optional<std::string> type,
                                                       std::optional<std::int64_t> length) {
  auto enclosure = managedObjectContext().insertNewObject<FeedEnclosure>();
  enclosure->setFeedstoryRow(objectID().row);
  enclosure->setUrl(std::move(url));
  enclosure->setType(std::move(type));
  enclosure->setLength(length);
  return enclosure;
}

bool FeedStory::isValidForRSSEntryMapping(const RSSEntry* entry) {
  return entry != nullptr && entry->url && !entry->url->empty();
}

const std::optional<std::string>& FeedStory::htmlOfRSSEntry(const RSSEntry& entry) {
  return entry.content && !entry.content->empty() ? entry.content : entry.summary;
}

void FeedStory::mapFromRSSEntry(const RSSEntry& entry, const Clock& clock, std::optional<std::string> preview) {
  Date date = entry.date.value_or(clock.now());
  if (isInFuture(date, clock)) date = clock.now();
  setBookmark_id(entry.url);
  setTitle(entry.title);
  setUrl(entry.url);
  setAuthor(entry.author);
  setDate_added(date);
  setHtml(htmlOfRSSEntry(entry), std::move(preview));
  setIs_archived(false);
  setIs_favorited(false);
  // A podcast's episode is its enclosure: without it the story would be only show notes.
  if (entry.attachedMedia && entry.attachedMedia->url && !entry.attachedMedia->url->empty()) {
    const auto& media = *entry.attachedMedia;
    addEnclosure(media.url, media.type,
                 media.length ? std::optional<std::int64_t>(*media.length) : std::nullopt);
  }
}

std::optional<std::string> FeedStory::offlineFeedId() const {
  auto owner = feed();
  if (!owner || !*owner) return std::nullopt;
  return (*owner)->folder_id();
}

}  // namespace lectern
