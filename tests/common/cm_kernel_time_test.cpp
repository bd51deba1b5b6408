#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>

#include "cm_kernel.h"
#include "cm_trace.h"
#include "kd_test_support.h"

namespace {

/// Sets TZ for the life of the object.
class ScopedTz {
 public:
  explicit ScopedTz(const char* tz) {
    if (const char* old = std::getenv("TZ")) {
      had_ = true;
      old_ = old;
    }
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ScopedTz() {
    if (had_)
      setenv("TZ", old_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  bool had_ = false;
  std::string old_;
};

time_t Now() {
  struct timespec ts {};
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec;
}

std::string Format(const struct tm& tm, const char* format) {
  char out[64];
  std::strftime(out, sizeof out, format, &tm);
  return out;
}

std::string Readable(time_t t) {
  struct tm tm {};
  localtime_r(&t, &tm);
  return Format(tm, "%Y-%m-%d %H:%M:%S");
}

/// The current local time shifted field by field, as the calendar normalises it.
std::string ShiftedNow(int days, int hours = 0, int minutes = 0, int seconds = 0) {
  const time_t now = Now();
  struct tm tm {};
  localtime_r(&now, &tm);
  tm.tm_mday += days;
  tm.tm_hour += hours;
  tm.tm_min += minutes;
  tm.tm_sec += seconds;
  tm.tm_isdst = -1;
  return Readable(std::mktime(&tm));
}

/// time_get of command; the expectation is computed before and after the call,
/// so that a second boundary in between cannot fail the test.
void ExpectNowBased(const std::string& command, const std::function<std::string()>& expected) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%s", command.c_str());
  const std::string before = expected();
  const std::string got = time_get(buffer);
  const std::string after = expected();
  EXPECT_TRUE(got == before || got == after) << "[" << command << "] gave " << got << ", expected " << before;
}

std::string TimeGet(const std::string& command) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%s", command.c_str());
  return time_get(buffer);
}

/// A test instance whose trace log is open at the given level.
class TracedTime : public ::testing::Test {
 protected:
  void Open(int level) {
    inst_.write_debug_ini("KD_TEST=" + std::to_string(level) + "\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &rec_);
  }
  std::string Log() const {
    std::string all;
    if (DIR* d = opendir(inst_.lgc().c_str())) {
      while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0)
          all += kdtest::ReadFile(inst_.lgc() + name);
      }
      closedir(d);
    }
    return all;
  }
  bool LogHas(const std::string& text) const { return Log().find(text) != std::string::npos; }

  kdtest::TestInstance inst_;
  str_log rec_;
};

}  // namespace

TEST(TimeGet, CurrentTimeAsStamps) {
  ExpectNowBased("I", [] {
    const time_t now = Now();
    struct tm tm {};
    localtime_r(&now, &tm);
    return Format(tm, "%Y%m%d%H%M%S");
  });
  char buffer[32] = "N";
  const time_t before = Now();
  const std::string n = time_get(buffer);
  const time_t after = Now();
  ASSERT_EQ(n.size(), 17u) << n;
  EXPECT_EQ(n.find_first_not_of("0123456789"), std::string::npos) << n;
  struct tm tb {}, ta {};
  localtime_r(&before, &tb);
  localtime_r(&after, &ta);
  const std::string head = n.substr(0, 14);
  EXPECT_TRUE(head == Format(tb, "%Y%m%d%H%M%S") || head == Format(ta, "%Y%m%d%H%M%S")) << n;
}

TEST(TimeGet, UIsLocalStandardTimeWithoutDaylightSaving) {
  // One hour east of UTC, one more in summer: U must always be one hour ahead of UTC.
  ScopedTz tz("CET-1CEST,M3.5.0,M10.5.0/3");
  const auto standard = [] {
    const time_t t = Now() + 3600;
    struct tm tm {};
    gmtime_r(&t, &tm);
    return Format(tm, "%Y%m%d%H%M%S");
  };
  char buffer[32] = "U";
  const std::string before = standard();
  const std::string got = time_get(buffer);
  const std::string after = standard();
  ASSERT_EQ(got.size(), 17u) << got;
  EXPECT_TRUE(got.substr(0, 14) == before || got.substr(0, 14) == after) << got << " vs " << before;
}

TEST(TimeGet, ShiftsOfNow) {
  ExpectNowBased("D -1", [] { return ShiftedNow(-1); });
  ExpectNowBased("Y", [] { return ShiftedNow(-1); });
  ExpectNowBased("T", [] { return ShiftedNow(1); });
  ExpectNowBased("D 1", [] { return ShiftedNow(1); });
  ExpectNowBased("H 2", [] { return ShiftedNow(0, 2); });
  ExpectNowBased("M 90", [] { return ShiftedNow(0, 0, 90); });
  ExpectNowBased("S -30", [] { return ShiftedNow(0, 0, 0, -30); });
  ExpectNowBased("D 400", [] { return ShiftedNow(400); });
  // Unknown commands, unreadable numbers and a leading 0 leave the time at now.
  for (const char* cmd : {"X", "", "D", "D abc", "h 2", " H 2", "0 H 2", "02026-05-13 08:00:00 H 2"})
    ExpectNowBased(cmd, [] { return ShiftedNow(0); });
}

