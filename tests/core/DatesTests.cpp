#include <gtest/gtest.h>

#include "core/Dates.h"
#include "core/Log.h"

namespace lectern {
namespace {

using namespace std::chrono;

Date utc(int y, unsigned mo, unsigned d, int h, int mi, int s, int ms = 0) {
  return Date(duration_cast<Date::duration>(sys_days(year(y) / month(mo) / day(d)).time_since_epoch() + hours(h) +
                                            minutes(mi) + seconds(s) + milliseconds(ms)));
}

TEST(FeedDates, ReadsTheFormsFeedsUse) {
  struct Case {
    const char* text;
    DateFormatHint hint;
    Date want;
  };
  const Case cases[] = {
      {"Tue, 10 Jun 2003 04:00:00 GMT", DateFormatHint::kRFC822, utc(2003, 6, 10, 4, 0, 0)},
      {"tue, 10 jun 2003 04:00:00 gmt", DateFormatHint::kRFC822, utc(2003, 6, 10, 4, 0, 0)},  // upper-cased first
      {"Tue, 10 Jun 2003 04:00 GMT", DateFormatHint::kRFC822, utc(2003, 6, 10, 4, 0, 0)},
      {"Tue, 10 Jun 2003 04:00:00", DateFormatHint::kRFC822, utc(2003, 6, 10, 4, 0, 0)},
      {"Tue, 10 Jun 2003 06:00:00 +0200", DateFormatHint::kRFC822, utc(2003, 6, 10, 4, 0, 0)},
      {"10 Jun 2003 04:00:00 GMT", DateFormatHint::kRFC822, utc(2003, 6, 10, 4, 0, 0)},
      {"2003-12-13T18:30:02Z", DateFormatHint::kRFC3339, utc(2003, 12, 13, 18, 30, 2)},
      {"2003-12-13T18:30:02.25+01:00", DateFormatHint::kRFC3339, utc(2003, 12, 13, 17, 30, 2, 250)},
      {"2003-12-13T18:30:02-05:00", DateFormatHint::kRFC3339, utc(2003, 12, 13, 23, 30, 2)},
      {"2003-12-13 18:30:02", DateFormatHint::kRFC3339, utc(2003, 12, 13, 18, 30, 2)},
      // Without a comma the RFC 822 reader falls back to the RFC 3339 one.
      {"2003-12-13T18:30:02Z", DateFormatHint::kRFC822, utc(2003, 12, 13, 18, 30, 2)},
  };
  for (const auto& c : cases) {
    auto date = dateFromInternetDateTimeString(c.text, c.hint);
    ASSERT_TRUE(date) << c.text;
    EXPECT_EQ(rfc3339String(*date), rfc3339String(c.want)) << c.text;
  }
}

// The strict forms are read by hand before ICU is asked; both must give the same answer, including
// "no date" for the texts ICU refuses.
TEST(FeedDates, HandReadStrictFormsAgreeWithTheFormatters) {
  const char* rfc822[] = {
      "Sun, 22 Nov 2026 08:35:45 +0100", "Sun, 22 Nov 2026 08:35:45 -0730", "sun, 22 nov 2026 08:35:45 gmt",
      "Sun, 2 Nov 2026 08:35:45 GMT",    "Sun, 22 Nov 2026 08:35 +0000",    "Sun, 22 Nov 2026 08:35:45",
      "22 Nov 2026 08:35:45 +0200",      "22 Nov 2026 08:35",               "Mon, 22 Nov 2026 08:35:45 GMT",
      "Sun, 29 Feb 2028 23:59:59 +2359", "Sun, 29 Feb 2027 10:00:00 GMT",   "Sun, 31 Nov 2026 10:00:00 GMT",
      "Sun, 22 Nov 2026 24:00:00 GMT",   "Sun, 22 Nov 2026 08:60:00 GMT",   "Sun, 22 Nov 2026 08:35:45 +2400",
      "Sun, 22 Nov 26 08:35:45 GMT",     "Sun, 22 Nov 2026 8:35:45 GMT",    "Sun 22 Nov 2026 08:35:45 GMT",
      "Sun, 22 Nov 2026 08:35:45 EST",   "Sun, 22 Nov 2026 08:35:45 UT",    "Sun, 22 Nov 2026  08:35:45 GMT",
      "Xyz, 22 Nov 2026 08:35:45 GMT",   "Sun, 22 Foo 2026 08:35:45 GMT",   "Sun, 22 Nov 2026 08:35:45 +01",
  };
  for (const char* text : rfc822) {
    const auto icu = dateFromRFC822StringWithICU(text);
    const auto both = dateFromRFC822String(text);
    ASSERT_EQ(both.has_value(), icu.has_value()) << text;
    if (icu) {
      EXPECT_EQ(rfc3339String(*both), rfc3339String(*icu)) << text;
    }
  }
  const char* rfc3339[] = {
      "2026-11-22T13:49:45Z",          "2026-11-22T13:49:45+05:30",      "2026-11-22T13:49:45-0800",
      "2026-11-22t13:49:45z",          "2026-11-22T13:49:45.930069+00:00", "2026-11-22T13:49:45.5Z",
      "2026-11-22T13:49:45.123-02:00", "2026-11-22T13:49:45",            "2026-11-22T13:49:45.123",
      "2026-02-30T13:49:45Z",          "2026-11-22T25:49:45Z",           "2026-11-22T13:49Z",
      "2026-11-22T13:49:45+5:30",      "26-11-22T13:49:45Z",             "2026-11-22T13:49:45+05:30x",
  };
  for (const char* text : rfc3339) {
    const auto icu = dateFromRFC3339StringWithICU(text);
    const auto both = dateFromRFC3339String(text);
    ASSERT_EQ(both.has_value(), icu.has_value()) << text;
    if (icu) {
      EXPECT_EQ(rfc3339String(*both), rfc3339String(*icu)) << text;
    }
  }
}

TEST(FeedDates, UnreadableDatesGiveNothingAndSayWhyInTheLog) {
  ScopedLogCapture log;
  EXPECT_EQ(dateFromInternetDateTimeString("", DateFormatHint::kRFC822), std::nullopt);
  EXPECT_EQ(dateFromInternetDateTimeString("next tuesday", DateFormatHint::kRFC3339), std::nullopt);
  EXPECT_TRUE(log.contains("Could not parse RFC3339 date: \"next tuesday\" Possible invalid format."));
  EXPECT_TRUE(log.contains("Could not parse RFC822 date: \"next tuesday\" Possible invalid format."));
  // Trailing junk is not silently ignored.
  EXPECT_EQ(dateFromRFC3339String("2003-12-13T18:30:02Zjunk"), std::nullopt);
  // Found by fuzzing: a fraction of many digits made the date library divide by zero and the
  // process die on a feed's date.
  const std::string longFraction = "2014-02-011T4:07:33." + std::string(60, '6') + "Z";
  for (const auto hint : {DateFormatHint::kRFC822, DateFormatHint::kRFC3339})
    EXPECT_EQ(dateFromInternetDateTimeString(longFraction, hint), std::nullopt);
  EXPECT_EQ(dateFromRFC3339StringWithICU("2014-02-01T04:07:33." + std::string(40, '1') + "Z"), std::nullopt);
}

TEST(FeedDates, SafeToParseFromManyThreads) {
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        good += dateFromRFC822String("Tue, 10 Jun 2003 04:00:00 GMT") == utc(2003, 6, 10, 4, 0, 0);
        good += dateFromRFC3339String("2003-12-13T18:30:02Z") == utc(2003, 12, 13, 18, 30, 2);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(good, 1600);
}

TEST(ServiceDates, Iso8601AndEpochForms) {
  const std::pair<const char*, Date> cases[] = {
      {"2013-02-02T14:07:33.000000Z", utc(2013, 2, 2, 14, 7, 33)},
      {"2013-02-02T14:07:33.5Z", utc(2013, 2, 2, 14, 7, 33, 500)},
      {"2013-02-02T14:07:33+01:00", utc(2013, 2, 2, 13, 7, 33)},
      {"2013-02-02T14:07:33-0230", utc(2013, 2, 2, 16, 37, 33)},
      {"2013-02-02 14:07:33", utc(2013, 2, 2, 14, 7, 33)},
      {"2013-02-02", utc(2013, 2, 2, 0, 0, 0)},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(dateFromISO8601String(text), want) << text;
  // Years the clock cannot hold are no dates (found by fuzzing: "2913" overflowed the clock).
  for (const char* bad : {"", "2013-02-30T00:00:00Z", "2013-2-2", "2013-02-02T14:07:33Q", "yesterday",
                          "2913-02-01 14:05:33", "9999-12-31", "0001-01-01T00:00:00Z"}) {
    EXPECT_EQ(dateFromISO8601String(bad), std::nullopt) << bad;
  }
  // What the reader takes, written out, reads back.
  const auto late = dateFromISO8601String("2250-06-01T00:00:00Z");
  ASSERT_TRUE(late);
  EXPECT_EQ(dateFromRFC3339String(rfc3339String(*late)), late);
  EXPECT_EQ(dateFromMillisecondsSince1970(1'055'217'600'000), utc(2003, 6, 10, 4, 0, 0));
  EXPECT_EQ(millisecondsSince1970(utc(2003, 6, 10, 4, 0, 0, 7)), 1'055'217'600'007);
}

TEST(ServiceDates, Rfc3339OutputShowsAFractionOnlyWhenThereIsOne) {
  EXPECT_EQ(rfc3339String(utc(2003, 6, 10, 4, 0, 0)), "2003-06-10T04:00:00Z");
  EXPECT_EQ(rfc3339String(utc(2003, 12, 13, 17, 30, 2, 250)), "2003-12-13T17:30:02.25Z");
}

TEST(Sections, DayCutAndTitles) {
  const Date now = utc(2026, 11, 22, 10, 0, 0);
  FixedClock clock(now);
  EXPECT_TRUE(isInFuture(now + seconds(1), clock));
  EXPECT_FALSE(isInFuture(now, clock));
  // In Berlin (UTC+1 in November) 23:30 UTC on the 21st is already the 22nd.
  EXPECT_EQ(sectionDate(utc(2026, 11, 21, 23, 30, 0), "Europe/Berlin"), utc(2026, 11, 21, 23, 0, 0));
  EXPECT_EQ(sectionTitle(utc(2026, 11, 21, 23, 30, 0), now, "Europe/Berlin"), "Today");
  EXPECT_EQ(sectionTitle(utc(2026, 11, 21, 23, 30, 0), now, "UTC"), "Yesterday");
  EXPECT_EQ(sectionTitle(utc(2026, 11, 20, 12, 0, 0), now, "UTC").find("Yesterday"), std::string::npos);
  EXPECT_NE(sectionTitle(utc(2026, 11, 20, 12, 0, 0), now, "UTC").find("2026"), std::string::npos);
}

}  // namespace
}  // namespace lectern
