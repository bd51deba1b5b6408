#include "daemon_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "protocol/request.h"

#ifndef KD_BIN_DIR
#error "KD_BIN_DIR must name the directory of the built programs"
#endif

namespace kdtest {

namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

const char* const kProcessSignalAnswer = "0STATUS=SUCCESS MSG='process executing and pending jobs' done\n";

}  // namespace

std::string BinaryPath(const std::string& program) { return std::string(KD_BIN_DIR) + "/" + program; }

// ---------------------------------------------------------------------------
// ChildProcess
// ---------------------------------------------------------------------------

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    if (own_group_) SignalGroup(SIGKILL);
    Signal(SIGKILL);
    Reap(0);
  }
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::string& out_file,
                         const std::string& err_file, bool own_group, const std::string& in_file) {
  if (argv.empty()) return false;
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const std::string failure = "exec " + argv[0] + " failed\n";

  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    if (own_group) setpgid(0, 0);
    const int in = open(in_file.c_str(), O_RDONLY);
    const int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    if (in > 2) close(in);
    if (out > 2) close(out);
    if (err > 2) close(err);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(args[0], args.data());
    if (write(2, failure.data(), failure.size()) < 0) _exit(127);
    _exit(127);
  }
  if (own_group) setpgid(pid, pid);  // also here: no race with an early signal to the group
  pid_ = pid;
  reaped_ = false;
  own_group_ = own_group;
  exit_code_ = -1;
  term_signal_ = 0;
  return true;
}

bool ChildProcess::Reap(int options) {
  if (pid_ <= 0 || reaped_) return true;
  int status = 0;
  pid_t r;
  do {
    r = waitpid(pid_, &status, options);
  } while (r < 0 && errno == EINTR);
  if (r != pid_) return r < 0;  // an error means there is nothing left to reap
  reaped_ = true;
  if (WIFEXITED(status)) exit_code_ = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) term_signal_ = WTERMSIG(status);
  return true;
}

bool ChildProcess::Running() {
  if (pid_ <= 0 || reaped_) return false;
  Reap(WNOHANG);
  return !reaped_;
}

bool ChildProcess::WaitExit(std::chrono::milliseconds deadline) {
  return WaitFor([this] { return !Running(); }, deadline);
}

void ChildProcess::Signal(int sig) const {
  if (pid_ > 0 && !reaped_) kill(pid_, sig);
}

void ChildProcess::SignalGroup(int sig) const {
  if (pid_ > 0 && own_group_) kill(-pid_, sig);
  Signal(sig);
}

ProcessResult RunProgram(const std::vector<std::string>& argv, std::chrono::milliseconds deadline,
                         const std::string& stdin_text) {
  ProcessResult result;
  TempDir dir;
  WriteFile(dir.file("in"), stdin_text);
  ChildProcess child;
  if (!child.Start(argv, dir.file("out"), dir.file("err"), true, dir.file("in"))) return result;
  result.finished = child.WaitExit(deadline);
  if (!result.finished) {
    child.SignalGroup(SIGKILL);
    child.WaitExit(std::chrono::seconds(5));
  }
  result.exit_code = child.exit_code();
  result.term_signal = child.term_signal();
  result.out = ReadFile(dir.file("out"));
  result.err = ReadFile(dir.file("err"));
  return result;
}

bool WriteToPipe(const std::string& fifo, const std::string& bytes) {
  const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {  // a stale file of that name is no pipe
    close(fd);
    return false;
  }
  std::size_t done = 0;
  const auto end = Clock::now() + std::chrono::seconds(5);
  while (done < bytes.size()) {
    const ssize_t w = write(fd, bytes.data() + done, bytes.size() - done);
    if (w > 0) {
      done += static_cast<std::size_t>(w);
    } else if (w < 0 && (errno == EAGAIN || errno == EINTR)) {
      pollfd p{fd, POLLOUT, 0};
      if (remaining_ms(end) == 0) break;
      poll(&p, 1, std::min(remaining_ms(end), 100));
    } else {
      break;
    }
  }
  close(fd);
  return done == bytes.size();
}

// ---------------------------------------------------------------------------
// RawClient
// ---------------------------------------------------------------------------

RawClient::RawClient(std::string qm_dir, long id) : qm_dir_(std::move(qm_dir)), id_(id) {}

