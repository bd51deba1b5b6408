// Answer writing through real FIFOs: the answer pipe's opening, pipe_printf,
// the forked one-shot answer and the multi-part answer.
#include "qm_common.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "daemon_fixture.h"
#include "kd_qm_daemon.h"
#include "kd_test_support.h"

namespace {

using kdtest::RawAnswer;
using kdtest::RawClient;
using std::chrono::seconds;

class AnswerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CopyCut(gszQmDir, instance_.qm());
    CopyCut(qmd_from_qm, "");
  }
  void TearDown() override { CopyCut(gszQmDir, ""); }

  /// Waits for the answer child and returns its exit code.
  static int Reap(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  kdtest::TestInstance instance_;
};

TEST_F(AnswerTest, OneShotAnswerIsWrittenByAChildCutAtTheFormatLengthPlus1024) {
  RawClient client(instance_.qm(), 4711);
  HPEER peer;
  peer.PID = 4711;
  EXPECT_EQ(answer(&peer, KD_SUCCESS, "STATUS=SUCCESS MSG=x\n"), 0) << "a peer that is not valid gets no child";
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);

  peer.valid = true;
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  const pid_t child = answer(&peer, KD_ERROR, "%s", std::string(5000, 'x').c_str());
  ASSERT_GT(child, 0);
  const RawAnswer a = client.ReadAnswer(seconds(10));
  EXPECT_TRUE(a.complete);
  EXPECT_EQ(a.text, "2" + std::string(std::strlen("%s") + 1024 - 1, 'x'));
  EXPECT_EQ(Reap(child), 0);
}

TEST_F(AnswerTest, PipeOpenedWithAReaderIsCloseOnExecAndWithoutOneFails) {
  RawClient client(instance_.qm(), 4714);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  const int fd = iOpen_From_QM_Pipe(4714);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  close(fd);

  // Pid 0 means the pipe of the request being served.
  CopyCut(qmd_from_qm, client.answer_pipe());
  const int same = iOpen_From_QM_Pipe(0);
  EXPECT_GE(same, 0);
  close(same);

  // Without a reader the open fails after 20 retries 100 ms apart.
  client.CloseAnswer();
  errno = 0;
  EXPECT_EQ(iOpen_From_QM_Pipe(4714), -1);
  EXPECT_EQ(errno, ENXIO);
}

TEST_F(AnswerTest, PipePrintfWritesEverythingASlowReaderTakesAndGivesUpOnAFullPipe) {
  RawClient client(instance_.qm(), 4715);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  const int fd = iOpen_From_QM_Pipe(4715);
  ASSERT_GE(fd, 0);
  FILE* out = fdopen(fd, "w");
  ASSERT_NE(out, nullptr);

  // Far more than a pipe holds: written while the reader drains it.
  const std::string big(300000, 'b');
  RawAnswer read_back;
  std::thread reader([&] { read_back = client.ReadAnswer(seconds(20)); });
  EXPECT_EQ(pipe_printf(out, "%d", 0), 1);
  EXPECT_EQ(pipe_printf(out, "%s|%s", big.c_str(), "end"), static_cast<int>(big.size() + 4));
  std::fclose(out);
  reader.join();
  EXPECT_TRUE(read_back.complete);
  EXPECT_EQ(read_back.text, "0" + big + "|end");

  // Nobody reads: the pipe fills, the writer waits a second and stops.
  ASSERT_TRUE(client.OpenForAnswer());
  const int full_fd = iOpen_From_QM_Pipe(4715);
  ASSERT_GE(full_fd, 0);
  FILE* full = fdopen(full_fd, "w");
  const auto start = std::chrono::steady_clock::now();
  const int written = pipe_printf(full, "%s", big.c_str());
  EXPECT_GT(written, 0);
  EXPECT_LT(written, static_cast<int>(big.size()));
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
  std::fclose(full);
}

TEST_F(AnswerTest, MultiPartAnswerOpensOnceWritesPartsAndClosesWithTheLastPart) {
  RawClient client(instance_.qm(), 4716);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  HPEER peer;
  peer.valid = true;
  peer.PID = 4716;
  answer_wildcard(&peer, KD_WARNING, "first;", nullptr, ' ');
  EXPECT_EQ(peer.iStatusFlag, 1);
  ASSERT_NE(peer.fOut, nullptr);
  EXPECT_GE(peer.fd, 0);
  answer_wildcard(&peer, KD_ERROR, "second;", nullptr, ' ');  // the digit of the first part stays
  answer_wildcard(&peer, KD_ERROR, nullptr, nullptr, ' ');
  peer.iStatusFlag = 2;
  answer_wildcard(&peer, KD_SUCCESS, "STATUS=SUCCESS MSG=ok", nullptr, ' ');
  EXPECT_EQ(peer.fOut, nullptr);
  EXPECT_EQ(peer.fd, -1);
  const RawAnswer a = client.ReadAnswer(seconds(10));
  EXPECT_TRUE(a.complete);
  EXPECT_EQ(a.text, "1first;second;STATUS=SUCCESS MSG=ok\n");
}

TEST_F(AnswerTest, MultiPartAnswerToAVanishedOrInvalidPeerWritesNothingAndKeepsGoing) {
  HPEER invalid;
  invalid.PID = 4717;
  answer_wildcard(&invalid, KD_SUCCESS, "x", nullptr, ' ');
  EXPECT_EQ(invalid.iStatusFlag, 0);
  EXPECT_EQ(invalid.fOut, nullptr);

  HPEER gone;
  gone.valid = true;
  gone.PID = 4718;  // no pipe at all
  const std::string err = kdtest::CaptureFd(2, [&] {
    answer_wildcard(&gone, KD_SUCCESS, "part", nullptr, ' ');
    answer_wildcard(&gone, KD_SUCCESS, "more", nullptr, ' ');
    gone.iStatusFlag = 2;
    answer_wildcard(&gone, KD_SUCCESS, "last", nullptr, ' ');
  });
  EXPECT_NE(err.find("File from_qm_pipe4718 can't be opened: No such file or directory"), std::string::npos) << err;
  EXPECT_EQ(gone.fOut, nullptr);
}

}  // namespace
