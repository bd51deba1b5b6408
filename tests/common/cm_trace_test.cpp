#include "cm_trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "cm_common.h"
#include "kd_test_support.h"

using kdtest::CaptureFd;
using kdtest::Exists;
using kdtest::ReadFile;
using kdtest::WriteFile;

namespace {

// True if text holds the given shape at pos: 'd' a digit, any other character itself.
bool Shaped(const std::string& text, std::size_t pos, const std::string& shape) {
  if (pos + shape.size() > text.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const char c = text[pos + i];
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(c)) : c != shape[i]) return false;
  }
  return true;
}

const std::string kTimestamp = "dddd-dd-dd dd:dd:dd";

// The lines of a text with the leading "YYYY-MM-DD HH:MM:SS" of each cut off,
// so that what follows the timestamp (":", indentation, text) can be compared.
std::vector<std::string> Bodies(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    out.push_back(Shaped(line, 0, kTimestamp) ? line.substr(kTimestamp.size()) : "<no timestamp>" + line);
  return out;
}

std::vector<std::string> Tail(const std::string& path, std::size_t from) {
  const std::string all = ReadFile(path);
  return Bodies(from < all.size() ? all.substr(from) : "");
}

bool Contains(const std::vector<std::string>& lines, const std::string& body) {
  return std::find(lines.begin(), lines.end(), body) != lines.end();
}

bool AnyContains(const std::vector<std::string>& lines, const std::string& part) {
  for (const auto& l : lines)
    if (l.find(part) != std::string::npos) return true;
  return false;
}

// Number of descriptors of this process open on the given file.
int OpenDescriptorsOn(const std::string& path) {
  int n = 0;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    std::error_code ec2;
    if (std::filesystem::read_symlink(e.path(), ec2) == path) ++n;
  }
  return n;
}

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override { inst.write_glbv("gv_daylbl", "20260513"); }
  void TearDown() override {
    v_set_log_all_close(&log);
    eLang = LANG_EN;
  }
  std::string DayLog(const std::string& base = "kd_qm_main", const std::string& label = "20260513") const {
    return inst.lgc() + base + "_" + label + ".log";
  }
  // Points strLocalLog at a file of its own without any configuration.
  std::string DirectLocalLog(int level) {
    const std::string path = inst.lgc() + "direct.log";
    CopyCut(strLocalLog.szLogFile, path);
    strLocalLog.iLogLevel = level;
    return path;
  }

  kdtest::TestInstance inst;
  str_log log;
};

}  // namespace

TEST_F(TraceTest, LevelsFilterMessagesAndChooseThePrefix) {
  const std::string path = DirectLocalLog(4);
  trace("%l5 five %d", 5);
  trace("%l4 four %d", 4);
  trace("%l3 three");
  trace("%l2 two %s", "x");
  trace("%l1 one");
  trace("%l* star");
  trace("%l9 nine");
  EXPECT_EQ(Tail(path, 0), (std::vector<std::string>{": Debug: four 4", ": Trace: three", ": Info: two x",
                                                     ": Warning: one", ": Trace: star"}));
  strLocalLog.iLogLevel = 5;
  trace("%l5 five %d", 5);
  EXPECT_EQ(Tail(path, 0).back(), ": Debug: five 5");
}

TEST_F(TraceTest, LevelZeroGoesToStandardErrorAsWell) {
  const std::string path = DirectLocalLog(0);
  const std::string err = CaptureFd(2, [] {
    trace("%l0 disk full %d", 3);
    trace("%l+ notice");
    trace("%l1 not at level 0");
    trace("plain text");
  });
  EXPECT_EQ(Bodies(err), (std::vector<std::string>{": Error: disk full 3", ": notice"}));
  EXPECT_EQ(Tail(path, 0), (std::vector<std::string>{": Error: disk full 3", ": notice"}));
  EXPECT_EQ(strLocalLog.iVerbose, 0);
}

TEST_F(TraceTest, FormatsWithoutValidPrefixNeedLevelTwoAndStayUnprefixed) {
  const std::string path = DirectLocalLog(1);
  trace("%l10 hello");
  trace("plain %d", 7);
  trace_ln("a %s text");
  EXPECT_TRUE(Tail(path, 0).empty());
  strLocalLog.iLogLevel = 2;
  trace("%l10 hello");
  trace("plain %d", 7);
  trace_ln("a %s text");
  const auto lines = Tail(path, 0);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("10 hello"), std::string::npos);
  EXPECT_EQ(lines[0].find("Info: "), std::string::npos);
  EXPECT_EQ(lines[0].find("Warning: "), std::string::npos);
  EXPECT_EQ(lines[1], ": plain 7");
  EXPECT_EQ(lines[2], ": a %s text");
}

