// Stub: replaced by the time helper implementation.
#include "cm_kernel.h"

char* time_get(char* buffer) { return buffer; }
const char* cm_convert_time(const char*, struct tm*) { return nullptr; }
int cm_time_iso2stamp(char*) { return 0; }
int cm_time_stamp2iso(char*) { return 0; }
const char* psz_now_iso() { return ""; }
