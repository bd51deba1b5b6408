#include "qm_lib.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cm_common.h"
#include "kd_qm_front.h"
#include "kd_test_support.h"

using namespace std::chrono_literals;
using kdtest::CaptureFd;
using kdtest::Exists;
using kdtest::ReadFile;
using kdtest::TestInstance;
using kdtest::WaitFor;

namespace {

std::vector<std::string> gErrors;
int gUsageCalls = 0;

void record_error(const char* text) { gErrors.emplace_back(text != nullptr ? text : "(null)"); }
void record_usage() { ++gUsageCalls; }
void ignore_alarm(int) {}

void reset_callbacks() {
  gErrors.clear();
  gUsageCalls = 0;
  gERROR = record_error;
  gUSAGE = record_usage;
}

/// Runs qm_lib_check_args on a command line; the words it leaves.
struct CheckedArgs {
  int mode;
  std::vector<std::string> words;
};
CheckedArgs check_args(std::vector<std::string> line) {
  std::vector<char*> argv;
  for (auto& w : line) argv.push_back(w.data());
  argv.push_back(nullptr);
  int argc = static_cast<int>(line.size());
  char** v = argv.data();
  CheckedArgs out{qm_lib_check_args(&argc, &v, 0), {}};
  for (int i = 0; i < argc; ++i) out.words.emplace_back(v[i] != nullptr ? v[i] : "(null)");
  return out;
}

/// A stand-in for the daemon: owns the request pipe of an instance, records
/// every request line and answers each through the requester's answer pipe
/// with the pieces the responder returns (no pieces: no answer).
class FakeDaemon {
 public:
  using Responder = std::function<std::vector<std::string>(const std::string& line)>;

  FakeDaemon(const std::string& qm_dir, Responder responder)
      : com_(qm_dir + "com/"), responder_(std::move(responder)) {
    const mode_t old = umask(0);
    ::mkfifo((com_ + "to_qm_pipe").c_str(), 0770);
    umask(old);
    // Read-write, like the daemon: the pipe always has a reader and never gives EOF.
    fd_ = ::open((com_ + "to_qm_pipe").c_str(), O_RDWR | O_NONBLOCK);
    thread_ = std::thread([this] { run(); });
  }
  ~FakeDaemon() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
    ::unlink((com_ + "to_qm_pipe").c_str());
  }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_;
  }

 private:
  void run() {
    std::string pending;
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      char buf[4096];
      const ssize_t n = ::read(fd_, buf, sizeof buf);
      if (n <= 0) continue;
      pending.append(buf, static_cast<std::size_t>(n));
      std::size_t eol;
      while ((eol = pending.find('\n')) != std::string::npos) {
        const std::string line = pending.substr(0, eol + 1);
        pending.erase(0, eol + 1);
        {
          std::lock_guard<std::mutex> lock(mu_);
          lines_.push_back(line);
        }
        answer(line);
      }
    }
  }
  void answer(const std::string& line) {
    const std::vector<std::string> pieces = responder_(line);
    if (pieces.empty()) return;
    const long pid = std::strtol(line.c_str() + line.find(' ') + 1, nullptr, 10);
    const std::string pipe = com_ + "from_qm_pipe" + std::to_string(pid);
    int fd = -1;
    WaitFor([&] { return (fd = ::open(pipe.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }, 2000ms);
    if (fd < 0) return;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
      if (i > 0) std::this_thread::sleep_for(10ms);  // lets the reader see separate pieces
      const ssize_t w = ::write(fd, pieces[i].data(), pieces[i].size());
      (void)w;
    }
    ::close(fd);
  }

  std::string com_;
  Responder responder_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex mu_;
  std::vector<std::string> lines_;
  std::thread thread_;
};

std::string own_pid() { return std::to_string(getpid()); }

}  // namespace

// ---------------------------------------------------------------------------
// Command codes
// ---------------------------------------------------------------------------

