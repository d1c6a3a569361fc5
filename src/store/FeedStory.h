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
  // becomes now; the HTML is the content, else the summary; unread and not starred.
  void mapFromRSSEntry(const RSSEntry& entry, const Clock& clock);

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

  std::optional<std::string> offlineFeedId() const override;
};

}  // namespace lectern
