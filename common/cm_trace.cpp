// Stub: replaced by the trace log implementation.
#include "cm_trace.h"

str_log strLocalLog;
str_log* pstrFirstLog = nullptr;
int bWithMilliseconds = 0;

void v_set_log_main(const char*, const char*, str_log*) {}
void v_set_log_main_with_pid(const char*, const char*, str_log*) {}
void v_set_log(int, int, str_log*) {}
void v_set_log_all_close(str_log*) {}
void v_set_log_mover(str_log*, const char*) {}
int log_check(const char*) { return 0; }
void trace(const char*, ...) {}
void trace_ln(const char*) {}
void WRITE_TRACE(str_log*, const char*, ...) {}
void WRITE_TRACE_COPY_FILE(str_log*, const char*) {}
void trace_reset_for_tests() {}
