// The request and answer protocol against the running daemon: answers with
// their exact texts, refusals, request lengths and lines the daemon must
// survive.
#include <signal.h>

#include <string>

#include "daemon_fixture.h"
#include "qm_lib.h"

namespace kdtest {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kProcessed = "0STATUS=SUCCESS MSG='process executing and pending jobs' done\n";
const std::string kTooLong = "2ERROR: query too long. Max length 1024";

std::string InvalidMode(const std::string& mode) {
  return "2STATUS=ERROR MSG=request with invalid mode [" + mode + "]\n";
}

using DaemonProtocolTest = DaemonTest;

/// At trace level 3 the signal handler's lines are in the trace log.
class DaemonProtocolTraceTest : public DaemonTest {
 protected:
  int TraceLevel() const override { return 3; }
};

TEST_F(DaemonProtocolTest, ProcessSignalIsAnsweredOnlyWhenSomebodyWaits) {
  const RawAnswer a = Ask(process_signal, "ignored words");
  EXPECT_TRUE(a.complete);
  EXPECT_EQ(a.text, kProcessed);

  // pid 0 is the daemon's own request: executed, never answered.
  auto client = NewClient();
  ASSERT_TRUE(client->Send("26 0\n"));
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  const std::string log = TraceLog();
  EXPECT_NE(log.find("Info: EXEC_REQUEST: pid 0: process_signal"), std::string::npos);
  EXPECT_EQ(log.find("+++ answer: pid 0 "), std::string::npos);
}

TEST_F(DaemonProtocolTest, InvalidAndUnparsableModesAreRefused) {
  EXPECT_EQ(Ask(qma_free_queue_resource_limit, "q1").text, InvalidMode("27"));
  EXPECT_EQ(Ask(invalid_mode).text, InvalidMode("28"));
  EXPECT_EQ(Ask(99, "q1").text, InvalidMode("99"));
  auto client = NewClient();
  const std::string id = std::to_string(client->id());
  EXPECT_EQ(client->AskLine("abc " + id + " q1").text, InvalidMode("28"));
  EXPECT_EQ(client->AskLine("-1 " + id).text, InvalidMode("-1"));
  EXPECT_EQ(client->AskLine("7x " + id + " q1").text, InvalidMode("28"));
  EXPECT_EQ(client->AskLine("99999999999999999999 " + id).text, InvalidMode("28"));
  // A doubled blank shifts the fields: no pid, so nobody to answer.
  ASSERT_TRUE(client->Send("26  " + id + "\n"));
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  EXPECT_NE(TraceLog().find("Warning: WARNING: no pid read"), std::string::npos);
}

TEST_F(DaemonProtocolTest, RequestsOfSubsystemsStillMissingAreAnsweredWithAnError) {
  for (int mode = queue_init; mode <= show_global_resources; ++mode) {
    // The lazy submit variants are executed as their plain forms.
    const char* shown = mode == queue_submit_lazy        ? "que_submit"
                        : mode == queue_submit_sync_lazy ? "que_submit_sync"
                                                         : gszCmdMode[static_cast<std::size_t>(mode)];
    EXPECT_EQ(Ask(mode, "q1 a b c").text, std::string("2STATUS=ERROR MSG=request ") + shown + " not yet supported\n")
        << "mode " << mode;
  }
}

TEST_F(DaemonProtocolTest, RequestOf1023CharactersIsExecutedAndOf1024Refused) {
  auto client = NewClient();
  const std::string head = "26 " + std::to_string(client->id()) + " ";
  EXPECT_EQ(client->AskLine(head + std::string(1023 - head.size(), 'x')).text, kProcessed);
  EXPECT_EQ(client->AskLine(head + std::string(1024 - head.size(), 'x')).text, kTooLong);
  EXPECT_EQ(client->AskLine(head + std::string(2046 - head.size(), 'x')).text, kTooLong);
  EXPECT_NE(TraceLog().find("Warning: ERROR: query too large(max length 1024)"), std::string::npos);
}

TEST_F(DaemonProtocolTest, RestOfALineLongerThanTheBufferIsNeverExecuted) {
  auto client = NewClient();
  auto hidden = NewClient();
  const std::string head = "26 " + std::to_string(client->id()) + " ";
  // Behind the cut the line looks like a request of its own.
  const std::string tail = "26 " + std::to_string(hidden->id()) + " tail";
  const std::string line = head + std::string(2046 - head.size(), 'x') + tail + std::string(3000, 'y');
  ASSERT_TRUE(hidden->CreatePipe() && hidden->OpenForAnswer());
  EXPECT_EQ(client->AskLine(line).text, kTooLong);
  EXPECT_EQ(Ask(process_signal).text, kProcessed);  // in step again
  EXPECT_FALSE(hidden->AnythingArrived());
  const std::string log = TraceLog();
  EXPECT_EQ(log.find("pid " + std::to_string(hidden->id())), std::string::npos);
  EXPECT_NE(log.find("WARNING: rest of an overlong request dropped"), std::string::npos);
}

TEST_F(DaemonProtocolTest, GarbageBytesAndBrokenLinesLeaveTheDaemonServing) {
  auto client = NewClient();
  const std::string garbage[] = {
      std::string("\xff\xfe\x01\x02 \x80\x81 \x7f\n"),
      std::string("\0\0\0\0\n", 5),
      std::string("26\0 17 x\n", 9),
      "abc def ghi jkl\n",
      "      \n",
      "/ / / / /\n",
      "26 -5\n",
      std::string(4000, '\x01') + "\n",
  };
  for (const std::string& bytes : garbage) ASSERT_TRUE(client->Send(bytes));
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  EXPECT_TRUE(daemon().Running());
}

TEST_F(DaemonProtocolTraceTest, ShortLineMakesTheDaemonWaitForTheNextRequestWithSignalsDeferred) {
  auto client = NewClient();
  ASSERT_TRUE(client->Send("\n"));
  ASSERT_TRUE(WaitForTrace("Warning: WARNING: no bytes read"));
  ASSERT_TRUE(client->Send("x\n"));
  ASSERT_TRUE(WaitFor([&] {
    const std::string log = TraceLog();
    return log.find("WARNING: no bytes read") != log.rfind("WARNING: no bytes read");
  }, seconds(10)));

  // An alarm now stays pending: no pass until a request has been executed.
  daemon().Signal(SIGALRM);
  const std::string status_file = "/proc/" + std::to_string(daemon_pid()) + "/status";
  ASSERT_TRUE(WaitFor([&] {
    const std::string status = ReadFile(status_file);
    const std::size_t at = status.find("ShdPnd:\t");
    return at != std::string::npos &&
           (std::stoull(status.substr(at + 8, 16), nullptr, 16) & (1ull << (SIGALRM - 1))) != 0;
  }, seconds(10)));
  const std::size_t before = TraceLog().size();

  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  ASSERT_TRUE(WaitForTrace("sig_handler: signal 14 (SIGALRM) received"));
  const std::string log = TraceLog();
  const std::size_t query = log.find("Info: query: 26 ", before);
  ASSERT_NE(query, std::string::npos);
  EXPECT_LT(query, log.find("sig_handler: signal 14 (SIGALRM) received", before));
}

}  // namespace
}  // namespace kdtest