TEST(TimeGet, ShiftsOfAGivenBaseTime) {
  ScopedTz tz("UTC0");
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 H 2"), "2026-05-13 10:00:00");
  EXPECT_EQ(TimeGet("20260513_080000 M 30"), "2026-05-13 08:30:00");
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 M 90"), "2026-05-13 09:30:00");
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 S -3600"), "2026-05-13 07:00:00");
  EXPECT_EQ(TimeGet("2026-01-31 23:00:00 H 2"), "2026-02-01 01:00:00");
  EXPECT_EQ(TimeGet("2026-12-31 12:00:00 T"), "2027-01-01 12:00:00");
  EXPECT_EQ(TimeGet("2026-03-01 12:00:00 Y"), "2026-02-28 12:00:00");
  EXPECT_EQ(TimeGet("2028-02-28 00:00:00 D 1"), "2028-02-29 00:00:00");
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 X"), "2026-05-13 08:00:00");
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 "), "2026-05-13 08:00:00");
  EXPECT_EQ(TimeGet("20260513_080000"), "2026-05-13 08:00:00") << "a stamp without command";
  EXPECT_EQ(TimeGet("20260513_080000 D -13"), "2026-04-30 08:00:00");
  // A readable time of exactly 19 characters is no base time: its first character, 2, is the command.
  ExpectNowBased("2026-05-13 08:00:00", [] { return ShiftedNow(0); });
}