RawClient::~RawClient() {
  CloseAnswer();
  unlink(answer_pipe().c_str());
}

std::string RawClient::answer_pipe() const { return qm_dir_ + "com/from_qm_pipe" + std::to_string(id_); }
std::string RawClient::request_pipe() const { return qm_dir_ + "com/to_qm_pipe"; }

bool RawClient::CreatePipe() { return mkfifo(answer_pipe().c_str(), 0770) == 0 || errno == EEXIST; }

bool RawClient::OpenForAnswer() {
  CloseAnswer();
  fd_ = open(answer_pipe().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  writer_seen_ = false;
  return fd_ >= 0;
}

void RawClient::CloseAnswer() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool RawClient::Send(const std::string& bytes) const { return WriteToPipe(request_pipe(), bytes); }

bool RawClient::AnythingArrived() {
  if (fd_ < 0) return false;
  pollfd p{fd_, POLLIN, 0};
  return poll(&p, 1, 0) > 0 && p.revents != 0;
}

RawAnswer RawClient::ReadAnswer(std::chrono::milliseconds deadline) {
  RawAnswer answer;
  if (fd_ < 0) return answer;
  const auto end = Clock::now() + deadline;
  for (;;) {
    pollfd p{fd_, POLLIN, 0};
    const int r = poll(&p, 1, remaining_ms(end));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return answer;  // deadline
    char buf[4096];
    const ssize_t n = read(fd_, buf, sizeof buf);
    if (n > 0) {
      answer.text.append(buf, static_cast<std::size_t>(n));
      writer_seen_ = true;
    } else if (n == 0) {
      // Poll reports a hang-up only after a writer has come and gone.
      answer.complete = true;
      return answer;
    } else if (errno != EAGAIN && errno != EINTR) {
      return answer;
    }
  }
}

RawAnswer RawClient::AskLine(const std::string& line, std::chrono::milliseconds deadline) {
  if (!CreatePipe() || !OpenForAnswer()) return {};
  if (!Send(line + "\n")) return {};
  RawAnswer answer = ReadAnswer(deadline);
  CloseAnswer();
  return answer;
}

RawAnswer RawClient::Ask(int mode, const std::string& args, std::chrono::milliseconds deadline) {
  std::string line = std::to_string(mode) + " " + std::to_string(id_);
  if (!args.empty()) line += " " + args;
  return AskLine(line, deadline);
}

std::vector<pid_t> ChildrenOf(pid_t pid, bool zombies_only) {
  std::vector<pid_t> children;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  while (const dirent* entry = readdir(proc)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    const std::string stat = ReadFile(std::string("/proc/") + entry->d_name + "/stat");
    // "pid (comm) state ppid ...": the command may hold blanks and parentheses.
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 4 > stat.size()) continue;
    const char state = stat[close + 2];
    const long ppid = std::strtol(stat.c_str() + close + 4, nullptr, 10);
    if (ppid == pid && (!zombies_only || state == 'Z')) children.push_back(std::atoi(entry->d_name));
  }
  closedir(proc);
  return children;
}

// ---------------------------------------------------------------------------
// DaemonTest
// ---------------------------------------------------------------------------

void DaemonTest::SetUp() {
  instance_ = std::make_unique<TestInstance>();
  instance_->write_debug_ini("KD_QM_MAIN=" + std::to_string(TraceLevel()) + "\n");
  if (StartInSetUp()) {
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitReady()) << "daemon not ready; stdout: " << DaemonOut() << " stderr: " << DaemonErr();
  }
}

void DaemonTest::TearDown() {
  if (!instance_) return;
  if (daemon_) StopDaemon();
  KillJobGroups();
  ExpectNoSanitizerReport(DaemonErr(), "standard error of kd_qm_main");
  daemon_.reset();
  instance_.reset();
}

std::string DaemonTest::QmDir() const { return instance_->qm(); }
std::string DaemonTest::RequestPipe() const { return QmDir() + "com/to_qm_pipe"; }

bool DaemonTest::StartDaemon(const std::vector<std::string>& args) {
  std::vector<std::string> argv{BinaryPath("kd_qm_main")};
  argv.insert(argv.end(), args.begin(), args.end());
  daemon_ = std::make_unique<ChildProcess>();
  return daemon_->Start(argv, instance_->root() + "/daemon.out", instance_->root() + "/daemon.err");
}

