// Command codes of the front end and the client library: a request line into
// the daemon's request pipe, the answer out of an own answer pipe.
#include "client/qm_lib.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cm_common.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "strlib.h"

char to_qm[1024] = {};
char from_qm[1024] = {};
int iFdFromQm = -1;
int giTimeout = 60;
int giReturnCode = -9;
int giFetchReturnCode = 1;
int giPipeSeenEOF = 0;
int iSleepAdd = 15;
QmErrorFn gERROR = nullptr;
QmUsageFn gUSAGE = nullptr;

namespace {

constexpr int kDefaultTimeout = 60;
constexpr int kSyncSubmitTimeout = 43200;  // a synchronous submit waits for the job's end
constexpr int kOpenTries = 20000;
constexpr long kOpenPauseNs = 100L * 1000;
constexpr int kWriteRetries = 3;

void report_error(const char* text) {
  if (gERROR != nullptr) gERROR(text);
}

void report_usage() {
  if (gUSAGE != nullptr) gUSAGE();
}

bool contains(const char* text, const char* part) { return std::strstr(text, part) != nullptr; }

std::string_view trim_blanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\n')) s.remove_suffix(1);
  return s;
}

std::vector<std::string> split_words(std::string_view s) {
  std::vector<std::string> words;
  std::size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
    const std::size_t start = i;
    while (i < s.size() && s[i] != ' ' && s[i] != '\t') ++i;
    if (i > start) words.emplace_back(s.substr(start, i - start));
  }
  return words;
}

/// The mode a command word stands for, by the keyword rules in their order.
int command_mode(const char* w) {
  if (contains(w, "init")) return queue_init;
  if (contains(w, "block")) return queue_block;
  if (contains(w, "delete")) return queue_delete;
  if (contains(w, "set") && !contains(w, "job_set")) return queue_set;
  if (contains(w, "start")) return queue_start;
  if (contains(w, "stop")) return queue_stop;

  if (contains(w, "job")) {
    if (contains(w, "sho") && contains(w, "/na")) return job_sho_name;
    if (contains(w, "sho") && contains(w, "/fu")) return job_sho_full;
    if (contains(w, "sho")) return job_sho;
    if (contains(w, "set")) return job_set;
    if (contains(w, "del")) return job_del;
  }

  if (contains(w, "shocsv")) return queue_sho_csv;
  if (contains(w, "sho") && contains(w, "/na")) return queue_sho_name;
  if (contains(w, "sho") && contains(w, "/st")) return queue_sho_status;
  if (contains(w, "sho") && contains(w, "/fu")) return queue_sho_full;
  if (contains(w, "glores")) return show_global_resources;
  if (contains(w, "sho")) return queue_sho;

  if (contains(w, "submit_sync_lazy")) return queue_submit_sync_lazy;
  if (contains(w, "submit_lazy")) return queue_submit_lazy;
  if (contains(w, "submit_sync")) return queue_submit_sync;
  if (contains(w, "submit_proc")) return queue_submit_proc_only;
  if (contains(w, "submit")) return queue_submit;

  if (contains(w, "del") && contains(w, "entr")) return queue_del_entry;

  if (contains(w, "sig_entry") || contains(w, "sigen")) return queue_signal_entry;
  if (contains(w, "move_entry") || contains(w, "moven")) return queue_move_entry;

  if (std::strcmp(w, "shutdown") == 0) return shut_down;
  // Only four characters of "process" are compared, so "procedure" is a process signal too.
  if (std::strncmp(w, "process", 4) == 0) return process_signal;
  if (std::strcmp(w, "signal") == 0) return process_signal;
  return invalid_mode;
}

/// Fewest words (command word included) a mode needs; 0 for none.
int minimum_words(int mode, const char* argument) {
  switch (mode) {
    case queue_init: return 3;
    case queue_block:
    case queue_delete:
    case queue_start:
    case queue_stop: return 2;
    case queue_set: return argument != nullptr && contains(argument, "option") ? 3 : 4;
    case queue_submit:
    case queue_submit_sync:
    case queue_submit_lazy:
    case queue_submit_sync_lazy:
    case queue_submit_proc_only: return 7;
    case queue_del_entry:
    case queue_signal_entry:
    case queue_move_entry:
    case queue_sho:
    case queue_sho_name:
    case queue_sho_full:
    case job_del:
    case job_sho:
    case job_sho_name:
    case job_sho_full:
    case job_set: return 2;
    default: return 0;
  }
}

