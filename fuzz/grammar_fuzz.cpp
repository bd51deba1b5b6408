// Fuzz target: the submission grammar. The first byte chooses the entry
// point, the rest is the command text of the request:
//   0  CreateJob of a queue_submit (option grammar, legacy grammar when the
//      text does not begin with "-", follow-up chains behind "--")
//   1  the same for queue_submit_sync (the requester becomes a peer)
//   2  CreateJobOld (the legacy positional grammar)
//   3  ParseArgs without the executable check, then JobModify (job_set) on
//      a fresh job
// Executables are looked up below the instance's bin directory, which holds
// job.sh and kill.sh; nothing is run.
#include <cstddef>
#include <cstdint>
#include <string>

#include "cm_common.h"
#include "cm_trace.h"
#include "daemon/startup.h"
#include "fuzz_instance.h"
#include "model/elements.h"
#include "model/job.h"
#include "model/job_grammar.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "protocol/request.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string& root = kdfuzz::MakeInstance();
  CopyCut(gszQmDir, root + "/qm/");
  CopyCut(gszBinDir, root + "/bin/");
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &gQmLog);
  InitRootLists();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const int which = data[0] % 4;
  // A request's text ends at its first NUL.
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  Query q{};
  q.function = which == 1 ? queue_submit_sync : queue_submit;
  q.peer.PID = 4711;  // not valid: a peer is copied, never answered
  CopyCut(q.szCmdArgs, text.c_str());
  char error[1024] = {};
  switch (which) {
    case 0:
    case 1: DestroyJobChain(CreateJob(&q, nullptr, error, sizeof error)); break;
    case 2: DestroyJobChain(CreateJobOld(&q, nullptr, error, sizeof error)); break;
    default: {
      JobArgs args;
      char follow_up[2048] = {};
      ParseArgs(&q, nullptr, &args, error, sizeof error, follow_up, 0, kParseNoExecutableCheck);
      FreeJobArgs(&args);
      Job* job = new Job{};
      JobModify(&q, job, error, sizeof error);
      DestroyJob(job);
      break;
    }
  }
  // -G registers global resources as it parses.
  RemoveList(&gGlobalResources);
  return 0;
}
