// Time services: time_get commands relative to now and to a given base time
// (daylight saving, overflow, bad input), and the timestamp conversions.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_kernel.h"
#include "kd_test_support.h"
#include "test_trace.h"

namespace {

/// Sets TZ for the life of the object.
struct ScopedTz {
  const std::string old = std::getenv("TZ") ? std::getenv("TZ") : "";
  explicit ScopedTz(const char* tz) { setenv("TZ", tz, 1), tzset(); }
  ~ScopedTz() { (old.empty() ? unsetenv("TZ") : setenv("TZ", old.c_str(), 1)), tzset(); }
};

std::string Readable(time_t t, const char* format = "%Y-%m-%d %H:%M:%S", bool utc = false) {
  struct tm tm {};
  utc ? gmtime_r(&t, &tm) : localtime_r(&t, &tm);
  char out[64];
  std::strftime(out, sizeof out, format, &tm);
  return out;
}

/// The current local time shifted field by field, as the calendar normalises it.
std::string ShiftedNow(int days, int hours = 0) {
  const time_t now = time(nullptr);
  struct tm tm {};
  localtime_r(&now, &tm);
  tm.tm_mday += days;
  tm.tm_hour += hours;
  tm.tm_isdst = -1;
  return Readable(std::mktime(&tm));
}

std::string TimeGet(const std::string& command) {
  char buffer[64];
  CopyCut(buffer, command);
  return time_get(buffer);
}

/// time_get of command, compared with the expectation computed before and
/// after the call, so that a second boundary in between cannot fail the test.
void ExpectNowBased(const std::string& command, const std::function<std::string()>& expected,
                    std::size_t compare = std::string::npos) {
  const std::string before = expected();
  const std::string got = TimeGet(command).substr(0, compare);
  // time_get reads the precise clock, time() may trail it by a tick: the
  // later expectation is taken once time() has reached that second.
  timespec precise{};
  clock_gettime(CLOCK_REALTIME, &precise);
  kdtest::WaitFor([&] { return time(nullptr) >= precise.tv_sec; }, std::chrono::seconds(1));
  const std::string after = expected();
  EXPECT_TRUE(got == before || got == after) << "[" << command << "] gave " << got << ", expected " << before;
}

}  // namespace

TEST(TimeGet, StampsAndShiftsOfNow) {
  ExpectNowBased("I", [] { return Readable(time(nullptr), "%Y%m%d%H%M%S"); });
  ExpectNowBased("N", [] { return Readable(time(nullptr), "%Y%m%d%H%M%S"); }, 14);
  EXPECT_EQ(TimeGet("N").size(), 17u) << "with milliseconds";
  // The shifts themselves are those of a given base time (below).
  ExpectNowBased("Y", [] { return ShiftedNow(-1); });
  // Unknown commands, unreadable numbers and a leading 0 leave the time at now; so does a
  // readable time of exactly 19 characters, whose first character, 2, is taken for the command.
  for (const char* cmd : {"X", "", "D abc", "h 2", " H 2", "0 H 2", "2026-05-13 08:00:00"})
    ExpectNowBased(cmd, [] { return ShiftedNow(0); });
  {
    // One hour east of UTC, one more in summer: U must always be one hour ahead of UTC.
    ScopedTz tz("CET-1CEST,M3.5.0,M10.5.0/3");
    ExpectNowBased("U", [] { return Readable(time(nullptr) + 3600, "%Y%m%d%H%M%S", true); }, 14);
  }
}

