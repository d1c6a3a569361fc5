// How the hosted feed services' entries become stories: one mapping and one validity check per
// service, each reading values with safeStringValue (numbers become text, null nothing).
#include <nlohmann/json.hpp>

#include "core/Dates.h"
#include "core/Strings.h"
#include "store/FeedStory.h"

namespace lectern {

bool FeedStory::isValidForFeedbinMapping(const nlohmann::json& entry) {
  const auto id = safeStringValue(entry, "id");
  return id && !id->empty();
}

void FeedStory::mapFromFeedbinDictionary(const nlohmann::json& entry, Date date, const Clock& clock) {
  if (isInFuture(date, clock)) date = clock.now();
  const auto id = safeStringValue(entry, "id");
  setTitle(safeStringValue(entry, "title"));
  setBookmark_id(id);
  setBookmark_hash(id);
  setDate_added(date);
  const auto created = safeStringValue(entry, "created_at");
  setDate_updated(created ? dateFromISO8601String(*created) : std::nullopt);
  setHtml(safeStringValue(entry, "content"));
  const auto url = safeStringValue(entry, "url");
  setUrl(url);
  setPermalink(url);
  setAuthor(safeStringValue(entry, "author"));
}

}  // namespace lectern
