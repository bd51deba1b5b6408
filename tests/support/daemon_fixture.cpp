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
#include <filesystem>
#include <set>
#include <sstream>

#include "protocol/request.h"

#ifndef KD_BIN_DIR
#error "KD_BIN_DIR must name the directory of the built programs"
#endif

namespace kdtest {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// The pid is written once the traps are set: a test may signal the job as soon as it reads it.
constexpr const char* kJobScript =
    "#!/bin/sh\nd=$1\nmkdir -p \"$d\"\necho \"$@\" >> \"$d/args\"\n"
    "if [ -e \"$d/stay\" ]; then\n  trap '' INT\n  /bin/sleep 600 &\n  trap 'echo INT >> \"$d/sig\"' INT\n"
    "else\n  trap 'echo INT >> \"$d/sig\"; trap - INT; kill -INT $$' INT\nfi\n"
    "echo $$ > \"$d/pid.new\" && mv \"$d/pid.new\" \"$d/job.pid\"\n"
    "while [ ! -e \"$d/go\" ] && [ ! -e \"$d/../go\" ]; do /bin/sleep 0.05; done\n"
    "code=$(sed -n \"$(wc -l < \"$d/args\")p\" \"$d/codes\" 2>/dev/null)\nexit ${code:-0}\n";

/// The files of the directory whose names begin with prefix, concatenated in name order.
std::string Concatenated(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
    if (entry.path().filename().string().rfind(prefix, 0) == 0) files.push_back(entry.path().string());
  std::sort(files.begin(), files.end());
  std::string text;
  for (const std::string& f : files) text += ReadFile(f);
  return text;
}

/// The process groups with a live member started under the instance (its
/// environment names the bootstrap file): a recorded pid is signalled only
/// while it stands for one of these, never for a stranger that got it later.
std::set<pid_t> InstanceGroups(const std::string& bootstrap) {
  std::set<pid_t> groups;
  const std::string mark = "KD_INI=" + bootstrap + '\0';
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return groups;
  while (const dirent* entry = readdir(proc)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    const std::string environ = ReadFile(std::string("/proc/") + entry->d_name + "/environ");
    if (environ.rfind(mark, 0) != 0 && environ.find('\0' + mark) == std::string::npos) continue;
    const pid_t pgid = getpgid(static_cast<pid_t>(std::atol(entry->d_name)));
    if (pgid > 1 && pgid != getpgrp()) groups.insert(pgid);
  }
  closedir(proc);
  return groups;
}

}  // namespace

