#include "core/Dates.h"

#include <array>
#include <ctime>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>

#include <fmt/format.h>
#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include "core/Log.h"
#include "core/Strings.h"

namespace lectern {
namespace {

constexpr std::array<const char*, 5> kRFC822WithComma = {
    "EEE, d MMM yyyy HH:mm:ss zzz", "EEE, d MMM yyyy HH:mm zzz", "EEE, d MMM yyyy HH:mm:ss",
    "EEE, d MMM yyyy HH:mm", "EEE, MMM d HH:mm:ss zzzz yyyy"};
constexpr std::array<const char*, 5> kRFC822WithoutComma = {
    "d MMM yyyy HH:mm:ss zzz", "d MMM yyyy HH:mm zzz", "d MMM yyyy HH:mm:ss", "d MMM yyyy HH:mm",
    "EEE MMM d HH:mm:ss zzzz yyyy"};
constexpr std::array<const char*, 5> kRFC3339 = {
    "yyyy'-'MM'-'dd'T'HH':'mm':'ssZZZ", "yyyy'-'MM'-'dd'T'HH':'mm':'ss.SSSZZZ", "yyyy'-'MM'-'dd'T'HH':'mm':'ss",
    "yyyy'-'MM'-'dd' 'HH':'mm':'ss", "yyyy'-'MM'-'dd' 'HH':'mm':'ssZZZ"};

// Dates are nanosecond time points: about 292 years either side of 1970.
constexpr double kRepresentableMilliseconds = 9.2e12;

// The one formatter all feed dates go through, and the lock its users hold. It keeps one ICU
// formatter per pattern: switching a single one between patterns rebuilds its time-zone name
// tables on every date, which cost more than the rest of a feed's parsing.
struct InternetDateFormatter {
  std::mutex mutex;  // guards formatters
  std::map<const char*, std::unique_ptr<icu::SimpleDateFormat>> formatters;

  icu::SimpleDateFormat* formatterFor(const char* pattern) {
    auto& slot = formatters[pattern];
    if (!slot) {
      UErrorCode status = U_ZERO_ERROR;
      slot = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(pattern), icu::Locale("en_US_POSIX"), status);
      if (U_FAILURE(status)) {
        slot.reset();
        return nullptr;
      }
      slot->adoptTimeZone(icu::TimeZone::createTimeZone("GMT"));
      slot->setLenient(false);
    }
    return slot.get();
  }

  // Applies each format in turn; the first that reads the whole text wins.
  template <size_t N>
  std::optional<Date> parse(const icu::UnicodeString& text, const std::array<const char*, N>& formats) {
    for (const char* format : formats) {
      icu::SimpleDateFormat* formatter = formatterFor(format);
      if (!formatter) continue;
      icu::ParsePosition position(0);
      const UDate udate = formatter->parse(text, position);
      if (position.getErrorIndex() < 0 && position.getIndex() == text.length()) {
        // A year the library's clock cannot hold (before 1678 or after 2261) is no date.
        if (std::abs(udate) >= kRepresentableMilliseconds) return std::nullopt;
        // ICU counts whole milliseconds in a double; rounding keeps 45.930 from becoming 45.929999.
        return Date(std::chrono::milliseconds(std::llround(udate)));
      }
    }
    return std::nullopt;
  }
};

InternetDateFormatter& internetDateFormatter() {
  static InternetDateFormatter instance;  // made once, under the static-initialisation lock
  return instance;
}

icu::UnicodeString toUnicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

// ICU 72 divides by zero reading a fraction of more than about 30 digits (its scale overflows),
// and no date of ours has ten digits in a row: such text never reaches it.
bool hasLongDigitRun(std::string_view text) {
  size_t run = 0;
  for (const char c : text) {
    run = (c >= '0' && c <= '9') ? run + 1 : 0;
    if (run >= 10) return true;
  }
  return false;
}

std::optional<Date> parseRFC3339Locked(InternetDateFormatter& shared, std::string_view text) {
  if (hasLongDigitRun(text)) return std::nullopt;
  std::string s = replaceAll(toUpperASCII(text), "Z", "-0000");
  // Drop the colon of a numeric zone offset ("+01:00" -> "+0100"), which the patterns cannot read.
  if (s.size() >= 21) s = s.substr(0, 20) + replaceAll(std::string_view(s).substr(20), ":", "");
  return shared.parse(toUnicode(s), kRFC3339);
}

std::unique_ptr<icu::TimeZone> zoneNamed(std::string_view name) {
  if (name.empty()) return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault());
  return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createTimeZone(toUnicode(name)));
}

