// End-to-end fixtures: the real daemon started in the foreground on a
// temporary instance, raw clients of its pipes, and processes run to their
// end under a deadline.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "kd_test_support.h"

namespace kdtest {

/// Full path of a built program of the project ("kd_qm_main", "kd_qm").
std::string BinaryPath(const std::string& program);

/// A process started by fork and exec, its standard output and error going
/// to files. The destructor kills (SIGKILL, the whole group when it leads
/// one) and reaps it if it still runs.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Starts argv[0] (a path) with the arguments; in_file (or /dev/null) is
  /// its standard input. own_group: the child leads a process group of its own.
  bool Start(const std::vector<std::string>& argv, const std::string& out_file, const std::string& err_file,
             bool own_group = true, const std::string& in_file = "/dev/null");
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
  int term_signal = 0;
  std::string out;        ///< standard output
  std::string err;        ///< standard error
};

/// Runs argv (argv[0] a path) to its end, killing it at the deadline.
ProcessResult RunProgram(const std::vector<std::string>& argv, std::chrono::milliseconds deadline,
                         const std::string& stdin_text = "");

/// Writes bytes to a FIFO with one write, opened non-blocking (fails when
/// nobody reads it). True when everything was written.
bool WriteToPipe(const std::string& fifo, const std::string& bytes);

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
  std::string request_pipe() const;
  /// Creates the answer FIFO (mode 0770); an existing one is kept.
  bool CreatePipe();
  /// Opens the read end (non-blocking) so that the daemon's writer finds a reader.
  bool OpenForAnswer();
  void CloseAnswer();
  /// Writes the bytes into the request pipe as they are (one write).
  bool Send(const std::string& bytes) const;
  /// Reads until the writer has closed the pipe or the deadline passed.
  RawAnswer ReadAnswer(std::chrono::milliseconds deadline);
  /// Whether anything (data or a writer's close) has arrived on the open read end.
  bool AnythingArrived();
  /// Sends "<line>\n" with the answer pipe open and reads the answer.
  RawAnswer AskLine(const std::string& line, std::chrono::milliseconds deadline = std::chrono::seconds(10));
  /// Sends "<mode> <id> <args>\n" and reads the answer.
  RawAnswer Ask(int mode, const std::string& args = "",
                std::chrono::milliseconds deadline = std::chrono::seconds(10));

 private:
  std::string qm_dir_;
  long id_;
  int fd_ = -1;
  bool writer_seen_ = false;
};

/// Process ids of the children of pid (only zombies when zombies_only).
std::vector<pid_t> ChildrenOf(pid_t pid, bool zombies_only);

/// The daemon kd_qm_main -d on a temporary instance. SetUp writes debug.ini
/// with TraceLevel(), starts the daemon with its output in files of the
/// instance root and waits until it answers. TearDown stops it (shutdown
/// request, SIGTERM, SIGKILL, each under a deadline), kills the process
/// group of every job whose script wrote "job.pid" below the instance,
/// and fails the test when the daemon's standard error holds a sanitizer
/// report.
class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Trace level of KD_QM_MAIN written into debug.ini before the start: 1,
  /// as a daemon in service runs; suites that read flow lines ask for 2 or 3.
  virtual int TraceLevel() const { return 1; }
  /// Whether SetUp starts the daemon (start-up tests start it themselves).
  virtual bool StartInSetUp() const { return true; }

  TestInstance& instance() { return *instance_; }
  /// The instance's gv_rw_qm directory, ending in "/".
  std::string QmDir() const;
  std::string RequestPipe() const;
  ChildProcess& daemon() { return *daemon_; }
  pid_t daemon_pid() const { return daemon_ ? daemon_->pid() : -1; }

  /// Starts kd_qm_main with the arguments (output to daemon.out / daemon.err).
  bool StartDaemon(const std::vector<std::string>& args = {"-d"});
  /// The request pipe exists and a process_signal request is answered.
  bool WaitReady(std::chrono::milliseconds deadline = std::chrono::seconds(15));
  /// Stops the daemon: shutdown request, then SIGTERM, then SIGKILL. Returns
  /// its exit code, or -signal when a signal ended it.
  int StopDaemon();

  std::string DaemonOut() const;
  std::string DaemonErr() const;
  /// Every trace log file of the daemon, in name order, concatenated.
  std::string TraceLog() const;
  /// Waits until the trace log contains text.
  bool WaitForTrace(const std::string& text, std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;
  /// Waits until the daemon has no zombie child.
  bool WaitNoZombies(std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;

  /// An id for a raw client that no other client of this process uses.
  static long NextClientId();
  /// One request through a fresh raw client.
  RawAnswer Ask(int mode, const std::string& args = "",
                std::chrono::milliseconds deadline = std::chrono::seconds(10));
  /// A raw client with a fresh id (for lines built by the test).
  std::unique_ptr<RawClient> NewClient() const;

  /// Runs a built program ("kd_qm") with the arguments to its end.
  ProcessResult Run(const std::string& program, const std::vector<std::string>& args,
                    std::chrono::milliseconds deadline = std::chrono::seconds(30));

  /// Fails the test when text holds a sanitizer report.
  static void ExpectNoSanitizerReport(const std::string& text, const std::string& what);

 private:
  void KillJobGroups();
  std::unique_ptr<TestInstance> instance_;
  std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace kdtest
