// Faults around the running daemon: clients that vanish or never read, many
// clients at once, signals to the daemon and to its answer writers, the
// request pipe removed under it, and the idle pass.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "daemon_fixture.h"
#include "qm_lib.h"

namespace kdtest {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kProcessed = "0STATUS=SUCCESS MSG='process executing and pending jobs' done\n";

class DaemonFaultTest : public DaemonTest {
 protected:
  int TraceLevel() const override { return 3; }

  /// Children of the daemon that are still running (answer writers).
  std::vector<pid_t> LiveWriters() const {
    std::vector<pid_t> live;
    const std::vector<pid_t> zombies = ChildrenOf(daemon_pid(), true);
    for (pid_t p : ChildrenOf(daemon_pid(), false))
      if (std::find(zombies.begin(), zombies.end(), p) == zombies.end()) live.push_back(p);
    return live;
  }

  /// Sends a process_signal request whose answer pipe exists but is not opened.
  std::unique_ptr<RawClient> RequestWithoutReader() {
    auto client = NewClient();
    EXPECT_TRUE(client->CreatePipe());
    EXPECT_TRUE(client->Send("26 " + std::to_string(client->id()) + "\n"));
    return client;
  }
};

TEST_F(DaemonFaultTest, ClientsThatDieBeforeReadingDoNotDisturbTheDaemon) {
  std::vector<pid_t> clients;
  for (int i = 0; i < 5; ++i) {
    const long id = NextClientId();
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      RawClient client(QmDir(), id);
      const bool sent = client.CreatePipe() && client.OpenForAnswer() && client.Send("26 " + std::to_string(id) + "\n");
      _exit(sent ? 0 : 1);  // gone before the answer, its pipe left behind
    }
    clients.push_back(pid);
  }
  for (pid_t pid : clients) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  // Writers that found no reader give up within about two seconds.
  EXPECT_TRUE(WaitFor([&] { return LiveWriters().empty(); }, seconds(10)));
  EXPECT_TRUE(WaitNoZombies());
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
}

TEST_F(DaemonFaultTest, ClientThatNeverOpensItsAnswerPipeDoesNotBlockTheDaemon) {
  auto silent = RequestWithoutReader();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(1)) << "served while the writer waits";

  const std::string failure = "ERROR: Can't open from_qm pipe " + silent->answer_pipe() + " (6)";
  EXPECT_TRUE(WaitForTrace(failure));
  EXPECT_TRUE(WaitForTrace("open( [" + silent->answer_pipe() + "], ... ) returned (6): No such device or address (retry 20/20)"));
  EXPECT_TRUE(WaitFor([&] { return LiveWriters().empty(); }, seconds(10)));
  EXPECT_TRUE(WaitNoZombies());
  EXPECT_TRUE(WaitForTrace("exited with 1"));
}

TEST_F(DaemonFaultTest, AnswerWriterIgnoresSigtermAndSigintAndIsReapedWhenKilled) {
  auto waiting = RequestWithoutReader();
  std::vector<pid_t> writers;
  ASSERT_TRUE(WaitFor([&] { return (writers = LiveWriters()).size() == 1; }, seconds(5)));
  kill(writers[0], SIGTERM);
  kill(writers[0], SIGINT);
  ASSERT_TRUE(waiting->OpenForAnswer());
  const RawAnswer a = waiting->ReadAnswer(seconds(10));
  EXPECT_TRUE(a.complete);
  EXPECT_EQ(a.text, kProcessed);
  EXPECT_TRUE(daemon().Running());
  EXPECT_TRUE(WaitForTrace("answer_... process [" + std::to_string(writers[0]) + "] exited with 0"));

  auto killed = RequestWithoutReader();
  ASSERT_TRUE(WaitFor([&] { return (writers = LiveWriters()).size() == 1; }, seconds(5)));
  kill(writers[0], SIGKILL);
  EXPECT_TRUE(WaitForTrace("Info: answer_... process [" + std::to_string(writers[0]) + "] terminated"));
  EXPECT_TRUE(WaitNoZombies());
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
}

