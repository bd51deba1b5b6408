// Trace log: level filter and prefixes, indentation, the day log with its
// announcement and day switch, debug.ini and kd.ini settings, missing or
// unusable directories, invalid and shared handles.
#include "cm_common.h"
#include "cm_trace.h"
#include "kd_test_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

using kdtest::CaptureFd;
using kdtest::ReadFile;
using kdtest::WriteFile;
using V = std::vector<std::string>;

namespace {

// The lines of a text with the leading "YYYY-MM-DD HH:MM:SS" of each cut off.
V Bodies(const std::string& text) {
  V out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("==", 0) == 0) continue;  // a sanitizer's own remark on captured standard error
    out.push_back(kdtest::StartsWithShape(line, "9999-99-99 99:99:99") ? line.substr(19) : "<no timestamp>" + line);
  }
  return out;
}

V Lines(const std::string& path) { return Bodies(ReadFile(path)); }

bool Has(const V& lines, const std::string& part) {
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

// Number of descriptors of this process open on the given file.
int OpenDescriptorsOn(const std::string& path) {
  int n = 0;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    if (std::filesystem::read_symlink(e.path(), ec) == path) ++n;
  }
  return n;
}

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override { inst.write_glbv("gv_daylbl", "20260513"); }
  void TearDown() override {
    v_set_log_all_close(&log);
    eLang = LANG_EN;
    bWithMilliseconds = 0;
  }
  std::string DayLog(const std::string& base = "kd_qm_main", const std::string& label = "20260513") const {
    return inst.lgc() + base + "_" + label + ".log";
  }
  void OpenMain(const std::string& debug_ini = "KD_QM_MAIN=2\n") {
    inst.write_debug_ini(debug_ini);
    v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  }

  kdtest::TestInstance inst;
  str_log log;
};

// The compile-time check of trace formats: the level prefix is skipped as
// trace skips it, and the arguments must have the types g++'s -Wformat wants.
enum Unscoped : int { kUnscoped };
enum class Scoped : int { kScoped };
// Prefix (any character after "%l", then a blank), %%, too few and too many arguments.
static_assert(TraceFormatMatches<>("+++ runjob") && TraceFormatMatches<>("%l3 100%% done") &&
              TraceFormatMatches<int>("%l+ %d") && TraceFormatMatches<int>("%ld %d"));
static_assert(!TraceFormatMatches<>("%l10 hello") && !TraceFormatMatches<>("%l2") && !TraceFormatMatches<>("%l2 %d") &&
              !TraceFormatMatches<int, int>("%l2 %d"));
// Integers of each length; signed and unsigned alike.
static_assert(TraceFormatMatches<char, bool, short, unsigned, Unscoped>("%c %d %hd %x %i") &&
              TraceFormatMatches<signed char, unsigned char>("%hhd %02hhu") &&
              TraceFormatMatches<long, unsigned long, long long>("%l2 %ld %6lu %lld") &&
              TraceFormatMatches<std::size_t, ssize_t, std::intmax_t, std::ptrdiff_t>("%zu %zd %jd %td"));
static_assert(!TraceFormatMatches<long>("%d") && !TraceFormatMatches<int>("%ld") &&
              !TraceFormatMatches<long long>("%ld") && !TraceFormatMatches<Scoped>("%d") &&
              !TraceFormatMatches<double>("%d"));
// Floating point, strings, pointers; '*' takes an int.
static_assert(TraceFormatMatches<float, double, long double>("%3.2f %le %Lg") &&
              TraceFormatMatches<char*, const char*, unsigned char*>("%s %-17s %.3s") &&
              TraceFormatMatches<int*, const char*, std::nullptr_t>("%p %p %p") &&
              TraceFormatMatches<int, const char*, int, char>("%.*s %*c"));
static_assert(!TraceFormatMatches<long double>("%f") && !TraceFormatMatches<int>("%f") &&
              !TraceFormatMatches<int*>("%s") && !TraceFormatMatches<std::nullptr_t>("%s") &&
              !TraceFormatMatches<int>("%p") && !TraceFormatMatches<long, const char*>("%.*s") &&
              !TraceFormatMatches<const char*>("%*s"));
// Flags, precisions and lengths a conversion does not take; %n; unknown conversions; a '%' at the end.
static_assert(!TraceFormatMatches<int>("%+u") && !TraceFormatMatches<int>("%#d") &&
              !TraceFormatMatches<const char*>("%05s") && !TraceFormatMatches<int>("%.2c") &&
              !TraceFormatMatches<int>("%hf") && !TraceFormatMatches<int>("%Ld") && !TraceFormatMatches<int*>("%n") &&
              !TraceFormatMatches<int>("%k") && !TraceFormatMatches<int>("%1$d") && !TraceFormatMatches<>("%l2 50%"));

}  // namespace

