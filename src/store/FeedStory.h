#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "store/Bookmark.h"

namespace lectern {

class Clock;
class Feed;
class FeedEnclosure;
struct RSSEntry;

// A bookmark that came from a feed: its author, permalink, feed and enclosures. Lives in one context.
class FeedStory final : public Bookmark {
 public:
  static constexpr Entity kEntity = Entity::kFeedStory;
  FeedStory(Key key, ObjectContext& context, ObjectId id) : Bookmark(key, context, id) {}

  std::optional<std::string> author() const;
  void setAuthor(std::optional<std::string> author);
  std::optional<std::string> permalink() const;
  void setPermalink(std::optional<std::string> permalink);

  std::optional<ObjectId> feedID() const;
  Result<std::shared_ptr<Feed>> feed() const;
  void setFeed(const Feed& feed);

  Result<std::vector<std::shared_ptr<FeedEnclosure>>> enclosures() const;
  std::shared_ptr<FeedEnclosure> addEnclosure(std::optional<std::string> url, std::optional<std::string> type,
                                              std::optional<std::int64_t> length);

  // An entry can become a story when it has a link.
  static bool isValidForRSSEntryMapping(const RSSEntry* entry);
  // Fills the story from the entry: its link is its bookmark_id; a missing or future date
  // becomes now; the HTML is the content, else the summary; unread and not starred. `preview`:
  // previewTextFromHtml(htmlOfRSSEntry(entry)) when the caller made it already.
  void mapFromRSSEntry(const RSSEntry& entry, const Clock& clock, std::optional<std::string> preview = std::nullopt);
  // The HTML a story of the entry keeps.
  static const std::optional<std::string>& htmlOfRSSEntry(const RSSEntry& entry);

  // A Feedbin entry can become a story when its "id", as text, is not empty.
  static bool isValidForFeedbinMapping(const nlohmann::json& entry);
  // Fills the story from a Feedbin entry whose published date is `date` (now when it lies in the
  // future): the id is both bookmark_id and bookmark_hash, "created_at" the update date.
  void mapFromFeedbinDictionary(const nlohmann::json& entry, Date date, const Clock& clock);

  // A Fever item can become a story when its "id", as text, is not empty.
  static bool isValidForFeverMapping(const nlohmann::json& item);
  // Fills the story from a Fever item created at `date` (now when it lies in the future),
  // its read and saved flags included.
  void mapFromFeverDictionary(const nlohmann::json& item, Date date, const Clock& clock);
  // A Feed Wrangler item can become a story when its "feed_item_id", as text, is not empty.
  static bool isValidForFeedWranglerMapping(const nlohmann::json& item);
  // Fills the story from a Feed Wrangler item published at `date` (now when it lies in the
  // future), its read and starred flags included.
  void mapFromFeedWranglerDictionary(const nlohmann::json& item, Date date, const Clock& clock);

  // A Feedly entry can become a story when its "id", as text, is not empty.
  static bool isValidForFeedlyMapping(const nlohmann::json& entry);
  // Fills the story from a Feedly entry published at `date` (now when it lies in the future).
  void mapFromFeedlyDictionary(const nlohmann::json& entry, Date date, const Clock& clock);
  // The entry's published time as text: "crawled" when "published" is "0" and "crawled" says
  // more, else "published" (empty when there is none).
  static std::string stringValueOfFeedItemPublishedDate(const nlohmann::json& entry);
  // NewsBlur: a story whose "story_hash" (its matching key) and "id", as text, are not empty.
  static bool isValidForNewsBlurMapping(const nlohmann::json& story);
  // "story_date" ("yyyy-MM-dd HH:mm:ss", GMT) as a date; nothing when it does not read.
  static std::optional<Date> newsBlurStoryDate(const nlohmann::json& story);
  // Fills the story from a NewsBlur story dated `date` (now when it lies in the future), with the
  // read and starred flags given and the intelligence score its "intelligence" gives.
  void mapFromNewsBlurDictionary(const nlohmann::json& story, Date date, bool isArchived, bool isFavorited,
                                 const Clock& clock);
  // The person's training of a NewsBlur story ("intelligence": title, author, tags, feed): the
  // largest of title, author and tags when that is positive, else the smallest of them and 0,
  // and when that is 0 the feed's value. 0 for a story without training.
  static int computeStoryScore(const nlohmann::json& intelligence);
  // A story with "intelligence" whose score is negative: one the person trained away.
  static bool isStoryBlockedByIntelligence(const nlohmann::json& story);
  // The intelligence score kept with a story; nothing for stories of services without one.
  std::optional<std::int64_t> score() const;
  void setScore(std::optional<std::int64_t> score);

  std::optional<std::string> offlineFeedId() const override;
};

}  // namespace lectern