UDate toUDate(Date date) {
  return std::chrono::duration<double, std::milli>(date.time_since_epoch()).count();
}

Date fromUDate(UDate udate) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double, std::milli>(udate)));
}

// ---- the strict forms, read by hand ----
// Nearly every feed writes its dates in one strict form; reading those by hand avoids the ICU
// formatters, which cost as much as the XML parse. Anything unusual (zone names other than GMT,
// one-digit hours, impossible days) goes on to ICU, which then decides exactly as before.

struct Cursor {
  std::string_view text;
  size_t at = 0;
  bool done() const { return at == text.size(); }
  bool literal(char c) {
    if (at < text.size() && text[at] == c) return ++at, true;
    return false;
  }
  // Exactly `count` digits.
  std::optional<int> digits(size_t count) {
    if (text.size() - at < count) return std::nullopt;
    int value = 0;
    for (size_t i = 0; i < count; ++i) {
      const char c = text[at + i];
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + (c - '0');
    }
    at += count;
    return value;
  }
  // One or two digits.
  std::optional<int> shortNumber() {
    auto first = digits(1);
    if (!first) return std::nullopt;
    if (auto second = digits(1)) return *first * 10 + *second;
    return first;
  }
  // A three-letter name from `names` (ASCII case ignored); answers its index.
  template <size_t N>
  std::optional<int> name(const std::array<std::string_view, N>& names) {
    if (text.size() - at < 3) return std::nullopt;
    const std::string word = toUpperASCII(text.substr(at, 3));
    for (size_t i = 0; i < N; ++i) {
      if (word == names[i]) return at += 3, static_cast<int>(i);
    }
    return std::nullopt;
  }
};

constexpr std::array<std::string_view, 7> kWeekdays = {"MON", "TUE", "WED", "THU", "FRI", "SAT", "SUN"};
constexpr std::array<std::string_view, 12> kMonths = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                                      "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};

// The date when every field is in range, else nothing (the caller then asks ICU).
std::optional<Date> civilDate(int year, int month, int day, int hour, int minute, int second, int millis,
                              int offsetMinutes) {
  using namespace std::chrono;
  const year_month_day ymd{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                           std::chrono::day(static_cast<unsigned>(day))};
  if (!ymd.ok() || hour > 23 || minute > 59 || second > 59 || year < 1700 || year > 2200) return std::nullopt;
  const auto local = sys_days(ymd) + hours(hour) + minutes(minute) + seconds(second) + milliseconds(millis);
  return time_point_cast<Date::duration>(local - minutes(offsetMinutes));
}

// "+hhmm" / "-hhmm" (or "+hh:mm" when `colon`); answers minutes east of UTC.
std::optional<int> numericOffset(Cursor& in, bool colon) {
  const bool east = in.literal('+');
  if (!east && !in.literal('-')) return std::nullopt;
  auto hours = in.digits(2);
  if (colon && !in.literal(':')) return std::nullopt;
  auto minutes = in.digits(2);
  if (!hours || !minutes || *hours > 23 || *minutes > 59) return std::nullopt;
  return (east ? 1 : -1) * (*hours * 60 + *minutes);
}