TEST_F(TraceTest, IndentationIsCappedAtSixtyFourBlanksAndReturnsToEmpty) {
  CopyCut(log.szLogFile, inst.lgc() + "indent.log");
  for (int i = 0; i < 40; ++i) WRITE_TRACE(&log, "+ in %d", i);
  EXPECT_EQ(std::string(log.szIns), std::string(64, ' '));
  EXPECT_EQ(std::string(strLocalLog.szIns), std::string(64, ' '));
  for (int i = 0; i < 40; ++i) WRITE_TRACE(&log, "- out %d", i);
  EXPECT_STREQ(log.szIns, "");
  WRITE_TRACE(&log, "+ again");
  WRITE_TRACE(&log, "inside");
  const auto lines = Tail(log.szLogFile, 0);
  ASSERT_EQ(lines.size(), 82u);
  for (int i = 0; i < 40; ++i)
    EXPECT_EQ(lines[i], ":" + std::string(2 * std::min(i, 32), ' ') + " + in " + std::to_string(i));
  // The first eight closing lines find the counter above 32 and keep the indentation.
  for (int j = 0; j < 40; ++j) {
    const int blanks = j < 8 ? 64 : 2 * (39 - j);
    EXPECT_EQ(lines[40 + j], ":" + std::string(blanks, ' ') + " - out " + std::to_string(j)) << j;
  }
  EXPECT_EQ(lines[80], ": + again");
  EXPECT_EQ(lines[81], ":   inside");
}

TEST_F(TraceTest, LineCarriesPidProcessAndThreadParts) {
  CopyCut(log.szLogFile, inst.lgc() + "parts.log");
  log.iPid = 1;
  log.iProcessId = 1;
  log.iThreadId = 1;
  bWithMilliseconds = 1;
  WRITE_TRACE(&log, "hello %s", "world");
  const std::string pid = std::to_string(getpid());
  const std::string line = ReadFile(log.szLogFile);
  const std::string head = " [" + pid + "] [" + pid + "] [TID: ";
  const std::string tail = "]: hello world\n";
  ASSERT_TRUE(Shaped(line, 0, kTimestamp + ".ddd")) << line;
  ASSERT_EQ(line.compare(23, head.size(), head), 0) << line;
  ASSERT_GT(line.size(), 23 + head.size() + tail.size());
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
  const std::string tid = line.substr(23 + head.size(), line.size() - tail.size() - 23 - head.size());
  EXPECT_TRUE(!tid.empty() && tid.find_first_not_of("0123456789") == std::string::npos) << line;
}

TEST_F(TraceTest, CopyFileCopiesLinesBetweenMarkers) {
  CopyCut(log.szLogFile, inst.lgc() + "copy.log");
  const std::string src = inst.root() + "/src.txt";
  WriteFile(src, "first\r\nsecond\n" + std::string(1500, 'z') + "\n");
  log.iVerbose = 1;
  const std::string err = CaptureFd(2, [&] {
    WRITE_TRACE_COPY_FILE(&log, src.c_str());
    WRITE_TRACE_COPY_FILE(&log, (inst.root() + "/missing.txt").c_str());
  });
  const auto lines = Tail(log.szLogFile, 0);
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], ": COPY_FILE [" + src + "] >>>>");
  EXPECT_EQ(lines[1], ":    first");
  EXPECT_EQ(lines[2], ":    second");
  EXPECT_EQ(lines[3], ":    " + std::string(1022, 'z'));
  EXPECT_EQ(lines[4], ":    " + std::string(478, 'z'));
  EXPECT_EQ(lines[5], ": COPY_FILE <<<<");
  EXPECT_EQ(lines[6], ":   File " + inst.root() + "/missing.txt not found");
  const auto err_lines = Bodies(err);
  ASSERT_EQ(err_lines.size(), 7u);
  EXPECT_EQ(err_lines[1], ": first");
  EXPECT_EQ(err_lines[6], ": File " + inst.root() + "/missing.txt not found");
}

