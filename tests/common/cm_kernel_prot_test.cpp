// The protocol messages (FPROT): standard output without gv_prot, the error
// file, an additional file, bad tags, overlong texts, and the language of a text.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_kernel.h"
#include "kd_test_support.h"

using kdtest::CaptureFd;
using kdtest::ReadFile;
using V = std::vector<std::string>;

namespace {

// The lines of a protocol text with the leading "YYYY-MM-DD HH:MM:SS " cut off.
V ProtLines(const std::string& text) {
  V out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    out.push_back(kdtest::StartsWithShape(line, "9999-99-99 99:99:99 ") ? line.substr(20) : "<no timestamp>" + line);
  return out;
}

class ProtTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char field[32];
    std::snprintf(field, sizeof field, "[%6d]: ", static_cast<int>(getpid()));
    pid = field;
    inst.write_glbv("gv_prot", prot());
  }
  void TearDown() override { eLang = LANG_EN; }
  std::string prot() const { return inst.root() + "/prot.txt"; }
  V Prot() const { return ProtLines(ReadFile(prot())); }
  V Err() const { return ProtLines(ReadFile(prot() + ".err")); }

  kdtest::TestInstance inst;
  std::string pid;  ///< "[%6d]: " of this process, as every protocol line carries it
};

}  // namespace

TEST_F(ProtTest, WithoutGvProtMessagesGoToStandardOutputAndErrorsAlsoToStandardError) {
  std::filesystem::remove(inst.glbv_dir() + "gv_prot.sgv");
  std::string out;
  const std::string err = CaptureFd(2, [&] {
    out = CaptureFd(1, [] {
      FPROT(nullptr, "W003-BASICS  done");
      FPROT(nullptr, "E003-BASICS  %s > %s failed", "A", "B");
    });
  });
  EXPECT_EQ(ProtLines(out), (V{"W003-BASICS " + pid + "done", "E003-BASICS " + pid + "A > B failed"}));
  EXPECT_EQ(ProtLines(err), (V{"E003-BASICS " + pid + "A > B failed"}));
}

// A text in the process's language; a language without it falls back to English.
TEST_F(ProtTest, ErrorsAndTheFirstLineOfOthersGoToTheErrorFileLinePerLine) {
  EXPECT_STREQ(msg_text(MSG_E003_NOT_EXISTING, LANG_FR), MSG_E003_NOT_EXISTING.en);
  FPROT(nullptr, "W003-BASICS  done");
  EXPECT_TRUE(kdtest::Exists(prot() + ".err"));
  EXPECT_TRUE(Err().empty());
  eLang = LANG_DE;
  FPROT(nullptr, msg_text(MSG_E003_NOT_EXISTING), "SET_LOG_MAIN", "gv_rw_lgc");
  FPROT(nullptr, "A100-BASICS  one\ntwo");
  FPROT(nullptr, "E100-BASICS  %s\n%s", "one", "two");
  const std::string e003 = "E003-BASICS " + pid + "SET_LOG_MAIN > gv_rw_lgc existiert noch nicht - Neustart";
  EXPECT_EQ(Prot(), (V{"W003-BASICS " + pid + "done", e003, "A100-BASICS " + pid + "one", "A100-BASICS " + pid + "two",
                       "E100-BASICS " + pid + "one", "E100-BASICS " + pid + "two"}));
  EXPECT_EQ(Err(), (V{e003, "A100-BASICS " + pid + "one", "E100-BASICS " + pid + "one", "E100-BASICS " + pid + "two"}));
}

TEST_F(ProtTest, AdditionalProtocolFileAndUnopenableFiles) {
  sPROT add;
  CopyCut(add.szLogFile, inst.root() + "/extra.txt");
  FPROT(&add, "E010-BASICS  two");
  EXPECT_EQ(ProtLines(ReadFile(add.szLogFile)), (V{"E010-BASICS " + pid + "two"}));
  EXPECT_FALSE(kdtest::Exists(std::string(add.szLogFile) + ".err"));

  const std::string bad = inst.root() + "/no/such/dir/prot.txt";
  CopyCut(add.szLogFile, bad);
  std::string err = CaptureFd(2, [&] { FPROT(&add, "I001-BASICS  still written"); });
  EXPECT_NE(err.find("Error: FPROT: Failed to open additional prot file [" + bad + "]: No such file or directory (2)"),
            std::string::npos)
      << err;
  EXPECT_EQ(Prot().back(), "I001-BASICS " + pid + "still written");

  // An unopenable protocol file falls back to standard output.
  inst.write_glbv("gv_prot", bad);
  std::string out;
  err = CaptureFd(2, [&] { out = CaptureFd(1, [] { FPROT(nullptr, "E001-BASICS  lost file"); }); });
  EXPECT_EQ(ProtLines(out), (V{"E001-BASICS " + pid + "lost file"}));
  EXPECT_NE(err.find(": Error: FPROT: Failed to open [" + bad + "]: No such file or directory (2) - retry\n"),
            std::string::npos)
      << err;
  EXPECT_NE(err.find(": Error: FPROT: Failed to open error prot file [" + bad + ".err]: No such file or directory (2)\n"),
            std::string::npos);
  EXPECT_EQ(ProtLines(err).back(), "E001-BASICS " + pid + "lost file");
}

TEST_F(ProtTest, BadTagsAreReportedAndTheMessageStillWritten) {
  FPROT(nullptr, "I001-%s text follows", "X");
  FPROT(nullptr, "I002-BASICS");
  EXPECT_EQ(Prot(), (V{"W999-BASICS " + pid + "Invalid usage of PROT: prefix with format argument '%s': >I001-%s text<",
                       "I001-X text" + pid + "follows",
                       "W999-BASICS " + pid + "Invalid usage of PROT: format tag is too short: >I002-BASICS< (11 < 13)",
                       "I002-BASICS" + pid}));
}

TEST_F(ProtTest, OverlongOutputAndFormatAreShortenedWithAnE999Line) {
  const std::string big(200000, 'x');
  FPROT(nullptr, "W004-BASICS  %s", big.c_str());
  const std::string head = "W004-BASICS " + pid;
  const std::string long_format = "W005-BASICS  " + std::string(3000, 'y') + "%s";
  FPROT(nullptr, long_format.c_str(), "tail");
  EXPECT_EQ(Prot(), (V{"E999-BASICS " + pid + "Error: The following output was shortened (138000 <> " +
                           std::to_string(20 + head.size() + big.size()) + ")",
                       head + std::string(137999 - 20 - head.size(), 'x'),
                       "E999-BASICS " + pid + "Error: The following format string was shortened (2560 <> " +
                           std::to_string(20 + head.size() + 3002) + ")",
                       "W005-BASICS " + pid + std::string(2559 - 20 - head.size(), 'y')}));
}
