// The own strptime (kd_strptime) and getopt (mygetopt) of the runtime.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kd_test_support.h"
#include "strlib.h"

namespace {

struct tm Sentinel() {
  struct tm tm {};
  tm.tm_year = 77;
  tm.tm_mon = tm.tm_mday = tm.tm_hour = tm.tm_min = 7;
  tm.tm_sec = 42;
  tm.tm_isdst = 1;
  return tm;
}

std::string Fields(const struct tm& t) {
  char out[64];
  std::snprintf(out, sizeof out, "%d-%d-%d %d:%d:%d", t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return out;
}

/// An argument vector with an extra word behind argv[argc], so that a parser
/// that reads past the end would hand that word out.
struct Args {
  explicit Args(std::vector<std::string> w) : words(std::move(w)) {
    for (auto& s : words) ptrs.push_back(s.data());
    ptrs.push_back(beyond.data());
  }
  std::vector<std::string> words;
  std::string beyond = "BEYOND";
  std::vector<char*> ptrs;
};

using V = std::vector<std::string>;

/// Runs the parser to its end; each result as "c" or "c=value", "?x" or ":x"
/// for an unknown or valueless option x.
V ParseAll(std::vector<std::string> words, const char* optstring, int* optind_after = nullptr) {
  Args a(std::move(words));
  V out;
  mygetopt_reset();
  for (int guard = 0; guard < 64; ++guard) {
    const int c = mygetopt(static_cast<int>(a.words.size()), a.ptrs.data(), optstring);
    if (c == -1) break;
    if (c == '?' || c == ':')
      out.push_back(std::string(1, static_cast<char>(c)) + static_cast<char>(myoptopt));
    else
      out.push_back(std::string(1, static_cast<char>(c)) + (myoptarg ? std::string("=") + myoptarg : ""));
  }
  if (optind_after) *optind_after = myoptind;
  return out;
}

}  // namespace

TEST(KdStrptime, SubmissionTimesAndTheBlankThatMatchesAnyRunIncludingNone) {
  const struct {
    const char* text;
    const char* format;
    const char* fields;  // year-mon-mday hour:min:sec; seconds stay the caller's where not read
  } cases[] = {{"2026-05-13 T 08:01:02", "%F T %T", "126-4-13 8:1:2"},
               {"2026-05-13T08:01:02", "%F T %T", "126-4-13 8:1:2"},
               {"2026-05-13   T\t08:01:02", "%F T %T", "126-4-13 8:1:2"},
               {"2026-05-13 8:01", "%F %H:%M", "126-4-13 8:1:42"},
               {"68", "%y", "168-7-7 7:7:42"},
               {"69/ 5 %", "%y/%e %%", "69-7-5 7:7:42"}};
  for (const auto& c : cases) {
    struct tm tm = Sentinel();
    const char* end = kd_strptime(c.text, c.format, &tm);
    ASSERT_NE(end, nullptr) << c.text;
    EXPECT_EQ(*end, '\0') << c.text;
    EXPECT_EQ(Fields(tm), c.fields) << c.text;
  }
  // The position behind the consumed text is returned; numbers take at most their field width.
  const char* partial = "2026-05-13 rest";
  struct tm tm {};
  EXPECT_EQ(kd_strptime(partial, "%F", &tm), partial + 10);
  const std::string digits(100000, '9');
  EXPECT_EQ(kd_strptime(digits.c_str(), "%Y", &tm), digits.c_str() + 4);
}

TEST(KdStrptime, MismatchesOutOfRangeFieldsAndBadInputLeaveTmUntouched) {
  for (const char* text : {"2026-05-13 08:00:00", "2026-05-13 t 08:00:00", "2026-13-13 T 08:00:00",
                           "2026-05-32 T 08:00:00", "2026-05-13 T 24:00:00", "2026-05-13 T 08:00:61",
                           "2026-05-xx", "\x01\xff\x80"}) {
    struct tm tm = Sentinel();
    EXPECT_EQ(kd_strptime(text, "%F T %T", &tm), nullptr) << text;
    EXPECT_EQ(Fields(tm), Fields(Sentinel())) << text << ": a half-parsed text must not leak into tm";
  }
  struct tm tm = Sentinel();
  EXPECT_NE(kd_strptime("2026-05-13 08:00:60", "%F %T", &tm), nullptr) << "a leap second is a valid second";
  EXPECT_EQ(kd_strptime("367", "%j", &tm), nullptr);
  EXPECT_EQ(kd_strptime(nullptr, "%F", &tm), nullptr);
  EXPECT_EQ(kd_strptime("2026-05-13", nullptr, &tm), nullptr);
  EXPECT_EQ(kd_strptime("2026-05-13", "%F", nullptr), nullptr);
  EXPECT_EQ(kd_strptime("2026", "%Y%", &tm), nullptr) << "a lone % at the end of the format";
  EXPECT_EQ(kd_strptime("2026", "%Q", &tm), nullptr) << "an unknown conversion";
}

TEST(MyGetopt, GroupedGluedSeparateAndOptionalValuesUpToTheFirstNonOption) {
  int ind = 0;
  EXPECT_EQ(ParseAll({"prog", "-ab", "-p5", "-p", "6", "-cq", "x", "-a"}, "abp:c:", &ind),
            (V{"a", "b", "p=5", "p=6", "c=q"}));
  EXPECT_EQ(ind, 6) << "x is the first non-option word";
  EXPECT_EQ(ParseAll({"prog", "-", "-a"}, "a", &ind), V{});
  EXPECT_EQ(ind, 1) << "a lone '-' is a non-option and stays";
  EXPECT_EQ(ParseAll({"prog", "-a", "--", "-b"}, "ab", &ind), V{"a"});
  EXPECT_EQ(ind, 3) << "'--' is consumed";
  EXPECT_EQ(ParseAll({"prog", "-ofoo", "-o", "bar"}, "o::", &ind), (V{"o=foo", "o"}));
  EXPECT_EQ(ind, 3);
  EXPECT_EQ(ParseAll({"q1", "-j", "name", "-T", "2026-05-13 08:00"}, "G:T:W:E:p:j:K:S:e:R:u:"),
            (V{"j=name", "T=2026-05-13 08:00"}));
}

TEST(MyGetopt, UnknownOptionsAndMissingValuesNeverReadPastTheEnd) {
  EXPECT_EQ(ParseAll({"prog", "-x", "-ya", "-:"}, "a"), (V{"?x", "?y", "a", "?:"}));
  int ind = 0;
  EXPECT_EQ(ParseAll({"prog", "-ap"}, "ap:", &ind), (V{"a", "?p"}));
  EXPECT_EQ(ind, 2);
  EXPECT_EQ(ParseAll({"prog", "-p"}, ":p:", &ind), V{":p"}) << "the word behind argv[argc] is never the value";
  myopterr = 1;
  const std::string printed = kdtest::CaptureFd(2, [] { ParseAll({"prog", "-x", "-p"}, "p:"); });
  myopterr = 0;
  EXPECT_NE(printed.find("'x'"), std::string::npos) << printed;
  EXPECT_EQ(kdtest::CaptureFd(2, [] { ParseAll({"prog", "-x"}, "p:"); }), "") << "silent unless asked";
}

TEST(MyGetopt, ResetStartsOverEvenInTheMiddleOfAGroupAndDegenerateVectorsEnd) {
  Args first({"prog", "-abc"});
  mygetopt_reset();
  EXPECT_EQ(mygetopt(2, first.ptrs.data(), "abc"), 'a');
  // A request parser leaves the group half read and parses the next request.
  EXPECT_EQ(ParseAll({"q1", "-p", "1=3", "-p", "2=1"}, "p:"), (V{"p=1=3", "p=2=1"}));
  EXPECT_EQ(ParseAll({"prog", "-abc"}, "abc"), (V{"a", "b", "c"}));

  mygetopt_reset();
  EXPECT_EQ(mygetopt(0, nullptr, "a"), -1);
  char* null_word[] = {nullptr, nullptr, nullptr};
  EXPECT_EQ(mygetopt(2, null_word, "a"), -1);
  mygetopt_reset();
  EXPECT_EQ(mygetopt(2, first.ptrs.data(), nullptr), -1);
  myoptind = 99;
  EXPECT_EQ(mygetopt(2, first.ptrs.data(), "a"), -1);
}