TEST_F(DaemonFaultTest, SigtermToTheDaemonShutsItDownWithExitCodeOne) {
  daemon().Signal(SIGTERM);
  ASSERT_TRUE(daemon().WaitExit(seconds(10)));
  EXPECT_EQ(daemon().exit_code(), 1);
  EXPECT_FALSE(Exists(RequestPipe()));
  EXPECT_EQ(ReadFile(instance().work() + "sem/KD_QM_MAIN.sem"), "");
  const std::string log = TraceLog();
  EXPECT_NE(log.find("sig_handler: signal 15 (SIGINT/SIGTERM) received in " + std::to_string(daemon_pid()) +
                     " send by " + std::to_string(getpid()) + "."),
            std::string::npos);
  EXPECT_NE(log.find("--- answer [0]: no need to answer - peer not valid - done"), std::string::npos);
  EXPECT_NE(log.find("--- sig_handler: exit in signal handler"), std::string::npos);
}

TEST_F(DaemonFaultTest, SigintToTheDaemonShutsItDownWithExitCodeOne) {
  daemon().Signal(SIGINT);
  ASSERT_TRUE(daemon().WaitExit(seconds(10)));
  EXPECT_EQ(daemon().exit_code(), 1);
  EXPECT_FALSE(Exists(RequestPipe()));
  EXPECT_TRUE(WaitForTrace("sig_handler: signal 2 (SIGINT/SIGTERM) received"));
}

TEST_F(DaemonFaultTest, TwoHundredRequestsFromTwentyClientsAreAllAnswered) {
  constexpr int kClients = 20;
  constexpr int kRequests = 10;
  std::atomic<int> answered{0};
  std::vector<std::string> wrong(kClients);
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      RawClient client(QmDir(), NextClientId());
      for (int r = 0; r < kRequests; ++r) {
        const RawAnswer a = client.Ask(process_signal, "", seconds(30));
        if (a.complete && a.text == kProcessed)
          ++answered;
        else
          wrong[static_cast<std::size_t>(c)] = a.text;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(answered.load(), kClients * kRequests);
  for (const std::string& w : wrong) EXPECT_EQ(w, "");
  EXPECT_TRUE(daemon().Running());
  EXPECT_TRUE(WaitNoZombies());
}

TEST_F(DaemonFaultTest, IdleDaemonPassesOnItsAlarmAndRecreatesAVanishedRequestPipe) {
  // About ten seconds after the last activity the alarm brings a pass and a
  // request 26 0 from the handler.
  ASSERT_TRUE(WaitForTrace("sig_handler: signal 14 (SIGALRM) received", seconds(15)));
  ASSERT_TRUE(WaitFor([&] {
    const std::string log = TraceLog();
    const std::size_t alarm = log.find("sig_handler: signal 14 (SIGALRM) received");
    const std::size_t command = log.find("sig_handler: Command: 26 0", alarm);
    const std::size_t pass = log.find("+++ WALK_LIST", alarm);
    return command != std::string::npos && pass != std::string::npos &&
           log.find("Info: query: 26 0", command) != std::string::npos;
  }, seconds(5)));

  ASSERT_EQ(unlink(RequestPipe().c_str()), 0);
  const std::size_t before = TraceLog().size();
  daemon().Signal(SIGALRM);  // rather than waiting for the next alarm
  EXPECT_TRUE(WaitFor([&] { return Exists(RequestPipe()); }, seconds(15)));
  EXPECT_TRUE(WaitReady(seconds(15)));
  const std::string log = TraceLog().substr(before);
  EXPECT_NE(log.find("sig_handler: errno ENOENT (2): No such file or directory"), std::string::npos);
  EXPECT_NE(log.find("ReadExecuteQuery: request pipe " + RequestPipe() + " has vanished, open it anew"),
            std::string::npos);
  EXPECT_NE(log.find("ReadExecuteQuery: recall mkfifo " + RequestPipe()), std::string::npos);
}

}  // namespace
}  // namespace kdtest
