#include "strlib.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "kd_test_support.h"

namespace {

struct tm Sentinel() {
  struct tm tm {};
  tm.tm_year = 77;
  tm.tm_mon = 7;
  tm.tm_mday = 7;
  tm.tm_hour = 7;
  tm.tm_min = 7;
  tm.tm_sec = 42;
  tm.tm_wday = 5;
  tm.tm_yday = 100;
  tm.tm_isdst = 1;
  return tm;
}

bool SameTm(const struct tm& a, const struct tm& b) {
  return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday && a.tm_hour == b.tm_hour &&
         a.tm_min == b.tm_min && a.tm_sec == b.tm_sec && a.tm_wday == b.tm_wday && a.tm_yday == b.tm_yday &&
         a.tm_isdst == b.tm_isdst;
}

// The submission time formats, in the order the job parser tries them.
constexpr std::array<const char*, 6> kSubmitFormats{"%F T %T", "%F %T", "%F_%T", "%F T %H:%M", "%F %H:%M",
                                                    "%F_%H:%M"};

/// Index of the first submission format that consumes the whole text, or -1.
int FirstWholeMatch(const char* text, struct tm* out) {
  for (std::size_t i = 0; i < kSubmitFormats.size(); ++i) {
    struct tm tm = Sentinel();
    const char* end = kd_strptime(text, kSubmitFormats[i], &tm);
    if (end != nullptr && *end == '\0') {
      *out = tm;
      return static_cast<int>(i);
    }
  }
  return -1;
}

/// An argument vector with an extra word behind argv[argc], so that a parser
/// that reads past the end would hand that word out.
struct Args {
  explicit Args(std::vector<std::string> w) : words(std::move(w)) {
    for (auto& s : words) ptrs.push_back(s.data());
    ptrs.push_back(beyond.data());
  }
  int argc() const { return static_cast<int>(words.size()); }
  char* const* argv() { return ptrs.data(); }
  std::vector<std::string> words;
  std::string beyond = "BEYOND";
  std::vector<char*> ptrs;
};

/// Runs the parser to its end; each result as "c" or "c=value", "?x" for an
/// unknown or valueless option x.
std::vector<std::string> ParseAll(Args& a, const char* optstring) {
  std::vector<std::string> out;
  mygetopt_reset();
  for (int guard = 0; guard < 64; ++guard) {
    const int c = mygetopt(a.argc(), a.argv(), optstring);
    if (c == -1) break;
    if (c == '?' || c == ':')
      out.push_back(std::string(1, static_cast<char>(c)) + static_cast<char>(myoptopt));
    else if (myoptarg)
      out.push_back(std::string(1, static_cast<char>(c)) + "=" + myoptarg);
    else
      out.push_back(std::string(1, static_cast<char>(c)));
  }
  return out;
}

using V = std::vector<std::string>;

}  // namespace

TEST(KdStrptime, ReadsEveryConversionIntoItsField) {
  struct tm tm = Sentinel();
  const char* text = "20260513080910";
  const char* end = kd_strptime(text, "%Y%m%d%H%M%S", &tm);
  ASSERT_EQ(end, text + 14);
  EXPECT_EQ(tm.tm_year, 126);
  EXPECT_EQ(tm.tm_mon, 4);
  EXPECT_EQ(tm.tm_mday, 13);
  EXPECT_EQ(tm.tm_hour, 8);
  EXPECT_EQ(tm.tm_min, 9);
  EXPECT_EQ(tm.tm_sec, 10);
  EXPECT_EQ(tm.tm_wday, 5) << "weekday is not carried by the format";
  EXPECT_EQ(tm.tm_isdst, 1);

  tm = Sentinel();
  ASSERT_NE(kd_strptime("69/ 5 %", "%y/%e %%", &tm), nullptr);
  EXPECT_EQ(tm.tm_year, 69);
  EXPECT_EQ(tm.tm_mday, 5);
  ASSERT_NE(kd_strptime("68", "%y", &tm), nullptr);
  EXPECT_EQ(tm.tm_year, 168);
  ASSERT_NE(kd_strptime("2026 366", "%Y %j", &tm), nullptr);
  EXPECT_EQ(tm.tm_yday, 365);
  ASSERT_NE(kd_strptime("1\t\n 2", "%H%n%M", &tm), nullptr);
  EXPECT_EQ(tm.tm_hour, 1);
  EXPECT_EQ(tm.tm_min, 2);

  // The position behind the consumed text is returned; the rest is the caller's.
  const char* partial = "2026-05-13 rest";
  EXPECT_EQ(kd_strptime(partial, "%F", &tm), partial + 10);
  // Numbers take at most their field width.
  const char* digits = "123456";
  EXPECT_EQ(kd_strptime(digits, "%Y", &tm), digits + 4);
  EXPECT_EQ(tm.tm_year, 1234 - 1900);
}