bool DaemonTest::WaitReady(std::chrono::milliseconds deadline) {
  const auto end = Clock::now() + deadline;
  while (Clock::now() < end) {
    if (daemon_ && !daemon_->Running()) return false;
    if (Exists(RequestPipe())) {
      RawClient client(QmDir(), NextClientId());
      const RawAnswer a = client.Ask(process_signal, "", std::chrono::milliseconds(std::min(remaining_ms(end), 3000)));
      if (a.complete && a.text == kProcessSignalAnswer) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // poll interval
  }
  return false;
}

int DaemonTest::StopDaemon() {
  if (!daemon_) return -1;
  if (daemon_->Running()) {
    {
      RawClient client(QmDir(), NextClientId());
      if (client.CreatePipe() && client.OpenForAnswer() && client.Send("25 " + std::to_string(client.id()) + "\n"))
        client.ReadAnswer(std::chrono::seconds(3));
    }
    if (!daemon_->WaitExit(std::chrono::seconds(5))) {
      daemon_->Signal(SIGTERM);
      if (!daemon_->WaitExit(std::chrono::seconds(5))) {
        daemon_->SignalGroup(SIGKILL);
        daemon_->WaitExit(std::chrono::seconds(5));
      }
    }
  }
  // Answer writers that outlive the daemon belong to its group.
  daemon_->SignalGroup(SIGKILL);
  return daemon_->term_signal() != 0 ? -daemon_->term_signal() : daemon_->exit_code();
}

std::string DaemonTest::DaemonOut() const { return ReadFile(instance_->root() + "/daemon.out"); }
std::string DaemonTest::DaemonErr() const { return ReadFile(instance_->root() + "/daemon.err"); }

std::string DaemonTest::TraceLog() const {
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(instance_->lgc(), ec))
    if (entry.path().filename().string().rfind("kd_qm_main", 0) == 0) files.push_back(entry.path().string());
  std::sort(files.begin(), files.end());
  std::string text;
  for (const std::string& f : files) text += ReadFile(f);
  return text;
}

bool DaemonTest::WaitForTrace(const std::string& text, std::chrono::milliseconds deadline) const {
  return WaitFor([&] { return TraceLog().find(text) != std::string::npos; }, deadline);
}

bool DaemonTest::WaitNoZombies(std::chrono::milliseconds deadline) const {
  const pid_t pid = daemon_pid();
  return WaitFor([pid] { return ChildrenOf(pid, true).empty(); }, deadline);
}

long DaemonTest::NextClientId() {
  // Far above any real pid: the id only names the answer pipe.
  static std::atomic<long> next{1500000000L};
  return next++;
}

RawAnswer DaemonTest::Ask(int mode, const std::string& args, std::chrono::milliseconds deadline) {
  RawClient client(QmDir(), NextClientId());
  return client.Ask(mode, args, deadline);
}

std::unique_ptr<RawClient> DaemonTest::NewClient() const {
  return std::make_unique<RawClient>(QmDir(), NextClientId());
}

ProcessResult DaemonTest::Run(const std::string& program, const std::vector<std::string>& args,
                              std::chrono::milliseconds deadline) {
  std::vector<std::string> argv{BinaryPath(program)};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, deadline);
}

void DaemonTest::ExpectNoSanitizerReport(const std::string& text, const std::string& what) {
  for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
                           "SUMMARY: UndefinedBehaviorSanitizer", "SUMMARY: AddressSanitizer",
                           "LeakSanitizer has encountered a fatal error"}) {
    EXPECT_EQ(text.find(mark), std::string::npos) << "sanitizer report in " << what << ":\n" << text;
  }
}

void DaemonTest::KillJobGroups() {
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(
           instance_->root(), std::filesystem::directory_options::skip_permission_denied, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->path().filename() != "job.pid") continue;
    const long pid = std::strtol(ReadFile(it->path().string()).c_str(), nullptr, 10);
    if (pid > 1) {
      kill(static_cast<pid_t>(-pid), SIGKILL);
      kill(static_cast<pid_t>(pid), SIGKILL);
    }
  }
}

}  // namespace kdtest