TEST(TimeGet, DayShiftsKeepTheWallClockAcrossDaylightSaving) {
  ScopedTz tz("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(TimeGet("2026-03-28 12:00:00 D 1"), "2026-03-29 12:00:00");
  EXPECT_EQ(TimeGet("2026-10-24 12:00:00 T"), "2026-10-25 12:00:00");
  EXPECT_EQ(TimeGet("2026-03-29 01:00:00 H 1"), "2026-03-29 03:00:00") << "02:00 does not exist that night";
}

TEST_F(TracedTime, UnrepresentableShiftsGiveTheEndOfTheEpoch) {
  Open(1);
  const std::string end_of_epoch = Readable(2147483647);
  EXPECT_EQ(TimeGet("D 999999999"), end_of_epoch);
  EXPECT_TRUE(LogHas(
      "Error: time_get: WARNING: Set time to end-of-epoch bcs. given time shift [D 999999999] exceeds UNIX time"))
      << Log();
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 D 2147483647"), end_of_epoch) << "the day field overflows";
  EXPECT_TRUE(LogHas("given time shift [D 2147483647] exceeds"));
  EXPECT_EQ(TimeGet("S 99999999999999999999999"), end_of_epoch);
  EXPECT_EQ(TimeGet("D -999999"), end_of_epoch);
  // Far, but within four-digit years: a real time, also beyond 2038.
  ScopedTz tz("UTC0");
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 D 3650"), "2036-05-10 08:00:00");
  EXPECT_EQ(TimeGet("2026-05-13 08:00:00 D 36500"), "2126-04-19 08:00:00");
}

TEST_F(TracedTime, UnreadableBaseTimeFallsBackToNow) {
  Open(1);
  ExpectNowBased("2026-99-13 08:00:00 H 2", [] { return ShiftedNow(0, 2); });
  ExpectNowBased("2026051x_080000 H 2", [] { return ShiftedNow(0, 2); });
  EXPECT_TRUE(LogHas("time_get: cannot read the base time of [2026-99-13 08:00:00 H 2], using now")) << Log();
}

TEST(TimeGet, BadBuffersDoNotOverflow) {
  EXPECT_EQ(time_get(nullptr), nullptr);
  // The result never writes more than 25 bytes, whatever the command held.
  char buffer[400];
  std::memset(buffer, 'D', sizeof buffer);
  buffer[sizeof buffer - 1] = '\0';
  buffer[1] = ' ';
  std::memset(buffer + 25, '#', 100);
  time_get(buffer);
  EXPECT_EQ(std::strlen(buffer), 19u);
  EXPECT_EQ(buffer[25], '#');
  char binary[32] = "\x01\xff\x80 H 2";
  EXPECT_EQ(std::strlen(time_get(binary)), 19u);
  char short_stamp[32] = "1_";
  EXPECT_EQ(std::strlen(time_get(short_stamp)), 19u);
  char stamp_only[32] = "20260513_";
  EXPECT_EQ(std::strlen(time_get(stamp_only)), 19u);
}

TEST_F(TracedTime, ConvertTimeReadsTheFourNotations) {
  Open(3);
  struct {
    const char* text;
    int year, mon, mday, hour, min, sec;
  } cases[] = {
      {"20260513080910", 126, 4, 13, 8, 9, 10},      {"20260513", 126, 4, 13, 0, 0, 0},
      {"2026-05-13 08:09:10", 126, 4, 13, 8, 9, 10}, {"2026-05-13", 126, 4, 13, 0, 0, 0},
      {"2026-05-13_08:09:10", 126, 4, 13, 8, 9, 10},
  };
  for (const auto& c : cases) {
    struct tm tm {};
    const char* end = cm_convert_time(c.text, &tm);
    ASSERT_NE(end, nullptr) << c.text;
    EXPECT_EQ(*end, '\0') << c.text;
    EXPECT_EQ(tm.tm_year, c.year) << c.text;
    EXPECT_EQ(tm.tm_mon, c.mon) << c.text;
    EXPECT_EQ(tm.tm_mday, c.mday) << c.text;
    EXPECT_EQ(tm.tm_hour, c.hour) << c.text;
    EXPECT_EQ(tm.tm_min, c.min) << c.text;
    EXPECT_EQ(tm.tm_sec, c.sec) << c.text;
  }
  EXPECT_TRUE(LogHas("Trace: CONVERT_TIME: [2026-05-13_08:09:10]")) << Log();
  EXPECT_TRUE(LogHas("Trace: CONVERT_TIME: [%%Y%%m%%d%%H%%M%%S]"));
  EXPECT_TRUE(LogHas("Trace: CONVERT_TIME: [%%Y%%m%%d]"));
  EXPECT_TRUE(LogHas("Trace: CONVERT_TIME: [%%Y-%%m-%%d %%H:%%M:%%S]"));
  EXPECT_TRUE(LogHas("Trace: CONVERT_TIME: [%%Y-%%m-%%d]"));

  // The first notation that reads a prefix wins; the rest is pointed at.
  const char* partial = "2026-05-13 later";
  struct tm tm {};
  EXPECT_EQ(cm_convert_time(partial, &tm), partial + 10);
  // A compact stamp with "_" has its 11th character blanked: only the date is read.
  const char* stamp = "20260513_080910";
  tm = {};
  EXPECT_EQ(cm_convert_time(stamp, &tm), stamp + 8);
  EXPECT_EQ(tm.tm_hour, 0);
}

TEST_F(TracedTime, ConvertTimeRefusesOtherTexts) {
  Open(0);
  struct tm tm {};
  tm.tm_year = 77;
  EXPECT_EQ(cm_convert_time("13.05.2026", &tm), nullptr);
  EXPECT_EQ(tm.tm_year, 77);
  EXPECT_TRUE(LogHas("Error: CONVERT_TIME: Could not convert timestring [13.05.2026]")) << Log();
  EXPECT_EQ(cm_convert_time("20261301", &tm), nullptr) << "month 13";
  EXPECT_EQ(cm_convert_time(nullptr, &tm), nullptr);
  EXPECT_EQ(cm_convert_time("20260513", nullptr), nullptr);
  const std::string huge = "2026-05-13" + std::string(100000, 'x');
  EXPECT_EQ(cm_convert_time(huge.c_str(), &tm), huge.c_str() + 10);
  const std::string under = std::string(20, '_') + "\xff";
  EXPECT_EQ(cm_convert_time(under.c_str(), &tm), nullptr);
  EXPECT_FALSE(LogHas("Trace: ")) << "level-3 lines stay out at level 0";
}

TEST(TimeConversions, InPlaceBetweenStampAndReadableForm) {
  char buffer[32] = "2026-05-13 08:09:10";
  EXPECT_EQ(cm_time_iso2stamp(buffer), 14);
  EXPECT_STREQ(buffer, "20260513080910");
  EXPECT_EQ(cm_time_stamp2iso(buffer), 19);
  EXPECT_STREQ(buffer, "2026-05-13 08:09:10");

  char day[32] = "20260513";
  EXPECT_EQ(cm_time_stamp2iso(day), 19);
  EXPECT_STREQ(day, "2026-05-13 00:00:00");
  // The daemon's day switch: the day label with " 00:00:00" appended.
  char label[32] = "2026-05-13 00:00:00";
  EXPECT_EQ(cm_time_iso2stamp(label), 14);
  EXPECT_STREQ(label, "20260513000000");
  char underscore[32] = "2026-05-13_08:09:10";
  EXPECT_EQ(cm_time_iso2stamp(underscore), 14);
  EXPECT_STREQ(underscore, "20260513080910");

  char null_text[32] = "NULL";
  EXPECT_EQ(cm_time_stamp2iso(null_text), 0);
  EXPECT_STREQ(null_text, "NULL");
  char empty[32] = "";
  EXPECT_EQ(cm_time_stamp2iso(empty), 0);
  EXPECT_EQ(cm_time_iso2stamp(empty), 0);
  char bad[32] = "yesterday";
  EXPECT_EQ(cm_time_iso2stamp(bad), 0);
  EXPECT_STREQ(bad, "yesterday");
  EXPECT_EQ(cm_time_stamp2iso(bad), 0);
  EXPECT_STREQ(bad, "yesterday");
  EXPECT_EQ(cm_time_iso2stamp(nullptr), 0);
  EXPECT_EQ(cm_time_stamp2iso(nullptr), 0);
}

TEST(TimeConversions, NowInReadableForm) {
  const auto expected = [] { return Readable(Now()); };
  const std::string before = expected();
  const std::string got = psz_now_iso();
  const std::string after = expected();
  EXPECT_TRUE(got == before || got == after) << got << " vs " << before;
}
