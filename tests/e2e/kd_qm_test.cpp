// The front end kd_qm as a whole program against the real daemon.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "kd_qm_front.h"
#include "qm_lib.h"

using namespace std::chrono_literals;

namespace kdtest {
namespace {

constexpr const char* kProcessSignalDone = "STATUS=SUCCESS MSG='process executing and pending jobs' done\n";

/// Answer pipes left in the instance's com directory.
std::vector<std::string> AnswerPipes(const std::string& qm_dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(qm_dir + "com", ec)) {
    const std::string name = e.path().filename().string();
    if (name.rfind("from_qm_pipe", 0) == 0) names.push_back(name);
  }
  return names;
}

class KdQmProgramTest : public DaemonTest {};

class KdQmProgramWithoutDaemonTest : public DaemonTest {
 protected:
  bool StartInSetUp() const override { return false; }
};

TEST_F(KdQmProgramTest, PrintsTheAnswerAndExitsWithItsDigit) {
  ProcessResult r = Run("kd_qm", {"process_signal"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, kProcessSignalDone);
  EXPECT_EQ(r.err, "");

  // Refused as too long: the Error digit, the answer text and a line end.
  r = Run("kd_qm", {"process_signal", std::string(1100, 'a')});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(r.out, "ERROR: query too long. Max length 1024\n");

  EXPECT_TRUE(AnswerPipes(QmDir()).empty());
}

TEST_F(KdQmProgramTest, ShutdownIsAnsweredAndEndsTheDaemon) {
  const ProcessResult r = Run("kd_qm", {"shutdown"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out, "STATUS=WARNING MSG=No queue existing\n");
  ASSERT_TRUE(daemon().WaitExit(10s));
  EXPECT_EQ(daemon().exit_code(), 0);
  EXPECT_FALSE(Exists(RequestPipe()));
}

TEST_F(KdQmProgramTest, GeneralOptionsInFrontOfAndBehindTheCommandWord) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-v", "1", "process_signal"}, {"-v1", "process_signal"},
        {"process_signal", "-v", "1"}, {"--", "process_signal"}}) {
    const ProcessResult r = Run("kd_qm", args);
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.exit_code, 0) << args[0];
    EXPECT_EQ(r.out, kProcessSignalDone) << args[0];
  }
}

TEST_F(KdQmProgramTest, TooFewWordsGiveAHintButTheRequestIsSent) {
  const ProcessResult r = Run("kd_qm", {"sho"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.err.rfind("kd_qm: too few arguments for sho; usage: kd_qm sho ", 0), 0u) << r.err;
  EXPECT_GE(r.exit_code, 0);
  EXPECT_LE(r.exit_code, 2) << "answered by the daemon";
  EXPECT_EQ(r.out.rfind("STATUS=", 0), 0u) << r.out;
}

TEST_F(KdQmProgramTest, CommandLinesThatNameNoRequest) {
  ProcessResult r = Run("kd_qm", {"bogus", "q1"});
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_USAGE);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("kd_qm: unknown command 'bogus'\n", 0), 0u) << r.err;

  r = Run("kd_qm", {});
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_USAGE);
  EXPECT_EQ(r.err.rfind("kd_qm: no command given\n", 0), 0u) << r.err;

  r = Run("kd_qm", {"-x", "process_signal"});
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_USAGE);
  EXPECT_EQ(r.err.rfind("kd_qm: unknown option -x\n", 0), 0u) << r.err;

  r = Run("kd_qm", {"-v"});
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_USAGE);
  EXPECT_EQ(r.err.rfind("kd_qm: option -v needs a level\n", 0), 0u) << r.err;
}

TEST_F(KdQmProgramTest, HelpListsEveryCommand) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"-h"}, {"sho", "-h", "q1"}}) {
    const ProcessResult r = Run("kd_qm", args);
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out.rfind("usage: kd_qm [-h] [-v level] COMMAND [ARGS...]\n", 0), 0u);
    for (const auto& c : kKdQmCommands)
      EXPECT_NE(r.out.find(std::string("\n  ") + c.word + " "), std::string::npos) << c.word;
  }
}

