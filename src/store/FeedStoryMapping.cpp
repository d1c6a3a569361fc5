// How the hosted feed services' entries become stories: one mapping and one validity check per
// service, each reading values with safeStringValue (numbers become text, null nothing).
#include <nlohmann/json.hpp>

#include "core/Dates.h"
#include "core/Strings.h"
#include "store/FeedStory.h"

namespace lectern {
namespace {

// What the items of Feedbin, Fever and Feed Wrangler give alike: an id (the story's bookmark_id
// and bookmark_hash) under `idKey`, the HTML under `htmlKey`, "title", "url" and "author", and the
// date (now, when it lies in the future).
void mapCommonFields(FeedStory& story, const nlohmann::json& item, std::string_view idKey,
                     std::string_view htmlKey, Date date, const Clock& clock) {
  if (isInFuture(date, clock)) date = clock.now();
  const auto id = safeStringValue(item, idKey);
  story.setTitle(safeStringValue(item, "title"));
  story.setBookmark_id(id);
  story.setBookmark_hash(id);
  story.setDate_added(date);
  story.setHtml(safeStringValue(item, htmlKey));
  const auto url = safeStringValue(item, "url");
  story.setUrl(url);
  story.setPermalink(url);
  story.setAuthor(safeStringValue(item, "author"));
}

}  // namespace

bool FeedStory::isValidForFeedbinMapping(const nlohmann::json& entry) {
  const auto id = safeStringValue(entry, "id");
  return id && !id->empty();
}

void FeedStory::mapFromFeedbinDictionary(const nlohmann::json& entry, Date date, const Clock& clock) {
  mapCommonFields(*this, entry, "id", "content", date, clock);
  const auto created = safeStringValue(entry, "created_at");
  setDate_updated(created ? dateFromISO8601String(*created) : std::nullopt);
}

// Fever writes times as seconds since 1970, ids as numbers or text, flags as 0/1 or text.
bool FeedStory::isValidForFeverMapping(const nlohmann::json& item) {
  const auto id = safeStringValue(item, "id");
  return id && !id->empty();
}

void FeedStory::mapFromFeverDictionary(const nlohmann::json& item, Date date, const Clock& clock) {
  mapCommonFields(*this, item, "id", "html", date, clock);
  setIs_archived(safeBoolValue(item, "is_read"));
  setIs_favorited(safeBoolValue(item, "is_saved"));
}

// Feed Wrangler names items by "feed_item_id", writes times as seconds since 1970 and its flags
// as booleans.
namespace {
std::optional<Date> feedWranglerTime(const nlohmann::json& item, std::string_view key) {
  const auto text = safeStringValue(item, key);
  if (!text) return std::nullopt;
  const auto seconds = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (!seconds.is_number()) return std::nullopt;
  return dateFromSecondsSince1970(seconds.get<double>());
}

bool hasFeedWranglerValue(const nlohmann::json& item, std::string_view key) {
  const auto found = item.find(key);
  return found != item.end() && !found->is_null();
}
}  // namespace

bool FeedStory::isValidForFeedWranglerMapping(const nlohmann::json& item) {
  const auto id = safeStringValue(item, "feed_item_id");
  return id && !id->empty();
}

void FeedStory::mapFromFeedWranglerDictionary(const nlohmann::json& item, Date date, const Clock& clock) {
  mapCommonFields(*this, item, "feed_item_id", "body", date, clock);
  setDate_updated(feedWranglerTime(item, "created_at"));
  // A flag the item leaves out is the caller's to set.
  if (!item.is_object()) return;
  if (hasFeedWranglerValue(item, "read")) setIs_archived(safeBoolValue(item, "read"));
  if (hasFeedWranglerValue(item, "starred")) setIs_favorited(safeBoolValue(item, "starred"));
}

}  // namespace lectern

// Feedly writes times as milliseconds since 1970 and leaves out what is empty.
namespace lectern {

bool FeedStory::isValidForFeedlyMapping(const nlohmann::json& entry) {
  const auto id = safeStringValue(entry, "id");
  return id && !id->empty();
}

std::string FeedStory::stringValueOfFeedItemPublishedDate(const nlohmann::json& entry) {
  const std::string published = safeStringValue(entry, "published").value_or("");
  const std::string crawled = safeStringValue(entry, "crawled").value_or("");
  if (published == "0" && !crawled.empty() && crawled != "0") return crawled;
  return published;
}

void FeedStory::mapFromFeedlyDictionary(const nlohmann::json& entry, Date date, const Clock& clock) {
  if (isInFuture(date, clock)) date = clock.now();
  const auto id = safeStringValue(entry, "id");
  setTitle(safeStringValue(entry, "title"));
  setBookmark_id(id);
  setBookmark_hash(id);
  setDate_added(date);
  std::optional<Date> updated;
  if (const auto milliseconds = safeStringValue(entry, "updated")) {
    const auto number = nlohmann::json::parse(*milliseconds, nullptr, /*allow_exceptions=*/false);
    if (number.is_number()) updated = dateFromMillisecondsSince1970(number.get<std::int64_t>());
  }
  setDate_updated(updated);
  setAuthor(safeStringValue(entry, "author"));
  auto contentOf = [&](std::string_view key) -> std::optional<std::string> {
    if (!entry.is_object()) return std::nullopt;
    const auto found = entry.find(key);
    if (found == entry.end()) return std::nullopt;
    auto text = safeStringValue(*found, "content");
    return text && !text->empty() ? text : std::nullopt;
  };
  auto html = contentOf("content");
  setHtml(html ? html : contentOf("summary"));
  // The page of the entry: its "text/html" alternate, else the first link it names.
  std::optional<std::string> link;
  if (entry.is_object()) {
    const auto alternates = entry.find("alternate");
    if (alternates != entry.end() && alternates->is_array()) {
      for (const auto& alternate : *alternates) {
        if (toLowerASCII(safeStringValue(alternate, "type").value_or("")) == "text/html") {
          link = safeStringValue(alternate, "href");
          break;
        }
      }
      if (!link && !alternates->empty()) link = safeStringValue(alternates->front(), "href");
    }
  }
  setUrl(link);
  setPermalink(link);
}

}  // namespace lectern