// "[Www, ]d Mmm yyyy HH:mm[:ss][ (GMT|+hhmm|-hhmm)]"
std::optional<Date> readStrictRFC822(std::string_view text) {
  Cursor in{text};
  if (in.name(kWeekdays)) {
    if (!in.literal(',') || !in.literal(' ')) return std::nullopt;
  } else if (text.find(',') != std::string_view::npos) {
    return std::nullopt;
  }
  auto day = in.shortNumber();
  if (!day || !in.literal(' ')) return std::nullopt;
  auto month = in.name(kMonths);
  if (!month || !in.literal(' ')) return std::nullopt;
  auto year = in.digits(4);
  if (!year || !in.literal(' ')) return std::nullopt;
  auto hour = in.digits(2);
  if (!hour || !in.literal(':')) return std::nullopt;
  auto minute = in.digits(2);
  if (!minute) return std::nullopt;
  int second = 0;
  if (in.literal(':')) {
    auto read = in.digits(2);
    if (!read) return std::nullopt;
    second = *read;
  }
  int offset = 0;
  if (in.literal(' ')) {
    if (in.text.substr(in.at) == "GMT" || in.text.substr(in.at) == "gmt") {
      in.at = in.text.size();
    } else {
      auto read = numericOffset(in, /*colon=*/false);
      if (!read) return std::nullopt;
      offset = *read;
    }
  }
  if (!in.done()) return std::nullopt;
  return civilDate(*year, *month + 1, *day, *hour, *minute, second, 0, offset);
}

// "yyyy-MM-ddTHH:mm:ss[.fraction](Z|+hh:mm|-hh:mm|+hhmm|-hhmm)", or without a zone and fraction.
std::optional<Date> readStrictRFC3339(std::string_view text) {
  Cursor in{text};
  auto year = in.digits(4);
  if (!year || !in.literal('-')) return std::nullopt;
  auto month = in.digits(2);
  if (!month || !in.literal('-')) return std::nullopt;
  auto day = in.digits(2);
  if (!day || !(in.literal('T') || in.literal('t'))) return std::nullopt;
  auto hour = in.digits(2);
  if (!hour || !in.literal(':')) return std::nullopt;
  auto minute = in.digits(2);
  if (!minute || !in.literal(':')) return std::nullopt;
  auto second = in.digits(2);
  if (!second) return std::nullopt;
  int millis = 0;
  bool fraction = false;
  if (in.literal('.')) {
    size_t count = 0;
    for (; !in.done() && in.text[in.at] >= '0' && in.text[in.at] <= '9'; ++in.at, ++count) {
      if (count < 3) millis = millis * 10 + (in.text[in.at] - '0');
    }
    if (count == 0) return std::nullopt;
    for (size_t i = count; i < 3; ++i) millis *= 10;
    fraction = true;
  }
  int offset = 0;
  if (in.literal('Z') || in.literal('z')) {
    offset = 0;
  } else if (!in.done()) {
    const size_t start = in.at;
    auto read = numericOffset(in, /*colon=*/true);
    if (!read) {
      in.at = start;
      read = numericOffset(in, /*colon=*/false);
    }
    if (!read) return std::nullopt;
    offset = *read;
  } else if (fraction) {
    return std::nullopt;  // a fraction comes only with a zone
  }
  if (!in.done()) return std::nullopt;
  return civilDate(*year, *month, *day, *hour, *minute, *second, millis, offset);
}

}  // namespace

std::optional<Date> dateFromRFC3339StringWithICU(std::string_view text) {
  auto& shared = internetDateFormatter();
  std::lock_guard lock(shared.mutex);
  return parseRFC3339Locked(shared, text);
}

std::optional<Date> dateFromRFC822StringWithICU(std::string_view text) {
  if (hasLongDigitRun(text)) return std::nullopt;
  auto& shared = internetDateFormatter();
  const std::string upper = toUpperASCII(text);
  std::lock_guard lock(shared.mutex);
  if (upper.find(',') != std::string::npos) return shared.parse(toUnicode(upper), kRFC822WithComma);
  if (auto date = shared.parse(toUnicode(upper), kRFC822WithoutComma)) return date;
  return parseRFC3339Locked(shared, upper);
}