TEST(QmLibCommandCode, KeywordRulesInTheirOrder) {
  reset_callbacks();
  const std::vector<std::pair<const char*, int>> cases = {
      {"init", queue_init},          {"block", queue_block},
      {"delete", queue_delete},      {"set", queue_set},
      {"start", queue_start},        {"stop", queue_stop},
      {"job_sho/name", job_sho_name}, {"job_sho/full", job_sho_full},
      {"job_sho", job_sho},          {"job_del", job_del},
      {"job_set", job_set},          {"shocsv", queue_sho_csv},
      {"sho/name", queue_sho_name},  {"sho/status", queue_sho_status},
      {"sho/full", queue_sho_full},  {"sho", queue_sho},
      {"glores", show_global_resources},
      {"submit_sync_lazy", queue_submit_sync_lazy},
      {"submit_lazy", queue_submit_lazy},
      {"submit_sync", queue_submit_sync},
      {"submit_proc_only", queue_submit_proc_only},
      {"submit", queue_submit},      {"del_entry", queue_del_entry},
      {"sig_entry", queue_signal_entry}, {"sigentry", queue_signal_entry},
      {"move_entry", queue_move_entry},  {"moventry", queue_move_entry},
      {"shutdown", shut_down},       {"procedure", process_signal},
      {"processing", process_signal}, {"process_signal", process_signal},
      {"signal", process_signal},
      // Substring rules: these consequences are intended.
      {"queue_set", queue_set},      {"sho_status", queue_sho},
      {"delete_entry", queue_delete}, {"restart", queue_start},
      // Exact, case-sensitive words.
      {"Signal", invalid_mode},      {"Shutdown", invalid_mode},
      {"shutdown_now", invalid_mode}, {"pro", invalid_mode},
      {"unknown", invalid_mode},     {"", invalid_mode},
  };
  for (const auto& [word, mode] : cases) {
    int stored = -1;
    EXPECT_EQ(iGET_COMMAND_CODE(word, "x", 9, &stored), mode) << word;
    EXPECT_EQ(stored, mode) << word;
  }
}

TEST(QmLibCommandCode, TooFewWordsCallTheErrorCallbackWithoutText) {
  const struct {
    const char* word;
    const char* argument;
    int enough;  // the fewest words that do not complain; 0: never
  } cases[] = {
      {"init", "q1", 3},        {"block", "q1", 2},        {"delete", "q1", 2},
      {"start", "q1", 2},       {"stop", "q1", 2},         {"set", "q1", 4},
      {"set", "option", 3},     {"set", "my_options", 3},  {"submit", "q1", 7},
      {"submit_sync", "q1", 7}, {"submit_proc", "q1", 7},  {"del_entry", "1", 2},
      {"sig_entry", "1", 2},    {"move_entry", "1", 2},    {"sho", "q1", 2},
      {"sho/name", "q1", 2},    {"sho/full", "q1", 2},     {"job_sho", "1", 2},
      {"job_set", "1", 2},      {"sho/status", nullptr, 0}, {"shocsv", nullptr, 0},
      {"glores", nullptr, 0},   {"shutdown", nullptr, 0},  {"process_signal", nullptr, 0},
  };
  for (const auto& c : cases) {
    reset_callbacks();
    const int mode = iGET_COMMAND_CODE(c.word, c.argument, 1, nullptr);
    if (c.enough == 0) {
      EXPECT_TRUE(gErrors.empty()) << c.word;
      continue;
    }
    ASSERT_EQ(gErrors.size(), 1u) << c.word;
    EXPECT_EQ(gErrors[0], "") << c.word;
    reset_callbacks();
    EXPECT_EQ(iGET_COMMAND_CODE(c.word, c.argument, c.enough - 1, nullptr), mode);
    EXPECT_EQ(gErrors.size(), 1u) << c.word << " with " << c.enough - 1 << " words";
    reset_callbacks();
    EXPECT_EQ(iGET_COMMAND_CODE(c.word, c.argument, c.enough, nullptr), mode);
    EXPECT_TRUE(gErrors.empty()) << c.word << " with " << c.enough << " words";
  }
  EXPECT_EQ(gUsageCalls, 0);
}