TEST(KdStrptime, BlankInTheFormatMatchesAnyRunOfBlanksIncludingNone) {
  struct tm tm {};
  for (const char* text : {"2026-05-13 T 08:00:00", "2026-05-13T08:00:00", "2026-05-13   T\t08:00:00"}) {
    const char* end = kd_strptime(text, "%F T %T", &tm);
    ASSERT_NE(end, nullptr) << text;
    EXPECT_EQ(*end, '\0') << text;
  }
  EXPECT_EQ(kd_strptime("2026-05-13 08:00:00", "%F T %T", &tm), nullptr) << "the literal T is missing";
  EXPECT_EQ(kd_strptime("2026-05-13 t 08:00:00", "%F T %T", &tm), nullptr) << "literals are case-sensitive";
}

TEST(KdStrptime, SubmissionTimesResolveToTheFormatAUserMeans) {
  struct {
    const char* text;
    int format;
    int hour, min, sec;
  } cases[] = {
      {"2026-05-13 T 08:01:02", 0, 8, 1, 2}, {"2026-05-13T08:01:02", 0, 8, 1, 2},
      {"2026-05-13 08:01:02", 1, 8, 1, 2},   {"2026-05-13_08:01:02", 2, 8, 1, 2},
      {"2026-05-13 T 08:01", 3, 8, 1, 42},   {"2026-05-13 08:01", 4, 8, 1, 42},
      {"2026-05-13_08:01", 5, 8, 1, 42},     {"2026-05-13 8:01", 4, 8, 1, 42},
  };
  for (const auto& c : cases) {
    struct tm tm {};
    EXPECT_EQ(FirstWholeMatch(c.text, &tm), c.format) << c.text;
    EXPECT_EQ(tm.tm_year, 126) << c.text;
    EXPECT_EQ(tm.tm_mon, 4) << c.text;
    EXPECT_EQ(tm.tm_mday, 13) << c.text;
    EXPECT_EQ(tm.tm_hour, c.hour) << c.text;
    EXPECT_EQ(tm.tm_min, c.min) << c.text;
    EXPECT_EQ(tm.tm_sec, c.sec) << c.text << ": seconds stay those of the caller in the %H:%M forms";
  }
  for (const char* text : {"2026-05-13", "2026-05-13 08", "2026-05-13 08:00:00 ", "2026-05-13 08:00:00x",
                           "2026-05-13__08:00", "13.05.2026 08:00", "2026-05-13 25:00", ""}) {
    struct tm tm {};
    EXPECT_EQ(FirstWholeMatch(text, &tm), -1) << text;
  }
}

