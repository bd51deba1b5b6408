// Time helpers: the command-driven time function and the conversions between
// the compact stamp and the readable form.
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cm_kernel.h"
#include "cm_trace.h"
#include "strlib.h"

namespace {

constexpr time_t kEndOfEpoch = 2147483647;

/// Size the caller's time_get buffer holds at least.
constexpr std::size_t kTimeBufferSize = 25;

void write_readable(char* out, std::size_t size, const struct tm& tm) {
  std::snprintf(out, size, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void write_stamp(char* out, std::size_t size, const struct tm& tm) {
  std::snprintf(out, size, "%04d%02d%02d%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                tm.tm_min, tm.tm_sec);
}

void write_stamp_ms(char* out, std::size_t size, const struct tm& tm, int ms) {
  std::snprintf(out, size, "%04d%02d%02d%02d%02d%02d%03d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
}

/// Normalises tm by the calendar; false when the result is no time of the
/// years 1 to 9999 (the readable form has four-digit years).
bool normalise(struct tm* tm, time_t* result) {
  struct tm probe = *tm;
  probe.tm_wday = -1;  // mktime sets it on success, so -1 also tells a failed call from 1969-12-31 23:59:59
  const time_t t = std::mktime(&probe);
  if (t == static_cast<time_t>(-1) && probe.tm_wday == -1) return false;
  struct tm check {};
  if (localtime_r(&t, &check) == nullptr) return false;
  if (check.tm_year + 1900 < 1 || check.tm_year + 1900 > 9999) return false;
  *result = t;
  return true;
}

/// Applies one shift command ("D %d", "H %d", "M %d", "S %d", "T", "Y") to
/// tm. False when the shifted field leaves the range of an int.
bool apply_shift(const char* command, struct tm* tm) {
  int* field = nullptr;
  long long amount = 0;
  switch (command[0]) {
    case 'D':
      field = &tm->tm_mday;
      break;
    case 'H':
      field = &tm->tm_hour;
      break;
    case 'M':
      field = &tm->tm_min;
      break;
    case 'S':
      field = &tm->tm_sec;
      break;
    case 'T':
      tm->tm_mday += 1;
      tm->tm_isdst = -1;
      return true;
    case 'Y':
      tm->tm_mday -= 1;
      tm->tm_isdst = -1;
      return true;
    default:
      return true;  // unknown command: the base stays
  }
  const char* start = command + 1;
  char* end = nullptr;
  errno = 0;
  amount = std::strtoll(start, &end, 10);
  if (end == start) return true;  // no number: the base stays
  if (errno == ERANGE) return false;
  const long long shifted = static_cast<long long>(*field) + amount;
  if (shifted < INT_MIN || shifted > INT_MAX) return false;
  *field = static_cast<int>(shifted);
  // The shift moves the wall-clock time: mktime decides daylight saving for the new date.
  tm->tm_isdst = -1;
  return true;
}

struct TimeNotation {
  const char* pattern;
  TraceFormat<> trace_format;  ///< checked when the table is built
};

constexpr std::array<TimeNotation, 4> kTimeNotations{{
    {"%Y%m%d%H%M%S", "%l3 CONVERT_TIME: [%%%%Y%%%%m%%%%d%%%%H%%%%M%%%%S]"},
    {"%Y%m%d", "%l3 CONVERT_TIME: [%%%%Y%%%%m%%%%d]"},
    {"%Y-%m-%d %H:%M:%S", "%l3 CONVERT_TIME: [%%%%Y-%%%%m-%%%%d %%%%H:%%%%M:%%%%S]"},
    {"%Y-%m-%d", "%l3 CONVERT_TIME: [%%%%Y-%%%%m-%%%%d]"},
}};
static_assert(kTimeNotations.size() == 4);

}  // namespace

char* time_get(char* buffer) {
  if (buffer == nullptr) return buffer;
  char command[256];
  CopyCut(command, buffer);

  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  const int ms = static_cast<int>(now.tv_nsec / 1000000);
  char out[80];
  struct tm tm {};

  if (command[0] == 'N' || command[0] == 'I') {
    localtime_r(&now.tv_sec, &tm);
    if (command[0] == 'N')
      write_stamp_ms(out, sizeof out, tm, ms);
    else
      write_stamp(out, sizeof out, tm);
    CopyCutN(buffer, kTimeBufferSize, out);
    return buffer;
  }
  if (command[0] == 'U') {
    tzset();
    trace("time_get: timezone %ld, daylight %d", static_cast<long>(timezone), daylight);
    // Seconds west of UTC without daylight saving: broken down as UTC this is local standard time.
    const time_t standard = now.tv_sec - timezone;
    gmtime_r(&standard, &tm);
    write_stamp_ms(out, sizeof out, tm, ms);
    CopyCutN(buffer, kTimeBufferSize, out);
    return buffer;
  }

  localtime_r(&now.tv_sec, &tm);
  const char* shift = command;
  const std::size_t len = std::strlen(command);
  if (command[0] >= '1' && command[0] <= '9') {
    struct tm base = tm;
    bool has_base = false;
    bool base_ok = false;
    if (len > 19 && command[4] == '-' && command[7] == '-' && command[10] == ' ' && command[13] == ':') {
      char text[20];
      CopyCut(text, std::string_view(command, 19));
      const char* end = kd_strptime(text, "%Y-%m-%d %H:%M:%S", &base);
      base_ok = end != nullptr && *end == '\0';
      has_base = true;
      shift = command + 20;
    } else if (len > 8 && command[8] == '_') {
      char text[16];
      CopyCut(text, std::string_view(command, len < 15 ? len : 15));
      const char* end = kd_strptime(text, "%Y%m%d_%H%M%S", &base);
      base_ok = end != nullptr && *end == '\0';
      has_base = true;
      shift = command + (len < 16 ? len : 16);
    }
    if (has_base) {
      if (base_ok) {
        tm = base;
        tm.tm_isdst = -1;
      } else {
        trace("%l1 time_get: cannot read the base time of [%s], using now", command);
      }
    }
  }

  time_t result = 0;
  if (!apply_shift(shift, &tm) || !normalise(&tm, &result)) {
    trace("%l0 time_get: WARNING: Set time to end-of-epoch bcs. given time shift [%s] exceeds UNIX time", shift);
    result = kEndOfEpoch;
  }
  struct tm local {};
  localtime_r(&result, &local);
  write_readable(out, sizeof out, local);
  CopyCutN(buffer, kTimeBufferSize, out);
  return buffer;
}

const char* cm_convert_time(const char* text, struct tm* tm) {
  if (text == nullptr || tm == nullptr) return nullptr;
  trace("%l3 CONVERT_TIME: [%s]", text);
  char work[1024];
  CopyCut(work, text);
  // The readable form with "_" between date and time is read like the one with a blank.
  if (std::strchr(text, '_') != nullptr && std::strlen(work) > 10) work[10] = ' ';
  for (const TimeNotation& notation : kTimeNotations) {
    const char* end = kd_strptime(work, notation.pattern, tm);
    if (end != nullptr) {
      trace(notation.trace_format);
      return text + (end - work);
    }
  }
  trace("%l0 CONVERT_TIME: Could not convert timestring [%s]", work);
  return nullptr;
}

int cm_time_iso2stamp(char* buffer) {
  if (buffer == nullptr) return 0;
  struct tm tm {};
  if (cm_convert_time(buffer, &tm) == nullptr) return 0;
  char out[80];
  write_stamp(out, sizeof out, tm);
  CopyCutN(buffer, 20, out);
  return static_cast<int>(std::strlen(buffer));
}

int cm_time_stamp2iso(char* buffer) {
  if (buffer == nullptr || buffer[0] == '\0' || std::strcmp(buffer, "NULL") == 0) return 0;
  struct tm tm {};
  if (cm_convert_time(buffer, &tm) == nullptr) return 0;
  char out[80];
  write_readable(out, sizeof out, tm);
  CopyCutN(buffer, 20, out);
  return static_cast<int>(std::strlen(buffer));
}

const char* psz_now_iso() {
  static char now_iso[32];
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm tm {};
  localtime_r(&now.tv_sec, &tm);
  char out[80];
  write_readable(out, sizeof out, tm);
  CopyCut(now_iso, out);
  return now_iso;
}
