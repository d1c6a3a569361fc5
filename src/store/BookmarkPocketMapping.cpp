// How an item of a Pocket list becomes a Bookmark. Pocket writes almost every value as text
// ("favorite": "1", "time_added": "1363453123"); values are read with safeStringValue and
// safeBoolValue, so numbers and text read alike.
#include <charconv>
#include <nlohmann/json.hpp>

#include "core/Log.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Folder.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "Bookmark";

std::optional<std::string> nonEmptyString(const nlohmann::json& item, std::string_view key) {
  auto value = safeStringValue(item, key);
  if (!value || value->empty()) return std::nullopt;
  return value;
}

// Leading white space is dropped (Pocket keeps what the page's <title> began with).
std::optional<std::string> titleValue(const nlohmann::json& item, std::string_view key) {
  auto value = safeStringValue(item, key);
  if (!value) return std::nullopt;
  const auto first = value->find_first_not_of(" \t\r\n\f\v");
  if (first == std::string::npos) return std::nullopt;
  return value->substr(first);
}

double numberValue(const nlohmann::json& item, std::string_view key) {
  const auto text = safeStringValue(item, key);
  if (!text) return 0;
  double number = 0;
  const std::string trimmed = trim(*text);
  const auto* end = trimmed.data() + trimmed.size();
  return fromChars(trimmed.data(), end, number).ptr == end ? number : 0;
}

std::optional<Date> pocketDate(const nlohmann::json& item, std::string_view key) {
  const double seconds = numberValue(item, key);
  if (seconds <= 0) return std::nullopt;
  return dateFromSecondsSince1970(seconds);
}

// "story" of "http://example.com/a/story?x=1#top": what names a page that has no title yet.
std::optional<std::string> lastPathComponent(std::string_view url) {
  url = url.substr(0, url.find_first_of("?#"));
  if (const auto scheme = url.find("://"); scheme != std::string_view::npos) {
    url.remove_prefix(scheme + 3);
    const auto slash = url.find('/');
    url = slash == std::string_view::npos ? std::string_view() : url.substr(slash);
  }
  while (url.ends_with('/')) url.remove_suffix(1);
  const auto last = url.rfind('/');
  const auto component = last == std::string_view::npos ? url : url.substr(last + 1);
  if (component.empty()) return std::nullopt;
  return percentUnescape(component);
}

void fileIn(Bookmark& bookmark, const Result<std::shared_ptr<Folder>>& folder, bool member) {
  if (!folder) {
    logError(kLogCategory, "Failed to file a Pocket item: {}", folder.error().message());
    return;
  }
  if (!*folder) return;
  if (member) {
    bookmark.addToFolder(**folder);
  } else {
    bookmark.removeFromFolder(**folder);
  }
}

}  // namespace

bool Bookmark::isValidForPocketMapping(const nlohmann::json& item) {
  return item.is_object() && nonEmptyString(item, "item_id").has_value();
}

void Bookmark::mapFromPocketDictionary(const nlohmann::json& item, Account& account) {
  setBookmark_id(safeStringValue(item, "item_id"));
  const auto url = nonEmptyString(item, "resolved_url") ? nonEmptyString(item, "resolved_url")
                                                        : nonEmptyString(item, "given_url");
  auto title = titleValue(item, "resolved_title");
  if (!title) title = titleValue(item, "given_title");
  if (!title && url) title = lastPathComponent(*url);
  setTitle(title);
  setUrl(url);
  setDate_added(pocketDate(item, "time_added"));
  setDate_updated(pocketDate(item, "time_updated"));

  std::vector<std::string> tags;
  if (const auto found = item.find("tags"); found != item.end() && found->is_object()) {
    for (const auto& [name, _] : found->items()) tags.push_back(name);
  }
  setTagsArray(tags);

  setIs_favorited(safeBoolValue(item, "favorite"));
  setIs_archived(safeBoolValue(item, "status"));
  // An item that merely shows a picture is no image: only "has_image" 2 (the item is one) files
  // it there, while any video at all files it with the videos.
  fileIn(*this, account.articleFolder(), safeBoolValue(item, "is_article"));
  fileIn(*this, account.videoFolder(), numberValue(item, "has_video") > 0);
  fileIn(*this, account.imageFolder(), numberValue(item, "has_image") == 2);
}

}  // namespace lectern
