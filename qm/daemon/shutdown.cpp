#include "daemon/shutdown.h"

#include <unistd.h>

#include <array>
#include <string>

#include "cm_common.h"
#include "cm_semaphore.h"
#include "cm_trace.h"
#include "daemon/startup.h"
#include "jobs/admin_queue.h"
#include "jobs/restart.h"
#include "model/list.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "strlib.h"
#include "views/listing.h"

namespace {

/// Records the exit code text on every waiting job: the holding and pending
/// jobs of each triple, the terminating jobs of the admin queue.
void SetPendingStateExitCodes(const char* exit_code) {
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

}  // namespace

void que_shutdown(Query* q) {
  trace("+++ que_shutdown");
  trace("%l2 Remove to qm pipe");
  unlink(qmd_to_qm);

  // The arguments are read like the command line "que_del_entry -e <code>".
  char words[2048];
  CopyCut(words, q->szCmdArgs);
  std::array<char*, 1026> argv{};
  char prog[] = "que_del_entry";
  int argc = 0;
  argv[argc++] = prog;
  for (char* p = words; *p && argc < static_cast<int>(argv.size()) - 1;) {
    while (*p == ' ') *p++ = '\0';
    if (*p == '\0') break;
    argv[argc++] = p;
    while (*p && *p != ' ') ++p;
  }
  char exit_code[32] = "0";
  mygetopt_reset();
  for (int c; (c = mygetopt(argc, argv.data(), "e:")) != -1;)
    if (c == 'e' && myoptarg != nullptr) CopyCut(exit_code, myoptarg);

  SetPendingStateExitCodes(exit_code);
  if (CountList(&Root) > 0) {
    // Every triple, whatever the request's own field 3 holds (it may be "-e").
    for (QueueTriple* triple : Elements<QueueTriple>(Root)) answer_wildcard(&q->peer, KD_SUCCESS, nullptr, triple, 's');
    q->peer.iStatusFlag = 2;
    answer_wildcard(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=shutdown completed", nullptr, ' ');
  } else {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=No queue existing\n");
  }
  // Only a held lock is released: releasing none would end the process as a fatal lock error.
  if (gQmLock.hSema >= 0 && i_SEMA('-', &gQmLock) != KD_SUCCESS)
    trace("%l1 que_shutdown: release of the process lock: %s", gQmLock.szMsg);
  trace("--- que_shutdown");
}
