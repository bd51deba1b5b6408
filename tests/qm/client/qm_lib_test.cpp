// The client library: command words, the command line, and the request and
// answer pipes against a stand-in daemon; the front end's help and arguments.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "client/kd_qm_front.h"
#include "client/qm_lib.h"
#include "kd_test_support.h"

using namespace std::chrono_literals;
using kdtest::CaptureFd;
using kdtest::Exists;
using V = std::vector<std::string>;

namespace {

V gErrors;
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

/// Runs qm_lib_check_args on a command line; the mode and the words it leaves.
std::pair<int, V> check_args(V line) {
  std::vector<char*> argv;
  for (auto& w : line) argv.push_back(w.data());
  argv.push_back(nullptr);
  int argc = static_cast<int>(line.size());
  char** v = argv.data();
  const int mode = qm_lib_check_args(&argc, &v, 0);
  return {mode, V(v, v + argc)};
}

/// A stand-in for the daemon on a thread of its own: owns the request pipe of
/// an instance, records every request line and answers each through the
/// requester's answer pipe with the pieces the responder returns (none: no answer).
class FakeDaemon {
 public:
  FakeDaemon(const std::string& qm_dir, std::function<V(const std::string&)> responder)
      : com_(qm_dir + "com/"), responder_(std::move(responder)) {
    ::mkfifo((com_ + "to_qm_pipe").c_str(), 0770);
    // Read-write, like the daemon: the pipe always has a reader and never gives EOF.
    fd_ = ::open((com_ + "to_qm_pipe").c_str(), O_RDWR | O_NONBLOCK);
    thread_ = std::thread([this] { Run(); });
  }
  ~FakeDaemon() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
    ::unlink((com_ + "to_qm_pipe").c_str());
  }
  V lines() {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_;
  }

 private:
  void Run() {
    for (std::string pending; !stop_;) {
      pollfd p{fd_, POLLIN, 0};
      char buf[4096];
      const ssize_t n = ::poll(&p, 1, 20) > 0 ? ::read(fd_, buf, sizeof buf) : 0;
      if (n > 0) pending.append(buf, static_cast<std::size_t>(n));
      for (std::size_t eol; (eol = pending.find('\n')) != std::string::npos; pending.erase(0, eol + 1)) {
        const std::string line = pending.substr(0, eol + 1);
        {
          std::lock_guard<std::mutex> lock(mu_);
          lines_.push_back(line);
        }
        const V pieces = responder_(line);
        const std::string pipe = com_ + "from_qm_pipe" + std::to_string(std::atol(line.c_str() + line.find(' ')));
        int fd = -1;
        if (pieces.empty() ||
            !kdtest::WaitFor([&] { return (fd = ::open(pipe.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }, 2s))
          continue;
        for (const std::string& piece : pieces) (void)!::write(fd, piece.data(), piece.size());
        ::close(fd);
      }
    }
  }

  std::string com_;
  std::function<V(const std::string&)> responder_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex mu_;
  V lines_;
  std::thread thread_;
};

}  // namespace

TEST(QmLibCommandCode, KeywordRulesInTheirOrderAndTooFewWords) {
  reset_callbacks();
  // Every word of the front end's table is checked by KdQmFrontEnd.HelpListsEveryCommandWordWhichYieldsItsMode;
  // here the other spellings, and that the longer words are tried first.
  const std::vector<std::pair<const char*, int>> cases = {
      {"job_sho/name", job_sho_name}, {"job_sho", job_sho}, {"sho/status", queue_sho_status}, {"sho", queue_sho},
      {"submit_sync_lazy", queue_submit_sync_lazy}, {"submit", queue_submit}, {"sigentry", queue_signal_entry},
      {"moventry", queue_move_entry}, {"processing", process_signal}, {"signal", process_signal},
      // Substring rules: these consequences are intended.
      {"queue_set", queue_set}, {"sho_status", queue_sho}, {"delete_entry", queue_delete}, {"restart", queue_start},
      // Exact, case-sensitive words.
      {"Signal", invalid_mode}, {"shutdown_now", invalid_mode}, {"pro", invalid_mode}, {"", invalid_mode},
  };
  for (const auto& [word, mode] : cases) {
    int stored = -1;
    EXPECT_EQ(iGET_COMMAND_CODE(word, "x", 9, &stored), mode) << word;
    EXPECT_EQ(stored, mode) << word;
  }
  EXPECT_EQ(gUsageCalls, 4) << "each unknown word calls the usage callback";
  EXPECT_TRUE(gErrors.empty());

  // Too few words call the error callback without text; "enough" is the fewest
  // words that do not complain, 0: never.
  for (const auto& [word, argument, enough] : std::vector<std::tuple<const char*, const char*, int>>{
           {"init", "q1", 3}, {"block", "q1", 2}, {"set", "q1", 4}, {"set", "my_options", 3}, {"submit", "q1", 7},
           {"del_entry", "1", 2}, {"sho", "q1", 2}, {"job_set", "1", 2}, {"sho/status", nullptr, 0},
           {"shocsv", nullptr, 0}, {"shutdown", nullptr, 0}, {"process_signal", nullptr, 0}}) {
    for (int words = 1; words <= std::max(enough, 1); ++words) {
      reset_callbacks();
      iGET_COMMAND_CODE(word, argument, words, nullptr);
      EXPECT_EQ(gErrors, words < enough ? V{""} : V{}) << word << " with " << words << " words";
    }
  }
}

TEST(QmLibCheckArgs, GeneralOptionsBehindTheCommandWordAreTakenOff) {
  kdtest::TestInstance inst;
  reset_callbacks();
  EXPECT_EQ(check_args({"kd_qm", "init", "q1/a", "5"}), std::make_pair(int{queue_init}, V{"init", "q1/a", "5"}));
  EXPECT_EQ(check_args({"kd_qm", "sho", "-v", "3", "q1"}), std::make_pair(int{queue_sho}, V{"sho", "q1"}));
  // Behind the first argument, words that look like options stay.
  EXPECT_EQ(check_args({"kd_qm", "delete", "q1", "-e", "3"}),
            std::make_pair(int{queue_delete}, V{"delete", "q1", "-e", "3"}));
  EXPECT_EQ(gUsageCalls, 0);
  // "-e" takes its value and is otherwise ignored, like any unknown letter.
  // "-h" (usage) is covered end to end (e2e KdQmProgramTest).
  std::pair<int, V> r;
  const std::string err = CaptureFd(2, [&] { r = check_args({"kd_qm", "del_entry", "-e", "5", "-x", "17"}); });
  EXPECT_EQ(r, std::make_pair(int{queue_del_entry}, V{"del_entry", "17"}));
  EXPECT_NE(err.find("wrong option e in command line"), std::string::npos) << err;
  EXPECT_NE(err.find("wrong option x in command line"), std::string::npos) << err;
  EXPECT_EQ(check_args({"kd_qm"}), std::make_pair(int{invalid_mode}, V{}));
  EXPECT_EQ(gUsageCalls, 1);
}

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
  static std::pair<int, std::string> RoundTrip(int mode, const char* args) {
    int code = -7;
    const std::string out = CaptureFd(1, [&] {
      if (qm_lib_send_cmd(mode, args, ignore_alarm, 0) == 0) code = qm_lib_get_answer(0);
    });
    qm_lib_close_answer(0);
    return {code, out};
  }

