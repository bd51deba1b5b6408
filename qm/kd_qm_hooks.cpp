#include "kd_qm_hooks.h"

#include <unistd.h>

#include <string>

#include "cm_common.h"
#include "cm_trace.h"
#include "kd_hal_qm.h"
#include "kd_qm_daemon.h"
#include "kd_qm_job_requests.h"
#include "kd_qm_queue_requests.h"
#include "kd_qm_sched.h"
#include "kd_qm_submit.h"
#include "qm_admin.h"
#include "qm_common.h"
#include "qm_entry.h"
#include "qm_entry_requests.h"
#include "qm_globalresource.h"
#include "qm_job.h"
#include "qm_task_processor.h"
#include "queue.h"

void qm_hook_QmEntry_init(int count) { QmEntry_init(count); }
void qm_hook_InitRootLists() { InitRootLists(); }
int qm_hook_InitQMAdminQueue() { return InitQMAdminQueue(); }
void qm_hook_CheckUnregisteredGlobalResources() { CheckUnregisteredGlobalResources(); }
void qm_hook_ProcessQMAdminQueue() { ProcessQMAdminQueue(); }
void qm_hook_ProcessAllQueTriples() { ProcessAllQueTriples(); }
void qm_hook_UnsettleQueTriples() { UnsettleQueTriples(); }
void qm_hook_process_qm_tasks() { process_qm_tasks(); }
void qm_hook_SetKdQmExitLog(const char* day_stamp) { SetKdQmExitLog(day_stamp); }

void qm_hook_SetPendingStateExitCodes(const char* exit_code) {
  // SetPendingStateExitCode takes the text as its walk argument.
  std::string code = exit_code != nullptr ? exit_code : "0";
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    if (triple == gAdminQueue) {
      WalkList(&triple->TerminatingQueue->ListOfJobs, SetPendingStateExitCode, code.data(), nullptr);
    } else {
      WalkList(&triple->HoldingQue, SetPendingStateExitCode, code.data(), nullptr);
      WalkList(&triple->PendingQue, SetPendingStateExitCode, code.data(), nullptr);
    }
  }
}

int qm_hook_QueTripleCount() { return CountList(&Root); }

void qm_hook_ShutdownListQueues(Query* q) {
  // Every triple, whatever the request's own field 3 holds (it may be "-e").
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) answer_wildcard(&q->peer, KD_SUCCESS, nullptr, triple, 's');
}

void qm_hook_WriteQueueView(FILE* out, QueueTriple* triple, char selector) {
  HPEER peer;
  peer.valid = true;
  peer.fOut = out;
  peer.fd = out != nullptr ? fileno(out) : -1;
  switch (selector) {
    case 'F':
    case 'N':
      // The job listings hand a job through the triple argument.
      PrintJob(ElementOf<Job>(NodeOf(triple)), selector == 'F' ? "full" : "name", out);
      break;
    case 'c': ViewQueCSV(triple, &peer); break;
    case 'f': ViewQueFull(triple, out); break;
    case 'n': ViewQueNames(triple, out); break;
    case 't': ViewQueStatus(triple, out); break;
    case 's':
      ViewQue(triple, out);
      trace("%l2 [%d] removing queue %s", static_cast<int>(getpid()), triple->name.c_str());
      if (triple == gAdminQueue) {
        // Unlinked but kept: the triples removed after it still hand their
        // waiting jobs to its terminating queue.
        UnlinkQueTriple(triple);
      } else {
        RemoveQueTriple(&Root, triple);
      }
      break;
    default: ViewQue(triple, out); break;
  }
}

int answer_not_supported(Query* q) {
  trace("%l1 request %s not yet supported", cmd_mode_name(q->function));
  answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=request %s not yet supported\n", cmd_mode_name(q->function));
  return 1;
}

int qm_request_queue_admin(Query* q) {
  switch (q->function) {
    case queue_init: return process_que_init(q);
    case queue_block: return process_que_block(q);
    case queue_delete: return process_que_delete(q, gszResource);
    case queue_set: return process_que_set(q);
    case queue_start: return process_que_start(q);
    case queue_stop: return process_que_stop(q);
    default: return answer_not_supported(q);
  }
}

int qm_request_submit(Query* q) { return process_que_submit(q, gszAllocate, gszResource); }
int qm_request_entry(Query* q) {
  switch (q->function) {
    case queue_del_entry: return process_que_del_entry(q);
    case queue_signal_entry: return process_queue_signal_entry(q);
    case queue_move_entry: return process_que_move_entry(q);
    default: return answer_not_supported(q);
  }
}
int qm_request_queue_show(Query* q) { return process_que_sho(q); }
int qm_request_job(Query* q) { return q->function == job_set ? process_job_set(q) : process_job_request(q); }
int qm_request_global_resources(Query* q) { return process_show_global_resources(q); }
