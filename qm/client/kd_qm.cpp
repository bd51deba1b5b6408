// kd_qm: the front end of the queue manager daemon.
#include <cstdlib>

#include "client/kd_qm_front.h"

int main(int argc, char** argv) { return kd_qm_front(argc, argv); }
