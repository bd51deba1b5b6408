#include "daemon/dispatch.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cm_common.h"
#include "cm_split.h"
#include "cm_trace.h"
#include "daemon/shutdown.h"
#include "daemon/startup.h"
#include "jobs/tasks.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "requests/entry_requests.h"
#include "requests/job_requests.h"
#include "requests/queue_requests.h"
#include "requests/submit.h"
#include "sched/pass.h"

char gszClientPid[32] = {};

namespace {

/// The text behind the n-th blank of line, or "" when there are fewer blanks.
const char* after_blanks(const char* line, int n) {
  for (const char* p = line; *p; ++p)
    if (*p == ' ' && --n == 0) return p + 1;
  return "";
}

bool is_submit_mode(int mode) {
  return mode == queue_submit || mode == queue_submit_sync || mode == queue_submit_proc_only;
}

/// Copies src into dst, every blank-quote-"--"-quote-blank replaced by " -- ".
void copy_unquoting_end_of_options(char (&dst)[2048], const char* src) {
  constexpr std::string_view kQuoted = " \"--\" ";
  std::size_t out = 0;
  const std::string_view text(src);
  for (std::size_t i = 0; i < text.size() && out + 1 < sizeof dst;) {
    if (text.compare(i, kQuoted.size(), kQuoted) == 0 && out + 3 < sizeof dst) {
      // The closing blank stays in the input: it may open the next marker.
      std::memcpy(dst + out, " --", 3);
      out += 3;
      i += kQuoted.size() - 1;
    } else {
      dst[out++] = text[i++];
    }
  }
  dst[out] = '\0';
}

// ---------------------------------------------------------------------------
// Request handlers of the daemon itself
// ---------------------------------------------------------------------------

int request_invalid_mode(Query* q) {
  answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=request with invalid mode [%d]\n", static_cast<int>(q->function));
  return 1;
}

int request_shut_down(Query* q) {
  trace("%l1 shutdown is requested");
  que_shutdown(q);
  return 2;
}

int request_process_signal(Query* q) {
  v_set_log_main(kQmLogName, kQmModule, &gQmLog);
  trace("%l3 process signal");
  ProcessAllQueTriples();
  process_qm_tasks();
  if (q->peer.PID != 0)
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG='process executing and pending jobs' done\n");
  return 0;
}

int request_queue_delete(Query* q) { return process_que_delete(q, gszResource); }
int request_submit(Query* q) { return process_que_submit(q, gszAllocate, gszResource); }

using RequestHandler = int (*)(Query*);

/// The request handlers, indexed by mode.
constexpr std::array<RequestHandler, invalid_mode + 1> kRequestHandlers{
    process_que_init,               // queue_init
    process_que_block,              // queue_block
    request_queue_delete,           // queue_delete
    process_que_set,                // queue_set
    process_que_start,              // queue_start
    process_que_stop,               // queue_stop
    request_submit,                 // queue_submit
    request_submit,                 // queue_submit_sync
    request_submit,                 // queue_submit_lazy (arrives as queue_submit)
    request_submit,                 // queue_submit_sync_lazy (arrives as queue_submit_sync)
    request_submit,                 // queue_submit_proc_only
    process_que_del_entry,          // queue_del_entry
    process_queue_signal_entry,     // queue_signal_entry
    process_que_move_entry,         // queue_move_entry
    process_que_sho,                // queue_sho
    process_que_sho,                // queue_sho_name
    process_que_sho,                // queue_sho_status
    process_que_sho,                // queue_sho_full
    process_que_sho,                // queue_sho_csv
    process_job_request,            // job_del
    process_job_request,            // job_sho
    process_job_request,            // job_sho_name
    process_job_request,            // job_sho_full
    process_job_set,                // job_set
    process_show_global_resources,  // show_global_resources
    request_shut_down,              // shut_down
    request_process_signal,         // process_signal
    request_invalid_mode,           // qma_free_queue_resource_limit: refused
    request_invalid_mode,           // invalid_mode
};
static_assert(kRequestHandlers.size() == invalid_mode + 1);

}  // namespace

bool ParseDecimal(const char* text, long long* value) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text, &end, 10);
  if (end == text || *end != '\0' || errno == ERANGE) return false;
  *value = v;
  return true;
}