TEST_F(TraceTest, InvalidHandleIsReportedAndReopened) {
  const std::string path = DirectLocalLog(1);
  trace("%l1 before");
  ASSERT_NE(strLocalLog.fpLogFile, nullptr);
  const std::string err = CaptureFd(2, [] {
    ::close(fileno(strLocalLog.fpLogFile));
    trace("%l1 after");
    trace("%l1 next");
  });
  EXPECT_EQ(err, "Invalid log file handle for [" + path + "]\n");
  EXPECT_EQ(Tail(path, 0), (std::vector<std::string>{": Warning: before", ": Warning: after",
                                                     "<no timestamp> ### ATTENTION: Log file handle was temporarily "
                                                     "not valid!",
                                                     ": Warning: next"}));
}

TEST_F(TraceTest, SetLogMainOpensTheDayLogAndAnnouncesIt) {
  inst.write_debug_ini("KD_QM_MAIN=2\nPROT_DB=1\n");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  EXPECT_EQ(pstrFirstLog, &log);
  EXPECT_EQ(std::string(log.szLogFile), DayLog());
  EXPECT_STREQ(strLocalLog.szLogFile, log.szLogFile);
  EXPECT_STREQ(log.szExeName, "kd_qm_main");
  EXPECT_EQ(log.iLogLevel, 2);
  EXPECT_EQ(log.iProtDB, 1);
  trace("%l2 ready");
  const auto lines = Tail(DayLog(), 0);
  const std::string pid = std::to_string(getpid());
  EXPECT_TRUE(Contains(lines, ": Logging enabled for module KD_QM_MAIN: Loglevel 2, PID=" + pid +
                                  ", parent process:  (protDB)"));
  EXPECT_TRUE(Contains(lines, std::string(": Kelda GitID: ") + kd_build_id()));
  EXPECT_EQ(lines.back(), ": Info: ready");

  // Another module names its parent process.
  inst.write_debug_ini("KD_OTHER=1\n");
  str_log other;
  v_set_log_main("other.lgc", "KD_OTHER", &other);
  v_set_log_all_close(&other);
  EXPECT_TRUE(AnyContains(Tail(DayLog("other"), 0), "Loglevel 1, PID=" + pid + ", parent process: PPID="));
}

TEST_F(TraceTest, LogNamesWithTokensDirectoriesAndLogSuffix) {
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  EXPECT_EQ(std::string(log.szLogFile), DayLog());

  str_log full;
  v_set_log_main((inst.lgc() + "special.log").c_str(), "KD_QM_MAIN", &full);
  EXPECT_EQ(std::string(full.szLogFile), inst.lgc() + "special.log");

  str_log nested;
  v_set_log_main("sub/dir/x_<PID>.lgc", "KD_QM_MAIN", &nested);
  EXPECT_EQ(std::string(nested.szLogFile), inst.lgc() + "sub/dir/x_" + std::to_string(getpid()) + "_20260513.log");
  EXPECT_EQ(nested.bIsPidUsedInName, 1);
  EXPECT_TRUE(std::filesystem::is_directory(inst.lgc() + "sub/dir"));

  str_log labelled;
  v_set_log_main("lbl_<DAYLBL>.log", "KD_QM_MAIN", &labelled);
  EXPECT_STREQ(labelled.szLogFile, "lbl_20260513.log");

  // Without gv_daylbl the day label is today's date.
  std::filesystem::remove(inst.glbv_dir() + "gv_daylbl.sgv");
  char today[16];
  const time_t now = time(nullptr);
  struct tm tm {};
  localtime_r(&now, &tm);
  strftime(today, sizeof today, "%Y%m%d", &tm);
  str_log dated;
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &dated);
  EXPECT_EQ(std::string(dated.szLogFile), DayLog("kd_qm_main", today));
}

TEST_F(TraceTest, NewDayLabelSwitchesTheLogFile) {
  inst.write_debug_ini("KD_QM_MAIN=2\n");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  trace("%l2 day one");
  inst.write_glbv("gv_daylbl", "20260514");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  trace("%l2 day two");
  const std::string pid = std::to_string(getpid());
  const auto first = Tail(DayLog(), 0);
  EXPECT_TRUE(Contains(first, ": Info: day one"));
  EXPECT_TRUE(Contains(first, ": Logging switched to " + DayLog("kd_qm_main", "20260514") +
                                  ", module KD_QM_MAIN, Loglevel 2"));
  const auto second = Tail(DayLog("kd_qm_main", "20260514"), 0);
  EXPECT_TRUE(Contains(second, ": Logging switched for module KD_QM_MAIN: Loglevel 2, PID=" + pid +
                                   ", parent process: "));
  EXPECT_EQ(second.back(), ": Info: day two");
  EXPECT_STREQ(strLocalLog.szLogFile, log.szLogFile);
}

