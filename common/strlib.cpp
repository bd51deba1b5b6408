// Stub: replaced by the string helpers.
#include "strlib.h"

char* myoptarg = nullptr;
int myoptind = 1;
int myoptopt = 0;
int myopterr = 0;

const char* kd_strptime(const char*, const char*, struct tm*) { return nullptr; }
void mygetopt_reset() { myoptind = 1; }
int mygetopt(int, char* const[], const char*) { return -1; }
char* str_to_lower(char* t) { return t; }
char* str_to_upper(char* t) { return t; }