/// The "QueMgr: " trace line of a recognised mode.
const char* mode_trace_text(int mode) {
  switch (mode) {
    case queue_init: return "QueMgr: QUE_INIT";
    case queue_block: return "QueMgr: queue_block";
    case queue_delete: return "QueMgr: queue_delete";
    case queue_set: return "QueMgr: queue_set";
    case queue_start: return "QueMgr:  queue_start";
    case queue_stop: return "QueMgr:  queue_stop";
    case queue_submit: return "QueMgr: queue_submit";
    case queue_submit_sync: return "QueMgr: queue_submit_sync";
    case queue_submit_lazy: return "QueMgr: queue_submit_lazy";
    case queue_submit_sync_lazy: return "QueMgr: queue_submit_sync_lazy";
    case queue_submit_proc_only: return "QueMgr: queue_proc_only";
    case queue_del_entry: return "QueMgr: queue_del_entry";
    case queue_signal_entry: return "QueMgr: queue_signal_entry";
    case queue_move_entry: return "QueMgr: queue_move_entry";
    case queue_sho: return "QueMgr: queue_sho";
    case queue_sho_name: return "QueMgr: queue_sho_name";
    case queue_sho_status: return "QueMgr: queue_sho_status";
    case queue_sho_full: return "QueMgr: queue_sho_full";
    case queue_sho_csv: return "QueMgr: queue_sho_csv";
    case job_del: return "QueMgr: job_del";
    case job_sho: return "QueMgr: job_sho";
    case job_sho_name: return "QueMgr: job_sho_name";
    case job_sho_full: return "QueMgr: job_sho_full";
    case job_set: return "QueMgr: job_set";
    case show_global_resources: return "QueMgr: show_global_resources";
    case shut_down: return "QueMgr: shutdown";
    case process_signal: return "QueMgr: process_signal";
    default: return nullptr;
  }
}

/// Sleeps until start + n pauses, so that n tries take n pauses in all
/// whatever the timer's granularity.
void pause_until(const timespec& start, int n) {
  long long ns = static_cast<long long>(start.tv_nsec) + static_cast<long long>(n) * kOpenPauseNs;
  timespec until{};
  until.tv_sec = start.tv_sec + static_cast<time_t>(ns / 1000000000LL);
  until.tv_nsec = static_cast<long>(ns % 1000000000LL);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

/// Waits up to seconds for data (or the writer's close) on fd: 1 ready,
/// 0 timed out, -1 failed with errno kept. poll, not select: any descriptor
/// number is fine.
int wait_readable(int fd, int seconds) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd p{fd, POLLIN, 0};
  const long long ms = static_cast<long long>(seconds) * 1000;
  return poll(&p, 1, ms > 2147483647LL ? -1 : static_cast<int>(ms));
}

ssize_t read_retry(int fd, void* buf, std::size_t n) {
  ssize_t r;
  do {
    r = ::read(fd, buf, n);
  } while (r < 0 && errno == EINTR);
  return r;
}

void write_stdout(const char* data, std::size_t n) {
  std::fwrite(data, 1, n, stdout);
  std::fflush(stdout);
}

}  // namespace

// ---------------------------------------------------------------------------
// Command codes
// ---------------------------------------------------------------------------

int iGET_COMMAND_CODE(const char* command, const char* argument, int words, int* mode_out) {
  const char* word = command != nullptr ? command : "";
  const int mode = command_mode(word);

  if (words < minimum_words(mode, argument)) report_error("");

  if (const char* text = mode_trace_text(mode)) {
    trace("%l2 %s", text);
    if (mode == queue_set) trace("%l2 QueMgr: queue_set [%s]", argument != nullptr ? argument : "");
  }
  if (mode > process_signal) report_usage();

  trace("%l2 GET_COMMAND_MODE return [%d] [%s]", mode, cmd_mode_name(mode));
  if (mode_out != nullptr) *mode_out = mode;
  return mode;
}

