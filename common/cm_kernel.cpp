// Protocol messages: operator-visible lines in the protocol file named by
// gv_prot, errors also in its ".err" companion, and the message texts.
#include "cm_kernel.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "cm_hal_unix.h"
#include "cm_trace.h"

const MsgSet MSG_E003_NOT_EXISTING{"E003-BASICS  %s > %s not yet existing - please restart ORL kelda.",
                                   "E003-BASICS  %s > %s existiert noch nicht - Neustart",
                                   "E003-BASICS  %s > %s gibts no ned - bittschee neistartn"};
const MsgSet MSG_W003_CMD_WARNING{"W003-BASICS  Command execution produced a warning: %s > %s",
                                  "W003-BASICS  Befehlsausfuehrung ergab eine Warnung: %s > %s",
                                  "W003-BASICS  Beim Befehl ausfiahrn hods a Warnung gebn: %s > %s"};
const MsgSet MSG_FATAL_SOFTWARE_ERROR{"Fatal software error FILE=%s LINE=%d (%s)",
                                      "Fataler Software Fehler FILE=%s ZEILE=%d (%s)",
                                      "Ganz a bleeda Softwarefehla FILE=%s ZEIN=%d (%s)"};
const MsgSet MSG_GLBV_INVALID_SERVICE{"?? invalid service %c", "?? ungültiger Parameter %c",
                                      "?? deppada Paramätta %c", "?? Le Parametre %c est erroné"};

const char* msg_text(const MsgSet& set, LANGUAGES lang) {
  switch (lang) {
    case LANG_DE: return set.de;
    case LANG_BY: return set.by;
    case LANG_FR: return set.fr != nullptr ? set.fr : set.en;
    default: return set.en;
  }
}

namespace {

constexpr int kProtLineFormatSize = 2560;
constexpr int kProtOutputSize = 138000;
constexpr std::size_t kTagLength = 12;
constexpr const char* kE999Tag = "E999-BASICS ";

// One output buffer for all messages: FPROT is not called from two threads at once.
char g_szProtOutput[kProtOutputSize];

// gv_prot into value; false (and traced) when it is unset.
bool read_gv_prot(char (&value)[512]) {
  char name[] = "gv_prot";
  value[0] = '\0';
  glbv('r', name, value);
  if (value[0] == '?' || value[0] == '\0') {
    trace("%l4 FPROT: No gv_prot defined");
    value[0] = '\0';
    return false;
  }
  return true;
}

// Writes the same formatted text to each of up to three streams.
__attribute__((format(printf, 4, 5))) void put3(FILE* a, FILE* b, FILE* c, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  for (FILE* f : {a, b, c}) {
    if (f == nullptr) continue;
    va_list copy;
    va_copy(copy, ap);
    std::vfprintf(f, format, copy);
    va_end(copy);
  }
  va_end(ap);
}

void close_stream(FILE* f) {
  if (f == nullptr) return;
  if (f == stdout || f == stderr)
    std::fflush(f);
  else
    std::fclose(f);
}

}  // namespace