TEST_F(TraceTest, DebugIniLineRules) {
  inst.write_debug_ini(" KD_QM_MAIN=3\n");
  EXPECT_EQ(log_check("KD_QM_MAIN"), 0);
  inst.write_debug_ini("KD_QM_MAIN_X=5\nKD_QM_MAIN=3 # comment\nKD_QM_MAIN=4\n");
  EXPECT_EQ(log_check("KD_QM_MAIN"), 3);
  EXPECT_EQ(log_check("kd_qm_main"), 3);
  EXPECT_EQ(log_check("KD_QM"), 0);
  std::filesystem::remove(inst.debug_ini());
  EXPECT_EQ(log_check("KD_QM_MAIN"), 0);
}

TEST_F(TraceTest, MissingIniDirectoryIsReportedAndGivesLevelZero) {
  WriteFile(inst.kd_ini(), "[Pathes]\ngv_rw_glbv=" + inst.glbv_dir() + "\n");
  std::string out;
  const std::string err = CaptureFd(2, [&] { out = CaptureFd(1, [&] { EXPECT_EQ(log_check("KD_QM_MAIN"), 0); }); });
  EXPECT_NE(err.find("FATAL: SET_LOG_MAIN: gv_rw_ini not set"), std::string::npos);
  EXPECT_NE(out.find("]: LOG_CHECK > gv_rw_ini not yet existing - please restart ORL kelda.\n"), std::string::npos);
}

TEST_F(TraceTest, MissingLogDirectoryLeavesTheRecordAndStillSetsTheLanguage) {
  WriteFile(inst.kd_ini(), "[Pathes]\ngv_rw_ini=" + inst.ini_dir() + "\ngv_rw_glbv=" + inst.glbv_dir() +
                               "\n[SETUP]\nlang=de\n");
  std::string out;
  const std::string err =
      CaptureFd(2, [&] { out = CaptureFd(1, [&] { v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log); }); });
  const std::string pid6 = [] {
    char b[16];
    std::snprintf(b, sizeof b, "%6d", static_cast<int>(getpid()));
    return std::string(b);
  }();
  const std::string e003 =
      " E003-BASICS [" + pid6 + "]: SET_LOG_MAIN > gv_rw_lgc not yet existing - please restart ORL kelda.\n";
  EXPECT_NE(out.find(e003), std::string::npos) << out;
  EXPECT_NE(err.find(e003), std::string::npos) << err;
  EXPECT_NE(err.find("FATAL: SET_LOG_MAIN: gv_rw_lgc not set"), std::string::npos);
  EXPECT_STREQ(log.szLogFile, "");
  EXPECT_EQ(pstrFirstLog, nullptr);
  EXPECT_EQ(eLang, LANG_DE);
}

TEST_F(TraceTest, LanguageFromSetup) {
  inst.write_debug_ini("KD_QM_MAIN=2\n");
  const struct {
    const char* value;
    LANGUAGES lang;
  } cases[] = {{"DE_BY", LANG_BY}, {"de_by", LANG_BY}, {"DE", LANG_EN}, {"deutsch", LANG_DE}, {"es", LANG_ES},
               {"fr", LANG_FR},    {"hr", LANG_HR},    {"pt", LANG_PT}, {"PT", LANG_EN},      {"it", LANG_EN}};
  for (const auto& c : cases) {
    eLang = LANG_EN;
    inst.write_kd_ini(std::string("[SETUP]\nlang=") + c.value + "\n");
    v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
    EXPECT_EQ(eLang, c.lang) << c.value;
  }
  EXPECT_TRUE(Contains(Tail(DayLog(), 0), ": set language to deutsch"));
  inst.write_kd_ini();
  eLang = LANG_DE;
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  EXPECT_EQ(eLang, LANG_EN);
  EXPECT_EQ(Tail(DayLog(), 0).back(), ": didn't find key lang in kd.ini > set language to en");
}

TEST_F(TraceTest, ParamsSwitchOnMillisecondsAndPid) {
  inst.write_debug_ini("KD_QM_MAIN=3\n");
  inst.write_kd_ini("[Params]\ngv_log_milliseconds=YES\ngv_log_pid=YES\n");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  EXPECT_EQ(bWithMilliseconds, 1);
  EXPECT_EQ(log.iPid, 1);
  const auto lines = Tail(DayLog(), 0);
  const std::string pid = std::to_string(getpid());
  EXPECT_TRUE(AnyContains(lines, " [" + pid + "]: found key gv_log_pid in kd.ini > log with PID"));
  EXPECT_TRUE(AnyContains(lines, ": found key gv_log_milliseconds in kd.ini > log with milliseconds"));
  EXPECT_TRUE(Shaped(lines.back(), 0, ".ddd [" + pid + "]: ")) << lines.back();

}

