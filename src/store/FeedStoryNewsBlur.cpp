// How a NewsBlur story becomes a FeedStory, and the intelligence score NewsBlur's training gives it.
#include <unicode/locid.h>
#include <unicode/parsepos.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>

#include "core/Dates.h"
#include "core/Strings.h"
#include "store/EntitySchema.h"
#include "store/FeedStory.h"

namespace lectern {
namespace {

// ICU formatters are not thread-safe: one per thread, made at first use.
icu::SimpleDateFormat* storyDateFormatter() {
  thread_local std::unique_ptr<icu::SimpleDateFormat> formatter = [] {
    UErrorCode status = U_ZERO_ERROR;
    auto made = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString("yyyy-MM-dd HH:mm:ss"),
                                                        icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status)) return std::unique_ptr<icu::SimpleDateFormat>();
    made->adoptTimeZone(icu::TimeZone::createTimeZone("GMT"));
    made->setLenient(false);
    return made;
  }();
  return formatter.get();
}

// A member of "intelligence" as a whole number; text and fractions read as NewsBlur means them.
int intelligenceValue(const nlohmann::json& intelligence, std::string_view key) {
  const auto found = intelligence.find(key);
  if (found == intelligence.end()) return 0;
  if (found->is_number()) {
    const double value = found->get<double>();
    return std::isfinite(value) ? static_cast<int>(std::clamp(value, -1e6, 1e6)) : 0;
  }
  if (found->is_string()) {
    const auto parsed = nlohmann::json::parse(found->get<std::string>(), nullptr, /*allow_exceptions=*/false);
    return parsed.is_number() ? intelligenceValue(nlohmann::json{{"v", parsed}}, "v") : 0;
  }
  return 0;
}

}  // namespace

bool FeedStory::isValidForNewsBlurMapping(const nlohmann::json& story) {
  if (!story.is_object()) return false;
  const auto hash = safeStringValue(story, "story_hash");
  const auto id = safeStringValue(story, "id");
  return hash && !hash->empty() && id && !id->empty();
}

std::optional<Date> FeedStory::newsBlurStoryDate(const nlohmann::json& story) {
  const auto text = safeStringValue(story, "story_date");
  auto* formatter = storyDateFormatter();
  if (!text || formatter == nullptr) return std::nullopt;
  const auto unicode =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text->data(), static_cast<int32_t>(text->size())));
  icu::ParsePosition position(0);
  const UDate parsed = formatter->parse(unicode, position);
  if (position.getErrorIndex() >= 0 || position.getIndex() != unicode.length()) return std::nullopt;
  return dateFromMillisecondsSince1970(static_cast<std::int64_t>(parsed));
}

void FeedStory::mapFromNewsBlurDictionary(const nlohmann::json& story, Date date, bool isArchived,
                                          bool isFavorited, const Clock& clock) {
  if (isInFuture(date, clock)) date = clock.now();
  setTitle(safeStringValue(story, "story_title"));
  setBookmark_id(safeStringValue(story, "id"));
  setBookmark_hash(safeStringValue(story, "story_hash"));
  setDate_added(date);
  setHtml(safeStringValue(story, "story_content"));
  setUrl(safeStringValue(story, "story_permalink"));
  setPermalink(safeStringValue(story, "permalink"));
  const auto authors = story.is_object() ? story.find("story_authors") : story.end();
  setAuthor(authors != story.end() && authors->is_string() ? std::optional(authors->get<std::string>())
                                                           : std::nullopt);
  setIs_archived(isArchived);
  setIs_favorited(isFavorited);
  const auto intelligence = story.is_object() ? story.find("intelligence") : story.end();
  setScore(intelligence != story.end() && intelligence->is_object() ? computeStoryScore(*intelligence) : 0);
}

int FeedStory::computeStoryScore(const nlohmann::json& intelligence) {
  if (!intelligence.is_object()) return 0;
  const int title = intelligenceValue(intelligence, "title");
  const int author = intelligenceValue(intelligence, "author");
  const int tags = intelligenceValue(intelligence, "tags");
  // A liked title, author or tag wins over any dislike; only then do dislikes count, and the
  // feed's own training only when nothing more specific was trained.
  const int best = std::max({title, author, tags});
  if (best > 0) return best;
  const int worst = std::min({title, author, tags, 0});
  if (worst != 0) return worst;
  return intelligenceValue(intelligence, "feed");
}

bool FeedStory::isStoryBlockedByIntelligence(const nlohmann::json& story) {
  if (!story.is_object()) return false;
  const auto intelligence = story.find("intelligence");
  return intelligence != story.end() && intelligence->is_object() && computeStoryScore(*intelligence) < 0;
}

std::optional<std::int64_t> FeedStory::score() const { return optionalIntegerValue(BookmarkColumn::kScore); }

void FeedStory::setScore(std::optional<std::int64_t> score) {
  setOptionalInteger(BookmarkColumn::kScore, score);
}

}  // namespace lectern
