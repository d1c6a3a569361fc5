// How Pinboard's posts become bookmarks: Pinboard names a post by "hash" (the bookmark_id) and
// says it changed with a new "meta" (the bookmark_hash).
#include <cctype>
#include <nlohmann/json.hpp>

#include "core/Dates.h"
#include "core/HtmlStrings.h"
#include "core/Log.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/Bookmark.h"

namespace lectern {
namespace {

std::optional<std::string> nonEmpty(const nlohmann::json& post, std::string_view key) {
  auto value = safeStringValue(post, key);
  if (!value || trimView(*value).empty()) return std::nullopt;
  return value;
}

std::string withoutLeadingSpace(std::string_view text) {
  size_t first = 0;
  while (first < text.size() && std::isspace(static_cast<unsigned char>(text[first]))) ++first;
  return std::string(text.substr(first));
}

}  // namespace

bool Bookmark::isValidForPinboardMapping(const nlohmann::json& post) {
  return post.is_object() && nonEmpty(post, "hash") && nonEmpty(post, "href");
}

void Bookmark::mapFromPinboardDictionary(const nlohmann::json& post) {
  const auto meta = safeStringValue(post, "meta");
  if (meta && meta == bookmark_hash()) return;  // unchanged since the last mapping

  const auto href = safeStringValue(post, "href").value_or("");
  // Titles and notes may carry entities ("&amp;"): the library keeps text.
  const std::string title = withoutLeadingSpace(decodeHtmlEntities(safeStringValue(post, "description").value_or("")));
  setTitle(title.empty() ? href : title);
  const auto time = safeStringValue(post, "time");
  const auto date = time ? dateFromISO8601String(*time) : std::nullopt;
  setDate_added(date);
  setDate_updated(date);
  // Space-separated on the wire, comma-separated here.
  std::vector<std::string> tags;
  for (const auto& tag : split(safeStringValue(post, "tags").value_or(""), " ")) {
    if (!tag.empty()) tags.push_back(decodeHtmlEntities(tag));
  }
  setTags(tags.empty() ? std::nullopt : std::optional<std::string>(join(tags, ",")));
  setBookmark_id(safeStringValue(post, "hash"));
  setBookmark_hash(meta);
  setUrl(percentUnescape(href));
  setIs_archived(safeStringValue(post, "toread") == "no");
  setIs_shared(safeStringValue(post, "shared") == "yes");
  const auto extended = safeStringValue(post, "extended");
  setPreview_text(extended ? std::optional<std::string>(decodeHtmlEntities(*extended)) : std::nullopt);
}

void Bookmark::placeInPinboardFolders() {
  setIs_archived(is_archived());
  setIs_shared(is_shared());
}

}  // namespace lectern
