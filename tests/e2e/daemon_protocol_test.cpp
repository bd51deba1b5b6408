// The request and answer protocol against the running daemon: refusals with
// their exact texts, the daemon's own request, and lines it must survive.
#include <signal.h>

#include <string>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using std::chrono::seconds;

const std::string kTooLong = "2ERROR: query too long. Max length 1024";

std::string InvalidMode(const std::string& mode) {
  return "2STATUS=ERROR MSG=request with invalid mode [" + mode + "]\n";
}

/// At trace level 3 the signal handler's lines are in the trace log.
using DaemonProtocolTest = SharedDaemonTest<3>;

// A mode word that is no number is mode 28 (invalid_mode).
TEST_F(DaemonProtocolTest, InvalidModesAreRefused) {
  auto client = NewClient();
  const std::string id = " " + std::to_string(client->id());
  for (const auto& [line, mode] : std::vector<std::pair<std::string, std::string>>{
           {std::to_string(qma_free_queue_resource_limit) + id + " q1", "27"}, {"99" + id + " q1", "99"},
           {"abc" + id + " q1", "28"}, {"7x" + id + " q1", "28"}, {"99999999999999999999" + id + " q1", "28"},
           {"-1" + id, "-1"}})
    EXPECT_EQ(client->AskLine(line).text, InvalidMode(mode)) << line;
}

// pid 0 is the daemon's own request: executed, never answered.
TEST_F(DaemonProtocolTest, PidZeroIsExecutedAndNeverAnswered) {
  ASSERT_TRUE(NewClient()->Send("26 0\n"));
  EXPECT_EQ(Ask(process_signal, "ignored words").text, kProcessed);
  const std::string log = TraceLog();
  EXPECT_NE(log.find("Info: EXEC_REQUEST: pid 0: process_signal"), std::string::npos);
  EXPECT_EQ(log.find("+++ answer: pid 0 "), std::string::npos);
}

TEST_F(DaemonProtocolTest, OverlongLinesAreRefusedAndTheirRestDropped) {
  auto client = NewClient(), hidden = NewClient();
  const std::string head = "26 " + std::to_string(client->id()) + " ";
  EXPECT_EQ(client->AskLine(head + std::string(1023 - head.size(), 'x')).text, kProcessed);
  EXPECT_EQ(client->AskLine(head + std::string(1024 - head.size(), 'x')).text, kTooLong);
  // Behind the cut at 2046 characters the line looks like a request of its own.
  ASSERT_TRUE(hidden->CreatePipe() && hidden->OpenForAnswer());
  const std::string tail = "26 " + std::to_string(hidden->id()) + " tail";
  EXPECT_EQ(client->AskLine(head + std::string(2046 - head.size(), 'x') + tail + std::string(3000, 'y')).text,
            kTooLong);
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  EXPECT_FALSE(hidden->AnythingArrived());
  EXPECT_EQ(TraceLog().find("pid " + std::to_string(hidden->id())), std::string::npos);
  EXPECT_TRUE(WaitForTrace("WARNING: rest of an overlong request dropped"));
}

TEST_F(DaemonProtocolTest, GarbageAndBrokenLinesLeaveTheDaemonServing) {
  auto client = NewClient();
  for (const std::string& bytes :
       {std::string("\xff\xfe\x01\x02 \x80\x81 \x7f\n"), std::string("\0\0\0\0\n", 5), std::string("26\0 17 x\n", 9),
        std::string("      \n"), std::string("26 -5\n"), std::string(4000, '\x01') + "\n",
        "26  26 " + std::to_string(client->id()) + " \n"})
    ASSERT_TRUE(client->Send(bytes));
  EXPECT_EQ(Ask(process_signal).text, kProcessed);
  EXPECT_TRUE(WaitForTrace("Warning: WARNING: no pid read"));
}

// Deliberate: after a line of one character the daemon waits for the next
// request with its signals blocked, so no pass runs until a request is executed.
TEST_F(DaemonProtocolTest, ShortLineMakesTheDaemonWaitForTheNextRequestWithSignalsDeferred) {
  // After the first short line no handler can add a self-request behind the second one.
  auto client = NewClient();
  ASSERT_TRUE(client->Send("\n"));
  ASSERT_TRUE(WaitForTrace("Warning: WARNING: no bytes read"));
  ASSERT_TRUE(client->Send("x\n"));
  ASSERT_TRUE(WaitFor(
      [&] {
        const std::string log = TraceLog();
        return log.find("WARNING: no bytes read") != log.rfind("WARNING: no bytes read");
      },
      seconds(10)));
  daemon().Signal(SIGALRM);
  const std::string status_file = "/proc/" + std::to_string(daemon_pid()) + "/status";
  ASSERT_TRUE(WaitFor(
      [&] {
        const std::string status = ReadFile(status_file);
        const std::size_t at = status.find("ShdPnd:\t");
        return at != std::string::npos &&
               (std::stoull(status.substr(at + 8, 16), nullptr, 16) & (1ull << (SIGALRM - 1))) != 0;
      },
      seconds(10)))
      << "the alarm stays pending";
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