TEST(QmLibCommandCode, AnUnknownWordCallsTheUsageCallback) {
  reset_callbacks();
  EXPECT_EQ(iGET_COMMAND_CODE("bogus", nullptr, 1, nullptr), invalid_mode);
  EXPECT_EQ(gUsageCalls, 1);
}

TEST(QmLibCheckArgs, CommandWordThenItsArguments) {
  reset_callbacks();
  const CheckedArgs r = check_args({"kd_qm", "init", "q1/a", "5"});
  EXPECT_EQ(r.mode, queue_init);
  EXPECT_EQ(r.words, (std::vector<std::string>{"init", "q1/a", "5"}));
  EXPECT_TRUE(gErrors.empty());
  EXPECT_EQ(gUsageCalls, 0);
}

TEST(QmLibCheckArgs, GeneralOptionsBehindTheCommandWordAreTakenOff) {
  TestInstance inst;
  reset_callbacks();
  CheckedArgs r = check_args({"kd_qm", "sho", "-v", "3", "q1"});
  EXPECT_EQ(r.mode, queue_sho);
  EXPECT_EQ(r.words, (std::vector<std::string>{"sho", "q1"}));
  EXPECT_EQ(gUsageCalls, 0);

  // "-e" takes its value and is otherwise ignored, like any unknown letter.
  std::string err = CaptureFd(2, [&] { r = check_args({"kd_qm", "del_entry", "-e", "5", "-x", "17"}); });
  EXPECT_EQ(r.mode, queue_del_entry);
  EXPECT_EQ(r.words, (std::vector<std::string>{"del_entry", "17"}));
  EXPECT_NE(err.find("wrong option e in command line"), std::string::npos) << err;
  EXPECT_NE(err.find("wrong option x in command line"), std::string::npos) << err;

  r = check_args({"kd_qm", "sho", "-h", "q1"});
  EXPECT_EQ(r.mode, queue_sho);
  EXPECT_EQ(gUsageCalls, 1);
  EXPECT_EQ(r.words, (std::vector<std::string>{"sho", "q1"}));

  // Options as last words leave the command word alone.
  reset_callbacks();
  r = check_args({"kd_qm", "shutdown", "-v", "0"});
  EXPECT_EQ(r.mode, shut_down);
  EXPECT_EQ(r.words, (std::vector<std::string>{"shutdown"}));
  EXPECT_TRUE(gErrors.empty());
}

TEST(QmLibCheckArgs, ArgumentsThatLookLikeOptionsAfterTheFirstArgumentStay) {
  reset_callbacks();
  const CheckedArgs r = check_args({"kd_qm", "delete", "q1", "-e", "3"});
  EXPECT_EQ(r.mode, queue_delete);
  EXPECT_EQ(r.words, (std::vector<std::string>{"delete", "q1", "-e", "3"}));
}

TEST(QmLibCheckArgs, NoWordsCallTheUsageCallback) {
  reset_callbacks();
  const CheckedArgs r = check_args({"kd_qm"});
  EXPECT_EQ(r.mode, invalid_mode);
  EXPECT_EQ(gUsageCalls, 1);
  EXPECT_TRUE(r.words.empty());
}

// ---------------------------------------------------------------------------
// Client library against a stand-in daemon
// ---------------------------------------------------------------------------

class QmLibClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_callbacks();
    ASSERT_EQ(qm_lib_init(record_error, record_usage, 0), 0);
  }
  void TearDown() override {
    qm_lib_close_answer(0);
    alarm(0);
  }
  /// Sends, reads the whole answer; the return code and what was printed.
  std::pair<int, std::string> round_trip(int mode, const char* args) {
    int code = -7;
    std::string out = CaptureFd(1, [&] {
      if (qm_lib_send_cmd(mode, args, ignore_alarm, 0) == 0) code = qm_lib_get_answer(0);
    });
    qm_lib_close_answer(0);
    return {code, out};
  }

  TestInstance inst;
};

