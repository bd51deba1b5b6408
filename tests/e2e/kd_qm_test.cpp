// The front end kd_qm as a whole program against the real daemon.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "client/kd_qm_front.h"
#include "daemon_fixture.h"

using namespace std::chrono_literals;

namespace kdtest {
namespace {

using KdQmProgramTest = SharedDaemonTest<1>;

TEST_F(KdQmProgramTest, PrintsTheAnswerAndExitsWithItsDigit) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"process_signal"}, {"-v", "1", "process_signal"}, {"-v1", "process_signal"},
        {"--", "process_signal"}}) {
    const ProcessResult r = Run("kd_qm", args);
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.exit_code, 0) << args[0];
    EXPECT_EQ(r.out, kProcessed.substr(1)) << args[0];
    EXPECT_EQ(r.err, "") << args[0];
  }
}

TEST_F(KdQmProgramTest, TooLongIsRefusedTooFewWordsAreSentWithAHint) {
  // Refused as too long: the Error digit, the answer text and a line end.
  ProcessResult r = Run("kd_qm", {"process_signal", std::string(1100, 'a')});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(r.out, "ERROR: query too long. Max length 1024\n");
  r = Run("kd_qm", {"sho"});
  EXPECT_EQ(r.err.rfind("kd_qm: too few arguments for sho; usage: kd_qm sho ", 0), 0u) << r.err;
  EXPECT_TRUE(r.exit_code >= 0 && r.exit_code <= 2) << "answered by the daemon: " << r.exit_code;
  EXPECT_NE(r.out.find("STATUS="), std::string::npos) << r.out;
}

TEST_F(KdQmProgramTest, BadCommandLinesAreRefusedAndHelpIsShown) {
  for (const auto& [args, err] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"bogus", "q1"}, "kd_qm: unknown command 'bogus'\n"}, {{}, "kd_qm: no command given\n"},
           {{"-x", "process_signal"}, "kd_qm: unknown option -x\n"}, {{"-v"}, "kd_qm: option -v needs a level\n"}}) {
    const ProcessResult r = Run("kd_qm", args);
    EXPECT_EQ(r.exit_code, KD_QM_EXIT_USAGE) << err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind(err, 0), 0u) << r.err;
  }
  const ProcessResult r = Run("kd_qm", {"sho", "-h", "q1"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out.rfind("usage: kd_qm [-h] [-v level] COMMAND [ARGS...]\n", 0), 0u) << r.out;
}

/// The shutdown ends the daemon: a daemon of its own.
using KdQmShutdownTest = DaemonTest;

TEST_F(KdQmShutdownTest, ShutdownEndsTheDaemonAndLeavesNoAnswerPipe) {
  const ProcessResult r = Run("kd_qm", {"shutdown"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_TRUE(r.out.ends_with("STATUS=SUCCESS MSG=shutdown completed\n")) << r.out;
  ASSERT_TRUE(daemon().WaitExit(10s));
  EXPECT_EQ(daemon().exit_code(), 0);
  EXPECT_TRUE(std::filesystem::is_empty(QmDir() + "com")) << "no answer pipe left, nor the request pipe";
}

class KdQmProgramWithoutDaemonTest : public DaemonTest {
 protected:
  bool StartInSetUp() const override { return false; }
};

TEST_F(KdQmProgramWithoutDaemonTest, NoRequestPipeIsReportedAtOnce) {
  const auto start = std::chrono::steady_clock::now();
  const ProcessResult r = Run("kd_qm", {"process_signal"});
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "no request pipe: no waiting";
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "kd_qm: no answer from kd_qm_main (open pipe failed)\n"
                   "kd_qm: kd_qm_main cannot be reached through " + RequestPipe() + "; is the daemon running?\n");
}

TEST_F(KdQmProgramWithoutDaemonTest, NoConfigurationIsReported) {
  const std::string missing = instance().root() + "/missing.ini";
  setenv("KD_INI", missing.c_str(), 1);
  const ProcessResult r = Run("kd_qm", {"process_signal"});
  setenv("KD_INI", instance().bootstrap().c_str(), 1);
  EXPECT_EQ(r.exit_code, KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(r.err,
            "kd_qm: gv_rw_qm is not defined in section [Pathes] of the configuration (KD_INI=" + missing + ")\n");
}

// A reader that takes the request and never answers: the alarm ends the wait.
TEST_F(KdQmProgramWithoutDaemonTest, NoAnswerEndsTheWaitOnTheAlarm) {
  ASSERT_EQ(::mkfifo(RequestPipe().c_str(), 0770), 0);
  const int reader = ::open(RequestPipe().c_str(), O_RDWR | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  ChildProcess front;
  const std::string out = instance().root() + "/front.out";
  const std::string err = instance().root() + "/front.err";
  ASSERT_TRUE(front.Start({BinaryPath("kd_qm"), "process_signal"}, out, err));
  std::string request;
  EXPECT_TRUE(WaitFor([&] {
    char buf[256];
    const ssize_t n = ::read(reader, buf, sizeof buf);
    if (n > 0) request.append(buf, static_cast<std::size_t>(n));
    return request.find('\n') != std::string::npos;
  }, 10s));
  ::close(reader);
  EXPECT_EQ(request, "26 " + std::to_string(front.pid()) + " \n");
  const std::string answer_pipe = QmDir() + "com/from_qm_pipe" + std::to_string(front.pid());
  EXPECT_TRUE(Exists(answer_pipe));

  front.Signal(SIGALRM);
  ASSERT_TRUE(front.WaitExit(10s));
  EXPECT_EQ(front.exit_code(), KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(ReadFile(err), "kd_qm: no answer from kd_qm_main within 60 seconds\n");
  EXPECT_EQ(ReadFile(out), "");
  EXPECT_FALSE(Exists(answer_pipe));
}

}  // namespace
}  // namespace kdtest