TEST(KdStrptime, OutOfRangeFieldsAndMismatchesLeaveTmUntouched) {
  for (const char* text : {"2026-00-13 08:00:00", "2026-13-13 08:00:00", "2026-05-00 08:00:00",
                           "2026-05-32 08:00:00", "2026-05-13 24:00:00", "2026-05-13 08:60:00",
                           "2026-05-13 08:00:61", "2026-05-13 08:00:x0", "2026-05-xx"}) {
    struct tm tm = Sentinel();
    EXPECT_EQ(kd_strptime(text, "%F %T", &tm), nullptr) << text;
    EXPECT_TRUE(SameTm(tm, Sentinel())) << text << ": a half-parsed text must not leak into tm";
  }
  struct tm tm = Sentinel();
  EXPECT_NE(kd_strptime("2026-05-13 08:00:60", "%F %T", &tm), nullptr) << "a leap second is a valid second";
  EXPECT_EQ(kd_strptime("000", "%j", &tm), nullptr);
  EXPECT_EQ(kd_strptime("367", "%j", &tm), nullptr);
}

TEST(KdStrptime, BadInputIsRefusedWithoutHarm) {
  struct tm tm = Sentinel();
  EXPECT_EQ(kd_strptime(nullptr, "%F", &tm), nullptr);
  EXPECT_EQ(kd_strptime("2026-05-13", nullptr, &tm), nullptr);
  EXPECT_EQ(kd_strptime("2026-05-13", "%F", nullptr), nullptr);
  EXPECT_EQ(kd_strptime("2026", "%Y%", &tm), nullptr) << "a lone % at the end of the format";
  EXPECT_EQ(kd_strptime("2026", "%Q", &tm), nullptr) << "an unknown conversion";
  EXPECT_EQ(kd_strptime("\x01\xff\x80", "%F", &tm), nullptr);
  EXPECT_TRUE(SameTm(tm, Sentinel()));
  const std::string long_digits(100000, '9');
  EXPECT_EQ(kd_strptime(long_digits.c_str(), "%Y", &tm), long_digits.c_str() + 4);
  const std::string long_blanks = "2026" + std::string(100000, ' ') + "05";
  const char* end = kd_strptime(long_blanks.c_str(), "%Y %m", &tm);
  ASSERT_NE(end, nullptr);
  EXPECT_EQ(*end, '\0');
}

TEST(MyGetopt, GroupedGluedAndSeparateValues) {
  Args a({"prog", "-ab", "-p5", "-p", "6", "-cq", "x", "file", "-a"});
  EXPECT_EQ(ParseAll(a, "abp:c:"), (V{"a", "b", "p=5", "p=6", "c=q"}));
  EXPECT_EQ(myoptind, 6) << "x is the first non-option word";
}

TEST(MyGetopt, OptionsEndAtTheFirstNonOptionWord) {
  Args a({"prog", "-a", "file", "-b"});
  EXPECT_EQ(ParseAll(a, "ab"), V{"a"});
  EXPECT_EQ(myoptind, 2);
  EXPECT_STREQ(a.argv()[myoptind], "file");

  Args dash({"prog", "-", "-a"});
  EXPECT_EQ(ParseAll(dash, "a"), V{});
  EXPECT_EQ(myoptind, 1) << "a lone '-' is a non-option and stays";

  Args dd({"prog", "-a", "--", "-b"});
  EXPECT_EQ(ParseAll(dd, "ab"), V{"a"});
  EXPECT_EQ(myoptind, 3) << "'--' is consumed";

  Args none({"prog"});
  EXPECT_EQ(ParseAll(none, "a"), V{});
  EXPECT_EQ(myoptind, 1);
}

TEST(MyGetopt, UnknownOptionsAndMissingValues) {
  Args unknown({"prog", "-x", "-ya", "-:"});
  EXPECT_EQ(ParseAll(unknown, "a"), (V{"?x", "?y", "a", "?:"}));

  Args missing({"prog", "-ap"});
  EXPECT_EQ(ParseAll(missing, "ap:"), (V{"a", "?p"}));
  EXPECT_EQ(myoptind, 2);
  EXPECT_EQ(ParseAll(missing, ":ap:"), (V{"a", ":p"}));

  // The word behind argv[argc] is never taken as the value.
  Args last({"prog", "-p"});
  EXPECT_EQ(ParseAll(last, ":p:"), V{":p"});
  EXPECT_EQ(myoptind, 2);
}