int qm_lib_check_args(int* argc, char*** argv, int trace_level) {
  (void)trace_level;
  std::string line;
  for (int i = 0; i < *argc; ++i) {
    if (i > 0) line += ' ';
    line += (*argv)[i] != nullptr ? (*argv)[i] : "";
  }
  trace("%l2 +++ ARGUMENTS  %s", line.c_str());

  char* command = *argc > 1 ? (*argv)[1] : nullptr;
  int count = *argc > 0 ? *argc - 1 : 0;
  char** words = *argv + (*argc > 0 ? 1 : 0);

  if (count > 1 && words[1] != nullptr && words[1][0] == '-') {
    mygetopt_reset();
    int c;
    while ((c = mygetopt(count, words, "hv:e:")) != -1) {
      trace("%l3 got switch %c optarg %s", c, myoptarg != nullptr ? myoptarg : "");
      switch (c) {
        case 'h':
          report_usage();
          break;
        case 'v': {
          const int level = myoptarg != nullptr ? std::atoi(myoptarg) : 0;
          str_log* rec = pstrFirstLog != nullptr ? pstrFirstLog : &strLocalLog;
          v_set_log(level, rec->iVerbose, rec);
          break;
        }
        default:
          // "-e" is accepted with its value and otherwise ignored.
          trace("%l0 wrong option %c in command line", c == '?' ? myoptopt : c);
          break;
      }
    }
    if (myoptind < count) trace("%l3 check arg [%d]: %s", myoptind, words[myoptind]);
    const int first = myoptind;
    count = count + 1 - first;
    words += first - 1;
    // The caller still finds the command word in front of its arguments.
    words[0] = command;
  }
  if (count <= 0) report_usage();

  std::string args;
  for (int i = 1; i < count; ++i) {
    if (i > 1) args += ' ';
    args += words[i] != nullptr ? words[i] : "";
  }
  trace("%l3 function arguments [%s]", args.c_str());

  int mode = invalid_mode;
  if (count > 0) iGET_COMMAND_CODE(command, count > 1 ? words[1] : nullptr, count, &mode);
  trace("%l2 --- iARGUMENTS return %d", mode);

  *argc = count;
  *argv = words;
  return mode;
}

// ---------------------------------------------------------------------------
// Client library
// ---------------------------------------------------------------------------

void qm_lib_set_pipe_names(const char* qm_dir) {
  std::string dir = qm_dir != nullptr ? qm_dir : "";
  if (dir.empty() || dir.back() != '/') dir += '/';
  std::snprintf(to_qm, sizeof to_qm, "%scom%sto_qm_pipe", dir.c_str(), "/");
  std::snprintf(from_qm, sizeof from_qm, "%scom%sfrom_qm_pipe%d", dir.c_str(), "/",
                static_cast<int>(getpid()));
}

int qm_lib_init(QmErrorFn error, QmUsageFn usage, int trace_level) {
  (void)trace_level;
  iFdFromQm = -1;
  gERROR = error;
  gUSAGE = usage;
  giTimeout = kDefaultTimeout;

  char qm_dir[1024] = {};
  char err[1024] = {};
  if (i_READ_INI("KD_INI", "Pathes", "gv_rw_qm", qm_dir, sizeof qm_dir, err, sizeof err) == 0 ||
      qm_dir[0] == '\0') {
    trace("%l1 gv_rw_qm not yet defined - restart KELDA");
    return 1;
  }
  qm_lib_set_pipe_names(qm_dir);

  // Only a name that does not exist is "removed" here; an existing answer
  // pipe is replaced by qm_lib_send_cmd.
  if (access(from_qm, F_OK) != 0) {
    trace("%l3 Removing old from_qm pipe %s", from_qm);
    if (unlink(from_qm) != 0) trace("%l3 removal of %s failed. errno = %d", from_qm, errno);
  }
  return 0;
}

