// Requests against the real daemon: the round trip through the client
// library, eight clients at once, kd_qm as a whole process, and what the
// idle daemon costs. One daemon on a temporary instance serves them all; it
// is stopped with everything it started at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_percentiles.h"
#include "client/qm_lib.h"
#include "daemon_fixture.h"
#include "kd_test_support.h"
#include "protocol/request.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

void ignore_alarm(int) {}

/// One process_signal request with the own pid, answer read piecewise.
/// The return digit, or -1.
int RoundTrip() {
  if (qm_lib_send_cmd(process_signal, "", ignore_alarm, 0) != 0) return -1;
  char buf[512];
  int n;
  while ((n = qm_lib_get_answer_buff(buf, sizeof buf, 0)) > 0) {
  }
  const int code = qm_lib_close_answer(0);
  return n < 0 ? -1 : code;
}

/// The daemon kd_qm_main -d on a temporary instance, as the end-to-end
/// fixture starts it.
class BenchDaemon {
 public:
  BenchDaemon() {
    const std::string out = inst_.root() + "/daemon.out";
    const std::string err = inst_.root() + "/daemon.err";
    if (!proc_.Start({kdtest::BinaryPath("kd_qm_main"), "-d"}, out, err, true)) return;
    const std::string pipe = inst_.qm() + "com/to_qm_pipe";
    if (!kdtest::WaitFor([&] { return kdtest::Exists(pipe) || !proc_.Running(); }, 15s)) return;
    if (!proc_.Running() || qm_lib_init(nullptr, nullptr, 0) != 0) return;
    ready_ = kdtest::WaitFor([] { return RoundTrip() == 0; }, 10s);
  }
  ~BenchDaemon() {
    if (proc_.Running()) {
      if (qm_lib_send_cmd(shut_down, "", ignore_alarm, 0) == 0) {
        char buf[512];
        while (qm_lib_get_answer_buff(buf, sizeof buf, 0) > 0) {
        }
      }
      qm_lib_close_answer(0);
      if (!proc_.WaitExit(5s)) {
        proc_.Signal(SIGTERM);
        proc_.WaitExit(5s);
      }
    }
    // Answer writers still alive are in the daemon's process group.
    proc_.SignalGroup(SIGKILL);
  }
  bool ready() const { return ready_; }
  pid_t pid() const { return proc_.pid(); }

 private:
  kdtest::TestInstance inst_;
  kdtest::ChildProcess proc_;
  bool ready_ = false;
};

std::unique_ptr<BenchDaemon> gDaemon;

/// Resident memory of a process in KiB (VmRSS), or -1.
long RssKib(pid_t pid) {
  const std::string status = kdtest::ReadFile("/proc/" + std::to_string(pid) + "/status");
  const std::size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + 6, nullptr, 10);
}

/// User plus system CPU time of a process in clock ticks, or -1.
long CpuTicks(pid_t pid) {
  const std::string stat = kdtest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  // Fields behind the command name: state is field 3; utime and stime are 14 and 15.
  const char* p = stat.c_str() + close + 2;
  long fields[13] = {};
  for (long& f : fields) {
    while (*p == ' ') ++p;
    f = std::strtol(p, const_cast<char**>(&p), 10);
    if (*p == '\0') return -1;
    while (*p != ' ' && *p != '\0') ++p;
  }
  return fields[11] + fields[12];
}

void BM_RoundTrip(benchmark::State& state) {
  if (!gDaemon || !gDaemon->ready()) {
    state.SkipWithError("daemon not running");
    return;
  }
  std::vector<double> us;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    const int code = RoundTrip();
    const auto t1 = Clock::now();
    if (code != 0) {
      state.SkipWithError("request not answered Ok");
      break;
    }
    const double s = std::chrono::duration<double>(t1 - t0).count();
    state.SetIterationTime(s);
    us.push_back(s * 1e6);
  }
  ReportPercentiles(state, us);
}
BENCHMARK(BM_RoundTrip)->UseManualTime()->Iterations(2000)->Unit(benchmark::kMicrosecond);

void BM_EightClients(benchmark::State& state) {
  if (!gDaemon || !gDaemon->ready()) {
    state.SkipWithError("daemon not running");
    return;
  }
  constexpr int kClients = 8;
  constexpr int kPerClient = 250;
  double answered = 0;
  for (auto _ : state) {
    std::vector<pid_t> kids;
    for (int i = 0; i < kClients; ++i) {
      const pid_t pid = fork();
      if (pid == 0) {
        // A client of its own: the answer pipe is named after this pid.
        int ok = 0;
        if (qm_lib_init(nullptr, nullptr, 0) == 0)
          for (int j = 0; j < kPerClient; ++j) ok += RoundTrip() == 0 ? 1 : 0;
        _exit(ok == kPerClient ? 0 : 1);
      }
      if (pid > 0) kids.push_back(pid);
    }
    int failed = kClients - static_cast<int>(kids.size());
    for (const pid_t pid : kids) {
      int status = 0;
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
    }
    if (failed != 0) {
      state.SkipWithError("a client had a request not answered Ok");
      break;
    }
    answered += kClients * kPerClient;
  }
  state.counters["answered_per_s"] = benchmark::Counter(answered, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_EightClients)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_KdQmProcess(benchmark::State& state) {
  if (!gDaemon || !gDaemon->ready()) {
    state.SkipWithError("daemon not running");
    return;
  }
  const std::string program = kdtest::BinaryPath("kd_qm");
  std::string arg0 = program;
  std::string arg1 = "process_signal";
  char* argv[] = {arg0.data(), arg1.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<double> us;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, environ) == 0) {
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
    }
    const auto t1 = Clock::now();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("kd_qm did not exit with 0");
      break;
    }
    const double s = std::chrono::duration<double>(t1 - t0).count();
    state.SetIterationTime(s);
    us.push_back(s * 1e6);
  }
  posix_spawn_file_actions_destroy(&actions);
  ReportPercentiles(state, us);
}
BENCHMARK(BM_KdQmProcess)->UseManualTime()->Iterations(500)->Unit(benchmark::kMicrosecond);

void BM_IdleDaemon(benchmark::State& state) {
  if (!gDaemon || !gDaemon->ready()) {
    state.SkipWithError("daemon not running");
    return;
  }
  const long hz = sysconf(_SC_CLK_TCK);
  constexpr auto kIdle = 4s;
  for (auto _ : state) {
    const long before = CpuTicks(gDaemon->pid());
    std::this_thread::sleep_for(kIdle);  // the measurement itself: the daemon left alone
    const long after = CpuTicks(gDaemon->pid());
    state.counters["idle_cpu_ms"] =
        static_cast<double>(after - before) * 1000.0 / static_cast<double>(hz);
  }
  state.counters["idle_seconds"] = std::chrono::duration<double>(kIdle).count();
  state.counters["rss_kib"] = static_cast<double>(RssKib(gDaemon->pid()));
}
BENCHMARK(BM_IdleDaemon)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  gDaemon = std::make_unique<BenchDaemon>();
  if (gDaemon->ready())
    std::fprintf(stderr, "kd_qm_main pid %d, resident after start: %ld KiB\n", static_cast<int>(gDaemon->pid()),
                 RssKib(gDaemon->pid()));
  else
    std::fprintf(stderr, "kd_qm_main did not start; the benchmarks are skipped\n");
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  gDaemon.reset();
  return 0;
}
