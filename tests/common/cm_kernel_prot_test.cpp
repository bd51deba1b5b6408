#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "cm_kernel.h"
#include "cm_trace.h"
#include "kd_test_support.h"

using kdtest::CaptureFd;
using kdtest::Exists;
using kdtest::ReadFile;

namespace {

// "[%6d]" of this process, as every protocol line carries it.
std::string PidField() {
  char b[32];
  std::snprintf(b, sizeof b, "[%6d]", static_cast<int>(getpid()));
  return b;
}

// True if text holds a "YYYY-MM-DD HH:MM:SS " timestamp at pos.
bool TimestampAt(const std::string& text, std::size_t pos) {
  static const std::string shape = "dddd-dd-dd dd:dd:dd ";
  if (pos + shape.size() > text.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const char c = text[pos + i];
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(c)) : c != shape[i]) return false;
  }
  return true;
}

// The lines of a protocol text with the leading "YYYY-MM-DD HH:MM:SS " cut off.
std::vector<std::string> ProtLines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    out.push_back(TimestampAt(line, 0) ? line.substr(20) : "<no timestamp>" + line);
  return out;
}

class ProtTest : public ::testing::Test {
 protected:
  void UseProtFile() { inst.write_glbv("gv_prot", prot()); }
  std::string prot() const { return inst.root() + "/prot.txt"; }
  std::string Prot() const { return ReadFile(prot()); }
  std::string Err() const { return ReadFile(prot() + ".err"); }

  kdtest::TestInstance inst;
  const std::string pid = PidField();
};

}  // namespace

TEST(MsgText, PicksTheTextOfTheLanguage) {
  EXPECT_STREQ(msg_text(MSG_E003_NOT_EXISTING, LANG_EN),
               "E003-BASICS  %s > %s not yet existing - please restart ORL kelda.");
  EXPECT_STREQ(msg_text(MSG_E003_NOT_EXISTING, LANG_DE), "E003-BASICS  %s > %s existiert noch nicht - Neustart");
  EXPECT_STREQ(msg_text(MSG_E003_NOT_EXISTING, LANG_FR), MSG_E003_NOT_EXISTING.en);
  EXPECT_STREQ(msg_text(MSG_FATAL_SOFTWARE_ERROR, LANG_DE), "Fataler Software Fehler FILE=%s ZEILE=%d (%s)");
  EXPECT_STREQ(msg_text(MSG_GLBV_INVALID_SERVICE, LANG_BY), "?? deppada Paramätta %c");
  EXPECT_STREQ(msg_text(MSG_GLBV_INVALID_SERVICE, LANG_FR), "?? Le Parametre %c est erroné");
  EXPECT_STREQ(msg_text(MSG_GLBV_INVALID_SERVICE, LANG_HR), "?? invalid service %c");
  // Every tagged text keeps its 12-character tag and the blank behind it.
  for (const MsgSet* set : {&MSG_E003_NOT_EXISTING, &MSG_W003_CMD_WARNING})
    for (const char* text : {set->en, set->de, set->by}) {
      ASSERT_GE(std::string(text).size(), 13u);
      EXPECT_EQ(std::string(text).substr(0, 13), std::string(set->en).substr(0, 13)) << text;
    }
}

TEST_F(ProtTest, WithoutGvProtMessagesGoToStandardOutputAndErrors) {
  std::string out;
  const std::string err = CaptureFd(2, [&] {
    out = CaptureFd(1, [] {
      FPROT(nullptr, "W003-BASICS  done");
      FPROT(nullptr, "E003-BASICS  %s > %s failed", "A", "B");
    });
  });
  EXPECT_EQ(ProtLines(out),
            (std::vector<std::string>{"W003-BASICS " + pid + ": done", "E003-BASICS " + pid + ": A > B failed"}));
  EXPECT_EQ(ProtLines(err), (std::vector<std::string>{"E003-BASICS " + pid + ": A > B failed"}));
}

TEST_F(ProtTest, ProtocolAndErrorFile) {
  UseProtFile();
  FPROT(nullptr, "W003-BASICS  done");
  EXPECT_TRUE(Exists(prot() + ".err"));
  EXPECT_EQ(Err(), "");
  FPROT(nullptr, msg_text(MSG_E003_NOT_EXISTING), "SET_LOG_MAIN", "gv_rw_lgc");
  const std::string e003 =
      "E003-BASICS " + pid + ": SET_LOG_MAIN > gv_rw_lgc not yet existing - please restart ORL kelda.";
  EXPECT_EQ(ProtLines(Prot()), (std::vector<std::string>{"W003-BASICS " + pid + ": done", e003}));
  EXPECT_EQ(ProtLines(Err()), (std::vector<std::string>{e003}));

  eLang = LANG_DE;
  FPROT(nullptr, msg_text(MSG_W003_CMD_WARNING), "cmd", "rc 1");
  eLang = LANG_EN;
  EXPECT_EQ(ProtLines(Prot()).back(), "W003-BASICS " + pid + ": Befehlsausfuehrung ergab eine Warnung: cmd > rc 1");
}

TEST_F(ProtTest, AdditionalProtocolFile) {
  UseProtFile();
  sPROT add;
  CopyCut(add.szLogFile, inst.root() + "/extra.txt");
  FPROT(&add, "E010-BASICS  two\nlines");
  EXPECT_EQ(ProtLines(ReadFile(add.szLogFile)),
            (std::vector<std::string>{"E010-BASICS " + pid + ": two", "E010-BASICS " + pid + ": lines"}));
  EXPECT_FALSE(Exists(std::string(add.szLogFile) + ".err"));

  CopyCut(add.szLogFile, inst.root() + "/no/such/dir/extra.txt");
  const std::string err = CaptureFd(2, [&] { FPROT(&add, "I001-BASICS  still written"); });
  EXPECT_NE(err.find("Error: FPROT: Failed to open additional prot file [" + inst.root() +
                     "/no/such/dir/extra.txt]: No such file or directory (2)"),
            std::string::npos)
      << err;
  EXPECT_EQ(ProtLines(Prot()).back(), "I001-BASICS " + pid + ": still written");
}

