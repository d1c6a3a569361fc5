#include "core/Dates.h"

#include <array>
#include <cmath>
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

// The one formatter all feed dates go through, and the lock its users hold.
struct InternetDateFormatter {
  std::mutex mutex;  // guards formatter
  std::unique_ptr<icu::SimpleDateFormat> formatter;

  InternetDateFormatter() {
    UErrorCode status = U_ZERO_ERROR;
    formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString("yyyy"), icu::Locale("en_US_POSIX"),
                                                         status);
    if (U_FAILURE(status)) {
      formatter.reset();
      return;
    }
    formatter->adoptTimeZone(icu::TimeZone::createTimeZone("GMT"));
    formatter->setLenient(false);
  }

  // Applies each format in turn; the first that reads the whole text wins.
  template <size_t N>
  std::optional<Date> parse(const icu::UnicodeString& text, const std::array<const char*, N>& formats) {
    if (!formatter) return std::nullopt;
    for (const char* format : formats) {
      formatter->applyPattern(icu::UnicodeString(format));
      icu::ParsePosition position(0);
      const UDate udate = formatter->parse(text, position);
      if (position.getErrorIndex() < 0 && position.getIndex() == text.length()) {
        return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double, std::milli>(udate)));
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

std::optional<Date> parseRFC3339Locked(InternetDateFormatter& shared, std::string_view text) {
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

}  // namespace

std::optional<Date> dateFromRFC3339String(std::string_view text) {
  auto& shared = internetDateFormatter();
  std::optional<Date> date;
  {
    std::lock_guard lock(shared.mutex);
    date = parseRFC3339Locked(shared, text);
  }
  if (!date) logDebugMessage("NSDate", "Could not parse RFC3339 date: \"{}\" Possible invalid format.", text);
  return date;
}

std::optional<Date> dateFromRFC822String(std::string_view text) {
  auto& shared = internetDateFormatter();
  const std::string upper = toUpperASCII(text);
  std::optional<Date> date;
  {
    std::lock_guard lock(shared.mutex);
    if (upper.find(',') != std::string::npos) {
      date = shared.parse(toUnicode(upper), kRFC822WithComma);
    } else {
      date = shared.parse(toUnicode(upper), kRFC822WithoutComma);
      if (!date) date = parseRFC3339Locked(shared, upper);
    }
  }
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

}  // namespace lectern