FILE* fileopen(const char* path, const char* mode, bool non_blocking, int* fd) {
  int flags = mode[0] == 'w' ? O_WRONLY : O_RDONLY;
  if (non_blocking) flags |= O_NONBLOCK;
  trace("%l3 open file [%s] mode '%s' (0x%x)", path, mode, flags);
  *fd = -1;

  timespec start{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  int err = 0;
  for (int retry = 1; retry <= kOpenTries; ++retry) {
    const int f = ::open(path, flags);
    if (f >= 0) {
      *fd = f;
      break;
    }
    err = errno;
    if (err == ENOENT) {
      trace("%l3 errno ENOENT (%d): %s", err, std::strerror(err));
      break;
    }
    if (err == EACCES) {
      trace("%l3 errno EACCES (%d): %s", err, std::strerror(err));
      break;
    }
    if (retry == 1 || retry % 1000 == 0)
      trace("%l4 fileopen errno %d: %s (retry %d/%d)", err, std::strerror(err), retry, kOpenTries);
    if (retry < kOpenTries) pause_until(start, retry);
  }

  if (*fd < 0) {
    trace("%l1 Pipe %s can't be opened (%d): %s", path, err, std::strerror(err));
    report_error("no answer from kd_qm_main (open pipe failed)");
    errno = err;
    return nullptr;
  }
  FILE* stream = fdopen(*fd, mode);
  if (stream == nullptr) {
    err = errno;
    trace("%l1 fdopen for file [%s] failed (%d): %s", path, err, std::strerror(err));
    report_error("fdopen for file failed");
    ::close(*fd);
    *fd = -1;
    errno = err;
  }
  return stream;
}

int qm_lib_send_cmd(int mode, const char* arguments, void (*alarm_handler)(int), int trace_level) {
  (void)trace_level;
  const std::string_view args = trim_blanks(arguments != nullptr ? arguments : "");
  const std::string args_text(args);
  trace("%l2 +++ qm_lib_send_cmd [%d] [%s]", mode, args_text.c_str());
  giFetchReturnCode = 1;
  giReturnCode = -9;
  giPipeSeenEOF = 0;
  if (iFdFromQm >= 0) {
    // The answer of an earlier request was never closed.
    ::close(iFdFromQm);
    iFdFromQm = -1;
  }

  giTimeout = kDefaultTimeout;
  if (mode == queue_submit_sync || mode == queue_submit_sync_lazy) {
    giTimeout = kSyncSubmitTimeout;
    trace("%l3 qm_lib_send_cmd: got timeout %d", giTimeout);
  }

  sigset_t pipe_set;
  sigset_t old_mask;
  sigemptyset(&pipe_set);
  sigaddset(&pipe_set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_set, &old_mask);

  if (alarm_handler != nullptr) {
    struct sigaction sa {};
    sa.sa_handler = alarm_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no restart: the alarm must break the wait for the writer
    if (sigaction(SIGALRM, &sa, nullptr) != 0)
      trace("%l1 ERROR: not able to install signal handler for SIGALRM");
  }
  trace("%l3 Set alarm timeout to: %ld", static_cast<long>(giTimeout));
  alarm(static_cast<unsigned>(giTimeout));

  if (unlink(from_qm) != 0 && errno != ENOENT)
    trace("%l1 qm_lib_send_cmd: remove from_qm %s failed errno = %d", from_qm, errno);
  const mode_t old_umask = umask(0);
  trace("%l3 SEND_TO_QM: mkfifo %s", from_qm);
  if (mkfifo(from_qm, 0770) != 0 && errno != EEXIST)
    trace("%l1 ERROR: qm_lib_send_cmd: mkfifo returned errno %d: %s", errno, std::strerror(errno));
  umask(old_umask);
  // The read end is opened before the request goes out, so the daemon's
  // writer never finds the pipe without a reader (it would wait 100 ms
  // before trying again); waiting for the writer happens after the write.
  UniqueFd answer_end(::open(from_qm, O_RDONLY | O_NONBLOCK | O_CLOEXEC));

  trace("%l3 to_qm: %s; pid: %d", to_qm, static_cast<int>(getpid()));
  trace("%l3 Command Mode: %d - %s", mode, cmd_mode_name(mode));
  int to_fd = -1;
  FILE* to_stream = fileopen(to_qm, "w", true, &to_fd);
  if (to_stream == nullptr) {
    trace("%l1 ERROR: qm_lib_send_cmd: Failed to open to_qm %s", to_qm);
    // Nobody will ever write into the answer pipe of a request never sent.
    unlink(from_qm);
    alarm(0);
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    trace("%l2 --- qm_lib_send_cmd %d", -1);
    return -1;
  }

  // One line of at most PIPE_BUF bytes, so that one write is atomic.
  char line[4096];
  int len = std::snprintf(line, sizeof line - 1, "%d %d %s", mode, static_cast<int>(getpid()),
                          args_text.c_str());
  if (len < 0) len = 0;
  if (len > static_cast<int>(sizeof line) - 2) len = static_cast<int>(sizeof line) - 2;

  if (mode == queue_del_entry) {
    const std::vector<std::string> words = split_words(args);
    if (words.size() > 1 && words[1][0] != '-') {
      trace("%l3 qm_lib_send_cmd: got timeout %s", words[1].c_str());
      giTimeout = std::abs(std::atoi(words[1].c_str())) + 15;
      trace("%l3 qm_lib_send_cmd: set timeout %d", giTimeout);
    } else {
      trace("%l3 qm_lib_send_cmd: Default timeout %d", giTimeout);
    }
    trace("%l3 Reset alarm timeout to: %ld", static_cast<long>(giTimeout));
    alarm(static_cast<unsigned>(giTimeout));
  } else if (mode == queue_submit_sync) {
    giTimeout = kSyncSubmitTimeout;
    trace("%l3 qm_lib_send_cmd: Using timeout of %d", giTimeout);
  }

  trace("%l3 Command: [%s]", line);
  line[len++] = '\n';
  line[len] = '\0';

  int result = 0;
  int retries = kWriteRetries;
  for (;;) {
    const ssize_t n = ::write(to_fd, line, static_cast<std::size_t>(len));
    if (n == len) break;
    const int err = n < 0 ? errno : EIO;
    trace("%l1 qm_lib_send_cmd write failed (%d)", err);
    if (err == EPIPE) {
      std::fclose(to_stream);
      to_stream = fileopen(to_qm, "w", true, &to_fd);
      if (to_stream == nullptr) {
        trace("%l1 ERROR: Failed to open to_qm %s (after EPIPE)", to_qm);
        result = -1;
        break;
      }
      sleep(1);
    } else if (err == EAGAIN) {
      // The request pipe is full: give the daemon a moment to read.
      pollfd p{to_fd, POLLOUT, 0};
      poll(&p, 1, 1000);
    } else if (err != EINTR) {
      sleep(1);
    }
    if (--retries < 0) {
      trace("%l1 ERROR: Cannot send command to qm_main - out of retries ");
      result = -1;
      break;
    }
  }

  if (result == 0) {
    trace("%l3 open pipe from_qm [%s]", from_qm);
    if (answer_end) {
      // Until the daemon's writer has written or closed; a Linux FIFO reports
      // no hang-up before a writer has come at all.
      pollfd p{answer_end.get(), POLLIN, 0};
      const int r = poll(&p, 1, -1);
      if (r > 0) {
        fcntl(answer_end.get(), F_SETFL, fcntl(answer_end.get(), F_GETFL) & ~O_NONBLOCK);
        iFdFromQm = answer_end.release();
      }
    } else {
      iFdFromQm = ::open(from_qm, O_RDONLY);
    }
    if (iFdFromQm < 0) {
      const int err = errno;
      char text[1400];
      std::snprintf(text, sizeof text, "ERROR: cannot open pipe from_qm [%s] (%d): %s", from_qm, err,
                    std::strerror(err));
      std::fprintf(stderr, "%s\n", text);
      report_error(text);
      result = -1;
    }
  }

  if (result != 0 && iFdFromQm < 0) unlink(from_qm);

  // A broken pipe while the signal was blocked must not strike after the restore.
  const timespec zero{};
  while (sigtimedwait(&pipe_set, nullptr, &zero) == SIGPIPE) {
  }
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
  trace("%l3 close pipe to_qm");
  if (to_stream != nullptr) std::fclose(to_stream);
  alarm(0);
  trace("%l2 --- qm_lib_send_cmd %d", result);
  return result;
}

int qm_lib_get_answer(int trace_level) { return qm_lib_get_answer_unix(trace_level); }

int qm_lib_get_answer_unix(int trace_level) {
  (void)trace_level;
  if (iFdFromQm < 0) {
    trace("%l1 Read failed");
    giReturnCode = -1;
    return -1;
  }
  int ret = wait_readable(iFdFromQm, giTimeout);
  if (ret <= 0) trace("%l1 timeout on select. No data available errno = %d  ret = %d", errno, ret);

  int code = -1;
  unsigned char digit = 0;
  if (read_retry(iFdFromQm, &digit, 1) != 1) {
    trace("%l1 Read failed");
  } else {
    switch (digit) {
      case '0':
        trace("%l3 got Ok");
        code = 0;
        break;
      case '1':
        trace("%l3 got Warning");
        code = 1;
        break;
      case '2':
        trace("%l3 got Error");
        code = 2;
        break;
      default:
        trace("%l1 got unknown exit state: %d", static_cast<int>(digit));
        std::printf("STATUS=ERROR MSG=got unknown exit state: %d\n", static_cast<int>(digit));
        std::fflush(stdout);
        code = 2;
        break;
    }
  }
  giFetchReturnCode = 0;

  char buf[4096];
  char last = '\n';
  int eof_seen = 0;
  while (eof_seen < 2) {
    ret = wait_readable(iFdFromQm, giTimeout);
    if (ret < 0 && errno == EINTR) continue;
    if (ret <= 0) {
      trace("%l1 data not ready");
      break;
    }
    const ssize_t n = read_retry(iFdFromQm, buf, sizeof buf);
    if (n <= 0) {
      ++eof_seen;
      continue;
    }
    write_stdout(buf, static_cast<std::size_t>(n));
    last = buf[n - 1];
  }
  if (last != '\n') write_stdout("\n", 1);

  giReturnCode = code;
  return code;
}

int qm_lib_get_answer_buff(char* buffer, int size, int trace_level) {
  (void)trace_level;
  if (size <= 1) {
    trace("%l1 --- qm_lib_get_answer_buff: ERROR: Invalid size %d <= 1!", size);
    return -1;
  }
  if (iFdFromQm < 0) {
    for (int count = 1; count <= iSleepAdd + 2 && iFdFromQm < 0; ++count) {
      if (count == 1 || count == 11) trace("%l3 fopen %s (count: %d)", from_qm, count);
      iFdFromQm = ::open(from_qm, O_RDONLY);
    }
    if (iFdFromQm < 0) {
      trace("%l1 --- qm_lib_get_answer_buff: ERROR: Could not open pipe from_qm [%s] (%d): %s", from_qm,
            errno, std::strerror(errno));
      return -1;
    }
  }

  auto wait_data = [&]() -> int {
    for (;;) {
      const int r = wait_readable(iFdFromQm, giTimeout);
      if (r > 0) return 0;
      if (r < 0 && errno == EINTR) {
        trace("%l3 qm_lib_get_answer_buff - received EINTR during select - processed elsewhere - ignore");
        continue;
      }
      trace("%l1 qm_lib_get_answer_buff: no data within %d seconds (%d)", giTimeout, r < 0 ? errno : 0);
      return -1;
    }
  };
  if (wait_data() != 0) return -1;

  if (giFetchReturnCode == 1) {
    unsigned char digit = 0;
    const ssize_t n = read_retry(iFdFromQm, &digit, 1);
    const int code = n == 1 ? digit - '0' : -1;
    if (n != 1 || code < 0 || code > 2) {
      trace("%l1 qm_lib_get_answer_buff: ERROR: Unexpected return code [%d]", code);
      return -1;
    }
    if (code == 0)
      trace("%l3 qm_lib_get_answer_buff: Got return code [%d] (ok)", code);
    else
      trace("%l3 qm_lib_get_answer_buff: Got return code [%d]", code);
    giReturnCode = code;
    giFetchReturnCode = 0;
    if (wait_data() != 0) return -1;
  }

  std::memset(buffer, 0, static_cast<std::size_t>(size));
  ssize_t n = read_retry(iFdFromQm, buffer, static_cast<std::size_t>(size - 1));
  if (n == 0 && giPipeSeenEOF == 0) {
    giPipeSeenEOF = 1;
    n = read_retry(iFdFromQm, buffer, static_cast<std::size_t>(size - 1));
  }
  if (n < 0) return -1;
  return static_cast<int>(n);
}

int qm_lib_close_answer(int trace_level) {
  (void)trace_level;
  if (iFdFromQm > 0) {
    ::close(iFdFromQm);
    trace("%l3 qm_lib_close_answer: remove [%s]", from_qm);
    if (unlink(from_qm) != 0) trace("%l1 removal of %s failed. errno = %d", from_qm, errno);
    iFdFromQm = -1;
  }
  signal(SIGPIPE, SIG_DFL);
  return giReturnCode;
}

int qm_lib_get_cmd_timeout() { return giTimeout; }
