#include "client/kd_qm_front.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "client/qm_lib.h"
#include "cm_kernel.h"
#include "cm_trace.h"

namespace {

constexpr const char* kSubmitArgs =
    "QUEUE[/ALLOCATE[/RESOURCE]] [-T START] [-W LATEST_START] [-E END] [-p PRIO[/STEP]] [-j NAME] "
    "[-K KILL_PROGRAM] [-S HARD[/SOFT]] [-e EXIT_CODE] [-R CODE[:BURST[:INTERVAL]],...] "
    "[-G NAME=VALUE,...] [-u restricted] EXECUTABLE [ARGS...] [-- FOLLOW-UP JOB]";

constexpr const char* kJobArgs = "JOB_NAME|ENTRY|PID [SEQ] | NAME_PATTERN | QUEUE/ [csv] | all [csv]";

str_log gKdQmLog;
bool gTooFewWords = false;
bool gUsageWanted = false;

void on_error(const char* text) {
  if (text == nullptr || text[0] == '\0') {
    gTooFewWords = true;
    return;
  }
  std::fprintf(stderr, "kd_qm: %s\n", text);
}

void on_usage() { gUsageWanted = true; }

void print_short_usage() {
  std::fprintf(stderr, "usage: kd_qm [-h] [-v level] COMMAND [ARGS...]   (kd_qm -h lists the commands)\n");
}

/// Decimal digits of a non-negative number into buf; the length. Signal-safe.
int format_uint(char* buf, unsigned value) {
  char tmp[16];
  int n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0 && n < static_cast<int>(sizeof tmp));
  for (int i = 0; i < n; ++i) buf[i] = tmp[n - 1 - i];
  return n;
}

}  // namespace

const std::array<KdQmCommand, 27> kKdQmCommands{{
    {"init", queue_init,
     "QUEUE[/RESOURCE[/RESOURCE...]] [-p PRIO=SLOTS] [JOB_LIMIT] [-p PRIO=SLOTS] [COUNTER]",
     "create a queue or a resource queue, or change job limits (default limit 1)"},
    {"block", queue_block, "QUEUE[/RESOURCE]", "block a queue or one of its resource queues"},
    {"delete", queue_delete, "QUEUE[/RESOURCE] [-e EXIT_CODE]",
     "delete a queue (its waiting jobs end with EXIT_CODE) or one resource queue"},
    {"set", queue_set,
     "QUEUE[/RESOURCE] allocation MODE [ALLOCATE] | QUEUE balancing MODE [DECISION] | "
     "QUEUE[/RESOURCE] weight WEIGHT | option follow_up [VALUE]",
     "set allocation, balancing or weight of a queue, or the daemon's follow_up option"},
    {"start", queue_start, "QUEUE[/RESOURCE]", "start a queue or one of its resource queues"},
    {"stop", queue_stop, "QUEUE[/RESOURCE]", "stop a queue or one of its resource queues"},
    {"submit", queue_submit, kSubmitArgs, "submit a job; the answer is its entry number"},
    {"submit_sync", queue_submit_sync, kSubmitArgs, "submit a job and wait until it starts (up to 12 hours)"},
    {"submit_lazy", queue_submit_lazy, kSubmitArgs,
     "submit a job whose resource is a wish, not a requirement"},
    {"submit_sync_lazy", queue_submit_sync_lazy, kSubmitArgs,
     "submit_sync with a resource wish instead of a requirement"},
    {"submit_proc_only", queue_submit_proc_only, kSubmitArgs,
     "submit a job that is stopped through its own process only"},
    {"del_entry", queue_del_entry,
     "ENTRY [TIMEOUT] [-K KILL_PROGRAM|none] [-e EXIT_CODE] [-o not_executing]",
     "delete a job; a running one is stopped and gets TIMEOUT seconds (default 5)"},
    {"sig_entry", queue_signal_entry, "ENTRY SIGNAL (-2, -3, -4 or -5)",
     "interrupt a job: SIGINT to a running one, the signal's exit code to a waiting one"},
    {"move_entry", queue_move_entry, "ENTRY QUEUE[/RESOURCE]", "move a job to another queue or resource"},
    {"sho", queue_sho, "QUEUE|PATTERN|all[/RESOURCE]", "show queues and their jobs"},
    {"sho/name", queue_sho_name, "QUEUE|PATTERN|all[/RESOURCE]", "show the names of queues"},
    {"sho/status", queue_sho_status, "[QUEUE|PATTERN|all[/RESOURCE]]", "show the state of queues"},
    {"sho/full", queue_sho_full, "QUEUE|PATTERN|all[/RESOURCE]", "show queues with every detail"},
    {"shocsv", queue_sho_csv, "[QUEUE|PATTERN|all]", "show queues as comma-separated values"},
    {"job_del", job_del, "JOB_NAME|ENTRY|PID [SEQ]",
     "delete one job (as del_entry ENTRY); SEQ picks the SEQ-th match, from 0"},
    {"job_sho", job_sho, kJobArgs, "show jobs as the queue view does, or the jobs of queues as state lines"},
    {"job_sho/name", job_sho_name, kJobArgs, "show jobs with their names"},
    {"job_sho/full", job_sho_full, kJobArgs, "show jobs with every detail"},
    {"job_set", job_set, "ENTRY [-T START] [-W LATEST_START] [-E END] [-p PRIO]",
     "change a waiting job's times and priority (times not given are cleared)"},
    {"glores", show_global_resources, "", "show the global resources and their use"},
    {"shutdown", shut_down, "[-e EXIT_CODE]",
     "stop the daemon; waiting jobs end with EXIT_CODE (default 0)"},
    {"process_signal", process_signal, "", "run a scheduling pass now"},
}};
static_assert(kKdQmCommands.size() == process_signal + 1);