std::string BinaryPath(const std::string& program) { return std::string(KD_BIN_DIR) + "/" + program; }

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    SignalGroup(SIGKILL);
    Reap(0);
  }
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::string& out_file,
                         const std::string& err_file, bool own_group) {
  if (argv.empty()) return false;
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const std::string failure = "exec " + argv[0] + " failed\n";

  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    if (own_group) setpgid(0, 0);
    const int fds[] = {open("/dev/null", O_RDONLY), open(out_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644),
                       open(err_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)};
    for (int target = 0; target < 3; ++target) {
      if (fds[target] < 0) _exit(126);
      dup2(fds[target], target);
      if (fds[target] > 2) close(fds[target]);
    }
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

RawClient::RawClient(std::string qm_dir, long id) : qm_dir_(std::move(qm_dir)), id_(id) {}

RawClient::~RawClient() {
  CloseAnswer();
  unlink(answer_pipe().c_str());
}

std::string RawClient::answer_pipe() const { return qm_dir_ + "com/from_qm_pipe" + std::to_string(id_); }

bool RawClient::CreatePipe() { return mkfifo(answer_pipe().c_str(), 0770) == 0 || errno == EEXIST; }

bool RawClient::OpenForAnswer() {
  CloseAnswer();
  fd_ = open(answer_pipe().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  return fd_ >= 0;
}

void RawClient::CloseAnswer() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool RawClient::Send(const std::string& bytes) const {
  const int fd = open((qm_dir_ + "com/to_qm_pipe").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  std::size_t done = 0;
  const auto end = Clock::now() + 5s;
  if (fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) {  // a stale file of that name is no pipe
    while (done < bytes.size() && remaining_ms(end) > 0) {
      const ssize_t w = write(fd, bytes.data() + done, bytes.size() - done);
      if (w > 0) {
        done += static_cast<std::size_t>(w);
      } else if (w < 0 && (errno == EAGAIN || errno == EINTR)) {
        pollfd p{fd, POLLOUT, 0};
        poll(&p, 1, std::min(remaining_ms(end), 100));
      } else {
        break;
      }
    }
  }
  close(fd);
  return done == bytes.size();
}

bool RawClient::Request(int mode, const std::string& args) {
  return CreatePipe() && OpenForAnswer() &&
         Send(std::to_string(mode) + " " + std::to_string(id_) + (args.empty() ? "" : " " + args) + "\n");
}

bool RawClient::AnythingArrived() {
  if (fd_ < 0) return false;
  pollfd p{fd_, POLLIN, 0};
  return poll(&p, 1, 0) > 0 && p.revents != 0;
}

RawAnswer RawClient::ReadAnswer(std::chrono::milliseconds deadline) {
  RawAnswer answer;
  const auto end = Clock::now() + deadline;
  while (fd_ >= 0) {
    pollfd p{fd_, POLLIN, 0};
    const int r = poll(&p, 1, remaining_ms(end));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;  // deadline
    char buf[4096];
    const ssize_t n = read(fd_, buf, sizeof buf);
    if (n > 0) {
      answer.text.append(buf, static_cast<std::size_t>(n));
    } else if (n == 0) {
      // Poll reports a hang-up only after a writer has come and gone.
      answer.complete = true;
      break;
    } else if (errno != EAGAIN && errno != EINTR) {
      break;
    }
  }
  return answer;
}

RawAnswer RawClient::AskLine(const std::string& line, std::chrono::milliseconds deadline) {
  if (!CreatePipe() || !OpenForAnswer() || !Send(line + "\n")) return {};
  RawAnswer answer = ReadAnswer(deadline);
  CloseAnswer();
  return answer;
}

RawAnswer RawClient::Ask(int mode, const std::string& args, std::chrono::milliseconds deadline) {
  return AskLine(std::to_string(mode) + " " + std::to_string(id_) + (args.empty() ? "" : " " + args), deadline);
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

bool Gone(long pid) { return pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH; }

bool GroupGone(long pgid) {
  if (pgid <= 1) return false;
  if (kill(static_cast<pid_t>(-pgid), 0) != 0) return errno == ESRCH;
  const std::string stat = ReadFile("/proc/" + std::to_string(pgid) + "/stat");
  const std::size_t paren = stat.rfind(')');
  return paren != std::string::npos && stat.compare(paren + 2, 1, "Z") == 0;
}

std::string Ok(const std::string& msg) { return "0STATUS=SUCCESS MSG=" + msg + "\n"; }

std::string NoQueue(const std::string& name) {
  return "1STATUS=WARNING MSG=A queue with name [" + name + "] does not exist\n";
}

const std::string kProcessed = "0STATUS=SUCCESS MSG='process executing and pending jobs' done\n";
const std::string kInitialised = Ok("Queue initialised");

std::string MaskTimes(std::string text) {
  constexpr std::string_view kFarTime = "2099-01-01 00:00:00";
  text = ReplaceShape(std::move(text), kFarTime, "\x01");
  text = ReplaceShape(std::move(text), "2099-99-99 99:99:99", "T");
  return ReplaceShape(std::move(text), "\x01", kFarTime);
}

void DaemonTest::SetUp() { Attach(own_, StartInSetUp()); }

void DaemonTest::TearDown() {
  if (run_ == nullptr) return;
  // Runs still to come end at once; those running are killed with their groups.
  const std::string jobs = Dir("");
  std::filesystem::create_directories(jobs);
  WriteFile(jobs + "go", "");
  const std::set<pid_t> groups = InstanceGroups(instance().bootstrap());
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(jobs, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    const pid_t pid = it->path().filename() == "job.pid" ? std::atoi(ReadFile(it->path()).c_str()) : 0;
    if (groups.count(pid) != 0) kill(-pid, SIGKILL);
  }
  if (own_) Finish(*own_);
  own_.reset();
  run_ = nullptr;
}

void DaemonTest::Attach(std::unique_ptr<DaemonRun>& run, bool start) {
  if (run && run->process && !run->process->Running()) {  // a test has ended it: the next one starts afresh
    Finish(*run);
    run.reset();
  }
  const bool fresh = !run;
  if (fresh) {
    run = std::make_unique<DaemonRun>();
    run->instance.write_debug_ini("KD_QM_MAIN=" + std::to_string(TraceLevel()) + "\n");
    WriteFile(run->instance.bin() + "job.sh", kJobScript, 0755);
  }
  run_ = run.get();
  if (fresh && start) {
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitReady()) << "daemon not ready; stdout: " << ReadFile(run->instance.root() + "/daemon.out")
                             << " stderr: " << DaemonErr();
  }
  trace_from_ = 0;
  trace_from_ = TraceLog(true).size();
}

void DaemonTest::Finish(DaemonRun& run) {
  if (run.process && run.process->Running()) {
    RawClient(run.instance.qm(), NextClientId()).Ask(shut_down, "", 3s);
    for (const int sig : {SIGTERM, SIGKILL})
      if (!run.process->WaitExit(5s)) run.process->SignalGroup(sig);
    run.process->WaitExit(5s);
  }
  // Answer writers that outlive the daemon are in its group, jobs in groups of their own.
  if (run.process) run.process->SignalGroup(SIGKILL);
  for (pid_t group : InstanceGroups(run.instance.bootstrap())) kill(-group, SIGKILL);
  const std::string err = ReadFile(run.instance.root() + "/daemon.err");
  for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
                           "SUMMARY: UndefinedBehaviorSanitizer", "SUMMARY: AddressSanitizer",
                           "LeakSanitizer has encountered a fatal error"})
    EXPECT_EQ(err.find(mark), std::string::npos) << "sanitizer report of kd_qm_main:\n" << err;
}

bool DaemonTest::StartDaemon(const std::vector<std::string>& args) {
  std::vector<std::string> argv{BinaryPath("kd_qm_main")};
  argv.insert(argv.end(), args.begin(), args.end());
  run_->process = std::make_unique<ChildProcess>();
  return run_->process->Start(argv, instance().root() + "/daemon.out", instance().root() + "/daemon.err");
}

bool DaemonTest::WaitReady(std::chrono::milliseconds deadline) {
  // A daemon that is not this process's child (started in the background) is only asked.
  const auto ended = [&] { return run_->process && !run_->process->Running(); };
  const auto ready = [&] { return Exists(RequestPipe()) && Ask(process_signal, "", 3s).text == kProcessed; };
  return WaitFor([&] { return ended() || ready(); }, deadline) && !ended();
}

std::string DaemonTest::TraceLog(bool whole_run) const {
  std::string text = Concatenated(run_->instance.lgc(), "kd_qm_main");
  return whole_run ? text : text.substr(std::min(trace_from_, text.size()));
}

bool DaemonTest::WaitForTrace(const std::string& text, std::chrono::milliseconds deadline) const {
  return WaitFor([&] { return TraceLog().find(text) != std::string::npos; }, deadline);
}

std::vector<pid_t> DaemonTest::AnswerWriters(bool live_only) const {
  std::vector<pid_t> writers;
  const std::vector<pid_t> zombies = ChildrenOf(daemon_pid(), true);
  for (pid_t child : ChildrenOf(daemon_pid(), false))
    if (getpgid(child) == daemon_pid() && !(live_only && std::count(zombies.begin(), zombies.end(), child) != 0))
      writers.push_back(child);
  return writers;
}

bool DaemonTest::WaitNoZombies(std::chrono::milliseconds deadline) const {
  const pid_t pid = daemon_pid();
  return WaitFor([pid] { return ChildrenOf(pid, true).empty(); }, deadline);
}

std::vector<std::string> DaemonTest::ExitLog(const std::string& prefix) const {
  std::vector<std::string> lines;
  std::istringstream in(Concatenated(run_->instance.lgc(), "kd_qm_exit_"));
  for (std::string line; std::getline(in, line);) {
    line = ReplaceDigitsAfter(MaskTimes(line.substr(std::min<std::size_t>(20, line.size()))), "PID:", "n");
    if (line.rfind(prefix, 0) == 0) lines.push_back(line);
  }
  return lines;
}

bool DaemonTest::Logged(const std::vector<std::string>& lines) const {
  return WaitFor([&] {
    const std::vector<std::string> log = ExitLog();
    return std::all_of(lines.begin(), lines.end(), [&](auto& l) { return std::count(log.begin(), log.end(), l); });
  }, 10s);
}

long DaemonTest::NextClientId() {
  // Far above any real pid: the id only names the answer pipe.
  static std::atomic<long> next{1500000000L};
  return next++;
}

RawAnswer DaemonTest::Ask(int mode, const std::string& args, std::chrono::milliseconds deadline) {
  return RawClient(QmDir(), NextClientId()).Ask(mode, args, deadline);
}

std::unique_ptr<RawClient> DaemonTest::NewClient() const {
  return std::make_unique<RawClient>(QmDir(), NextClientId());
}

ProcessResult DaemonTest::Run(const std::string& program, const std::vector<std::string>& args,
                              std::chrono::milliseconds deadline) {
  std::vector<std::string> argv{BinaryPath(program)};
  argv.insert(argv.end(), args.begin(), args.end());
  ProcessResult result;
  TempDir dir;
  ChildProcess child;
  if (!child.Start(argv, dir.file("out"), dir.file("err"))) return result;
  result.finished = child.WaitExit(deadline);
  if (!result.finished) {
    child.SignalGroup(SIGKILL);
    child.WaitExit(5s);
  }
  result.exit_code = child.exit_code();
  result.out = ReadFile(dir.file("out"));
  result.err = ReadFile(dir.file("err"));
  return result;
}

std::string DaemonTest::Dir(const std::string& job) const {
  return run_->instance.root() + "/jobs/" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + "/" +
         job;
}

std::string DaemonTest::Submit(const std::string& queue, const std::string& job, const std::string& options) {
  return Ask(queue_submit, queue + " " + options + (options.empty() ? "" : " ") + "-j " + job + " job.sh " + Dir(job))
      .text;
}

std::string DaemonTest::Entry(const std::string& answer) {
  const std::string head = "0STATUS=SUCCESS MSG=";
  const std::size_t digits = answer.find_first_not_of("0123456789", head.size());
  if (answer.rfind(head, 0) == 0 && digits > head.size() && digits + 1 == answer.size() && answer.back() == '\n')
    return answer.substr(head.size(), digits - head.size());
  ADD_FAILURE() << "no entry number in the answer [" << answer << "]";
  return "";
}

void DaemonTest::Prepare(const std::string& job, const std::vector<std::pair<std::string, std::string>>& files) const {
  std::filesystem::create_directories(Dir(job));
  for (const auto& [name, content] : files) WriteFile(Dir(job) + "/" + name, content);
}

long DaemonTest::Pid(const std::string& job) const {
  long pid = 0;
  WaitFor([&] { return (pid = std::atol(ReadFile(Dir(job) + "/job.pid").c_str())) > 0; }, 10s);
  return pid;
}

bool DaemonTest::Ended(const std::string& job) {
  const long pid = Pid(job);
  return Driven([&] { return Gone(pid); });
}

std::string DaemonTest::Counts(const std::string& queue) {
  const std::string view = Ask(queue_sho_status, queue).text;
  const std::size_t at = view.find("pending=");
  return at == std::string::npos ? view : view.substr(at, view.find('\n', at) - at);
}

bool DaemonTest::Driven(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
  auto next = Clock::now();
  return WaitFor([&] {
    if (condition()) return true;
    if (Clock::now() >= next) {
      daemon().Signal(SIGALRM);
      next = Clock::now() + 250ms;
    }
    return false;
  }, deadline);
}

}  // namespace kdtest
