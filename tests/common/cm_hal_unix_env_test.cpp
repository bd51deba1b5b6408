// The environment of a started program (i_setenv_kelda): program and database
// directories in PATH, the database port, the library path of the legacy
// platform; and i_cm_kill.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "cm_hal_unix.h"
#include "kd_test_support.h"
#include "test_trace.h"

namespace {

std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "<unset>";
}

/// A test instance with its trace log open at level 2; PATH, PGPORT and
/// LD_LIBRARY_PATH are restored afterwards.
class SetenvKelda : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("PATH", "/usr/bin:/bin", 1);
    unsetenv("PGPORT");
    unsetenv("LD_LIBRARY_PATH");
  }
  void TearDown() override {
    for (const auto& [name, value] : saved_)
      value == "<unset>" ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
  }
  /// i_setenv_kelda with its standard output captured.
  static int Call(const char* module, std::string* out = nullptr) {
    int result = -1;
    const std::string printed = kdtest::CaptureFd(1, [&] { result = i_setenv_kelda(module); });
    if (out) *out = printed;
    return result;
  }
  std::string Db() const { return inst_.root() + "/db/"; }

  const std::pair<std::string, std::string> saved_[3] = {
      {"PATH", Env("PATH")}, {"PGPORT", Env("PGPORT")}, {"LD_LIBRARY_PATH", Env("LD_LIBRARY_PATH")}};
  kdtest::TestInstance inst_;
  kdtest::ModuleTrace log_{inst_, 2};
};

}  // namespace

TEST_F(SetenvKelda, AppendsTheProgramDirectoriesOnceAndOnlyTheFirst511CharactersOfTheModuleCount) {
  const std::string kds = inst_.root() + "/kds/";
  inst_.write_kd_ini("gv_ro_kds=" + kds + "\n");
  // gv_rw_bin and gv_ro_bin name the same directory here: it is appended once, and only once per process.
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(Call("kd_qm_main"), 1);
    EXPECT_EQ(Env("PATH"), "/usr/bin:/bin:" + inst_.bin() + ":" + kds);
  }
  EXPECT_EQ(Env("PGPORT"), "<unset>") << "no database access, no port";
  EXPECT_TRUE(log_.Has("i_setenv_kelda: check [kd_qm_main] -> iWithDbAccess 0"));

  // A directory inside a longer one counts as present.
  const std::string path = "/usr/bin:" + inst_.bin() + "extra:" + kds;
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(Call("kd_qm_main"), 1);
  EXPECT_EQ(Env("PATH"), path);

  EXPECT_EQ(Call(nullptr) + Call(""), 2);
  const std::string huge = std::string(3000, ' ') + "KD_DB" + std::string(5000, '\xff');
  EXPECT_EQ(Call(huge.c_str()), 1) << "no gv_ro_db: goes on without database environment";
  EXPECT_EQ(Call((std::string(600, 'x') + "kd_db").c_str()), 1);
  EXPECT_TRUE(log_.Has("check [" + std::string(511, 'x') + "] -> iWithDbAccess 0"));
}

TEST_F(SetenvKelda, DatabaseModulesGetPortAndDatabaseDirectories) {
  inst_.write_kd_ini("[SERVER]\ngv_port_db=5433\n");
  EXPECT_EQ(Call("kd_db_restore"), 1);
  EXPECT_TRUE(log_.Has("i_setenv_kelda: 'gv_ro_db' does not exist -> go on without database environment"));
  EXPECT_EQ(Env("PGPORT"), "<unset>");

  inst_.write_kd_ini("gv_ro_db=" + Db() + "\n[SERVER]\ngv_port_db=5433\n");
  EXPECT_EQ(Call("  KD_DB_Backup -x"), 1);
  EXPECT_TRUE(log_.Has("i_setenv_kelda: check [kd_db_backup -x] -> iWithDbAccess 1"));
  EXPECT_EQ(Env("PGPORT"), "5433");
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin:" + inst_.bin() + ":" + Db() + ":/usr/local/pgsql/bin/");
}