TEST(MyGetopt, PrintsNothingUnlessAsked) {
  Args a({"prog", "-x", "-p"});
  myopterr = 0;
  EXPECT_EQ(kdtest::CaptureFd(2, [&] { ParseAll(a, "p:"); }), "");
  myopterr = 1;
  const std::string printed = kdtest::CaptureFd(2, [&] { ParseAll(a, "p:"); });
  myopterr = 0;
  EXPECT_NE(printed.find("'x'"), std::string::npos) << printed;
  EXPECT_NE(printed.find("'p'"), std::string::npos) << printed;
}

TEST(MyGetopt, ResetStartsOverEvenInTheMiddleOfAGroup) {
  Args first({"prog", "-abc"});
  mygetopt_reset();
  EXPECT_EQ(mygetopt(first.argc(), first.argv(), "abc"), 'a');
  // A request parser leaves the group half read and parses the next request.
  Args second({"q1", "-p", "1=3", "-p", "2=1"});
  EXPECT_EQ(ParseAll(second, "p:"), (V{"p=1=3", "p=2=1"}));
  EXPECT_EQ(myoptind, 5);
  EXPECT_EQ(ParseAll(first, "abc"), (V{"a", "b", "c"}));
}

TEST(MyGetopt, FrontEndAndSubmissionOptionStrings) {
  Args front({"sho", "-v", "3", "-e", "x", "q1"});
  EXPECT_EQ(ParseAll(front, "hv:e:"), (V{"v=3", "e=x"}));
  EXPECT_EQ(myoptind, 5);

  Args job({"qm_job", "-j", "name", "-S", "5/10", "-T", "2026-05-13 08:00", "-u", "restricted"});
  EXPECT_EQ(ParseAll(job, "G:T:W:E:p:j:K:S:e:R:u:"),
            (V{"j=name", "S=5/10", "T=2026-05-13 08:00", "u=restricted"}));

  Args flag({"prog", "-a"});
  mygetopt_reset();
  myoptarg = flag.argv()[0];
  EXPECT_EQ(mygetopt(flag.argc(), flag.argv(), "a"), 'a');
  EXPECT_EQ(myoptarg, nullptr) << "a flag carries no value";

  Args optional({"prog", "-ofoo", "-o", "bar"});
  EXPECT_EQ(ParseAll(optional, "o::"), (V{"o=foo", "o"}));
  EXPECT_EQ(myoptind, 3);
}

TEST(MyGetopt, DegenerateVectorsEndTheOptions) {
  mygetopt_reset();
  EXPECT_EQ(mygetopt(0, nullptr, "a"), -1);
  char* null_word[] = {nullptr, nullptr, nullptr};
  EXPECT_EQ(mygetopt(2, null_word, "a"), -1);
  Args a({"prog", "-a"});
  mygetopt_reset();
  EXPECT_EQ(mygetopt(a.argc(), a.argv(), nullptr), -1);
  myoptind = 0;  // a caller's own reset
  EXPECT_EQ(mygetopt(a.argc(), a.argv(), "a"), 'a');
  myoptind = 99;
  EXPECT_EQ(mygetopt(a.argc(), a.argv(), "a"), -1);
}

TEST(StrCase, ChangesAsciiLettersOnly) {
  char text[] = "Kd_QM-Main \xc4\xff 09";
  EXPECT_STREQ(str_to_lower(text), "kd_qm-main \xc4\xff 09");
  EXPECT_STREQ(str_to_upper(text), "KD_QM-MAIN \xc4\xff 09");
  EXPECT_EQ(str_to_lower(nullptr), nullptr);
  EXPECT_EQ(str_to_upper(nullptr), nullptr);
}