TEST_F(TraceTest, UnwritableLogDirectoryStillReachesStandardError) {
  WriteFile(inst.root() + "/afile", "not a directory");
  inst.write_kd_ini();
  std::string ini = ReadFile(inst.kd_ini());
  ini.replace(ini.find("gv_rw_lgc=" + inst.lgc()), ("gv_rw_lgc=" + inst.lgc()).size(),
              "gv_rw_lgc=" + inst.root() + "/afile/");
  WriteFile(inst.kd_ini(), ini);
  inst.write_debug_ini("KD_QM_MAIN=1\nSTDERR=1\n");
  const std::string err = CaptureFd(2, [&] {
    v_set_log_main("sub/kd_qm_main.lgc", "KD_QM_MAIN", &log);
    trace("%l1 still visible");
  });
  EXPECT_EQ(log.iVerbose, 1);
  EXPECT_TRUE(Contains(Bodies(err), ": Warning: still visible")) << err;
  EXPECT_EQ(log.fpLogFile, nullptr);
  EXPECT_EQ(strLocalLog.fpLogFile, nullptr);
}

TEST_F(TraceTest, AllCloseReleasesEveryHandleOfTheFirstLog) {
  inst.write_debug_ini("KD_QM_MAIN=3\n");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  trace("%l1 opens the local handle");
  ASSERT_NE(log.fpLogFile, nullptr);
  ASSERT_NE(strLocalLog.fpLogFile, nullptr);
  EXPECT_EQ(OpenDescriptorsOn(DayLog()), 2);
  v_set_log_all_close(&log);
  EXPECT_EQ(log.fpLogFile, nullptr);
  EXPECT_EQ(strLocalLog.fpLogFile, nullptr);
  EXPECT_EQ(OpenDescriptorsOn(DayLog()), 0);
  const auto lines = Tail(DayLog(), 0);
  EXPECT_TRUE(AnyContains(lines, ": v_set_log_all_close: check pstrFirstLog "));
  EXPECT_TRUE(AnyContains(lines, ": v_set_log_all_close: close file handle strLocalLog.fpLogFile "));
  EXPECT_TRUE(AnyContains(lines, ": v_set_log_all_close: Close file handle strLog->fpLogFile "));
  trace("%l1 reopened");
  EXPECT_EQ(Tail(DayLog(), 0).back(), ": Warning: reopened");

  // Re-initialising shares the first log's handle with strLocalLog; one close releases both.
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  WRITE_TRACE(&log, "own line");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  ASSERT_NE(log.fpLogFile, nullptr);
  EXPECT_EQ(strLocalLog.fpLogFile, log.fpLogFile);
  EXPECT_EQ(OpenDescriptorsOn(DayLog()), 1);
  v_set_log_all_close(&log);
  EXPECT_EQ(log.fpLogFile, nullptr);
  EXPECT_EQ(strLocalLog.fpLogFile, nullptr);
  EXPECT_EQ(OpenDescriptorsOn(DayLog()), 0);
}

TEST_F(TraceTest, MoverRenamesOrAppendsToAnExistingTarget) {
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  WRITE_TRACE(&log, "before move");
  const std::string old_path = log.szLogFile;
  v_set_log_mover(&log, "moved.lgc");
  const std::string moved = DayLog("moved");
  EXPECT_EQ(std::string(log.szLogFile), moved);
  EXPECT_EQ(std::string(strLocalLog.szLogFile), moved);
  EXPECT_FALSE(Exists(old_path));
  EXPECT_EQ(Tail(moved, 0), (std::vector<std::string>{": before move"}));

  WriteFile(inst.lgc() + "target.log", "existing line\n");
  WRITE_TRACE(&log, "second");
  v_set_log_mover(&log, "target.log");
  EXPECT_EQ(std::string(log.szLogFile), inst.lgc() + "target.log");
  EXPECT_FALSE(Exists(moved));
  const std::string content = ReadFile(inst.lgc() + "target.log");
  EXPECT_EQ(content.substr(0, 14), "existing line\n");
  EXPECT_EQ(Bodies(content.substr(14)), (std::vector<std::string>{": before move", ": second"}));

  // A name that already carries the day label gets no second one.
  v_set_log_mover(&log, "again_20260513.lgc");
  EXPECT_EQ(std::string(log.szLogFile), DayLog("again"));
}
