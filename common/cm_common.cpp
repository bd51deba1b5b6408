#include "cm_common.h"

#include <cstdio>

#ifndef KD_GIT_ID
#define KD_GIT_ID "unknown"
#endif

LANGUAGES eLang = LANG_EN;

const char* exit_state_name(int state) {
  switch (state) {
    case KD_SUCCESS: return "SUCCESS";
    case KD_WARNING: return "WARNING";
    case KD_ERROR: return "ERROR";
    case KD_FATAL: return "FATAL";
    case KD_ROLLBACK: return "ROLLBACK";
    default: return "UNKNOWN";
  }
}

const char* kd_build_id() { return KD_GIT_ID; }

void get_parent_info(char* buffer, std::size_t size) {
  if (size == 0) return;
  const pid_t ppid = getppid();
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/comm", static_cast<int>(ppid));
  char comm[64] = "?";
  if (FILE* f = std::fopen(path, "r")) {
    if (std::fgets(comm, sizeof comm, f) == nullptr) CopyCut(comm, "?");
    std::fclose(f);
  }
  comm[std::strcspn(comm, "\r\n")] = '\0';
  const std::size_t cap = size < 512 ? size : 512;
  std::snprintf(buffer, cap, "PPID=%d (%s)", static_cast<int>(ppid), comm);
}
