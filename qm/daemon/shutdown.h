// The orderly shutdown of the daemon, by request or by SIGINT/SIGTERM.
#pragma once

#include "protocol/request.h"

/// Orderly shutdown: removes the request pipe, records the exit code of
/// "-e" (default "0") on waiting jobs, lists and removes every queue triple
/// (or answers that none exists), and releases the process lock.
void que_shutdown(Query* q);