TEST(TimeGet, ShiftsOfAGivenBaseTimeKeepTheWallClockAcrossDaylightSaving) {
  {
    ScopedTz tz("UTC0");
    EXPECT_EQ(TimeGet("20260513_080000 M 30"), "2026-05-13 08:30:00");
    EXPECT_EQ(TimeGet("2026-05-13 08:00:00 S -3600"), "2026-05-13 07:00:00");
    EXPECT_EQ(TimeGet("2026-12-31 12:00:00 T"), "2027-01-01 12:00:00");
    EXPECT_EQ(TimeGet("2028-02-28 00:00:00 D 1"), "2028-02-29 00:00:00");
    EXPECT_EQ(TimeGet("2026-05-13 08:00:00 X"), "2026-05-13 08:00:00");
    EXPECT_EQ(TimeGet("20260513_080000"), "2026-05-13 08:00:00") << "a stamp without command";
    EXPECT_EQ(TimeGet("2026-05-13 08:00:00 D 36500"), "2126-04-19 08:00:00") << "beyond 2038";
  }
  ScopedTz tz("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(TimeGet("2026-03-28 12:00:00 D 1"), "2026-03-29 12:00:00");
  EXPECT_EQ(TimeGet("2026-10-24 12:00:00 T"), "2026-10-25 12:00:00");
  EXPECT_EQ(TimeGet("2026-03-29 01:00:00 H 1"), "2026-03-29 03:00:00") << "02:00 does not exist that night";
}

TEST(TimeGet, BadInputIsTracedFallsBackAndNeverOverflows) {
  kdtest::TestInstance inst;
  kdtest::ModuleTrace log(inst, 1);
  const std::string end_of_epoch = Readable(2147483647);
  EXPECT_EQ(TimeGet("D 999999999"), end_of_epoch);
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 D 2147483647"), end_of_epoch) << "the day field overflows";
  EXPECT_EQ(TimeGet("S 99999999999999999999999"), end_of_epoch);
  ExpectNowBased("2026-99-13 08:00:00 H 2", [] { return ShiftedNow(0, 2); });
  EXPECT_TRUE(log.Has("Error: time_get: WARNING: Set time to end-of-epoch bcs. given time shift [D 999999999] "
                      "exceeds UNIX time"));
  EXPECT_TRUE(log.Has("time_get: cannot read the base time of [2026-99-13 08:00:00 H 2], using now"));

  EXPECT_EQ(time_get(nullptr), nullptr);
  // The result never writes more than 25 bytes, whatever the command held.
  char buffer[400];
  std::memset(buffer, 'D', sizeof buffer);
  buffer[sizeof buffer - 1] = '\0';
  buffer[1] = ' ';
  std::memset(buffer + 25, '#', 100);
  EXPECT_EQ(std::strlen(time_get(buffer)), 19u);
  EXPECT_EQ(buffer[25], '#');
  for (const char* odd : {"\x01\xff\x80 H 2", "1_", "20260513_"}) EXPECT_EQ(TimeGet(odd).size(), 19u) << odd;
}

TEST(TimeConversions, ConvertTimeReadsTheFourNotationsAndRefusesOthers) {
  for (const char* text : {"20260513080910", "2026-05-13 08:09:10", "2026-05-13_08:09:10"}) {
    struct tm tm {};
    const char* end = cm_convert_time(text, &tm);
    ASSERT_NE(end, nullptr) << text;
    EXPECT_EQ(*end, '\0') << text;
    EXPECT_EQ(Readable(timegm(&tm), "%Y-%m-%d %H:%M:%S", true), "2026-05-13 08:09:10") << text;
  }
  // The first notation that reads a prefix wins; the rest is pointed at.
  const char* partial = "2026-05-13 later";
  struct tm tm {};
  EXPECT_EQ(cm_convert_time(partial, &tm), partial + 10);
  const char* stamp = "20260513_080910";  // the 11th character blanked: only the date is read
  EXPECT_EQ(cm_convert_time(stamp, &tm), stamp + 8);

  tm.tm_year = 77;
  EXPECT_EQ(cm_convert_time("13.05.2026", &tm), nullptr);
  EXPECT_EQ(tm.tm_year, 77);
  EXPECT_EQ(cm_convert_time("20261301", &tm), nullptr) << "month 13";
  EXPECT_EQ(cm_convert_time(nullptr, &tm), nullptr);
  EXPECT_EQ(cm_convert_time((std::string(20, '_') + "\xff").c_str(), &tm), nullptr);
}

TEST(TimeConversions, InPlaceBetweenStampAndReadableForm) {
  char buffer[32] = "2026-05-13_08:09:10";
  EXPECT_EQ(cm_time_iso2stamp(buffer), 14);
  EXPECT_STREQ(buffer, "20260513080910");
  EXPECT_EQ(cm_time_stamp2iso(buffer), 19);
  EXPECT_STREQ(buffer, "2026-05-13 08:09:10");
  CopyCut(buffer, "20260513");
  EXPECT_EQ(cm_time_stamp2iso(buffer), 19);
  EXPECT_STREQ(buffer, "2026-05-13 00:00:00");
  for (const char* unchanged : {"NULL", "", "yesterday"}) {
    CopyCut(buffer, unchanged);
    EXPECT_EQ(cm_time_stamp2iso(buffer), 0) << unchanged;
    EXPECT_EQ(cm_time_iso2stamp(buffer), 0) << unchanged;
    EXPECT_STREQ(buffer, unchanged);
  }
  EXPECT_EQ(cm_time_iso2stamp(nullptr), 0);
}
