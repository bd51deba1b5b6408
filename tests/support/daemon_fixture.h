// End-to-end fixtures: the real daemon started in the foreground on a
// temporary instance (one per test, or one shared by a suite), raw clients of
// its pipes, the jobs it runs, and programs run to their end under a deadline.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kd_test_support.h"

namespace kdtest {

/// Full path of a built program of the project ("kd_qm_main", "kd_qm").
std::string BinaryPath(const std::string& program);

/// A process started by fork and exec, its standard input /dev/null and its
/// output going to files; the destructor kills (its group too) and reaps it.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Starts argv[0] (a path) with the arguments; own_group: it leads a process group.
  bool Start(const std::vector<std::string>& argv, const std::string& out_file, const std::string& err_file,
             bool own_group = true);
  pid_t pid() const { return pid_; }
  /// True until the process has ended (it is reaped then).
  bool Running();
  /// Waits for the end; true when it ended (and was reaped) in time.
  bool WaitExit(std::chrono::milliseconds deadline);
  /// Exit code, or -1 when it was ended by a signal or has not ended.
  int exit_code() const { return exit_code_; }
  /// The signal that ended it, or 0.
  int term_signal() const { return term_signal_; }
  void Signal(int sig) const;
  /// Signals the process group the child leads (and the child itself).
  void SignalGroup(int sig) const;

 private:
  bool Reap(int options);
  pid_t pid_ = -1;
  bool reaped_ = true;
  bool own_group_ = false;
  int exit_code_ = -1;
  int term_signal_ = 0;
};

/// A program run to its end.
struct ProcessResult {
  bool finished = false;  ///< ended before the deadline (else it was killed)
  int exit_code = -1;     ///< -1 when ended by a signal
  std::string out;        ///< standard output
  std::string err;        ///< standard error
};

/// What a client read from its answer pipe.
struct RawAnswer {
  bool complete = false;  ///< the writer closed the pipe before the deadline
  std::string text;       ///< everything read, status digit first
};

/// A client of the daemon without the client library: the answer pipe
/// "<qm_dir>com/from_qm_pipe<id>" and request lines written as raw bytes.
/// The id stands where a client puts its pid; it need not be a process.
class RawClient {
 public:
  RawClient(std::string qm_dir, long id);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  long id() const { return id_; }
  std::string answer_pipe() const;
  /// Creates the answer FIFO (mode 0770); an existing one is kept.
  bool CreatePipe();
  /// Opens the read end (non-blocking) so that the daemon's writer finds a reader.
  bool OpenForAnswer();
  void CloseAnswer();
  /// Writes the bytes into the request pipe with one write (fails when nobody reads it).
  bool Send(const std::string& bytes) const;
  /// Sends "<mode> <id>[ <args>]\n" with the answer pipe made and open, without reading.
  bool Request(int mode, const std::string& args = "");
  /// Reads until the writer has closed the pipe or the deadline passed.
  RawAnswer ReadAnswer(std::chrono::milliseconds deadline);
  /// Whether anything (data or a writer's close) has arrived on the open read end.
  bool AnythingArrived();
  /// Sends "<line>\n" with the answer pipe open and reads the answer.
  RawAnswer AskLine(const std::string& line, std::chrono::milliseconds deadline = std::chrono::seconds(10));
  /// Sends "<mode> <id>[ <args>]\n" and reads the answer.
  RawAnswer Ask(int mode, const std::string& args = "",
                std::chrono::milliseconds deadline = std::chrono::seconds(10));

 private:
  std::string qm_dir_;
  long id_;
  int fd_ = -1;
};

/// Process ids of the children of pid (only zombies when zombies_only).
std::vector<pid_t> ChildrenOf(pid_t pid, bool zombies_only);
/// The process has ended and was reaped.
bool Gone(long pid);
/// No process is left in the group (an unreaped leader counts as gone).
bool GroupGone(long pgid);

/// "0STATUS=SUCCESS MSG=<msg>\n".
std::string Ok(const std::string& msg);
/// The warning for a queue that does not exist.
std::string NoQueue(const std::string& name);
/// The answers to process_signal and to a queue_init that makes a queue.
extern const std::string kProcessed, kInitialised;
/// Times of this century as "T"; the all-zero times and the far start time "2099-01-01 00:00:00" stay.
std::string MaskTimes(std::string text);

/// A daemon kd_qm_main and the temporary instance it runs on.
struct DaemonRun {
  TestInstance instance;
  std::unique_ptr<ChildProcess> process;  ///< null until started
};