const KdQmCommand* kd_qm_command(int mode) {
  for (const auto& c : kKdQmCommands)
    if (c.mode == mode) return &c;
  return nullptr;
}

void kd_qm_print_help(FILE* out) {
  std::fprintf(out,
               "usage: kd_qm [-h] [-v level] COMMAND [ARGS...]\n"
               "Sends one request to the queue manager daemon kd_qm_main and prints its answer.\n"
               "  -h        this list\n"
               "  -v level  trace level of kd_qm's trace log\n"
               "Exit code: the answer's return code (0 ok, 1 warning, 2 error); 3 when the daemon\n"
               "cannot be reached or does not answer in time; 4 for a wrong command line.\n"
               "The configuration is found through the environment variable KD_INI.\n"
               "\n"
               "commands:\n");
  for (const auto& c : kKdQmCommands) {
    std::fprintf(out, "  %-17s %s\n", c.word, c.what);
    if (c.arguments[0] != '\0') std::fprintf(out, "  %-17s   %s %s\n", "", c.word, c.arguments);
  }
}

std::string kd_qm_join_arguments(int count, char* const words[], int first) {
  std::string text;
  for (int i = first; i < count; ++i) {
    const char* w = words[i] != nullptr ? words[i] : "";
    if (i > first) text += ' ';
    if (w[0] == '\0') {
      text += "\"\"";
    } else if (std::strpbrk(w, " \t") != nullptr && w[0] != '"') {
      text += '"';
      text += w;
      text += '"';
    } else {
      text += w;
    }
  }
  return text;
}

void kd_qm_alarm_handler(int) {
  char msg[128];
  int n = 0;
  auto put = [&](const char* s) {
    while (*s != '\0' && n < static_cast<int>(sizeof msg)) msg[n++] = *s++;
  };
  put("kd_qm: no answer from kd_qm_main within ");
  n += format_uint(msg + n, giTimeout > 0 ? static_cast<unsigned>(giTimeout) : 0U);
  put(" seconds\n");
  ssize_t ignored = ::write(STDERR_FILENO, msg, static_cast<std::size_t>(n));
  (void)ignored;
  if (from_qm[0] != '\0') ::unlink(from_qm);
  _exit(KD_QM_EXIT_UNREACHABLE);
}

