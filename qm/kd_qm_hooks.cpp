#include "kd_qm_hooks.h"

#include "cm_common.h"
#include "cm_trace.h"
#include "qm_common.h"

void qm_hook_QmEntry_init(int) {}
void qm_hook_InitRootLists() {}
int qm_hook_InitQMAdminQueue() { return 0; }
void qm_hook_CheckUnregisteredGlobalResources() {}
void qm_hook_ProcessQMAdminQueue() {}
void qm_hook_ProcessAllQueTriples() {}
void qm_hook_process_qm_tasks() {}
void qm_hook_SetKdQmExitLog(const char*) {}
void qm_hook_SetPendingStateExitCodes(const char*) {}
int qm_hook_QueTripleCount() { return 0; }
void qm_hook_ShutdownListQueues(Query*) {}
void qm_hook_WriteQueueView(FILE*, QueueTriple*, char) {}

int answer_not_supported(Query* q) {
  trace("%l1 request %s not yet supported", cmd_mode_name(q->function));
  answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=request %s not yet supported\n",
         cmd_mode_name(q->function));
  return 1;
}

int qm_request_queue_admin(Query* q) { return answer_not_supported(q); }
int qm_request_submit(Query* q) { return answer_not_supported(q); }
int qm_request_entry(Query* q) { return answer_not_supported(q); }
int qm_request_queue_show(Query* q) { return answer_not_supported(q); }
int qm_request_job(Query* q) { return answer_not_supported(q); }
int qm_request_global_resources(Query* q) { return answer_not_supported(q); }
