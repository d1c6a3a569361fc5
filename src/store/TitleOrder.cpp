#include "store/TitleOrder.h"

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <memory>

namespace lectern {
namespace {

// One collator per thread: collators are not safe to share and are costly to make.
icu::Collator* collator() {
  thread_local std::unique_ptr<icu::Collator> instance = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> made(icu::Collator::createInstance(icu::Locale::getDefault(), status));
    if (U_FAILURE(status)) return std::unique_ptr<icu::Collator>();
    made->setStrength(icu::Collator::SECONDARY);  // accents count, case does not
    return made;
  }();
  return instance.get();
}

}  // namespace

bool titleLess(const std::optional<std::string>& a, const std::optional<std::string>& b) {
  if (!a || !b) return !a && b;
  if (auto* ordering = collator()) {
    UErrorCode status = U_ZERO_ERROR;
    const auto result = ordering->compareUTF8(*a, *b, status);
    if (U_SUCCESS(status)) return result == UCOL_LESS;
  }
  return icu::UnicodeString::fromUTF8(*a).caseCompare(icu::UnicodeString::fromUTF8(*b), U_FOLD_CASE_DEFAULT) <
         0;
}

}  // namespace lectern
