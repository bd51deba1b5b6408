#include "protocol/globals.h"

int g_PID = 0;
char gszQmDir[1024] = {};
char gszBinDir[512] = {};
char qmd_to_qm[1024] = {};
char qmd_from_qm[1024] = {};
char gszResource[1024] = {};
char gszAllocate[1024] = {};
sigset_t blockmaske;
int iContext = 0;
uint32_t eQMOptions = 0;

time_t QmSystemNow() { return time(nullptr); }
time_t (*gQmNow)() = QmSystemNow;
