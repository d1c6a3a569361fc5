#include "store/Content.h"

namespace lectern {

using namespace ContentColumn;

std::optional<std::string> Content::html() const { return textValue(kHtml); }
void Content::setHtml(std::optional<std::string> html) { setText(kHtml, std::move(html)); }
std::optional<std::string> Content::preview_text() const { return textValue(kPreviewText); }
void Content::setPreview_text(std::optional<std::string> previewText) {
  setText(kPreviewText, std::move(previewText));
}

std::optional<ObjectId> Content::bookmarkID() const {
  const auto row = referenceValue(kBookmark);
  return row ? std::optional<ObjectId>(ObjectId{Entity::kBookmark, *row}) : std::nullopt;
}

void Content::setBookmarkRow(std::int64_t bookmarkRow) { setReference(kBookmark, bookmarkRow); }

}  // namespace lectern