TEST_F(ProtTest, BadTagsAreReportedAndTheMessageStillWritten) {
  UseProtFile();
  FPROT(nullptr, "I001-%s text follows", "X");
  FPROT(nullptr, "I002-BASICS");
  EXPECT_EQ(ProtLines(Prot()),
            (std::vector<std::string>{
                "W999-BASICS " + pid + ": Invalid usage of PROT: prefix with format argument '%s': >I001-%s text<",
                "I001-X text" + pid + ": follows",
                "W999-BASICS " + pid + ": Invalid usage of PROT: format tag is too short: >I002-BASICS< (11 < 13)",
                "I002-BASICS" + pid + ": ",
            }));
  EXPECT_EQ(Err(), "");
}

TEST_F(ProtTest, MultiLineMessagesAndTheErrorFile) {
  UseProtFile();
  FPROT(nullptr, "A100-BASICS  one\ntwo\nthree");
  const std::vector<std::string> a = {"A100-BASICS " + pid + ": one", "A100-BASICS " + pid + ": two",
                                      "A100-BASICS " + pid + ": three"};
  EXPECT_EQ(ProtLines(Prot()), a);
  EXPECT_EQ(ProtLines(Err()), std::vector<std::string>{a[0]});

  FPROT(nullptr, "E100-BASICS  %s\n%s\nthree", "one", "two");
  const std::vector<std::string> e = {"E100-BASICS " + pid + ": one", "E100-BASICS " + pid + ": two",
                                      "E100-BASICS " + pid + ": three"};
  const auto prot_lines = ProtLines(Prot());
  EXPECT_EQ(std::vector<std::string>(prot_lines.begin() + 3, prot_lines.end()), e);
  const auto err_lines = ProtLines(Err());
  EXPECT_EQ(std::vector<std::string>(err_lines.begin() + 1, err_lines.end()), e);
}

TEST_F(ProtTest, FprotIsTracedAtLevelThree) {
  UseProtFile();
  inst.write_debug_ini("KD_QM_MAIN=3\n");
  inst.write_glbv("gv_daylbl", "20260513");
  str_log log;
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &log);
  FPROT(nullptr, "A100-BASICS  one\ntwo");
  v_set_log_all_close(&log);
  const std::string trace_log = ReadFile(inst.lgc() + "kd_qm_main_20260513.log");
  const std::size_t at = trace_log.find(": Trace: FPROT: [");
  ASSERT_NE(at, std::string::npos) << trace_log;
  EXPECT_TRUE(TimestampAt(trace_log, at + 17)) << trace_log;
  const std::string first_piece = "A100-BASICS " + pid + ": one]\n";
  EXPECT_EQ(trace_log.compare(at + 37, first_piece.size(), first_piece), 0) << trace_log;
  EXPECT_NE(trace_log.find(": Trace: FPROT: (seq.) [two]\n"), std::string::npos);
  EXPECT_NE(trace_log.find(": Trace: FPROT( A100-BASICS  one"), std::string::npos);
}

TEST_F(ProtTest, OverlongOutputAndFormatAreShortenedWithAnE999Line) {
  UseProtFile();
  const std::string big(200000, 'x');
  FPROT(nullptr, "W004-BASICS  %s", big.c_str());
  const std::string head = "W004-BASICS " + pid + ": ";
  const int produced = static_cast<int>(19 + 1 + head.size() + big.size());
  auto lines = ProtLines(Prot());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "E999-BASICS " + pid + ": Error: The following output was shortened (138000 <> " +
                          std::to_string(produced) + ")");
  EXPECT_EQ(lines[1], head + std::string(137999 - 20 - head.size(), 'x'));

  const std::string long_format = "W005-BASICS  " + std::string(3000, 'y') + "%s";
  FPROT(nullptr, long_format.c_str(), "tail");
  const int needed = static_cast<int>(19 + 1 + head.size() + 3000 + 2);
  lines = ProtLines(Prot());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[2], "E999-BASICS " + pid + ": Error: The following format string was shortened (2560 <> " +
                          std::to_string(needed) + ")");
  EXPECT_EQ(lines[3], "W005-BASICS " + pid + ": " + std::string(2559 - 20 - head.size(), 'y'));
}

TEST_F(ProtTest, UnopenableProtocolFileFallsBackToStandardOutput) {
  const std::string bad = inst.root() + "/no/such/dir/prot.txt";
  inst.write_glbv("gv_prot", bad);
  std::string out;
  const std::string err = CaptureFd(2, [&] { out = CaptureFd(1, [] { FPROT(nullptr, "E001-BASICS  lost file"); }); });
  EXPECT_EQ(ProtLines(out), std::vector<std::string>{"E001-BASICS " + pid + ": lost file"});
  const auto err_lines = ProtLines(err);
  auto has = [&](const std::string& text) {
    return err.find(text) != std::string::npos;
  };
  EXPECT_TRUE(has(": Error: FPROT: Failed to open [" + bad + "]: No such file or directory (2) - retry\n")) << err;
  EXPECT_TRUE(has(": Error: FPROT: Failed to open [" + bad + "]: No such file or directory (2)\n")) << err;
  EXPECT_TRUE(has(": Error: FPROT: Failed to open error prot file [" + bad + ".err]: No such file or directory (2)\n"))
      << err;
  EXPECT_EQ(err_lines.back(), "E001-BASICS " + pid + ": lost file");
}