TEST_F(QmLibClientTest, InitBuildsThePipeNamesFromTheConfiguration) {
  EXPECT_EQ(std::string(to_qm), inst.qm() + "com/to_qm_pipe");
  EXPECT_EQ(std::string(from_qm), inst.qm() + "com/from_qm_pipe" + own_pid());
  EXPECT_EQ(iFdFromQm, -1);
  EXPECT_EQ(qm_lib_get_cmd_timeout(), 60);
}

TEST_F(QmLibClientTest, InitWithoutQmDirectoryFails) {
  kdtest::WriteFile(inst.kd_ini(), "[Pathes]\ngv_rw_lgc=" + inst.lgc() + "\n");
  EXPECT_EQ(qm_lib_init(record_error, record_usage, 0), 1);
}

TEST_F(QmLibClientTest, ReturnDigitsAndTheAnswerTextAsItCame) {
  FakeDaemon daemon(inst.qm(), [](const std::string& line) -> std::vector<std::string> {
    if (line.rfind("26 ", 0) == 0) return {"0", "STATUS=SUCCESS MSG=done\n"};
    if (line.rfind("14 ", 0) == 0) return {"1STATUS=WARNING MSG=A queue with name [q1] does not exist\n"};
    return {"2", "STATUS=ERROR MSG=first ", "half\nlisting line without end"};
  });

  auto [code, out] = round_trip(process_signal, "");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(out, "STATUS=SUCCESS MSG=done\n");
  EXPECT_EQ(giReturnCode, 0);

  std::tie(code, out) = round_trip(queue_sho, "  q1  ");
  EXPECT_EQ(code, 1);
  EXPECT_EQ(out, "STATUS=WARNING MSG=A queue with name [q1] does not exist\n");

  std::tie(code, out) = round_trip(queue_block, "q1");
  EXPECT_EQ(code, 2);
  EXPECT_EQ(out, "STATUS=ERROR MSG=first half\nlisting line without end\n");

  const std::string pid = own_pid();
  EXPECT_EQ(daemon.lines(), (std::vector<std::string>{"26 " + pid + " \n", "14 " + pid + " q1\n",
                                                       "1 " + pid + " q1\n"}));
  EXPECT_TRUE(gErrors.empty());
}

TEST_F(QmLibClientTest, AnUnknownStatusByteIsAnError) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> {
    return {"7STATUS=SUCCESS MSG=odd\n"};
  });
  auto [code, out] = round_trip(process_signal, "");
  EXPECT_EQ(code, 2);
  EXPECT_EQ(out, "STATUS=ERROR MSG=got unknown exit state: 55\nSTATUS=SUCCESS MSG=odd\n");
}

TEST_F(QmLibClientTest, AnAnswerWithoutStatusByte) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> { return {""}; });
  auto [code, out] = round_trip(process_signal, "");
  EXPECT_EQ(code, -1);
  EXPECT_EQ(out, "");
}

TEST_F(QmLibClientTest, PiecewiseReadingCollectsEveryPiece) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> {
    return {"1", "STATUS=WARNING", " MSG=one\n", "STATUS=OK MSG=two\n"};
  });
  ASSERT_EQ(qm_lib_send_cmd(queue_sho, "all", ignore_alarm, 0), 0);
  char small[1];
  EXPECT_EQ(qm_lib_get_answer_buff(small, 1, 0), -1);
  std::string text;
  char buf[8];
  int n;
  int calls = 0;
  while ((n = qm_lib_get_answer_buff(buf, sizeof buf, 0)) > 0) {
    ASSERT_LE(n, 7);
    EXPECT_EQ(std::strlen(buf), static_cast<std::size_t>(n));
    text.append(buf, static_cast<std::size_t>(n));
    ASSERT_LT(++calls, 100);
  }
  EXPECT_EQ(n, 0);
  EXPECT_EQ(text, "STATUS=WARNING MSG=one\nSTATUS=OK MSG=two\n");
  EXPECT_EQ(qm_lib_close_answer(0), 1);
}

