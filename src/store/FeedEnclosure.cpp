#include "store/FeedEnclosure.h"

namespace lectern {

using namespace FeedEnclosureColumn;

std::optional<std::string> FeedEnclosure::url() const { return textValue(kUrl); }
void FeedEnclosure::setUrl(std::optional<std::string> url) { setText(kUrl, std::move(url)); }
std::optional<std::string> FeedEnclosure::type() const { return textValue(kType); }
void FeedEnclosure::setType(std::optional<std::string> type) { setText(kType, std::move(type)); }
std::optional<std::int64_t> FeedEnclosure::length() const { return optionalIntegerValue(kLength); }
void FeedEnclosure::setLength(std::optional<std::int64_t> length) { setOptionalInteger(kLength, length); }

std::optional<ObjectId> FeedEnclosure::feedstoryID() const {
  const auto row = referenceValue(kFeedstory);
  return row ? std::optional<ObjectId>(ObjectId{Entity::kFeedStory, *row}) : std::nullopt;
}

void FeedEnclosure::setFeedstoryRow(std::int64_t storyRow) { setReference(kFeedstory, storyRow); }

}  // namespace lectern
