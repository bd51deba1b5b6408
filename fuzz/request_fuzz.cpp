// Fuzz target: request lines as the daemon reads them from its request pipe,
// split by SplitRequest and executed by the table of request handlers, each
// input on a daemon of its own (the queues, jobs, counters and global
// resources of one input are removed before the next).
//
// No pipe is touched: every request's peer is not valid, so nothing is
// answered. No process is made: fork fails at once here, so a job's start
// fails (a path of its own) and a listing is not written; the retries after
// a failed fork do not sleep. A kill that would reach every process, our own
// group or init is a finding, never a signal.
#include <signal.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "cm_common.h"
#include "cm_trace.h"
#include "daemon/dispatch.h"
#include "daemon/request_reader.h"
#include "daemon/startup.h"
#include "fuzz_instance.h"
#include "jobs/admin_queue.h"
#include "jobs/removal.h"
#include "jobs/tasks.h"
#include "model/elements.h"
#include "model/entry_pool.h"
#include "model/job.h"
#include "model/list.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "protocol/request.h"

extern "C" pid_t fork() {
  errno = EAGAIN;
  return -1;
}

extern "C" unsigned int sleep(unsigned int) { return 0; }

extern "C" int kill(pid_t pid, int) {
  if (pid == 0 || pid == -1 || pid == 1) __builtin_trap();
  errno = ESRCH;
  return -1;
}

namespace {

constexpr int32_t kEntryPoolCount = 0x40000;

void DestroyJobs(List* list) {
  while (Node* n = RemHead(list)) DestroyJobChain(ElementOf<Job>(n));
}

/// Back to a freshly started daemon: only the admin triple, empty lists,
/// a full entry pool, no task, no option.
void ResetDaemon() {
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    DestroyJobs(&triple->HoldingQue);
    DestroyJobs(&triple->PendingQue);
    if (triple->TerminatingQueue != nullptr) DestroyJobs(&triple->TerminatingQueue->ListOfJobs);
    for (Queue* queue : Elements<Queue>(triple->ExecQueues)) DestroyJobs(&queue->ListOfJobs);
    if (triple != gAdminQueue) RemoveQueTriple(&Root, triple);
  }
  if (gAdminQueue != nullptr && Root.Head == nullptr) LinkQueTriple(gAdminQueue);  // unlinked by a shutdown
  RemoveList(&gCounters);
  RemoveList(&gGlobalResources);
  DestroyJobs(&gJobStack);
  // Every task finds its job gone: the first walk expires it, the second frees it.
  process_qm_tasks();
  process_qm_tasks();
  QmEntry_destroy();
  QmEntry_init(kEntryPoolCount);
  eQMOptions = 0;
  iContext = 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string& root = kdfuzz::MakeInstance();
  CopyCut(gszQmDir, root + "/qm/");
  CopyCut(gszBinDir, root + "/bin/");
  CopyCut(qmd_to_qm, root + "/qm/com/to_qm_pipe");
  CopyCut(qmd_from_qm, root + "/qm/com/from_qm_pipe0");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &gQmLog);
  QmEntry_init(kEntryPoolCount);
  InitRootLists();
  if (InitQMAdminQueue() != 0) __builtin_trap();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  for (std::size_t at = 0; at < input.size();) {
    std::size_t end = input.find('\n', at);
    if (end == std::string_view::npos) end = input.size();
    // As the daemon reads it: at most kMaxReadLine characters, a NUL ends the text.
    const std::string line(input.substr(at, std::min(end - at, kMaxReadLine)));
    at = end + 1;
    const char* text = line.c_str();
    const std::size_t length = std::strlen(text);
    if (length < 2) continue;
    Query q{};
    SplitRequest(text, &q);
    q.peer.valid = false;
    if (length >= static_cast<std::size_t>(kMaxQueryLength)) continue;  // refused before execution
    if (DispatchQuery(&q) == 2) break;                                  // the daemon would exit here
  }
  ResetDaemon();
  return 0;
}