TEST_F(SetenvKelda, MissingSettingsAndATooLongPathLeavePathAsItIs) {
  std::string out;
  inst_.write_kd_ini("gv_ro_db=" + Db() + "\n");
  EXPECT_EQ(Call("kd_db_backup", &out), 0);
  EXPECT_EQ(out, "key gv_port_db not found in kd.ini\n");
  EXPECT_TRUE(log_.Has("Error: key gv_port_db not found in kd.ini"));
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin");

  kdtest::WriteFile(inst_.kd_ini(), "[Pathes]\ngv_rw_lgc=" + inst_.lgc() + "\ngv_rw_ini=" + inst_.ini_dir() + "\n");
  EXPECT_EQ(Call("kd_qm_main"), 0);
  EXPECT_TRUE(log_.Has("Error: i_setenv_kelda: ERROR: i_READ_INI(gv_ro_bin) failed"));
  EXPECT_EQ(Env("PATH"), "/usr/bin:/bin");

  inst_.write_kd_ini();
  unsetenv("PATH");
  EXPECT_EQ(Call("kd_qm_main", &out), 0);
  EXPECT_EQ(out, "error in getenv PATH");
  EXPECT_TRUE(log_.Has("Error: i_setenv_kelda: ERROR: getenv(PATH) returned 0"));

  const std::string path = "/usr/bin:" + std::string(2030, 'p');
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(Call("kd_qm_main", &out), 0);
  EXPECT_EQ(Env("PATH"), path);
  EXPECT_EQ(out.substr(out.find("iStrLenPath")), "iStrLenPath  = 2039\niSizeOfPath  = 2048\n"
                                                 "length of string is not sufficient");
  // Exactly 2047 characters still fit.
  setenv("PATH", std::string(2047 - 1 - inst_.bin().size(), 'q').c_str(), 1);
  EXPECT_EQ(Call("kd_qm_main"), 1);
  EXPECT_EQ(Env("PATH").size(), 2047u);
}

TEST_F(SetenvKelda, LegacyPlatformExtendsTheLibraryPathOnce) {
  std::string out;
  std::string err = kdtest::CaptureFd(2, [&] { EXPECT_EQ(Call("netware_agent -v", &out), 1); });
  EXPECT_EQ(out, "didn't get LD_LIBRARY_PATHset LD_LIBRARY_PATH=:/opt/novell/lib\n");
  EXPECT_NE(err.find("check LD_LIBRARY_PATH=\n"), std::string::npos) << err;
  EXPECT_EQ(Env("LD_LIBRARY_PATH"), ":/opt/novell/lib");
  kdtest::CaptureFd(2, [&] { EXPECT_EQ(Call("NetWare_agent", &out), 1); });
  EXPECT_EQ(Env("LD_LIBRARY_PATH"), ":/opt/novell/lib") << "appended once";
  unsetenv("LD_LIBRARY_PATH");
  EXPECT_EQ(Call("agent netware"), 1) << "netware only counts in the first word";
  EXPECT_EQ(Env("LD_LIBRARY_PATH"), "<unset>");
}

TEST_F(SetenvKelda, KillSignalsALiveProcessAndReportsAVanishedOne) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    for (;;) pause();
  }
  EXPECT_EQ(i_cm_kill(child, SIGTERM), 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_TRUE(log_.Has("i_cm_kill: pid " + std::to_string(child) + " signal 15"));
  EXPECT_TRUE(log_.Has("i_cm_kill returns 1"));
  EXPECT_EQ(i_cm_kill(child, SIGTERM), 0) << "reaped: gone";
  EXPECT_TRUE(log_.Has("Error: ERROR (3): No such process"));
  EXPECT_TRUE(log_.Has("i_cm_kill returns 0"));
}