void SplitRequest(const char* line, Query* q) {
  char copy[2048];
  CopyCut(copy, line);
  gszResource[0] = '\0';
  gszAllocate[0] = '\0';

  const char* field1 = cm_strtok(copy, ' ');
  const char* field2 = field1 != nullptr ? cm_strtok(nullptr, ' ') : nullptr;
  const char* field3 = field2 != nullptr ? cm_strtok(nullptr, ' ') : nullptr;

  long long value = 0;
  int mode = invalid_mode;
  if (ParseDecimal(field1, &value) && value >= INT_MIN && value <= INT_MAX)
    mode = static_cast<int>(value);
  else
    trace("%l1 WARNING: no function read");

  if (mode == queue_init || (mode >= queue_del_entry && mode <= job_sho_full) ||
      (mode >= show_global_resources && mode <= invalid_mode)) {
    CopyCut(q->szCmdArgs, after_blanks(line, 2));
  } else if ((mode >= queue_submit && mode <= queue_submit_proc_only) || mode == job_set) {
    copy_unquoting_end_of_options(q->szCmdArgs, after_blanks(line, 3));
  } else {
    q->szCmdArgs[0] = '\0';
  }

  long long pid = 0;
  CopyCut(gszClientPid, field2 != nullptr ? field2 : "");
  if (!ParseDecimal(field2, &pid)) {
    trace("%l1 WARNING: no pid read");
    mode = invalid_mode;
    pid = 0;
  }
  q->peer.PID = pid;

  const char* rest = after_blanks(line, 2);
  if ((mode >= queue_sho && mode <= job_sho_full) || mode == process_signal)
    trace("%l2 EXEC_REQUEST: pid %ld: %s %s", static_cast<long>(pid), cmd_mode_name(mode), rest);
  else
    trace("%l1 EXEC_REQUEST: pid %ld: %s %s", static_cast<long>(pid), cmd_mode_name(mode), rest);

  if (mode == queue_submit_lazy) {
    mode = queue_submit;
    q->bLazy = true;
  } else if (mode == queue_submit_sync_lazy) {
    mode = queue_submit_sync;
    q->bLazy = true;
  }
  q->function = static_cast<cmd_mode>(mode);

  if (field3 == nullptr) {
    trace("%l3 WARNING: no argument read");
    q->que_name[0] = '\0';
  } else if (std::strcmp(field3, "\"\"") == 0) {
    q->que_name[0] = '\0';
  } else {
    CopyCut(q->que_name, field3);
  }
  trace("%l3 que_name or entry_number: %s", q->que_name);

  if (char* slash = std::strchr(q->que_name, '/'); slash != nullptr) {
    *slash = '\0';
    const char* behind = slash + 1;
    if (is_submit_mode(mode)) {
      if (const char* second = std::strchr(behind, '/'); second != nullptr) {
        CopyCut(gszAllocate, std::string_view(behind, static_cast<std::size_t>(second - behind)));
        CopyCut(gszResource, second + 1);
      } else {
        CopyCut(gszAllocate, behind);
        trace("%l3 No resource given");
      }
      trace("%l3 got allocate: %s", gszAllocate);
    } else {
      CopyCut(gszResource, behind);
    }
  } else if (is_submit_mode(mode)) {
    trace("%l3 No resource given");
  }

  q->peer.valid = true;
}

int iEXEC_REQUEST(const char* line) {
  Query q{};
  SplitRequest(line, &q);
  if (std::strlen(line) >= static_cast<std::size_t>(kMaxQueryLength)) {
    trace("%l1 ERROR: query too large(max length %d)", kMaxQueryLength);
    answer(&q.peer, KD_ERROR, "ERROR: query too long. Max length %d", kMaxQueryLength);
    return 1;
  }
  return DispatchQuery(&q);
}

namespace {

/// Requests that cannot put a job into a queue or set a resource queue
/// running: after them, triples found at rest by the last pass still are.
/// (queue_init creates idle queues and changes limits, shares and servers.)
constexpr bool LeavesTriplesAtRest(int mode) {
  switch (mode) {
    case queue_init:
    case queue_sho:
    case queue_sho_name:
    case queue_sho_status:
    case queue_sho_full:
    case queue_sho_csv:
    case job_sho:
    case job_sho_name:
    case job_sho_full:
    case show_global_resources:
    case process_signal: return true;
    default: return false;
  }
}

}  // namespace

int DispatchQuery(Query* q) {
  const int mode = q->function;
  if (!LeavesTriplesAtRest(mode)) UnsettleQueTriples();
  const int result = mode >= 0 && mode <= invalid_mode ? kRequestHandlers[static_cast<std::size_t>(mode)](q)
                                                       : request_invalid_mode(q);
  if (result != 0) trace("%l2 EXEC_REQUEST returns %d", result);
  return result;
}
