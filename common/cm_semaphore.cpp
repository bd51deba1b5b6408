// Stub: replaced by the semaphore implementation.
#include "cm_semaphore.h"

int i_SEMA(char, sct_semaphore*) { return 2; }
