#include "store/BookmarkSection.h"

#include <fmt/format.h>

#include "core/Dates.h"
#include "core/Error.h"
#include "core/HtmlStrings.h"
#include "store/Folder.h"

namespace lectern {

inline constexpr std::string_view kMustUseInitWithTitle =
    "Must use initWithTitle:sectionIdentifier: instead.";

BookmarkSection::BookmarkSection() { throw InternalInconsistency(std::string(kMustUseInitWithTitle)); }

BookmarkSection::BookmarkSection(std::string title, std::string sectionIdentifier)
    : title_(std::move(title)), sectionIdentifier_(std::move(sectionIdentifier)) {}

BookmarkSection::BookmarkSection(Date day, const Clock& clock)
    : title_(sectionTitle(day, clock.now())),
      sectionIdentifier_(fmt::format("{:.0f}", secondsSince1970(day))),
      representedObject_(day) {}

BookmarkSection::BookmarkSection(std::shared_ptr<Folder> folder) : representedObject_(folder) {
  if (!folder) throw InternalInconsistency(std::string(kMustUseInitWithTitle));
  title_ = htmlToPlainText(decodeHtmlEntities(folder->title().value_or("")));
  sectionIdentifier_ = folder->objectID().description();
}

}  // namespace lectern