std::optional<Date> dateFromRFC3339String(std::string_view text) {
  auto date = readStrictRFC3339(text);
  if (!date) date = dateFromRFC3339StringWithICU(text);
  if (!date) logDebugMessage("NSDate", "Could not parse RFC3339 date: \"{}\" Possible invalid format.", text);
  return date;
}

std::optional<Date> dateFromRFC822String(std::string_view text) {
  auto date = readStrictRFC822(text);
  if (!date) date = dateFromRFC822StringWithICU(text);
  if (!date) logDebugMessage("NSDate", "Could not parse RFC822 date: \"{}\" Possible invalid format.", text);
  return date;
}

std::optional<Date> dateFromInternetDateTimeString(std::string_view text, DateFormatHint hint) {
  if (text.empty()) return std::nullopt;
  if (hint == DateFormatHint::kRFC3339) {
    if (auto date = dateFromRFC3339String(text)) return date;
    return dateFromRFC822String(text);
  }
  if (auto date = dateFromRFC822String(text)) return date;
  return dateFromRFC3339String(text);
}

std::optional<Date> dateFromISO8601String(std::string_view input) {
  const std::string_view text = trimView(input);
  // Read by hand: the forms services send are few and fixed, and this runs for every item of a sync.
  auto digits = [&](size_t at, size_t count) -> std::optional<int> {
    if (at + count > text.size()) return std::nullopt;
    int value = 0;
    for (size_t i = at; i < at + count; ++i) {
      if (text[i] < '0' || text[i] > '9') return std::nullopt;
      value = value * 10 + (text[i] - '0');
    }
    return value;
  };
  const auto year = digits(0, 4), month = digits(5, 2), day = digits(8, 2);
  if (!year || !month || !day || text[4] != '-' || text[7] != '-') return std::nullopt;
  if (*month < 1 || *month > 12 || *day < 1 || *day > 31) return std::nullopt;
  int hour = 0, minute = 0, second = 0;
  double fraction = 0;
  int offsetSeconds = 0;
  size_t at = 10;
  if (at < text.size()) {
    if (text[at] != 'T' && text[at] != 't' && text[at] != ' ') return std::nullopt;
    const auto h = digits(at + 1, 2), m = digits(at + 4, 2);
    if (!h || !m || text[at + 3] != ':') return std::nullopt;
    hour = *h;
    minute = *m;
    at += 6;
    if (at < text.size() && text[at] == ':') {
      const auto s = digits(at + 1, 2);
      if (!s) return std::nullopt;
      second = *s;
      at += 3;
    }
    if (at < text.size() && (text[at] == '.' || text[at] == ',')) {
      double scale = 0.1;
      ++at;
      while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
        fraction += (text[at] - '0') * scale;
        scale /= 10;
        ++at;
      }
    }
    if (at < text.size()) {
      if (text[at] == 'Z' || text[at] == 'z') {
        ++at;
      } else if (text[at] == '+' || text[at] == '-') {
        const int sign = text[at] == '-' ? -1 : 1;
        const auto oh = digits(at + 1, 2);
        if (!oh) return std::nullopt;
        size_t mAt = at + 3;
        if (mAt < text.size() && text[mAt] == ':') ++mAt;
        const auto om = mAt < text.size() ? digits(mAt, 2) : std::optional<int>(0);
        if (!om) return std::nullopt;
        offsetSeconds = sign * (*oh * 3600 + *om * 60);
        at = mAt < text.size() ? mAt + 2 : mAt;
      }
    }
    if (at != text.size() || hour > 24 || minute > 59 || second > 60) return std::nullopt;
  }
  using namespace std::chrono;
  const year_month_day ymd{std::chrono::year(*year), std::chrono::month(static_cast<unsigned>(*month)),
                           std::chrono::day(static_cast<unsigned>(*day))};
  if (!ymd.ok()) return std::nullopt;
  const auto base = sys_days(ymd) + hours(hour) + minutes(minute) + seconds(second) - seconds(offsetSeconds);
  // As for the other readers, a year the clock cannot hold is no date (it would overflow).
  if (std::abs(static_cast<double>(base.time_since_epoch().count())) * 1000 >= kRepresentableMilliseconds)
    return std::nullopt;
  return Date(duration_cast<Date::duration>(base.time_since_epoch() + duration<double>(fraction)));
}

