// Answer writing through real FIFOs: the answer pipe's opening, pipe_printf,
// the forked one-shot answer and the multi-part answer.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "daemon_fixture.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "views/listing.h"

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

  kdtest::TestInstance instance_;
};

TEST_F(AnswerTest, OneShotAnswerIsWrittenByAChildCutAtTheFormatLengthPlus1024) {
  RawClient client(instance_.qm(), 4711);
  HPEER peer{false, 4711};
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
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// A reader that is missing, gives up or never reads is covered end to end
// (DaemonFaultTest, ReliabilityTest).
TEST_F(AnswerTest, PipeIsOpenedCloseOnExecAndPipePrintfWritesEverythingASlowReaderTakes) {
  RawClient client(instance_.qm(), 4714);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  CopyCut(qmd_from_qm, client.answer_pipe());
  const int same = iOpen_From_QM_Pipe(0);  // pid 0: the pipe of the request being served
  EXPECT_GE(same, 0);
  close(same);
  const int fd = iOpen_From_QM_Pipe(4714);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
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
}

TEST_F(AnswerTest, MultiPartAnswerOpensOnceWritesPartsAndClosesWithTheLastPart) {
  RawClient client(instance_.qm(), 4716);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  HPEER peer{true, 4716};
  answer_wildcard(&peer, KD_WARNING, "first;", nullptr, ' ');
  EXPECT_EQ(peer.iStatusFlag, 1);
  answer_wildcard(&peer, KD_ERROR, "second;", nullptr, ' ');  // the digit of the first part stays
  answer_wildcard(&peer, KD_ERROR, nullptr, nullptr, ' ');
  peer.iStatusFlag = 2;
  answer_wildcard(&peer, KD_SUCCESS, "STATUS=SUCCESS MSG=ok", nullptr, ' ');
  EXPECT_EQ(peer.fOut, nullptr);
  EXPECT_EQ(peer.fd, -1);
  const RawAnswer a = client.ReadAnswer(seconds(10));
  EXPECT_TRUE(a.complete);
  EXPECT_EQ(a.text, "1first;second;STATUS=SUCCESS MSG=ok\n");

  // An invalid peer is not answered; a vanished one is reported once and the parts go nowhere.
  HPEER invalid{false, 4717};
  answer_wildcard(&invalid, KD_SUCCESS, "x", nullptr, ' ');
  EXPECT_EQ(invalid.iStatusFlag, 0);
  HPEER gone{true, 4718};  // no pipe at all
  const std::string err = kdtest::CaptureFd(2, [&] {
    answer_wildcard(&gone, KD_SUCCESS, "part", nullptr, ' ');
    answer_wildcard(&gone, KD_SUCCESS, "more", nullptr, ' ');
    gone.iStatusFlag = 2;
    answer_wildcard(&gone, KD_SUCCESS, "last", nullptr, ' ');
  });
  EXPECT_EQ(err, "File from_qm_pipe4718 can't be opened: No such file or directory\n");
  EXPECT_EQ(gone.fOut, nullptr);
}

}  // namespace