TEST_F(KdQmProgramTest, ManyFrontEndsAtOnceAreAllAnswered) {
  std::vector<std::unique_ptr<ChildProcess>> clients;
  for (int i = 0; i < 20; ++i) {
    auto c = std::make_unique<ChildProcess>();
    const std::string base = instance().root() + "/client" + std::to_string(i);
    ASSERT_TRUE(c->Start({BinaryPath("kd_qm"), "process_signal"}, base + ".out", base + ".err"));
    clients.push_back(std::move(c));
  }
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(clients[static_cast<std::size_t>(i)]->WaitExit(30s));
    EXPECT_EQ(clients[static_cast<std::size_t>(i)]->exit_code(), 0) << i;
    EXPECT_EQ(ReadFile(instance().root() + "/client" + std::to_string(i) + ".out"), kProcessSignalDone);
  }
  EXPECT_TRUE(AnswerPipes(QmDir()).empty());
  EXPECT_TRUE(WaitNoZombies());
}

TEST_F(KdQmProgramWithoutDaemonTest, NoDaemonIsReportedClearly) {
  const auto start = std::chrono::steady_clock::now();
  const ProcessResult r = Run("kd_qm", {"process_signal"});
  ASSERT_TRUE(r.finished);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "no request pipe: no waiting";
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "kd_qm: no answer from kd_qm_main (open pipe failed)\n"
                   "kd_qm: kd_qm_main cannot be reached through " + RequestPipe() +
                       "; is the daemon running?\n");
  EXPECT_TRUE(AnswerPipes(QmDir()).empty());
}

TEST_F(KdQmProgramWithoutDaemonTest, NoConfigurationIsReportedClearly) {
  const std::string missing = instance().root() + "/missing.ini";
  setenv("KD_INI", missing.c_str(), 1);
  const ProcessResult r = Run("kd_qm", {"process_signal"});
  setenv("KD_INI", instance().bootstrap().c_str(), 1);
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(r.err, "kd_qm: gv_rw_qm is not defined in section [Pathes] of the configuration (KD_INI=" +
                       missing + ")\n");
}

TEST_F(KdQmProgramWithoutDaemonTest, ARequestPipeNobodyReadsIsGivenUpAfterAboutTwoSeconds) {
  ASSERT_EQ(::mkfifo(RequestPipe().c_str(), 0770), 0);
  const ProcessResult r = Run("kd_qm", {"process_signal"}, 20s);
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(r.err.rfind("kd_qm: no answer from kd_qm_main (open pipe failed)\n", 0), 0u) << r.err;
  EXPECT_TRUE(AnswerPipes(QmDir()).empty());
}

TEST_F(KdQmProgramWithoutDaemonTest, TheAlarmEndsAWaitForAnAnswerThatNeverComes) {
  // A reader that takes the request and never answers.
  ASSERT_EQ(::mkfifo(RequestPipe().c_str(), 0770), 0);
  const int reader = ::open(RequestPipe().c_str(), O_RDWR | O_NONBLOCK);
  ASSERT_GE(reader, 0);

  ChildProcess front;
  const std::string out = instance().root() + "/front.out";
  const std::string err = instance().root() + "/front.err";
  ASSERT_TRUE(front.Start({BinaryPath("kd_qm"), "process_signal"}, out, err));
  std::string request;
  ASSERT_TRUE(WaitFor(
      [&] {
        char buf[256];
        const ssize_t n = ::read(reader, buf, sizeof buf);
        if (n > 0) request.append(buf, static_cast<std::size_t>(n));
        return request.find('\n') != std::string::npos;
      },
      10s));
  EXPECT_EQ(request, "26 " + std::to_string(front.pid()) + " \n");
  const std::string answer_pipe = QmDir() + "com/from_qm_pipe" + std::to_string(front.pid());
  EXPECT_TRUE(Exists(answer_pipe));

  front.Signal(SIGALRM);
  ASSERT_TRUE(front.WaitExit(10s));
  EXPECT_EQ(front.exit_code(), KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(ReadFile(err), "kd_qm: no answer from kd_qm_main within 60 seconds\n");
  EXPECT_EQ(ReadFile(out), "");
  EXPECT_FALSE(Exists(answer_pipe));
  ::close(reader);
}

}  // namespace
}  // namespace kdtest
