// Global variables: read, write, delete and list services, the cut of long
// values, bad names and directories, and concurrent writers.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "kd_test_support.h"

using kdtest::Exists;
using kdtest::ReadFile;
using kdtest::WriteFile;

namespace {

class GlbvTest : public ::testing::Test {
 protected:
  ~GlbvTest() override { eLang = LANG_EN; }

  // Runs a service on a copy of name; the answer (and the name as glbv left it).
  std::string Glbv(char service, const std::string& name, const std::string& in = "",
                   std::string* name_after = nullptr) {
    char n[1024];
    char buffer[512];
    CopyCut(n, name);
    CopyCut(buffer, in);
    const char* answer = glbv(service, n, buffer);
    EXPECT_EQ(answer, buffer);
    if (name_after) *name_after = n;
    return buffer;
  }
  std::string FileOf(const std::string& name) const { return inst_.glbv_dir() + name + ".sgv"; }

  void StartTrace(int level) {
    inst_.write_glbv("gv_daylbl", "20990101");
    inst_.write_debug_ini("KD_TEST=" + std::to_string(level) + "\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &log_);
  }
  std::string TraceText() {
    v_set_log_all_close(&log_);
    return ReadFile(inst_.lgc() + "kd_test_20990101.log");
  }

  // Makes a variable file older by the given number of days.
  void Age(const std::string& name, double days) const {
    timeval tv[2];
    gettimeofday(&tv[0], nullptr);
    tv[0].tv_sec -= static_cast<time_t>(days * 86400);
    tv[1] = tv[0];
    ASSERT_EQ(utimes(FileOf(name).c_str(), tv), 0);
  }

  kdtest::TestInstance inst_;
  str_log log_;
};

TEST_F(GlbvTest, WritesWholeFilesAndReadsThemBack) {
  const mode_t old_mask = umask(077);
  EXPECT_EQ(Glbv('w', "gv_date", "2026-11-22"), "2026-11-22");  // buffer unchanged on success
  umask(old_mask);
  EXPECT_EQ(ReadFile(FileOf("gv_date")), "2026-11-22");  // no line end added
  struct stat st {};
  ASSERT_EQ(stat(FileOf("gv_date").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_FALSE(Exists(FileOf("gv_date") + ".tmp"));
  EXPECT_EQ(Glbv('r', "gv_date"), "2026-11-22");
  EXPECT_EQ(Glbv('w', "gv_date", "later"), "later");
  EXPECT_EQ(Glbv('r', "gv_date"), "later");
  // Lines of a file written by hand are joined without their line ends.
  inst_.write_glbv("multi", "one\ntwo\r\nthree\n");
  EXPECT_EQ(Glbv('r', "multi"), "onetwo\rthree");
  // R reads and removes.
  EXPECT_EQ(Glbv('R', "gv_date"), "later");
  EXPECT_FALSE(Exists(FileOf("gv_date")));
  EXPECT_EQ(Glbv('R', "gv_date"), "?? GLBV gv_date not existing");
}

TEST_F(GlbvTest, UnsetAndEmptyVariablesAnswerNotExisting) {
  StartTrace(0);
  EXPECT_EQ(Glbv('r', "never"), "?? GLBV never not existing");
  std::string text = TraceText();
  EXPECT_EQ(text.find("glbv()"), std::string::npos) << text;

  EXPECT_EQ(Glbv('w', "empty", ""), "");
  EXPECT_TRUE(Exists(FileOf("empty")));
  EXPECT_EQ(ReadFile(FileOf("empty")), "");
  StartTrace(0);
  EXPECT_EQ(Glbv('r', "empty"), "?? GLBV empty not existing");
  // R of an empty file is no successful read: the file stays.
  EXPECT_EQ(Glbv('R', "empty"), "?? GLBV empty not existing");
  EXPECT_TRUE(Exists(FileOf("empty")));
  text = TraceText();
  EXPECT_NE(text.find(": Error: glbv() read failed: empty file\n"), std::string::npos) << text;

  // A directory in place of the file is an access problem, answered with its text.
  ASSERT_EQ(mkdir(FileOf("dir").c_str(), 0755), 0);
  EXPECT_EQ(Glbv('r', "dir"), "?? GLBV dir not existing: Is a directory");
}

TEST_F(GlbvTest, SlashesInNamesBecomeUnderscores) {
  std::string after;
  EXPECT_EQ(Glbv('w', "a/b", "v1", &after), "v1");
  EXPECT_EQ(after, "a_b");
  EXPECT_EQ(ReadFile(FileOf("a_b")), "v1");
  EXPECT_EQ(Glbv('r', "a\\b", "", &after), "v1");
  EXPECT_EQ(after, "a_b");
  EXPECT_EQ(Glbv('r', "../../etc/passwd", "", &after), "?? GLBV .._.._etc_passwd not existing");
}

TEST_F(GlbvTest, CutsLongValuesAt510WithAMark) {
  const std::string v600 = std::string(300, 'a') + std::string(300, 'b');
  inst_.write_glbv("long", v600);
  EXPECT_EQ(Glbv('r', "long"), v600.substr(0, 510) + ">");
  inst_.write_glbv("exact", std::string(510, 'e') + "\n");
  EXPECT_EQ(Glbv('r', "exact"), std::string(510, 'e'));
  inst_.write_glbv("lines", std::string(400, 'x') + "\n" + std::string(400, 'y') + "\n");
  EXPECT_EQ(Glbv('r', "lines"), std::string(400, 'x') + std::string(110, 'y') + ">");
  // A written value longer than the answer is stored whole and read back cut.
  char name[] = "big";
  std::vector<char> buffer(2048, 'z');
  buffer.back() = '\0';
  glbv('w', name, buffer.data());
  EXPECT_EQ(ReadFile(FileOf("big")).size(), 2047u);
  EXPECT_EQ(Glbv('r', "big"), std::string(510, 'z') + ">");
}

TEST_F(GlbvTest, UnknownServiceAnswersInTheMessageLanguage) {
  EXPECT_EQ(Glbv('x', "v"), "?? invalid service x");
  eLang = LANG_DE;
  EXPECT_EQ(Glbv('x', "v"), "?? ungültiger Parameter x");
  eLang = LANG_BY;
  EXPECT_EQ(Glbv('x', "v"), "?? deppada Paramätta x");
  eLang = LANG_FR;
  EXPECT_EQ(Glbv('x', "v"), "?? Le Parametre x est erroné");
  eLang = LANG_ES;
  EXPECT_EQ(Glbv('q', "v"), "?? invalid service q");
}

TEST_F(GlbvTest, PatternsMatchWithWildcardsAndAlternatives) {
  EXPECT_TRUE(glbv_pattern_match("job_*", "job_"));
  EXPECT_TRUE(glbv_pattern_match("job_*", "job_17"));
  EXPECT_FALSE(glbv_pattern_match("job_*", "xjob_17"));
  EXPECT_TRUE(glbv_pattern_match("j?b", "job"));
  EXPECT_FALSE(glbv_pattern_match("j?b", "jb"));
  EXPECT_TRUE(glbv_pattern_match("*a*b*", "xxaxxbxx"));
  EXPECT_FALSE(glbv_pattern_match("*a*b", "xxaxxbxx"));
  EXPECT_TRUE(glbv_pattern_match("one|two|thr*", "three"));
  EXPECT_TRUE(glbv_pattern_match("one|two", "two"));
  EXPECT_FALSE(glbv_pattern_match("one|two", "on"));
  EXPECT_TRUE(glbv_pattern_match("*", ""));
  EXPECT_FALSE(glbv_pattern_match("", "x"));
}

TEST_F(GlbvTest, DeleteRemovesByNameOrByPatternAndAge) {
  for (const char* n : {"job_old", "job_new", "job_mid", "other_old", "single"}) inst_.write_glbv(n, "v");
  Age("job_old", 8);
  Age("job_mid", 6.5);
  Age("other_old", 30);
  WriteFile(inst_.glbv_dir() + "job_notvar.txt", "x");

  EXPECT_EQ(Glbv('d', "single", ""), "");
  EXPECT_FALSE(Exists(FileOf("single")));
  Glbv('d', "single", "");  // a missing variable is no error

  EXPECT_EQ(Glbv('d', "job_*", "7"), "7");
  EXPECT_FALSE(Exists(FileOf("job_old")));
  EXPECT_TRUE(Exists(FileOf("job_mid")));
  EXPECT_TRUE(Exists(FileOf("job_new")));
  EXPECT_TRUE(Exists(FileOf("other_old")));
  EXPECT_TRUE(Exists(inst_.glbv_dir() + "job_notvar.txt"));

  // 0 days: every match, whatever its age; "|" and "?" in the pattern.
  Glbv('d', "job_?ew|other_*", "0");
  EXPECT_FALSE(Exists(FileOf("job_new")));
  EXPECT_FALSE(Exists(FileOf("other_old")));
  EXPECT_TRUE(Exists(FileOf("job_mid")));
}

TEST_F(GlbvTest, ListPrintsMatchingNamesAndValues) {
  inst_.write_glbv("q_b", "2");
  inst_.write_glbv("q_a", "1");
  inst_.write_glbv("r_a", "3");
  inst_.write_glbv("q_empty", "");
  std::string out = kdtest::CaptureFd(1, [&] { EXPECT_EQ(Glbv('l', "q_*", "keep"), "keep"); });
  EXPECT_EQ(out, "q_a\nq_b\nq_empty\n");
  out = kdtest::CaptureFd(1, [&] { Glbv('L', "q_?|r_a", ""); });
  EXPECT_EQ(out, "q_a=1\nq_b=2\nr_a=3\n");
  out = kdtest::CaptureFd(1, [&] { Glbv('L', "q_empty", ""); });
  EXPECT_EQ(out, "q_empty=?? GLBV q_empty not existing\n");
}

TEST_F(GlbvTest, KeepsTheDirectoryUntilItIsForgotten) {
  EXPECT_EQ(Glbv('w', "v", "first"), "first");
  kdtest::TempDir other;
  // Point gv_rw_glbv elsewhere: the directory read at the first call stays.
  std::string ini = ReadFile(inst_.kd_ini());
  ini.replace(ini.find(inst_.glbv_dir()), inst_.glbv_dir().size(), other.path() + "/");
  WriteFile(inst_.kd_ini(), ini);
  EXPECT_EQ(Glbv('r', "v"), "first");
  glbv_forget_directory();
  EXPECT_EQ(Glbv('r', "v"), "?? GLBV v not existing");
  EXPECT_EQ(Glbv('w', "v", "second"), "second");
  EXPECT_EQ(ReadFile(other.file("v.sgv")), "second");
}

TEST_F(GlbvTest, MissingDirectoryKeyIsAFatalAnswer) {
  WriteFile(inst_.kd_ini(), "[Pathes]\ngv_rw_lgc=" + inst_.lgc() + "\n");
  glbv_forget_directory();
  EXPECT_EQ(Glbv('r', "v"),
            "?? Fatal software error FILE=../cm_hal_unix LINE=298 (i_GetPrivateProfileString: KEY NOT FOUND: "
            "gv_rw_glbv error reading kd_ini)");
  eLang = LANG_DE;
  EXPECT_EQ(Glbv('w', "v", "x"),
            "?? Fataler Software Fehler FILE=../cm_hal_unix ZEILE=298 (i_GetPrivateProfileString: KEY NOT FOUND: "
            "gv_rw_glbv error reading kd_ini)");
  // Not kept: once the key is there, the next call finds the directory.
  inst_.write_kd_ini();
  EXPECT_EQ(Glbv('w', "v", "x"), "x");
}

TEST_F(GlbvTest, UnwritableDirectoryAnswersCannotBeCreated) {
  StartTrace(0);
  std::string ini = ReadFile(inst_.kd_ini());
  ini.replace(ini.find(inst_.glbv_dir()), inst_.glbv_dir().size(), inst_.root() + "/nodir/");
  WriteFile(inst_.kd_ini(), ini);
  glbv_forget_directory();
  EXPECT_EQ(Glbv('w', "v", "x"), "?? GLBV v cannot be created: No such file or directory");
  EXPECT_EQ(Glbv('r', "v"), "?? GLBV v not existing");
  EXPECT_EQ(kdtest::CaptureFd(1, [&] { Glbv('L', "*", ""); }), "");
  EXPECT_EQ(Glbv('d', "*", "0"), "0");
  const std::string text = TraceText();
  EXPECT_NE(text.find("Error: glbv() write " + inst_.root() + "/nodir/v.sgv.tmp failed: No such file or directory (2)\n"),
            std::string::npos)
      << text;
}

TEST_F(GlbvTest, FailedWriteIsAProtocolMessage) {
  const std::string prot = inst_.root() + "/prot.log";
  inst_.write_glbv("gv_prot", prot);
  // A directory where the variable file should be: the rename over it fails.
  ASSERT_EQ(mkdir(FileOf("blocked").c_str(), 0755), 0);
  WriteFile(FileOf("blocked") + "/inside", "x");
  const std::string answer = Glbv('w', "blocked", "x");
  EXPECT_EQ(answer.rfind("?? GLBV blocked cannot be created: ", 0), 0u) << answer;
  EXPECT_FALSE(Exists(FileOf("blocked") + ".tmp"));
  const std::string protocol = ReadFile(prot);
  EXPECT_NE(protocol.find(answer), std::string::npos) << protocol;
  if (geteuid() != 0) {
    ASSERT_EQ(chmod(inst_.glbv_dir().c_str(), 0555), 0);
    EXPECT_EQ(Glbv('w', "ro", "x"), "?? GLBV ro cannot be created: Permission denied");
    chmod(inst_.glbv_dir().c_str(), 0755);
  }
}

// Several processes write one variable many times while this one reads it:
// every read answers one complete written value.
TEST_F(GlbvTest, ConcurrentWritersNeverShowAPartialValue) {
  const std::vector<std::string> values = {"a", std::string(100, 'b'), std::string(300, 'c'), "dddd-dddd"};
  EXPECT_EQ(Glbv('w', "shared", values[0]), values[0]);
  // Kills and reaps whatever is still running when the test ends early.
  struct Children {
    std::vector<pid_t> pids;
    std::vector<int> status;
    ~Children() {
      for (std::size_t i = 0; i < pids.size(); ++i) {
        if (status[i] != -1) continue;
        kill(pids[i], SIGKILL);
        waitpid(pids[i], &status[i], 0);
      }
    }
  } kids;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int n = 0; n < 400; ++n) {
        char name[] = "shared";
        char buffer[512];
        CopyCut(buffer, values[i]);
        glbv('w', name, buffer);
        if (buffer[0] == '?') _exit(2);
      }
      _exit(0);
    }
    kids.pids.push_back(pid);
    kids.status.push_back(-1);
  }
  const std::set<std::string> allowed(values.begin(), values.end());
  std::size_t alive = kids.pids.size();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  int reads = 0;
  while (alive > 0 && std::chrono::steady_clock::now() < deadline) {
    const std::string got = Glbv('r', "shared");
    ++reads;
    ASSERT_EQ(allowed.count(got), 1u) << "read " << reads << ": [" << got << "]";
    for (std::size_t i = 0; i < kids.pids.size(); ++i) {
      int st = 0;
      if (kids.status[i] == -1 && waitpid(kids.pids[i], &st, WNOHANG) == kids.pids[i]) {
        kids.status[i] = st;
        --alive;
      }
    }
  }
  EXPECT_EQ(alive, 0u);
  for (int st : kids.status) EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
  EXPECT_EQ(allowed.count(Glbv('r', "shared")), 1u);
  EXPECT_FALSE(Exists(FileOf("shared") + ".tmp"));
}

}  // namespace