TEST_F(QmLibClientTest, PiecewiseReadingRefusesAnInvalidReturnCode) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> { return {"9oops\n"}; });
  ASSERT_EQ(qm_lib_send_cmd(queue_sho, "all", ignore_alarm, 0), 0);
  char buf[64];
  EXPECT_EQ(qm_lib_get_answer_buff(buf, sizeof buf, 0), -1);
}

TEST_F(QmLibClientTest, TheAnswerPipeIsAFifoOf0770AndGoneAfterClose) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> { return {"0"}; });
  const mode_t old = umask(022);
  ASSERT_EQ(qm_lib_send_cmd(process_signal, "", ignore_alarm, 0), 0);
  EXPECT_EQ(umask(old), 022) << "the file-creation mask is restored";
  struct stat st {};
  ASSERT_EQ(::stat(from_qm, &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0770u);
  EXPECT_GT(iFdFromQm, 0);

  CaptureFd(1, [] { EXPECT_EQ(qm_lib_get_answer(0), 0); });
  EXPECT_EQ(qm_lib_close_answer(0), 0);
  EXPECT_EQ(iFdFromQm, -1);
  EXPECT_FALSE(Exists(from_qm));
}

TEST_F(QmLibClientTest, SendingLeavesTheSignalMaskAndNoAlarmBehind) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> { return {"0"}; });
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  ASSERT_EQ(qm_lib_send_cmd(process_signal, "", ignore_alarm, 0), 0);
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGPIPE), sigismember(&before, SIGPIPE));
  EXPECT_EQ(alarm(0), 0u) << "the alarm is cancelled once the answer pipe is open";
  struct sigaction sa {};
  sigaction(SIGALRM, nullptr, &sa);
  EXPECT_EQ(sa.sa_handler, &ignore_alarm);
  EXPECT_EQ(sa.sa_flags & SA_RESTART, 0);
}

TEST_F(QmLibClientTest, PerCommandTimeouts) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> { return {"0"}; });
  const struct {
    int mode;
    const char* args;
    int timeout;
  } cases[] = {
      {queue_del_entry, "17 -x", 60},        {queue_del_entry, "17 30", 45},
      {queue_del_entry, "17 abc", 15},       {queue_del_entry, "17 -30", 60},
      {queue_del_entry, "17", 60},           {queue_submit_sync, "q1 -j x /bin/true", 43200},
      {queue_submit_sync_lazy, "q1 /bin/true", 43200}, {queue_submit, "q1 /bin/true", 60},
      {queue_sho, "all", 60},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(qm_lib_send_cmd(c.mode, c.args, ignore_alarm, 0), 0) << c.args;
    EXPECT_EQ(qm_lib_get_cmd_timeout(), c.timeout) << c.mode << " " << c.args;
    CaptureFd(1, [] { qm_lib_get_answer(0); });
    qm_lib_close_answer(0);
  }
  EXPECT_EQ(daemon.lines().at(1), "11 " + own_pid() + " 17 30\n");
}

TEST_F(QmLibClientTest, AnAlarmWhoseHandlerReturnsEndsTheWaitForTheWriter) {
  FakeDaemon daemon(inst.qm(), [](const std::string&) -> std::vector<std::string> { return {}; });
  // The alarm rings until the client has given up; a single ring could come
  // before the client waits.
  std::atomic<bool> done{false};
  const pthread_t client = pthread_self();
  std::thread ringer([&] {
    WaitFor([&] { return !daemon.lines().empty(); }, 10s);
    while (!done) {
      pthread_kill(client, SIGALRM);
      std::this_thread::sleep_for(5ms);
    }
  });
  int result = 0;
  const std::string err = CaptureFd(2, [&] { result = qm_lib_send_cmd(process_signal, "", ignore_alarm, 0); });
  done = true;
  ringer.join();
  EXPECT_EQ(result, -1);
  const std::string text = "ERROR: cannot open pipe from_qm [" + std::string(from_qm) + "] (4): " + std::strerror(EINTR);
  EXPECT_EQ(err, text + "\n");
  EXPECT_EQ(gErrors, (std::vector<std::string>{text}));
  EXPECT_EQ(iFdFromQm, -1);
  EXPECT_FALSE(Exists(from_qm));
}