  kdtest::TestInstance inst;
  const std::string pid = std::to_string(getpid());
};

// Plain requests and answers of kd_qm: e2e KdQmProgramTest; here what a daemon never sends.
TEST_F(QmLibClientTest, RequestLinesAnswerPipeReturnDigitsAndTimeoutsAgainstADaemon) {
  FakeDaemon daemon(inst.qm(), [](const std::string& line) -> V {
    const std::string mode = line.substr(0, line.find(' '));
    if (mode == "26") return {"0", "STATUS=SUCCESS MSG=done\n"};
    if (mode == "14" && line.find(" q1") != std::string::npos)
      return {"1STATUS=WARNING MSG=A queue with name [q1] does not exist\n"};
    if (mode == "14") return {"1", "STATUS=WARNING", " MSG=one\n", "STATUS=OK MSG=two\n"};
    if (mode == "1") return {"2", "STATUS=ERROR MSG=first ", "half\nlisting line without end"};
    if (mode == "2") return {"7STATUS=SUCCESS MSG=odd\n"};
    if (mode == "5") return {"9oops\n"};
    return {""};
  });

  // The answer pipe is a FIFO of 0770 made under a restored umask and gone
  // after close; the signal mask is left as it was and the alarm cancelled.
  const mode_t old = umask(022);
  sigset_t before, after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  ASSERT_EQ(qm_lib_send_cmd(process_signal, "", ignore_alarm, 0), 0);
  EXPECT_EQ(umask(old), 022);
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGPIPE), sigismember(&before, SIGPIPE));
  EXPECT_EQ(alarm(0), 0u);
  struct stat st {};
  ASSERT_EQ(::stat(from_qm, &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0770u);
  int code = -7;
  EXPECT_EQ(CaptureFd(1, [&] { code = qm_lib_get_answer(0); }), "STATUS=SUCCESS MSG=done\n");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(qm_lib_close_answer(0), 0);
  EXPECT_FALSE(Exists(from_qm));

  // The return digit and the answer text as it came, a line end added.
  for (const auto& [mode, args, digit, text] : std::vector<std::tuple<int, const char*, int, std::string>>{
           {queue_sho, "  q1  ", 1, "STATUS=WARNING MSG=A queue with name [q1] does not exist\n"},
           {queue_block, "q1", 2, "STATUS=ERROR MSG=first half\nlisting line without end\n"},
           {queue_delete, "q1", 2, "STATUS=ERROR MSG=got unknown exit state: 55\nSTATUS=SUCCESS MSG=odd\n"},
           {queue_start, "q1", -1, ""}})  // no status byte at all
    EXPECT_EQ(RoundTrip(mode, args), std::make_pair(digit, text)) << mode;
  EXPECT_EQ(daemon.lines(), (V{"26 " + pid + " \n", "14 " + pid + " q1\n", "1 " + pid + " q1\n", "2 " + pid + " q1\n",
                               "4 " + pid + " q1\n"}));

  // Piecewise reading collects every piece and refuses an invalid return code.
  ASSERT_EQ(qm_lib_send_cmd(queue_sho, "all", ignore_alarm, 0), 0);
  char small[1];
  EXPECT_EQ(qm_lib_get_answer_buff(small, 1, 0), -1);
  std::string text;
  char buf[8];
  int n;
  for (int calls = 0; (n = qm_lib_get_answer_buff(buf, sizeof buf, 0)) > 0 && calls < 100; ++calls) {
    ASSERT_LE(n, 7);
    EXPECT_EQ(std::strlen(buf), static_cast<std::size_t>(n));
    text.append(buf, static_cast<std::size_t>(n));
  }
  EXPECT_EQ(n, 0);
  EXPECT_EQ(text, "STATUS=WARNING MSG=one\nSTATUS=OK MSG=two\n");
  EXPECT_EQ(qm_lib_close_answer(0), 1);
  ASSERT_EQ(qm_lib_send_cmd(queue_stop, "q1", ignore_alarm, 0), 0);
  EXPECT_EQ(qm_lib_get_answer_buff(buf, sizeof buf, 0), -1);
  qm_lib_close_answer(0);

  // The time a client waits for the answer, by command.
  for (const auto& [mode, args, timeout] : std::vector<std::tuple<int, const char*, int>>{
           {queue_del_entry, "17 -x", 60}, {queue_del_entry, "17 30", 45}, {queue_del_entry, "17 abc", 15},
           {queue_del_entry, "17", 60}, {queue_submit_sync, "q1 -j x /bin/true", 43200},
           {queue_submit_sync_lazy, "q1 /bin/true", 43200}, {queue_submit, "q1 /bin/true", 60}}) {
    RoundTrip(mode, args);
    EXPECT_EQ(qm_lib_get_cmd_timeout(), timeout) << mode << " " << args;
  }
  EXPECT_EQ(daemon.lines().at(8), "11 " + pid + " 17 30\n");
  EXPECT_TRUE(gErrors.empty());
}

