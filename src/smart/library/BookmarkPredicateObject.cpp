#include "smart/library/BookmarkPredicateObject.h"

#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Content.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/Token.h"

namespace lectern {

namespace {

Value textValue(const std::optional<std::string>& text) { return text ? Value(*text) : Value(); }
Value dateValue(const std::optional<Date>& date) {
  return date ? Value(DateValue{secondsSince1970(*date)}) : Value();
}

}  // namespace

Value BookmarkPredicateObject::self() const { return bookmark_.objectID().row; }

Value BookmarkPredicateObject::valueForKeyPath(std::string_view path) const {
  const Bookmark& b = bookmark_;
  if (path == "title") return textValue(b.title());
  if (path == "url") return textValue(b.url());
  if (path == "tags") return textValue(b.tags());
  if (path == "bookmark_id") return textValue(b.bookmark_id());
  if (path == "bookmark_hash") return textValue(b.bookmark_hash());
  if (path == "date_added") return dateValue(b.date_added());
  if (path == "date_updated") return dateValue(b.date_updated());
  if (path == "is_archived") return b.is_archived();
  if (path == "is_favorited") return b.is_favorited();
  if (path == "is_shared") return b.is_shared();
  if (path == "is_opened") return b.is_opened();
  if (path == "progress") return b.progress();
  const auto* story = dynamic_cast<const FeedStory*>(&b);
  if (path == "author") return story != nullptr ? textValue(story->author()) : Value();
  if (path == "permalink") return story != nullptr ? textValue(story->permalink()) : Value();
  if (path == "score") {
    if (story == nullptr) return Value();
    const auto score = story->score();
    return score ? Value(static_cast<double>(*score)) : Value();
  }
  if (path == "content.preview_text" || path == "preview_text" || path == "content.html" || path == "html") {
    auto content = b.content();
    if (!content || !*content) return Value();
    return textValue(path.ends_with("html") ? (*content)->html() : (*content)->preview_text());
  }
  if (path.starts_with("account.")) {
    auto account = b.account();
    if (!account || !*account) return Value();
    if (path == "account.service") return textValue((*account)->service());
    if (path == "account.title") return textValue((*account)->title());
    if (path == "account.username") return textValue((*account)->username());
    return Value();
  }
  if (path.starts_with("feed.")) {
    if (story == nullptr) return Value();
    auto feed = story->feed();
    if (!feed || !*feed) return Value();
    if (path == "feed.title") return textValue((*feed)->title());
    if (path == "feed.feed_link") return textValue((*feed)->feed_link());
    return Value();
  }
  if (path == "folders.title" || path == "folders.folder_id") {
    std::vector<Value> values;
    if (auto folders = b.folders()) {
      for (const auto& folder : *folders) {
        values.push_back(textValue(path == "folders.title" ? folder->title() : folder->folder_id()));
      }
    }
    return values;
  }
  if (path == "tokens.title") {
    std::vector<Value> values;
    if (auto tokens = b.tokens()) {
      for (const auto& token : *tokens) values.push_back(textValue(token->title()));
    }
    return values;
  }
  if (path == "folders" || path == "tokens") {
    // Only their number is asked for ("folders.@count").
    std::vector<Value> values;
    if (path == "folders") {
      if (auto folders = b.folders()) values.resize(folders->size());
    } else if (auto tokens = b.tokens()) {
      values.resize(tokens->size());
    }
    return values;
  }
  return Value();
}

}  // namespace lectern
