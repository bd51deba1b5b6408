// Faults around the running daemon: clients that never read, signals to its
// answer writers, the request pipe removed under it, the pass on an alarm,
// and SIGINT to the daemon (SIGTERM, with jobs running, is in
// reliability_test.cpp).
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using std::chrono::seconds;

std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

/// At trace level 3 the signal handler's and the answer writers' lines are in the trace log.
class DaemonFaultTest : public SharedDaemonTest<3> {
 protected:
  /// The one answer writer running, once it is the only one.
  pid_t OnlyWriter() const {
    std::vector<pid_t> writers;
    return WaitFor([&] { return (writers = AnswerWriters(true)).size() == 1; }, seconds(5)) ? writers[0] : -1;
  }
  /// Waits until the daemon blocks in the read of its pipe with no answer writer
  /// left and every request it sent itself served.
  bool WaitIdle() {
    const std::string syscall = "/proc/" + std::to_string(daemon_pid()) + "/syscall";
    return WaitFor(
        [&] {
          const std::string log = TraceLog(true);
          return AnswerWriters().empty() &&
                 Count(log, "sig_handler: Command: 26 0") == Count(log, "Info: query: 26 0") &&
                 ReadFile(syscall).rfind(std::to_string(SYS_read) + " ", 0) == 0;
        },
        seconds(10));
  }
  /// Sends a process_signal request whose answer pipe exists but is not opened.
  std::unique_ptr<RawClient> RequestWithoutReader() {
    auto client = NewClient();
    EXPECT_TRUE(client->CreatePipe());
    EXPECT_TRUE(client->Send("26 " + std::to_string(client->id()) + "\n"));
    return client;
  }
};

// A client that never opens its answer pipe (one that has gone away leaves
// its writer in the same place: a FIFO without a reader).
TEST_F(DaemonFaultTest, AClientThatNeverReadsDoesNotBlockTheDaemon) {
  auto silent = RequestWithoutReader();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(1)) << "served while the writer waits";
  // Writers that find no reader give up after 20 tries within about two seconds.
  EXPECT_TRUE(WaitForTrace("ERROR: Can't open from_qm pipe " + silent->answer_pipe() + " (6)"));
  EXPECT_TRUE(WaitForTrace("open( [" + silent->answer_pipe() +
                           "], ... ) returned (6): No such device or address (retry 20/20)"));
  EXPECT_TRUE(WaitFor([&] { return AnswerWriters(true).empty(); }, seconds(10)));
  EXPECT_TRUE(WaitNoZombies());
  EXPECT_TRUE(WaitForTrace("exited with 1"));
}

// A writer ignores SIGTERM and SIGINT and still delivers; one killed is reaped.
TEST_F(DaemonFaultTest, SignalledAnswerWritersDeliverOrAreReaped) {
  auto waiting = RequestWithoutReader();
  const pid_t writer = OnlyWriter();
  ASSERT_GT(writer, 0);
  kill(writer, SIGTERM);
  kill(writer, SIGINT);
  ASSERT_TRUE(waiting->OpenForAnswer());
  const RawAnswer a = waiting->ReadAnswer(seconds(10));
  EXPECT_TRUE(a.complete);
  EXPECT_EQ(a.text, kProcessed);
  EXPECT_TRUE(WaitForTrace("answer_... process [" + std::to_string(writer) + "] exited with 0"));

  auto killed = RequestWithoutReader();
  const pid_t victim = OnlyWriter();
  ASSERT_GT(victim, 0);
  kill(victim, SIGKILL);
  EXPECT_TRUE(WaitForTrace("Info: answer_... process [" + std::to_string(victim) + "] terminated"));
  EXPECT_TRUE(WaitNoZombies());
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
}

// The daemon arms a 10-second alarm for every read; the test rings it at once,
// while the daemon waits in that read.
TEST_F(DaemonFaultTest, AnAlarmBringsAPassAndOneSelfRequest) {
  ASSERT_TRUE(WaitIdle());
  const std::size_t before = TraceLog().size();
  daemon().Signal(SIGALRM);
  ASSERT_TRUE(WaitFor(
      [&] {
        const std::string log = TraceLog().substr(before);
        const std::size_t alarm = log.find("sig_handler: signal 14 (SIGALRM) received");
        return alarm != std::string::npos && log.find("+++ WALK_LIST", alarm) != std::string::npos &&
               log.find("sig_handler: Command: 26 0", alarm) != std::string::npos &&
               log.find("Info: query: 26 0", alarm) != std::string::npos;
      },
      seconds(10)))
      << TraceLog().substr(before);
  // Every run of the handler drops exactly one "26 0" into the pipe, and each is served once.
  EXPECT_TRUE(WaitIdle());
}

TEST_F(DaemonFaultTest, ARequestPipeRemovedUnderTheDaemonIsMadeAnew) {
  ASSERT_TRUE(WaitIdle());
  ASSERT_EQ(unlink(RequestPipe().c_str()), 0);
  daemon().Signal(SIGALRM);
  EXPECT_TRUE(WaitReady(seconds(15)));
  const std::string log = TraceLog();
  EXPECT_NE(log.find("sig_handler: errno ENOENT (2): No such file or directory"), std::string::npos);
  EXPECT_NE(log.find("ReadExecuteQuery: request pipe " + RequestPipe() + " has vanished, open it anew"),
            std::string::npos);
  EXPECT_NE(log.find("ReadExecuteQuery: recall mkfifo " + RequestPipe()), std::string::npos);
}

/// SIGINT ends the daemon: a daemon of its own.
class DaemonSigintTest : public DaemonTest {
 protected:
  int TraceLevel() const override { return 3; }
};

TEST_F(DaemonSigintTest, SigintEndsTheDaemonInItsHandlerAnsweringNobody) {
  daemon().Signal(SIGINT);
  ASSERT_TRUE(daemon().WaitExit(seconds(10)));
  EXPECT_EQ(daemon().exit_code(), 1);  // its pipe and lock: as for SIGTERM (ShutdownWithJobsTest)
  const std::string log = TraceLog();
  EXPECT_NE(log.find("sig_handler: signal 2 (SIGINT/SIGTERM) received in " + std::to_string(daemon_pid()) +
                     " send by " + std::to_string(getpid()) + "."),
            std::string::npos);
  EXPECT_NE(log.find("no need to answer - peer not valid - done"), std::string::npos);
  EXPECT_NE(log.find("--- sig_handler: exit in signal handler"), std::string::npos);
}

}  // namespace
}  // namespace kdtest