TEST_F(QmLibClientTest, NoRequestPipeFailsAtOnce) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(qm_lib_send_cmd(process_signal, "", ignore_alarm, 0), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(gErrors, (std::vector<std::string>{"no answer from kd_qm_main (open pipe failed)"}));
  EXPECT_FALSE(Exists(from_qm)) << "no answer pipe is left for a request never sent";
  EXPECT_EQ(alarm(0), 0u);
}

TEST_F(QmLibClientTest, ARequestPipeWithoutReaderIsWaitedForAboutTwoSeconds) {
  const mode_t old = umask(0);
  ASSERT_EQ(::mkfifo(to_qm, 0770), 0);
  umask(old);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(qm_lib_send_cmd(process_signal, "", ignore_alarm, 0), -1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 1500ms);
  EXPECT_LT(waited, 5s);
  EXPECT_EQ(gErrors, (std::vector<std::string>{"no answer from kd_qm_main (open pipe failed)"}));
  EXPECT_FALSE(Exists(from_qm));
}

// ---------------------------------------------------------------------------
// Front end helpers
// ---------------------------------------------------------------------------

TEST(KdQmFrontEnd, EveryListedCommandWordYieldsItsMode) {
  reset_callbacks();
  for (const auto& c : kKdQmCommands) {
    EXPECT_EQ(iGET_COMMAND_CODE(c.word, nullptr, 9, nullptr), c.mode) << c.word;
    EXPECT_STRNE(c.what, "");
  }
  char* text = nullptr;
  std::size_t size = 0;
  FILE* mem = open_memstream(&text, &size);
  kd_qm_print_help(mem);
  std::fclose(mem);
  const std::string help(text, size);
  std::free(text);
  EXPECT_EQ(help.rfind("usage: kd_qm [-h] [-v level] COMMAND [ARGS...]\n", 0), 0u);
  for (const auto& c : kKdQmCommands)
    EXPECT_NE(help.find(std::string("\n  ") + c.word + " "), std::string::npos) << c.word;
  EXPECT_NE(help.find("del_entry ENTRY [TIMEOUT]"), std::string::npos);
}

TEST(KdQmFrontEnd, ArgumentsKeepTheirWords) {
  std::string a = "q1", b = "a b", c, d = "-T", e = "now";
  char* words[] = {a.data(), b.data(), c.data(), d.data(), e.data()};
  EXPECT_EQ(kd_qm_join_arguments(5, words, 0), "q1 \"a b\" \"\" -T now");
  EXPECT_EQ(kd_qm_join_arguments(5, words, 3), "-T now");
  EXPECT_EQ(kd_qm_join_arguments(1, words, 1), "");
}

TEST(KdQmFrontEnd, TheAlarmHandlerEndsTheWaitWithAClearMessage) {
  kdtest::TempDir dir;
  const std::string err_file = dir.file("stderr");
  const std::string pipe = dir.file("from_qm_pipe1");
  kdtest::WriteFile(pipe, "");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int fd = ::open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, 2);
    CopyCut(from_qm, pipe);
    giTimeout = 45;
    kd_qm_alarm_handler(SIGALRM);
    _exit(99);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), KD_QM_EXIT_UNREACHABLE);
  EXPECT_EQ(ReadFile(err_file), "kd_qm: no answer from kd_qm_main within 45 seconds\n");
  EXPECT_FALSE(Exists(pipe));
}