/// The daemon kd_qm_main -d on a temporary instance of its own for each test.
/// SetUp writes debug.ini with TraceLevel() and bin/job.sh, starts the daemon
/// (its output in daemon.out and daemon.err of the instance root) and waits
/// until it answers. TearDown ends every job of the test, stops the daemon
/// (shutdown request, SIGTERM, SIGKILL, each under a deadline), kills every
/// group it left and fails the test on a sanitizer report of the daemon.
///
/// bin/job.sh: $1 is the job's directory (made if missing). Each run appends
/// its words as one line to "args", sets its SIGINT handling, writes its pid
/// into "job.pid" (whole, by rename) and waits for a file "go" there or in the
/// test's directory above (TearDown writes that one); then it exits with the
/// line of "codes" numbered as the run (0 without one). SIGINT is noted as a
/// line "INT" in "sig" and then ends the run by that signal; when a file
/// "stay" exists the run lives on instead, and leaves a child that ignores SIGINT.
class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Trace level of KD_QM_MAIN: 1 as in service; suites that read flow lines ask for 2 or 3.
  virtual int TraceLevel() const { return 1; }
  /// Whether SetUp starts the daemon (start-up tests start it themselves).
  virtual bool StartInSetUp() const { return true; }

  TestInstance& instance() { return run_->instance; }
  /// The instance's gv_rw_qm directory, ending in "/".
  std::string QmDir() const { return run_->instance.qm(); }
  std::string RequestPipe() const { return QmDir() + "com/to_qm_pipe"; }
  ChildProcess& daemon() { return *run_->process; }
  pid_t daemon_pid() const { return run_->process ? run_->process->pid() : -1; }

  /// Starts kd_qm_main with the arguments (output to daemon.out / daemon.err).
  bool StartDaemon(const std::vector<std::string>& args = {"-d"});
  /// The request pipe exists and a process_signal request is answered.
  bool WaitReady(std::chrono::milliseconds deadline = std::chrono::seconds(15));
  std::string DaemonErr() const { return ReadFile(run_->instance.root() + "/daemon.err"); }
  /// The daemon's trace (its log files in name order) since this test began; whole_run: since its start.
  std::string TraceLog(bool whole_run = false) const;
  /// Waits until the trace since this test began contains text.
  bool WaitForTrace(const std::string& text, std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;
  /// The daemon's children in its own process group (jobs lead their own), unreaped ones unless live_only.
  std::vector<pid_t> AnswerWriters(bool live_only = false) const;
  /// Waits until the daemon has no zombie child.
  bool WaitNoZombies(std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;
  /// The exit-log lines beginning with prefix; time stamps cut, times masked, pids as "PID:n".
  std::vector<std::string> ExitLog(const std::string& prefix = "") const;
  /// Waits until the exit log holds every one of the lines.
  bool Logged(const std::vector<std::string>& lines) const;

  /// An id for a raw client that no other client of this process uses.
  static long NextClientId();
  /// One request through a fresh raw client.
  RawAnswer Ask(int mode, const std::string& args = "",
                std::chrono::milliseconds deadline = std::chrono::seconds(10));
  /// A raw client with a fresh id (for lines built by the test).
  std::unique_ptr<RawClient> NewClient() const;
  /// Runs a built program ("kd_qm") with the arguments to its end, killing it at the deadline.
  ProcessResult Run(const std::string& program, const std::vector<std::string>& args,
                    std::chrono::milliseconds deadline = std::chrono::seconds(30));

  /// The directory of a job of this test: <root>/jobs/<test name>/<job>.
  std::string Dir(const std::string& job) const;
  /// Submits "<queue> [<options>] -j <job> job.sh <Dir(job)>"; the answer.
  std::string Submit(const std::string& queue, const std::string& job, const std::string& options = "");
  /// The entry number of a submit's success answer; fails the test on any other answer.
  static std::string Entry(const std::string& answer);
  /// Writes files (name, content) into the job's directory.
  void Prepare(const std::string& job, const std::vector<std::pair<std::string, std::string>>& files) const;
  /// Lets the job's runs end.
  void Release(const std::string& job) const { Prepare(job, {{"go", ""}}); }
  /// The pid of the job's latest run, once it has written it; 0 after 10 s without.
  long Pid(const std::string& job) const;
  bool Started(const std::string& job) const { return Pid(job) > 0; }
  /// No run of the job has started so far (no waiting).
  bool NotStarted(const std::string& job) const { return !Exists(Dir(job) + "/job.pid"); }
  /// Waits (driving the daemon) until the job's latest run has ended and was reaped.
  bool Ended(const std::string& job);
  /// The job's "args": one line per run.
  std::string Args(const std::string& job) const { return ReadFile(Dir(job) + "/args"); }
  /// "pending=<n>\tholding=<n>\tjob_limit: <limit>" of the queue's status view.
  std::string Counts(const std::string& queue);
  /// Waits for the condition, ringing the daemon's alarm every 250 ms for a whole pass, time limits included.
  bool Driven(const std::function<bool()>& condition, std::chrono::milliseconds deadline = std::chrono::seconds(20));

  /// Makes run this test's daemon: a new instance if run is empty or its daemon has ended (started if start).
  void Attach(std::unique_ptr<DaemonRun>& run, bool start);
  /// Stops the daemon, kills every group it left, fails the test on a sanitizer report of the daemon.
  static void Finish(DaemonRun& run);

 private:
  std::unique_ptr<DaemonRun> own_;
  DaemonRun* run_ = nullptr;
  std::size_t trace_from_ = 0;
};

/// DaemonTest with one daemon for every test of the suite, at the trace level
/// given: started by the first test (again by the next, should one end it) and
/// finished after the last. Tests name their queues and jobs apart and take
/// entry numbers from the answers.
template <int kTraceLevel = 1>
class SharedDaemonTest : public DaemonTest {
 protected:
  static void TearDownTestSuite() {
    if (shared_) Finish(*shared_);
    shared_.reset();
  }
  void SetUp() override { Attach(shared_, true); }
  int TraceLevel() const override { return kTraceLevel; }

 private:
  static inline std::unique_ptr<DaemonRun> shared_;
};

}  // namespace kdtest