void FPROT(const sPROT* additional, const char* format, ...) {
  if (format == nullptr) return;
  trace("%l3 FPROT( %s, ...)", format);

  FILE* prot = stdout;
  FILE* err = stderr;
  FILE* add = nullptr;
  char gv_prot[512];
  if (read_gv_prot(gv_prot)) {
    FILE* f = std::fopen(gv_prot, "ae");
    if (f == nullptr) {
      int e = errno;
      trace("%l0 FPROT: Failed to open [%s]: %s (%d) - retry", gv_prot, std::strerror(e), e);
      const struct timespec pause {0, 100L * 1000 * 1000};
      nanosleep(&pause, nullptr);
      if (read_gv_prot(gv_prot)) {
        f = std::fopen(gv_prot, "ae");
        if (f == nullptr) {
          e = errno;
          trace("%l0 FPROT: Failed to open [%s]: %s (%d)", gv_prot, std::strerror(e), e);
        }
      }
    }
    if (f != nullptr) prot = f;
    if (gv_prot[0] != '\0') {
      char err_name[600];
      std::snprintf(err_name, sizeof err_name, "%s.err", gv_prot);
      if (FILE* ef = std::fopen(err_name, "ae")) {
        err = ef;
      } else {
        const int e = errno;
        trace("%l0 FPROT: Failed to open error prot file [%s]: %s (%d)", err_name, std::strerror(e), e);
      }
    }
  }
  if (additional != nullptr && additional->szLogFile[0] != '\0') {
    add = std::fopen(additional->szLogFile, "ae");
    if (add == nullptr) {
      const int e = errno;
      trace("%l0 FPROT: Failed to open additional prot file [%s]: %s (%d)", additional->szLogFile,
            std::strerror(e), e);
    }
  }

  char ts[32];
  const time_t now = time(nullptr);
  struct tm tm {};
  localtime_r(&now, &tm);
  std::strftime(ts, sizeof ts, "%Y-%m-%d %H:%M:%S", &tm);
  char tag[kTagLength + 1];
  const std::size_t format_length = std::strlen(format);
  CopyCut(tag, std::string_view(format, format_length < kTagLength ? format_length : kTagLength));
  const int pid = static_cast<int>(getpid());

  if (const char* percent = std::strchr(tag, '%')) {
    char arg[3];
    CopyCut(arg, std::string_view(format + (percent - tag)).substr(0, 2));
    trace("%l1 FPROT: Invalid usage of PROT: prefix with format argument '%s': >%s<", arg, tag);
    put3(prot, add, nullptr, "%s W999-BASICS [%6d]: Invalid usage of PROT: prefix with format argument '%s': >%s<\n",
         ts, pid, arg, tag);
  } else if (format_length < kTagLength + 1) {
    trace("%l1 FPROT: Format tag is too short: >%s< (%ld < 13)", tag, static_cast<long>(format_length));
    put3(prot, add, nullptr,
         "%s W999-BASICS [%6d]: Invalid usage of PROT: format tag is too short: >%s< (%ld < 13)\n", ts, pid, tag,
         static_cast<long>(format_length));
  }

  // The tag stays part of the format: a caller's arguments line up with the
  // whole format as written, tag included.
  const char* text = format_length > kTagLength ? format + kTagLength + 1 : "";
  char line_format[kProtLineFormatSize];
  const int need = std::snprintf(line_format, sizeof line_format, "%s %s[%6d]: %s", ts, tag, pid, text);
  if (need >= kProtLineFormatSize) {
    trace("%l1 FPROT: The following format string was shortened (%d <> %d): [%s]", kProtLineFormatSize, need, text);
    put3(prot, add, nullptr, "%s %s[%6d]: Error: The following format string was shortened (%d <> %d)\n", ts,
         kE999Tag, pid, kProtLineFormatSize, need);
  }

  va_list ap;
  va_start(ap, format);
  const int produced = std::vsnprintf(g_szProtOutput, sizeof g_szProtOutput, line_format, ap);
  va_end(ap);
  if (produced < 0) g_szProtOutput[0] = '\0';
  if (produced >= kProtOutputSize) {
    trace("%l1 FPROT: The following output was shortened (%d <> %d): [%s]", kProtOutputSize, produced,
          g_szProtOutput);
    put3(prot, add, nullptr, "%s %s[%6d]: Error: The following output was shortened (%d <> %d)\n", ts, kE999Tag,
         pid, kProtOutputSize, produced);
  }

  // The first piece carries timestamp, tag and pid already; further lines get
  // their own. An "A" message copies only its first line into the error file.
  const char kind = format[0];
  bool first = true;
  for (char* piece = g_szProtOutput;;) {
    char* end = std::strchr(piece, '\n');
    if (end != nullptr) *end = '\0';
    if (first) {
      put3(prot, add, (kind == 'E' || kind == 'A') ? err : nullptr, "%s\n", piece);
      trace("%l3 FPROT: [%s]", piece);
      first = false;
    } else if (*piece != '\0') {
      put3(prot, add, kind == 'E' ? err : nullptr, "%s %s[%6d]: %s\n", ts, tag, pid, piece);
      trace("%l3 FPROT: (seq.) [%s]", piece);
    }
    if (end == nullptr) break;
    piece = end + 1;
  }

  close_stream(prot);
  close_stream(err);
  close_stream(add);
}