TEST_F(TraceTest, LevelsPrefixesStandardErrorAndAnInvalidHandle) {
  const std::string path = inst.lgc() + "direct.log";
  CopyCut(strLocalLog.szLogFile, path);  // strLocalLog alone, without any configuration
  const std::string err = CaptureFd(2, [] {
    strLocalLog.iLogLevel = 4;
    using F = TraceFormat<>;
    for (F format : {F("%l5 five"), F("%l4 four"), F("%l3 three"), F("%l2 two"), F("%l1 one"), F("%l* star"),
                     F("%l9 nine")})
      trace(format);
    // Formats without a valid level prefix need level 2 and stay unprefixed.
    strLocalLog.iLogLevel = 1;
    trace("plain %d", 7);
    strLocalLog.iLogLevel = 2;
    trace_unchecked("%l10 hello");  // no level prefix, and no valid printf format either
    trace_ln("a %s text");
    // Level 0 errors and "+" notices go to standard error as well.
    strLocalLog.iLogLevel = 0;
    trace("%l0 disk full %d", 3);
    trace("%l+ notice");
    trace("%l1 not at level 0");
    // A handle whose descriptor was closed is reported, marked in the log and reopened.
    strLocalLog.iLogLevel = 1;
    ::close(fileno(strLocalLog.fpLogFile));
    trace("%l1 after");
    trace("%l1 next");
  });
  EXPECT_EQ(Bodies(err), (V{": Error: disk full 3", ": notice", "<no timestamp>Invalid log file handle for [" + path + "]"}));
  V lines = Lines(path);
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_TRUE(lines[5].find("10 hello") != std::string::npos && lines[5].find(": Warning") == std::string::npos);
  lines.erase(lines.begin() + 5);
  EXPECT_EQ(lines, (V{": Debug: four", ": Trace: three", ": Info: two", ": Warning: one", ": Trace: star",
                      ": a %s text", ": Error: disk full 3", ": notice", ": Warning: after",
                      "<no timestamp> ### ATTENTION: Log file handle was temporarily not valid!", ": Warning: next"}));
}

TEST_F(TraceTest, IndentationIsCappedAtSixtyFourBlanksAndReturnsToEmpty) {
  CopyCut(log.szLogFile, inst.lgc() + "indent.log");
  for (int i = 0; i < 40; ++i) WRITE_TRACE(&log, "+ in %d", i);
  for (int i = 0; i < 40; ++i) WRITE_TRACE(&log, "- out %d", i);
  const V lines = Lines(log.szLogFile);
  ASSERT_EQ(lines.size(), 80u);
  EXPECT_EQ(lines[39], ":" + std::string(64, ' ') + " + in 39");
  // The first eight closing lines find the counter above 32 and keep the indentation.
  EXPECT_EQ(lines[47], ":" + std::string(64, ' ') + " - out 7");
  EXPECT_EQ(lines[48], ":" + std::string(62, ' ') + " - out 8");
  EXPECT_EQ(lines[79], ": - out 39");
}

TEST_F(TraceTest, SetLogMainOpensTheDayLogAnnouncesItAndSwitchesOnANewDay) {
  OpenMain("KD_QM_MAIN=2\nPROT_DB=1\n");
  trace("%l2 day one");
  const std::string pid = std::to_string(getpid());
  V lines = Lines(DayLog());
  EXPECT_TRUE(Has(lines, ": Logging enabled for module KD_QM_MAIN: Loglevel 2, PID=" + pid +
                             ", parent process:  (protDB)"));
  EXPECT_TRUE(Has(lines, std::string(": Kelda GitID: ") + kd_build_id()));

  inst.write_glbv("gv_daylbl", "20260514");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  trace("%l2 day two");
  lines = Lines(DayLog());
  EXPECT_TRUE(Has(lines, ": Info: day one"));
  EXPECT_TRUE(Has(lines, ": Logging switched to " + DayLog("kd_qm_main", "20260514") + ", module KD_QM_MAIN, Loglevel 2"));
  lines = Lines(DayLog("kd_qm_main", "20260514"));
  EXPECT_TRUE(Has(lines, ": Logging switched for module KD_QM_MAIN: Loglevel 2, PID=" + pid + ", parent process: "));
  EXPECT_EQ(lines.back(), ": Info: day two");
}

