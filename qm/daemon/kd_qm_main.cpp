// kd_qm_main: the Queue Manager daemon.
#include <cstdlib>
#include <ctime>

#include "cm_trace.h"
#include "daemon/main_loop.h"
#include "daemon/startup.h"
#include "model/entry_pool.h"

int main(int argc, char** argv) {
  if (IsUsageRequest(argc, argv)) {
    USAGE();
    std::exit(0);
  }
  v_set_log_main(kQmLogName, kQmModule, &gQmLog);
  QmEntry_init(0x40000);  // entry numbers 1 to 262143
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  vMainLoop(argc, argv);
}
