// kd_qm_main: the Queue Manager daemon.
#include <cstdlib>
#include <ctime>

#include "cm_trace.h"
#include "kd_qm_daemon.h"
#include "kd_qm_hooks.h"

int main(int argc, char** argv) {
  if (IsUsageRequest(argc, argv)) {
    USAGE();
    std::exit(0);
  }
  v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &gQmLog);
  qm_hook_QmEntry_init(0x40000);  // entry numbers 1 to 262143
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  vMainLoop(argc, argv);
}