Date dateFromMillisecondsSince1970(std::int64_t milliseconds) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(milliseconds)));
}

std::int64_t millisecondsSince1970(Date date) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count();
}

std::string rfc3339String(Date date) {
  using namespace std::chrono;
  const auto micros = duration_cast<microseconds>(date.time_since_epoch());
  const auto secs = floor<seconds>(micros);
  const auto rest = micros - secs;
  const auto days = floor<std::chrono::days>(secs);
  const year_month_day ymd{sys_days(days)};
  const hh_mm_ss time{secs - days};
  std::string out = fmt::format("{:04d}-{:02d}-{:02d}T{:02d}:{:02d}:{:02d}", static_cast<int>(ymd.year()),
                                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                                time.hours().count(), time.minutes().count(), time.seconds().count());
  if (rest.count() != 0) {
    std::string fraction = fmt::format("{:06d}", rest.count());
    while (!fraction.empty() && fraction.back() == '0') fraction.pop_back();
    out += "." + fraction;
  }
  return out + "Z";
}

bool isInFuture(Date date, const Clock& clock) { return date > clock.now(); }

Date sectionDate(Date date, std::string_view timeZone) {
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar calendar(zoneNamed(timeZone).release(), status);
  if (U_FAILURE(status)) return date;
  calendar.setTime(toUDate(date), status);
  calendar.set(UCAL_HOUR_OF_DAY, 0);
  calendar.set(UCAL_MINUTE, 0);
  calendar.set(UCAL_SECOND, 0);
  calendar.set(UCAL_MILLISECOND, 0);
  const UDate day = calendar.getTime(status);
  return U_FAILURE(status) ? date : fromUDate(day);
}

std::string sectionTitle(Date day, Date now, std::string_view timeZone) {
  const Date thisDay = sectionDate(day, timeZone);
  const Date today = sectionDate(now, timeZone);
  if (thisDay == today) return "Today";
  // Yesterday is the day that starts at the cut of (start of today - 1 hour): safe across DST.
  if (thisDay == sectionDate(today - std::chrono::hours(1), timeZone)) return "Yesterday";
  std::unique_ptr<icu::DateFormat> format(icu::DateFormat::createDateInstance(icu::DateFormat::kMedium));
  if (!format) return rfc3339String(thisDay).substr(0, 10);
  format->adoptTimeZone(zoneNamed(timeZone).release());
  icu::UnicodeString text;
  format->format(toUDate(thisDay), text);
  std::string out;
  text.toUTF8String(out);
  return out;
}

std::string relativeDate(const std::optional<Date>& date, Date now) {
  if (!date) return {};
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - *date).count();
  // A date a little ahead (clock skew at the server) still reads as now.
  if (seconds < 60 && seconds > -300) return "just now";
  if (seconds > 0 && seconds < 3600) return fmt::format("{} min ago", seconds / 60);
  if (seconds > 0 && seconds < 86'400) return fmt::format("{} h ago", seconds / 3600);
  if (seconds > 0 && seconds < 7 * 86'400) return fmt::format("{} d ago", seconds / 86'400);
  const std::time_t time = std::chrono::system_clock::to_time_t(*date);
  std::tm local{};
  localtime_r(&time, &local);
  char buffer[16];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d", &local);
  return buffer;
}

}  // namespace lectern
