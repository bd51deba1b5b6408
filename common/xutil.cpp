// Bounded formatting.
#include "xutil.h"

#include <cstdio>

#include "cm_trace.h"

namespace {
// Set while x_Snprintf reports a problem, so that a trace writer that formats
// through x_Snprintf itself cannot recurse into a second report.
bool gReporting = false;
}  // namespace

int x_Snprintf(char* buffer, std::size_t size, const char* format, ...) {
  if (buffer == nullptr) size = 0;
  if (size > 0) buffer[0] = '\0';
  if (format == nullptr) return 0;
  va_list ap;
  va_start(ap, format);
  const int result = std::vsnprintf(size > 0 ? buffer : nullptr, size, format, ap);
  va_end(ap);
  if (size > 0) buffer[size - 1] = '\0';
  if (gReporting) return result;
  const char* cut = size > 0 ? buffer : "";
  gReporting = true;
  if (result < 0) {
    trace("%l0 x_Snprintf: Error vsnprintf failed with return %d (%d size) (encoding) [%s]", result,
          static_cast<int>(size), cut);
  } else if (static_cast<std::size_t>(result) >= size) {
    trace("%l0 x_Snprintf: Error vsnprintf truncated %d >= %d size [%s]", result, static_cast<int>(size), cut);
  }
  gReporting = false;
  return result;
}