int kd_qm_front(int argc, char** argv) {
  // A trace log only where the configuration names a log directory: without
  // one the runtime would complain on standard error before kd_qm could.
  char lgc[1024] = {};
  char err[1024] = {};
  if (i_READ_INI("KD_INI", "Pathes", "gv_rw_lgc", lgc, sizeof lgc, err, sizeof err) == 1 && lgc[0] != '\0')
    v_set_log_main("kd_qm.lgc", "KD_QM", &gKdQmLog);
  gTooFewWords = false;
  gUsageWanted = false;

  // General options in front of the command word; qm_lib_check_args takes
  // those behind it.
  int i = 1;
  for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
    const char* opt = argv[i];
    if (std::strcmp(opt, "--") == 0) {
      ++i;
      break;
    }
    if (std::strcmp(opt, "-h") == 0 || std::strcmp(opt, "-?") == 0) {
      kd_qm_print_help(stdout);
      return 0;
    }
    if (std::strncmp(opt, "-v", 2) == 0) {
      const char* value = opt[2] != '\0' ? opt + 2 : (i + 1 < argc ? argv[++i] : nullptr);
      if (value == nullptr) {
        std::fprintf(stderr, "kd_qm: option -v needs a level\n");
        print_short_usage();
        return KD_QM_EXIT_USAGE;
      }
      v_set_log(std::atoi(value), gKdQmLog.iVerbose, &gKdQmLog);
      continue;
    }
    std::fprintf(stderr, "kd_qm: unknown option %s\n", opt);
    print_short_usage();
    return KD_QM_EXIT_USAGE;
  }
  if (i >= argc) {
    std::fprintf(stderr, "kd_qm: no command given\n");
    print_short_usage();
    return KD_QM_EXIT_USAGE;
  }

  std::vector<char*> words;
  words.push_back(argv[0]);
  for (int k = i; k < argc; ++k) words.push_back(argv[k]);
  words.push_back(nullptr);
  int count = static_cast<int>(words.size()) - 1;
  char** vec = words.data();

  gERROR = on_error;
  gUSAGE = on_usage;
  const char* command_word = argv[i];
  const int mode = qm_lib_check_args(&count, &vec, gKdQmLog.iLogLevel);
  const KdQmCommand* command = kd_qm_command(mode);
  if (command == nullptr) {
    std::fprintf(stderr, "kd_qm: unknown command '%s'\n", command_word);
    print_short_usage();
    return KD_QM_EXIT_USAGE;
  }
  if (gUsageWanted) {
    kd_qm_print_help(stdout);
    return 0;
  }
  if (gTooFewWords) {
    std::fprintf(stderr, "kd_qm: too few arguments for %s; usage: kd_qm %s %s\n", command_word, command->word,
                 command->arguments);
  }

  if (qm_lib_init(on_error, on_usage, gKdQmLog.iLogLevel) != 0) {
    std::fprintf(stderr,
                 "kd_qm: gv_rw_qm is not defined in section [Pathes] of the configuration "
                 "(KD_INI=%s)\n",
                 std::getenv("KD_INI") != nullptr ? std::getenv("KD_INI") : "");
    return KD_QM_EXIT_UNREACHABLE;
  }

  const std::string arguments = kd_qm_join_arguments(count, vec, 1);
  if (qm_lib_send_cmd(mode, arguments.c_str(), kd_qm_alarm_handler, gKdQmLog.iLogLevel) != 0) {
    std::fprintf(stderr, "kd_qm: kd_qm_main cannot be reached through %s; is the daemon running?\n", to_qm);
    qm_lib_close_answer(gKdQmLog.iLogLevel);
    return KD_QM_EXIT_UNREACHABLE;
  }

  // The same handler bounds the reading of the answer.
  alarm(static_cast<unsigned>(qm_lib_get_cmd_timeout()));
  const int code = qm_lib_get_answer(gKdQmLog.iLogLevel);
  alarm(0);
  qm_lib_close_answer(gKdQmLog.iLogLevel);
  if (code < 0) {
    std::fprintf(stderr, "kd_qm: kd_qm_main closed the answer without a return code\n");
    return KD_QM_EXIT_UNREACHABLE;
  }
  return code;
}