TEST_F(TraceTest, LogNamesAndDebugIniLines) {
  str_log nested;
  v_set_log_main("sub/dir/x_<PID>.lgc", "KD_QM_MAIN", &nested);
  EXPECT_EQ(std::string(nested.szLogFile), inst.lgc() + "sub/dir/x_" + std::to_string(getpid()) + "_20260513.log");
  // Without a day label: today.
  std::filesystem::remove(inst.glbv_dir() + "gv_daylbl.sgv");
  const time_t now = time(nullptr);
  struct tm tm {};
  char today[16];
  strftime(today, sizeof today, "%Y%m%d", localtime_r(&now, &tm));
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  EXPECT_EQ(std::string(log.szLogFile), DayLog("kd_qm_main", today));

  // A level line begins at the line start; the first exact name wins; names are upper-cased.
  inst.write_debug_ini(" KD_QM_MAIN=3\n");
  EXPECT_EQ(log_check("KD_QM_MAIN"), 0);
  inst.write_debug_ini("KD_QM_MAIN_X=5\nKD_QM_MAIN=3 # comment\nKD_QM_MAIN=4\n");
  EXPECT_EQ(log_check("kd_qm_main"), 3);
  EXPECT_EQ(log_check("KD_QM"), 0);
}

TEST_F(TraceTest, MissingDirectoriesAreReportedAndTheLanguageStillSet) {
  WriteFile(inst.kd_ini(), "[Pathes]\ngv_rw_glbv=" + inst.glbv_dir() + "\n");
  std::string out;
  std::string err = CaptureFd(2, [&] { out = CaptureFd(1, [&] { EXPECT_EQ(log_check("KD_QM_MAIN"), 0); }); });
  EXPECT_NE(err.find("FATAL: SET_LOG_MAIN: gv_rw_ini not set"), std::string::npos);
  EXPECT_NE(out.find("]: LOG_CHECK > gv_rw_ini not yet existing - please restart ORL kelda.\n"), std::string::npos);

  WriteFile(inst.kd_ini(), "[Pathes]\ngv_rw_ini=" + inst.ini_dir() + "\ngv_rw_glbv=" + inst.glbv_dir() +
                               "\n[SETUP]\nlang=de\n");
  err = CaptureFd(2, [&] { out = CaptureFd(1, [&] { v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log); }); });
  char e003[200];
  std::snprintf(e003, sizeof e003, " E003-BASICS [%6d]: SET_LOG_MAIN > gv_rw_lgc not yet existing - please restart "
                "ORL kelda.\n", static_cast<int>(getpid()));
  EXPECT_TRUE(out.find(e003) != std::string::npos && err.find(e003) != std::string::npos) << out << err;
  EXPECT_NE(err.find("FATAL: SET_LOG_MAIN: gv_rw_lgc not set"), std::string::npos);
  EXPECT_STREQ(log.szLogFile, "");
  EXPECT_EQ(eLang, LANG_DE);
}

TEST_F(TraceTest, ParamsAndLanguageFromTheConfiguration) {
  inst.write_kd_ini("[Params]\ngv_log_milliseconds=YES\ngv_log_pid=YES\n");
  eLang = LANG_DE;
  OpenMain("KD_QM_MAIN=3\n");
  EXPECT_EQ(eLang, LANG_EN);
  const V lines = Lines(DayLog());
  const std::string pid = std::to_string(getpid());
  EXPECT_TRUE(Has(lines, ": didn't find key lang in kd.ini > set language to en"));
  EXPECT_TRUE(Has(lines, ": found key gv_log_milliseconds in kd.ini > log with milliseconds"));
  EXPECT_TRUE(kdtest::StartsWithShape(lines.back(), ".999 [" + pid + "]: ")) << lines.back();

  inst.write_kd_ini("[SETUP]\nlang=de_by\n");
  OpenMain();
  EXPECT_EQ(eLang, LANG_BY);
}

TEST_F(TraceTest, UnwritableLogDirectoryStillReachesStandardError) {
  WriteFile(inst.root() + "/afile", "not a directory");
  std::string ini = ReadFile(inst.kd_ini());
  ini.replace(ini.find(inst.lgc()), inst.lgc().size(), inst.root() + "/afile/");
  WriteFile(inst.kd_ini(), ini);
  inst.write_debug_ini("KD_QM_MAIN=1\nSTDERR=1\n");
  const std::string err = CaptureFd(2, [&] {
    v_set_log_main("sub/kd_qm_main.lgc", "KD_QM_MAIN", &log);
    trace("%l1 still visible");
  });
  EXPECT_TRUE(Has(Bodies(err), ": Warning: still visible")) << err;
}

TEST_F(TraceTest, AllCloseReleasesEveryHandleOfTheFirstLog) {
  OpenMain("KD_QM_MAIN=3\n");
  trace("%l1 opens the local handle");
  EXPECT_EQ(OpenDescriptorsOn(DayLog()), 2);
  v_set_log_all_close(&log);
  EXPECT_EQ(OpenDescriptorsOn(DayLog()), 0);
  trace("%l1 reopened");
  EXPECT_EQ(Lines(DayLog()).back(), ": Warning: reopened");
  // Re-initialising (as every day switch does) shares the first log's handle with strLocalLog.
  for (int i = 0; i < 3; ++i) {
    v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
    WRITE_TRACE(&log, "own line");
    trace("%l1 local line");
  }
  EXPECT_EQ(OpenDescriptorsOn(DayLog()), 1);
}
