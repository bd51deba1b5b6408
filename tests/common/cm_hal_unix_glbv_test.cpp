// Global variables: read, write, delete and list services, the cut of long
// values, bad names and directories, and concurrent writers.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "kd_test_support.h"
#include "test_trace.h"

using kdtest::CaptureFd;
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
    EXPECT_EQ(glbv(service, n, buffer), buffer);
    if (name_after) *name_after = n;
    return buffer;
  }
  std::string FileOf(const std::string& name) const { return inst_.glbv_dir() + name + ".sgv"; }
  std::string TraceOf(const std::function<void()>& fn) {
    kdtest::ModuleTrace log(inst_, 0);
    fn();
    return log.Text();
  }

  kdtest::TestInstance inst_;
};

TEST_F(GlbvTest, WritesWholeFilesAndReadsThemBack) {
  const mode_t old_mask = umask(077);
  EXPECT_EQ(Glbv('w', "gv_date", "2026-11-22"), "2026-11-22");
  umask(old_mask);
  EXPECT_EQ(ReadFile(FileOf("gv_date")), "2026-11-22");  // no line end added
  struct stat st {};
  ASSERT_EQ(stat(FileOf("gv_date").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(Glbv('r', "gv_date"), "2026-11-22");
  // Lines of a file written by hand are joined without their line ends.
  inst_.write_glbv("multi", "one\ntwo\r\nthree\n");
  EXPECT_EQ(Glbv('r', "multi"), "onetwo\rthree");
  // R reads and removes.
  EXPECT_EQ(Glbv('R', "gv_date"), "2026-11-22");
  EXPECT_FALSE(Exists(FileOf("gv_date")));
  EXPECT_EQ(Glbv('R', "gv_date"), "?? GLBV gv_date not existing");
  // Slashes in names become underscores, so a name cannot leave the directory.
  std::string after;
  EXPECT_EQ(Glbv('w', "a/b", "v1", &after), "v1");
  EXPECT_EQ(after, "a_b");
  EXPECT_EQ(Glbv('r', "a\\b"), "v1");
  EXPECT_EQ(Glbv('r', "../../etc/passwd"), "?? GLBV .._.._etc_passwd not existing");
  EXPECT_EQ(Glbv('x', "v"), "?? invalid service x");
  eLang = LANG_DE;
  EXPECT_EQ(Glbv('x', "v"), "?? ungültiger Parameter x");
}

TEST_F(GlbvTest, EmptyAndUnreadableVariablesAnswerNotExisting) {
  std::string answer;
  std::string text = TraceOf([&] { answer = Glbv('r', "never"); });
  EXPECT_EQ(answer, "?? GLBV never not existing");
  EXPECT_EQ(text.find("glbv()"), std::string::npos) << text;

  EXPECT_EQ(Glbv('w', "empty", ""), "");
  text = TraceOf([&] {
    EXPECT_EQ(Glbv('r', "empty"), "?? GLBV empty not existing");
    // R of an empty file is no successful read: the file stays.
    EXPECT_EQ(Glbv('R', "empty"), "?? GLBV empty not existing");
  });
  EXPECT_TRUE(Exists(FileOf("empty")));
  EXPECT_NE(text.find(": Error: glbv() read failed: empty file\n"), std::string::npos) << text;

  ASSERT_EQ(mkdir(FileOf("dir").c_str(), 0755), 0);
  EXPECT_EQ(Glbv('r', "dir"), "?? GLBV dir not existing: Is a directory");
}

TEST_F(GlbvTest, CutsLongValuesAt510WithAMark) {
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

TEST_F(GlbvTest, DeleteRemovesByNameOrByPatternAndAge) {
  for (const char* n : {"job_old", "job_new", "job_mid", "other_old", "single"}) inst_.write_glbv(n, "v");
  const auto age = [&](const char* name, int hours) {
    std::filesystem::last_write_time(FileOf(name), std::filesystem::file_time_type::clock::now() -
                                                       std::chrono::hours(hours));
  };
  age("job_old", 8 * 24);
  age("job_mid", 6 * 24 + 12);
  age("other_old", 30 * 24);
  WriteFile(inst_.glbv_dir() + "job_notvar.txt", "x");

  EXPECT_EQ(Glbv('d', "single", ""), "");
  EXPECT_FALSE(Exists(FileOf("single")));
  Glbv('d', "single", "");  // a missing variable is no error
  EXPECT_EQ(Glbv('d', "job_*", "7"), "7");
  EXPECT_FALSE(Exists(FileOf("job_old")));
  EXPECT_TRUE(Exists(FileOf("job_mid")) && Exists(FileOf("job_new")) && Exists(FileOf("other_old")));
  EXPECT_TRUE(Exists(inst_.glbv_dir() + "job_notvar.txt"));
  // 0 days: every match, whatever its age.
  Glbv('d', "job_?ew|other_*", "0");
  EXPECT_FALSE(Exists(FileOf("job_new")) || Exists(FileOf("other_old")));
  EXPECT_TRUE(Exists(FileOf("job_mid")));
  inst_.write_glbv("job_empty", "");
  EXPECT_EQ(CaptureFd(1, [&] { EXPECT_EQ(Glbv('l', "job_*", "keep"), "keep"); }), "job_empty\njob_mid\n");
  EXPECT_EQ(CaptureFd(1, [&] { Glbv('L', "job_?mpty|job_mid", ""); }),
            "job_empty=?? GLBV job_empty not existing\njob_mid=v\n");
}

TEST_F(GlbvTest, MissingOrUnwritableDirectoryAnswers) {
  WriteFile(inst_.kd_ini(), "[Pathes]\ngv_rw_lgc=" + inst_.lgc() + "\n");
  glbv_forget_directory();
  EXPECT_EQ(Glbv('r', "v"),
            "?? Fatal software error FILE=../cm_hal_unix LINE=298 (i_GetPrivateProfileString: KEY NOT FOUND: "
            "gv_rw_glbv error reading kd_ini)");
  // Not kept: once the key is there, the next call finds the directory.
  inst_.write_kd_ini();
  EXPECT_EQ(Glbv('w', "v", "x"), "x");

  // gv_rw_glbv names a directory that does not exist.
  std::string ini = ReadFile(inst_.kd_ini());
  WriteFile(inst_.kd_ini(), ini.replace(ini.find(inst_.glbv_dir()), inst_.glbv_dir().size(), inst_.root() + "/nodir/"));
  glbv_forget_directory();
  const std::string text = TraceOf([&] {
    EXPECT_EQ(Glbv('w', "v", "x"), "?? GLBV v cannot be created: No such file or directory");
    EXPECT_EQ(Glbv('r', "v"), "?? GLBV v not existing");
    EXPECT_EQ(CaptureFd(1, [&] { Glbv('L', "*", ""); }), "");
    EXPECT_EQ(Glbv('d', "*", "0"), "0");
  });
  EXPECT_NE(text.find("Error: glbv() write " + inst_.root() + "/nodir/v.sgv.tmp failed: No such file or directory (2)\n"),
            std::string::npos)
      << text;
}

// Several processes write one variable many times while this one reads it:
// every read answers one complete written value.
TEST_F(GlbvTest, ConcurrentWritersNeverShowAPartialValue) {
  const std::vector<std::string> values = {"a", std::string(100, 'b'), std::string(300, 'c'), "dddd-dddd"};
  EXPECT_EQ(Glbv('w', "shared", values[0]), values[0]);
  std::set<pid_t> writers;
  for (const std::string& value : values) {
    const pid_t pid = fork();
    if (pid == 0) {
      for (int n = 0; n < 400; ++n)
        if (Glbv('w', "shared", value)[0] == '?') _exit(2);
      _exit(0);
    }
    if (pid > 0) writers.insert(pid);
  }
  // Reads as fast as possible until the writers have ended, under a deadline.
  const std::set<std::string> allowed(values.begin(), values.end());
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
       !writers.empty() && std::chrono::steady_clock::now() < end;) {
    const std::string got = Glbv('r', "shared");
    EXPECT_EQ(allowed.count(got), 1u) << "[" << got << "]";
    int status = 0;
    const pid_t ended = waitpid(-1, &status, WNOHANG);
    if (ended <= 0) continue;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    writers.erase(ended);
  }
  EXPECT_TRUE(writers.empty());
  for (pid_t p : writers) kill(p, SIGKILL), waitpid(p, nullptr, 0);
  EXPECT_FALSE(Exists(FileOf("shared") + ".tmp"));
}

}  // namespace
