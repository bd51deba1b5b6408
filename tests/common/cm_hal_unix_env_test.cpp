#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "cm_hal_unix.h"
#include "cm_trace.h"
#include "kd_test_support.h"

namespace {

/// Saves and restores one environment variable.
class SavedEnv {
 public:
  explicit SavedEnv(const char* name) : name_(name) {
    if (const char* v = std::getenv(name)) {
      had_ = true;
      value_ = v;
    }
  }
  ~SavedEnv() {
    if (had_)
      setenv(name_, value_.c_str(), 1);
    else
      unsetenv(name_);
  }

 private:
  const char* name_;
  bool had_ = false;
  std::string value_;
};

std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "<unset>";
}

/// A test instance with its trace log open at level 2; PATH, PGPORT and
/// LD_LIBRARY_PATH are restored afterwards.
class SetenvKelda : public ::testing::Test {
 protected:
  void SetUp() override {
    inst_.write_debug_ini("KD_TEST=2\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &rec_);
    setenv("PATH", "/usr/bin:/bin", 1);
    unsetenv("PGPORT");
    unsetenv("LD_LIBRARY_PATH");
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
  /// i_setenv_kelda with its standard output captured.
  int Call(const char* module, std::string* out = nullptr) {
    int result = -1;
    const std::string printed = kdtest::CaptureFd(1, [&] { result = i_setenv_kelda(module); });
    if (out) *out = printed;
    return result;
  }
  /// kd.ini with the test instance's "[Pathes]", the given extra lines there, and further sections.
  void Ini(const std::string& extra) { inst_.write_kd_ini(extra); }
  std::string Db() const { return inst_.root() + "/db/"; }
  std::string Kds() const { return inst_.root() + "/kds/"; }

  SavedEnv path_{"PATH"};
  SavedEnv pgport_{"PGPORT"};
  SavedEnv ld_{"LD_LIBRARY_PATH"};
  kdtest::TestInstance inst_;
  str_log rec_;
};

}  // namespace

TEST_F(SetenvKelda, AppendsTheProgramDirectoriesOnce) {
  Ini("gv_ro_kds=" + Kds() + "\n");
  EXPECT_EQ(Call("kd_qm_main"), 1);
  // gv_rw_bin and gv_ro_bin name the same directory here: it is appended once.
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin:" + inst_.bin() + ":" + Kds());
  EXPECT_EQ(Env("PGPORT"), "<unset>") << "no database access, no port";
  EXPECT_TRUE(LogHas("i_setenv_kelda: check [kd_qm_main] -> iWithDbAccess 0")) << Log();

  EXPECT_EQ(Call("kd_qm_main"), 1);
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin:" + inst_.bin() + ":" + Kds()) << "a second call appends nothing";
}

TEST_F(SetenvKelda, ADirectoryInsideALongerOneCountsAsPresent) {
  const std::string path = "/usr/bin:" + inst_.bin() + "extra";
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(Call("kd_qm_main"), 1);
  EXPECT_EQ(Env("PATH"), path);
}

TEST_F(SetenvKelda, DatabaseModulesGetPortAndDatabaseDirectories) {
  Ini("gv_ro_db=" + Db() + "\n[SERVER]\ngv_port_db=5433\n");
  EXPECT_EQ(Call("  KD_DB_Backup -x"), 1);
  EXPECT_TRUE(LogHas("i_setenv_kelda: check [kd_db_backup -x] -> iWithDbAccess 1")) << Log();
  EXPECT_EQ(Env("PGPORT"), "5433");
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin:" + inst_.bin() + ":" + Db() + ":/usr/local/pgsql/bin/");

  // The same port again: the environment entry is not replaced.
  const char* entry = std::getenv("PGPORT");
  EXPECT_EQ(Call("kd_db_backup"), 1);
  EXPECT_EQ(std::getenv("PGPORT"), entry);

  Ini("gv_ro_db=" + Db() + "\ngv_ro_pgsql=/opt/pg/bin/\n[SERVER]\ngv_port_db=6000\n");
  EXPECT_EQ(Call("kd_db_backup"), 1);
  EXPECT_EQ(Env("PGPORT"), "6000");
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin:" + inst_.bin() + ":" + Db() + ":/usr/local/pgsql/bin/:/opt/pg/bin/");
}

TEST_F(SetenvKelda, DatabaseFlagWithoutDatabaseDirectoryGoesOnWithout) {
  Ini("[SERVER]\ngv_port_db=5433\n");
  EXPECT_EQ(Call("kd_db_restore"), 1);
  EXPECT_TRUE(
      LogHas("i_setenv_kelda: 'gv_ro_db' does not exist -> go on without database environment"))
      << Log();
  EXPECT_EQ(Env("PGPORT"), "<unset>");
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin:" + inst_.bin());
}

TEST_F(SetenvKelda, MissingSettingsFailWithoutTouchingPath) {
  std::string out;
  Ini("gv_ro_db=" + Db() + "\n");
  EXPECT_EQ(Call("kd_db_backup", &out), 0);
  EXPECT_EQ(out, "key gv_port_db not found in kd.ini\n");
  EXPECT_TRUE(LogHas("Error: key gv_port_db not found in kd.ini")) << Log();
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin");

  kdtest::WriteFile(inst_.kd_ini(), "[Pathes]\ngv_rw_lgc=" + inst_.lgc() + "\ngv_rw_ini=" + inst_.ini_dir() + "\n");
  EXPECT_EQ(Call("kd_qm_main"), 0);
  EXPECT_TRUE(LogHas("Error: i_setenv_kelda: ERROR: i_READ_INI(gv_rw_bin) failed"));
  EXPECT_TRUE(LogHas("Error: i_setenv_kelda: ERROR: i_READ_INI(gv_ro_bin) failed"));
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin");

  Ini("");
  unsetenv("PATH");
  EXPECT_EQ(Call("kd_qm_main", &out), 0);
  EXPECT_EQ(out, "error in getenv PATH");
  EXPECT_TRUE(LogHas("Error: i_setenv_kelda: ERROR: getenv(PATH) returned 0"));
  EXPECT_EQ(Env("PATH"), "<unset>");
}

TEST_F(SetenvKelda, APathThatWouldGrowTooLongIsLeftAsItIs) {
  const std::string path = "/usr/bin:" + std::string(2030, 'p');
  setenv("PATH", path.c_str(), 1);
  std::string out;
  EXPECT_EQ(Call("kd_qm_main", &out), 0);
  EXPECT_EQ(Env("PATH"), path);
  const std::string len = std::to_string(inst_.bin().size());
  EXPECT_EQ(out, "iStrLenRwBin = " + len + " (0 means that string already in PATH)\n"
                 "iStrLenRoBin = 0 (0 means that string already in PATH)\n"
                 "iStrLenRoDb  = 0 (0 means that string already in PATH)\n"
                 "iStrLenRoPgsql = 0 (0 means that string already in PATH)\n"
                 "iStrLenRoKds = 0 (0 means that string already in PATH)\n"
                 "iStrLenPath  = 2039\n"
                 "iSizeOfPath  = 2048\n"
                 "length of string is not sufficient");

  // Exactly 2047 characters still fit.
  const std::string fits = std::string(2047 - 1 - inst_.bin().size(), 'q');
  setenv("PATH", fits.c_str(), 1);
  EXPECT_EQ(Call("kd_qm_main"), 1);
  EXPECT_EQ(Env("PATH").size(), 2047u);
}

TEST_F(SetenvKelda, LegacyPlatformExtendsTheLibraryPath) {
  std::string out;
  std::string err = kdtest::CaptureFd(2, [&] { EXPECT_EQ(Call("netware_agent -v", &out), 1); });
  EXPECT_EQ(out, "didn't get LD_LIBRARY_PATHset LD_LIBRARY_PATH=:/opt/novell/lib\n");
  EXPECT_NE(err.find("check LD_LIBRARY_PATH=\n"), std::string::npos) << err;
  EXPECT_EQ(Env("LD_LIBRARY_PATH"), ":/opt/novell/lib");

  err = kdtest::CaptureFd(2, [&] { EXPECT_EQ(Call("NetWare_agent", &out), 1); });
  EXPECT_EQ(out, "");
  EXPECT_NE(err.find("check LD_LIBRARY_PATH=:/opt/novell/lib\n"), std::string::npos) << err;
  EXPECT_EQ(Env("LD_LIBRARY_PATH"), ":/opt/novell/lib");

  unsetenv("LD_LIBRARY_PATH");
  EXPECT_EQ(Call("agent netware"), 1) << "netware only counts in the first word";
  EXPECT_EQ(Env("LD_LIBRARY_PATH"), "<unset>");
}

TEST_F(SetenvKelda, OddModuleTexts) {
  EXPECT_EQ(Call(nullptr), 1);
  EXPECT_EQ(Call(""), 1);
  const std::string huge = std::string(3000, ' ') + "KD_DB" + std::string(5000, '\xff');
  EXPECT_EQ(Call(huge.c_str()), 1) << "no gv_ro_db: goes on without database environment";
  const std::string late = std::string(600, 'x') + "kd_db";
  EXPECT_EQ(Call(late.c_str()), 1);
  EXPECT_TRUE(LogHas("check [" + std::string(511, 'x') + "] -> iWithDbAccess 0"))
      << "only the first 511 characters count";
}

// ---------------------------------------------------------------------------
// i_cm_kill
// ---------------------------------------------------------------------------

namespace {
/// A child process that waits for a signal; killed and reaped on destruction.
class Child {
 public:
  Child() {
    pid_ = fork();
    if (pid_ == 0) {
      for (;;) pause();
    }
  }
  ~Child() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  int Reap() {
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
    return status;
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};
}  // namespace

TEST_F(SetenvKelda, KillSignalsALiveProcessAndTracesTheOutcome) {
  Child child;
  ASSERT_GT(child.pid(), 0);
  EXPECT_EQ(i_cm_kill(child.pid(), SIGTERM), 1);
  const int status = child.Reap();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_TRUE(LogHas("i_cm_kill: pid " + std::to_string(child.pid()) + " signal 15")) << Log();
  EXPECT_TRUE(LogHas("i_cm_kill returns 1"));
}

TEST_F(SetenvKelda, KillOfAProcessThatIsGoneAnswersZero) {
  pid_t gone;
  {
    Child child;
    ASSERT_GT(child.pid(), 0);
    gone = child.pid();
    kill(gone, SIGKILL);
    child.Reap();
  }
  EXPECT_EQ(i_cm_kill(gone, SIGTERM), 0);
  EXPECT_TRUE(LogHas("Error: ERROR (3): No such process")) << Log();
  EXPECT_TRUE(LogHas("i_cm_kill returns 0"));
}
