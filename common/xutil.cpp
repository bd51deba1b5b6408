// Stub: replaced by the bounded formatter.
#include "xutil.h"

int x_Snprintf(char* buffer, std::size_t size, const char*, ...) {
  if (size) buffer[0] = '\0';
  return 0;
}
