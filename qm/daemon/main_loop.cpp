#include "daemon/main_loop.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "daemon/request_reader.h"
#include "daemon/signals.h"
#include "daemon/startup.h"
#include "jobs/admin_queue.h"
#include "jobs/exit_log.h"
#include "model/global_resources.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "sched/pass.h"
#include "xutil.h"

char gszKeldaDay[256] = {};

void vMainLoop(int argc, char** argv) {
  v_set_log_main(kQmLogName, kQmModule, &gQmLog);
  trace("%l1 %s", QmBuildLine());
  setpgrp();
  TakeProcessLock();
  ReadQmDirectories();
  if (argc > 1 && std::strncmp(argv[1], "-d", 2) == 0) {
    trace("%l2 Debug switch set. Stay in foreground");
    g_PID = getpid();
  } else {
    DetachFromTerminal();
  }
  trace("%l2 KD_QM_MAIN: successfully started");
  WriteOwnServicePidFile();
  if (i_setenv_kelda("service") != 1) trace("%l1 i_setenv_kelda(service) failed, environment unchanged");

  InitRootLists();
  if (InitQMAdminQueue() != 0) {
    trace("%l0 ERROR: InitQMAdminQueue failed");
    trace("%l0 Exiting");
    std::exit(1);
  }
  if (CreateRequestPipe() != 0) std::exit(1);
  InstallSignalHandler();

  for (;;) {
    trace("%l2 **** main loop");
    int result;
    do {
      SetLogFile();
      result = ReadExecuteQuery(argv[0], gszQmDir);
    } while (result != 0 && result != -1);
    if (result == -1) {
      trace("--- FOR  exit(0)");
      std::exit(0);
    }
    trace("+++ Check global resources");
    CheckUnregisteredGlobalResources();
    trace("--- Check global resources");
    trace("+++ QM admin queue");
    ProcessQMAdminQueue();
    trace("--- QM admin queue");
    trace("+++ WALK_LIST");
    ProcessAllQueTriples();
    trace("--- WALK_LIST");
  }
}

void SetLogFile() {
  char name[] = "gv_date";
  char value[512] = {};
  glbv('r', name, value);
  const bool unknown = value[0] == '?' || value[0] == '\0';
  char day[256];
  if (unknown) {
    char now[32] = "S 0";  // a shift of nothing: the current time, readable
    time_get(now);
    CopyCut(day, std::string_view(now).substr(0, 10));
  } else {
    CopyCut(day, value);
  }
  if (std::strcmp(day, gszKeldaDay) == 0) return;

  if (unknown)
    trace("%l2 Global variable gv_date could not be found (%s). Use %s as kelda day instead. Switch logfile", value,
          day);
  else
    trace("%l2 Kelda day has changed (%s<>%s). Switch logfile", gszKeldaDay, day);
  CopyCut(gszKeldaDay, day);
  v_set_log_main(kQmLogName, kQmModule, &gQmLog);
  char stamp[300];
  x_Snprintf(stamp, sizeof stamp, "%s 00:00:00", day);
  // A day that is no date keeps its own text in the exit log's name.
  static_cast<void>(cm_time_iso2stamp(stamp));
  SetKdQmExitLog(stamp);
}