// Pipe names, no request pipe and no gv_rw_qm: e2e KdQmProgramWithoutDaemonTest.
TEST_F(QmLibClientTest, ADaemonThatDoesNotReadOrNeverAnswers) {
  // A request pipe without a reader fails after about two seconds.
  const mode_t old = umask(0);
  ASSERT_EQ(::mkfifo(to_qm, 0770), 0);
  umask(old);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(qm_lib_send_cmd(process_signal, "", ignore_alarm, 0), -1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 1500ms);
  EXPECT_LT(waited, 5s);
  EXPECT_EQ(gErrors, V{"no answer from kd_qm_main (open pipe failed)"});
  EXPECT_FALSE(Exists(from_qm));
  gErrors.clear();

  // A daemon that takes the request and never answers: an alarm whose handler
  // returns ends the wait for the writer. It rings until the client has given
  // up; a single ring could come before the client waits.
  {
    std::atomic<bool> done{false};
    const pthread_t client = pthread_self();
    FakeDaemon daemon(inst.qm(), [&](const std::string&) {
      for (; !done; std::this_thread::sleep_for(5ms)) pthread_kill(client, SIGALRM);
      return V{};
    });
    int result = 0;
    const std::string err = CaptureFd(2, [&] { result = qm_lib_send_cmd(process_signal, "", ignore_alarm, 0); });
    done = true;
    EXPECT_EQ(result, -1);
    const std::string text =
        "ERROR: cannot open pipe from_qm [" + std::string(from_qm) + "] (4): " + std::strerror(EINTR);
    EXPECT_EQ(err, text + "\n");
    EXPECT_EQ(gErrors, V{text});
    EXPECT_FALSE(Exists(from_qm));
  }
}

TEST(KdQmFrontEnd, HelpListsEveryCommandWordWhichYieldsItsModeAndArgumentsKeepTheirWords) {
  reset_callbacks();
  const std::string help = CaptureFd(1, [] {
    kd_qm_print_help(stdout);
    std::fflush(stdout);
  });
  // Its first line is checked end to end (e2e KdQmProgramTest).
  for (const auto& c : kKdQmCommands) {
    EXPECT_EQ(iGET_COMMAND_CODE(c.word, nullptr, 9, nullptr), c.mode) << c.word;
    EXPECT_NE(help.find(std::string("\n  ") + c.word + " "), std::string::npos) << c.word;
  }

  std::string a = "q1", b = "a b", c, d = "-T", e = "now";
  char* words[] = {a.data(), b.data(), c.data(), d.data(), e.data()};
  EXPECT_EQ(kd_qm_join_arguments(5, words, 0), "q1 \"a b\" \"\" -T now");
  EXPECT_EQ(kd_qm_join_arguments(5, words, 3), "-T now");
  EXPECT_EQ(kd_qm_join_arguments(1, words, 1), "");
}
