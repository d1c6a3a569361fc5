#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/Clock.h"

namespace lectern {

// Which reader a feed date is tried with first.
enum class DateFormatHint : int { kRFC822 = 1, kRFC3339 = 2 };

// Feed dates. All parsing goes through one shared "en_US_POSIX" formatter fixed to GMT, used
// under a lock, so these may be called from any thread. A date that cannot be read writes
// `Could not parse RFC822 date: "..." Possible invalid format.` (or the RFC3339 form) to the log.
std::optional<Date> dateFromInternetDateTimeString(std::string_view text, DateFormatHint hint);
std::optional<Date> dateFromRFC822String(std::string_view text);
std::optional<Date> dateFromRFC3339String(std::string_view text);
// The same two readers through the ICU formatters alone, without the hand-written reading of the
// strict forms that the functions above try first (they must agree; tests compare them).
std::optional<Date> dateFromRFC822StringWithICU(std::string_view text);
std::optional<Date> dateFromRFC3339StringWithICU(std::string_view text);

// ISO 8601 as services send it: "2013-02-02T14:07:33.000000Z", "2013-02-02T14:07:33Z",
// "2013-02-02T14:07:33+01:00", "2013-02-02 14:07:33" (UTC), "2013-02-02".
std::optional<Date> dateFromISO8601String(std::string_view text);
Date dateFromMillisecondsSince1970(std::int64_t milliseconds);
std::int64_t millisecondsSince1970(Date date);

// RFC 3339 in UTC: "2003-06-10T04:00:00Z", with a fraction only when it is not zero
// ("2003-12-13T17:30:02.25Z").
std::string rfc3339String(Date date);

bool isInFuture(Date date, const Clock& clock);

// Article-list sections: the local calendar day of a date, and its title: "Today",
// "Yesterday", else the day written out in the user's locale ("Nov 20, 2026").
// `timeZone` is an Olson id; empty means the system's zone.
Date sectionDate(Date date, std::string_view timeZone = {});
std::string sectionTitle(Date day, Date now, std::string_view timeZone = {});
// For lists: "just now", "12 min ago", "3 h ago", "4 d ago" within a week, else the local day
// ("2026-11-02"); "" for no date. At most 10 columns.
std::string relativeDate(const std::optional<Date>& date, Date now = std::chrono::system_clock::now());

}  // namespace lectern
