// Trace log: levelled diagnostics of every program, one file per module and
// day in the gv_rw_lgc directory, levels from debug.ini.
#include "cm_trace.h"

#include <fcntl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"

str_log strLocalLog;
str_log* pstrFirstLog = nullptr;
int bWithMilliseconds = 0;

namespace {

constexpr std::size_t kTraceBufferSize = 9216;
constexpr std::size_t kLineFormatSize = 9216;
constexpr int kMaxIndentBlocks = 32;  // 32 blocks of two blanks fill szIns

int g_iIndent = 0;           // open "+" blocks, shared by all records
bool g_bInitialised = false;  // the first v_set_log_main has run
bool g_bAnnounced = false;    // "Logging enabled ..." has been written
char g_szTraceBuffer[kTraceBufferSize];
char g_copyBlock[64 * 1024];

// --- small helpers ---------------------------------------------------------

void make_timestamp(char (&ts)[64], int with_pid) {
  struct timeval tv {};
  gettimeofday(&tv, nullptr);
  const time_t secs = tv.tv_sec;
  struct tm tm {};
  localtime_r(&secs, &tm);
  char pid_part[24] = "";
  if (with_pid) std::snprintf(pid_part, sizeof pid_part, " [%ld]", static_cast<long>(getpid()));
  if (bWithMilliseconds)
    std::snprintf(ts, sizeof ts, "%4d-%02d-%02d %02d:%02d:%02d.%03d%s", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(tv.tv_usec / 1000), pid_part);
  else
    std::snprintf(ts, sizeof ts, "%4d-%02d-%02d %02d:%02d:%02d%s", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, pid_part);
}

// Copies the first log into strLocalLog. A handle of strLocalLog's own that
// the copy would overwrite is closed first, so that re-initialising the log
// does not leak a descriptor per call.
void copy_to_local(const str_log* rec) {
  if (rec == &strLocalLog) return;
  if (strLocalLog.fpLogFile != nullptr && strLocalLog.fpLogFile != rec->fpLogFile)
    std::fclose(strLocalLog.fpLogFile);
  strLocalLog = *rec;
}

// Drops a handle whose descriptor is no longer valid. strLocalLog and the
// first log may share one FILE; neither may keep the freed pointer.
void drop_invalid_handle(str_log* rec) {
  FILE* fp = rec->fpLogFile;
  rec->fpLogFile = nullptr;
  if (rec == &strLocalLog && pstrFirstLog != nullptr && pstrFirstLog->fpLogFile == fp)
    pstrFirstLog->fpLogFile = nullptr;
  if (rec != &strLocalLog && strLocalLog.fpLogFile == fp) strLocalLog.fpLogFile = nullptr;
  // The descriptor is already gone: fclose only frees the stream (its close fails with EBADF).
  std::fclose(fp);
}

void append_cut(char* dst, std::size_t size, const char* src) {
  const std::size_t used = std::strlen(dst);
  if (used + 1 >= size) return;
  CopyCutN(dst + used, size - used, src);
}

__attribute__((format(printf, 3, 4))) void put_line(FILE* fp, FILE* err, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  if (err != nullptr) {
    va_list copy;
    va_copy(copy, ap);
    std::vfprintf(err, format, copy);
    va_end(copy);
    std::fflush(err);
  }
  if (fp != nullptr) std::vfprintf(fp, format, ap);
  va_end(ap);
}

// Copies a file into the log, line by line, between two marker lines.
void copy_file_into_log(str_log* rec, const char* ts, const char* parts, const char* file) {
  if (file == nullptr) file = "(null)";
  FILE* fp = rec->fpLogFile;
  FILE* err = rec->iVerbose ? stderr : nullptr;
  FILE* in = std::fopen(file, "re");
  if (in == nullptr) {
    if (fp != nullptr) std::fprintf(fp, "%s:   File %s not found\n", ts, file);
    if (err != nullptr) std::fprintf(err, "%s: File %s not found\n", ts, file);
  } else {
    put_line(fp, err, "%s%s:%s COPY_FILE [%s] >>>>\n", ts, parts, rec->szIns, file);
    char line[1023];  // lines of at most 1022 characters
    while (std::fgets(line, sizeof line, in) != nullptr) {
      std::size_t n = std::strlen(line);
      if (n > 0 && line[n - 1] == '\n') line[--n] = '\0';
      if (n > 0 && line[n - 1] == '\r') line[--n] = '\0';
      if (fp != nullptr) std::fprintf(fp, "%s:%s    %s\n", ts, rec->szIns, line);
      if (err != nullptr) std::fprintf(err, "%s:%s %s\n", ts, rec->szIns, line);
    }
    std::fclose(in);
    put_line(fp, err, "%s%s:%s COPY_FILE <<<<\n", ts, parts, rec->szIns);
  }
  if (fp != nullptr) std::fflush(fp);
  if (err != nullptr) std::fflush(err);
}

// The one line writer behind WRITE_TRACE and trace. The caller's format is
// embedded in the line format, and the caller's arguments are applied to
// the whole line.
void write_trace_v(str_log* rec, const char* format, va_list ap) {
  if (rec == nullptr || format == nullptr) return;
  rec->szIns[sizeof rec->szIns - 1] = '\0';
  char ts[64];
  make_timestamp(ts, rec->iPid);

  const bool copy_file = std::strcmp(format, "COPY_FILE") == 0;
  if (format[0] == '-' && !rec->iNoIdent) {
    if (g_iIndent <= kMaxIndentBlocks) {
      const std::size_t n = strnlen(rec->szIns, sizeof rec->szIns - 1);
      rec->szIns[n >= 2 ? n - 2 : 0] = '\0';
    }
    if (g_iIndent > 0) --g_iIndent;
  }

  char parts[64] = "";  // process part, then thread part
  if (rec->iProcessId) std::snprintf(parts, 32, " [%d]", static_cast<int>(getpid()));
  if (rec->iThreadId) {
    char thread_part[32];
    std::snprintf(thread_part, sizeof thread_part, " [TID: %lu]", static_cast<unsigned long>(pthread_self()));
    append_cut(parts, sizeof parts, thread_part);
  }

  char line_format[kLineFormatSize];
  line_format[0] = '\0';
  if (!copy_file) {
    const int need = std::snprintf(line_format, sizeof line_format, "%s%s:%s %s\n", ts, parts, rec->szIns, format);
    // A cut line still ends the line.
    if (need >= static_cast<int>(sizeof line_format)) line_format[sizeof line_format - 2] = '\n';
    if (rec->iVerbose) {
      va_list copy;
      va_copy(copy, ap);
      std::vfprintf(stderr, line_format, copy);
      va_end(copy);
      std::fflush(stderr);
    }
  }

  if (rec->fpLogFile != nullptr && fcntl(fileno(rec->fpLogFile), F_GETFD) == -1) {
    std::fprintf(stderr, "Invalid log file handle for [%s]\n", rec->szLogFile);
    std::fflush(stderr);
    append_cut(line_format, sizeof line_format, " ### ATTENTION: Log file handle was temporarily not valid!\n");
    drop_invalid_handle(rec);
  }
  if (rec->fpLogFile == nullptr && rec->szLogFile[0] != '\0') rec->fpLogFile = std::fopen(rec->szLogFile, "ae");

  if (copy_file) {
    va_list copy;
    va_copy(copy, ap);
    const char* file = va_arg(copy, const char*);
    va_end(copy);
    copy_file_into_log(rec, ts, parts, file);
  } else if (rec->fpLogFile != nullptr) {
    std::vfprintf(rec->fpLogFile, line_format, ap);
    std::fflush(rec->fpLogFile);
  }

  if (format[0] == '+' && !rec->iNoIdent) {
    if (g_iIndent < kMaxIndentBlocks) {
      append_cut(rec->szIns, sizeof rec->szIns, "  ");
      if (rec != &strLocalLog) CopyCut(strLocalLog.szIns, rec->szIns);
    }
    if (g_iIndent < INT_MAX) ++g_iIndent;
  }
}

// Variadic entry without format checking, for the "COPY_FILE" format.
void write_trace_unchecked(str_log* rec, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  write_trace_v(rec, format, ap);
  va_end(ap);
}

// --- configuration ----------------------------------------------------------

// Reads gv_rw_lgc; a missing key is reported as E003 and on standard error.
bool read_lgc_dir(char (&dir)[1024]) {
  char err[1024];
  if (i_READ_INI("KD_INI", "Pathes", "gv_rw_lgc", dir, sizeof dir, err, sizeof err) && dir[0] != '\0') return true;
  dir[0] = '\0';
  FPROT(nullptr, msg_text(MSG_E003_NOT_EXISTING), "SET_LOG_MAIN", "gv_rw_lgc");
  std::fputs("FATAL: SET_LOG_MAIN: gv_rw_lgc not set", stderr);
  std::fflush(stderr);
  return false;
}

bool params_key_is_yes(const char* key) {
  char value[256];
  char err[1024];
  return i_READ_INI("KD_INI", "Params", key, value, sizeof value, err, sizeof err) && std::strcmp(value, "YES") == 0;
}

// gv_daylbl, or "" when it is unset.
std::string read_daylbl() {
  char name[] = "gv_daylbl";
  char answer[512] = "";
  glbv('r', name, answer);
  if (answer[0] == '?') return "";
  return answer;
}

// The day label of log names: gv_daylbl, else today as YYYYMMDD.
std::string day_label() {
  std::string label = read_daylbl();
  if (!label.empty()) return label;
  const time_t now = time(nullptr);
  struct tm tm {};
  localtime_r(&now, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &tm);
  return std::string(stamp, 8);
}

// Expands "<PID>" and "<DAYLBL>" in the first 255 characters of the name.
std::string expand_tokens(const char* log_name, int* pid_used) {
  char src[256];
  CopyCut(src, log_name);
  std::string out;
  for (const char* p = src; *p != '\0';) {
    if (std::strncmp(p, "<PID>", 5) == 0) {
      out += std::to_string(static_cast<long>(getpid()));
      *pid_used = 1;
      p += 5;
    } else if (std::strncmp(p, "<DAYLBL>", 8) == 0) {
      out += read_daylbl();
      p += 8;
    } else {
      out += *p++;
    }
  }
  if (out.size() > 1023) out.resize(1023);
  return out;
}

// The part of the name behind the gv_rw_lgc directory if the name holds it.
// The cut at the first "." and the ".log" test look at that part only, so
// that a dot in the directory does not count.
std::size_t name_tail_offset(const std::string& name, const char* lgc, bool* holds_dir) {
  const std::size_t pos = name.find(lgc);
  *holds_dir = pos != std::string::npos;
  return *holds_dir ? pos + std::strlen(lgc) : 0;
}

// Creates every directory of the name below gv_rw_lgc, one level after the other.
void create_log_dirs(const char* lgc, const std::string& name) {
  if (name.find_first_of("/\\") == std::string::npos) return;
  bool holds_dir = false;
  const std::size_t tail = name_tail_offset(name, lgc, &holds_dir);
  const std::string full = holds_dir ? name : std::string(lgc) + name;
  std::size_t start = holds_dir ? tail : std::strlen(lgc);
  if (start == 0) start = 1;
  for (std::size_t i = start; i < full.size(); ++i) {
    if (full[i] == '/') ::mkdir(full.substr(0, i).c_str(), 0755);
  }
}

std::string build_log_path(const char* lgc, const std::string& name) {
  bool holds_dir = false;
  const std::size_t tail = name_tail_offset(name, lgc, &holds_dir);
  if (name.find(".log", tail) != std::string::npos) return name;
  std::string base = name.substr(0, name.find('.', tail));
  return (holds_dir ? base : std::string(lgc) + base) + "_" + day_label() + ".log";
}

LANGUAGES language_of(const char* value) {
  if (strcasecmp(value, "de_by") == 0) return LANG_BY;
  if (std::strncmp(value, "de", 2) == 0) return LANG_DE;
  if (std::strcmp(value, "es") == 0) return LANG_ES;
  if (std::strcmp(value, "fr") == 0) return LANG_FR;
  if (std::strcmp(value, "hr") == 0) return LANG_HR;
  if (std::strcmp(value, "pt") == 0) return LANG_PT;
  return LANG_EN;
}

}  // namespace

// --- public interface -------------------------------------------------------

int log_check(const char* name) {
  char upper[256];
  CopyCut(upper, name != nullptr ? name : "");
  for (char* p = upper; *p != '\0'; ++p) *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));

  char dir[1024];
  char err[1024];
  if (!i_READ_INI("KD_INI", "Pathes", "gv_rw_ini", dir, sizeof dir, err, sizeof err)) {
    FPROT(nullptr, msg_text(MSG_E003_NOT_EXISTING), "LOG_CHECK", "gv_rw_ini");
    std::fputs("FATAL: SET_LOG_MAIN: gv_rw_ini not set", stderr);
    std::fflush(stderr);
    dir[0] = '\0';
  }
  const std::string path = std::string(dir) + "debug.ini";
  FILE* f = std::fopen(path.c_str(), "re");
  if (f == nullptr) return 0;
  const std::size_t n = std::strlen(upper);
  int level = 0;
  char line[255];  // lines of at most 254 characters
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, upper, n) != 0 || line[n] != '=') continue;
    line[std::strcspn(line, "\r\n")] = '\0';
    const long value = std::strtol(line + n + 1, nullptr, 10);
    level = value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
    break;
  }
  std::fclose(f);
  return level;
}

void v_set_log_main(const char* log_name, const char* module, str_log* rec) {
  if (rec == nullptr) rec = &strLocalLog;
  if (log_name == nullptr) log_name = "";
  if (module == nullptr) module = "";
  const LANGUAGES old_lang = eLang;

  char lgc[1024];
  if (read_lgc_dir(lgc)) {
    rec->szIns[0] = '\0';
    int pid_used = 0;
    const std::string name = expand_tokens(log_name, &pid_used);
    if (pid_used) rec->bIsPidUsedInName = 1;
    create_log_dirs(lgc, name);
    char path[1024];
    CopyCut(path, build_log_path(lgc, name));

    const int old_level = rec->iLogLevel;
    rec->iLogLevel = log_check(module);
    CopyCut(rec->szExeName, module);
    for (char* p = rec->szExeName; *p != '\0'; ++p)
      *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    rec->iVerbose = 0;
    rec->iProtDB = log_check("PROT_DB");
    const bool switched = std::strcmp(path, rec->szLogFile) != 0;

    if (g_bInitialised) {
      if (switched) {
        if (rec->iLogLevel > 1)
          WRITE_TRACE(rec, "Logging switched to %s, module %s, Loglevel %d", path, module, rec->iLogLevel);
        v_set_log_all_close(rec);
        CopyCut(rec->szLogFile, path);
      }
      if (rec == pstrFirstLog) copy_to_local(rec);
    } else {
      // A handle left from before the first initialisation belongs to no one else.
      if (rec->fpLogFile != nullptr) std::fclose(rec->fpLogFile);
      rec->fpLogFile = nullptr;
      g_bInitialised = true;
      CopyCut(rec->szLogFile, path);
      pstrFirstLog = rec;
      if (params_key_is_yes("gv_log_milliseconds")) {
        bWithMilliseconds = 1;
        if (rec->iLogLevel > 2) WRITE_TRACE(rec, "found key gv_log_milliseconds in kd.ini > log with milliseconds");
      }
      if (params_key_is_yes("gv_log_pid")) {
        rec->iPid = 1;
        if (rec->iLogLevel > 2) WRITE_TRACE(rec, "found key gv_log_pid in kd.ini > log with PID");
      }
      copy_to_local(rec);
    }

    if (rec->iLogLevel > 0 && (switched || rec->iLogLevel != old_level)) {
      char parent[512] = "";
      if (strcasecmp(module, "KD_QM_MAIN") != 0) {
        get_parent_info(parent, sizeof parent);
        parent[std::strcspn(parent, "\r\n")] = '\0';
      }
      const int pid = static_cast<int>(getpid());
      if (g_bAnnounced) {
        if (!rec->bIsPidUsedInName)
          WRITE_TRACE(rec, "Logging switched for module %s: Loglevel %d, PID=%d, parent process: %s", module,
                      rec->iLogLevel, pid, parent);
      } else {
        WRITE_TRACE(rec, "Logging enabled for module %s: Loglevel %d, PID=%d, parent process: %s%s", module,
                    rec->iLogLevel, pid, parent, rec->iProtDB ? " (protDB)" : "");
        g_bAnnounced = true;
      }
      rec->iVerbose = log_check("STDERR");
      if (rec == pstrFirstLog) strLocalLog.iVerbose = rec->iVerbose;
      WRITE_TRACE(rec, "Kelda GitID: %s", kd_build_id());
    }
  }

  char lang[256];
  char err[1024];
  if (!i_READ_INI("KD_INI", "SETUP", "lang", lang, sizeof lang, err, sizeof err)) {
    if (rec->iLogLevel > 0) WRITE_TRACE(rec, "didn't find key lang in kd.ini > set language to en");
    eLang = LANG_EN;
  } else {
    eLang = language_of(lang);
    if (eLang != old_lang && rec->iLogLevel > 1) WRITE_TRACE(rec, "set language to %s", lang);
  }
}

void v_set_log_main_with_pid(const char* log_name, const char* module, str_log* rec) {
  if (rec != nullptr) rec->iProcessId = 1;
  v_set_log_main(log_name, module, rec);
}

void v_set_log(int level, int verbose, str_log* rec) {
  if (rec == nullptr) return;
  if (level > 0) WRITE_TRACE(rec, "v_set_log: Set loglevel %d, verbose %d", level, verbose);
  rec->iLogLevel = level;
  rec->iVerbose = verbose;
  if (rec == pstrFirstLog) copy_to_local(rec);
}

void v_set_log_all_close(str_log* rec) {
  if (rec == nullptr) return;
  if (rec->iLogLevel > 1)
    WRITE_TRACE(rec, "v_set_log_all_close: check pstrFirstLog %p <> strLog %p", static_cast<void*>(pstrFirstLog),
                static_cast<void*>(rec));
  if (strLocalLog.fpLogFile != nullptr && rec == pstrFirstLog && rec != &strLocalLog) {
    if (strLocalLog.fpLogFile != rec->fpLogFile) {
      if (rec->iLogLevel > 0)
        WRITE_TRACE(rec, "v_set_log_all_close: close file handle strLocalLog.fpLogFile %p",
                    static_cast<void*>(strLocalLog.fpLogFile));
      std::fclose(strLocalLog.fpLogFile);
    }
    strLocalLog.fpLogFile = nullptr;
  }
  if (rec->fpLogFile != nullptr) {
    if (rec->iLogLevel > 2) {
      if (rec->fpLogFile == strLocalLog.fpLogFile)
        WRITE_TRACE(rec,
                    "v_set_log_all_close: Closing the file handle strLog->fpLogFile %p also implies the handle "
                    "strLocalLog.fpLogFile %p",
                    static_cast<void*>(rec->fpLogFile), static_cast<void*>(strLocalLog.fpLogFile));
      else
        WRITE_TRACE(rec, "v_set_log_all_close: Close file handle strLog->fpLogFile %p",
                    static_cast<void*>(rec->fpLogFile));
    }
    FILE* fp = rec->fpLogFile;
    rec->fpLogFile = nullptr;
    if (strLocalLog.fpLogFile == fp) strLocalLog.fpLogFile = nullptr;
    std::fclose(fp);
  }
}

void v_set_log_mover(str_log* rec, const char* new_name) {
  if (rec == nullptr || new_name == nullptr) return;
  char lgc[1024];
  if (!read_lgc_dir(lgc)) return;
  int pid_used = 0;
  const std::string name = expand_tokens(new_name, &pid_used);
  if (pid_used) rec->bIsPidUsedInName = 1;

  bool holds_dir = false;
  const std::size_t tail = name_tail_offset(name, lgc, &holds_dir);
  std::string path = (holds_dir ? std::string() : std::string(lgc)) + name.substr(0, name.find('.', tail));
  const std::string label = day_label();
  if (path.find("_" + label) != std::string::npos || name.find(".log") != std::string::npos)
    path += ".log";
  else
    path += "_" + label + ".log";
  if (path.size() > 1023) path.resize(1023);

  v_set_log_all_close(rec);
  if (path == rec->szLogFile) return;

  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) {
    // The target exists already: append the old log to it.
    if (FILE* in = std::fopen(rec->szLogFile, "rbe")) {
      FILE* out = std::fopen(path.c_str(), "abe");
      if (out == nullptr) {
        std::fclose(in);
        return;
      }
      bool whole = true;
      std::size_t n;
      while ((n = std::fread(g_copyBlock, 1, sizeof g_copyBlock, in)) > 0) {
        if (std::fwrite(g_copyBlock, 1, n, out) != n) {
          whole = false;
          break;
        }
      }
      if (std::fclose(out) != 0) whole = false;
      std::fclose(in);
      if (!whole) return;
      std::remove(rec->szLogFile);
    }
  } else if (std::rename(rec->szLogFile, path.c_str()) != 0) {
    return;
  }
  CopyCut(rec->szLogFile, path);
  CopyCut(strLocalLog.szLogFile, path);
}

void trace_unchecked(const char* format, ...) {
  if (format == nullptr) return;
  const bool prefixed = format[0] == '%' && format[1] == 'l' && format[2] != '\0' && format[3] == ' ';
  char x = 0;
  int level = 2;
  if (prefixed) {
    x = format[2];
    level = x - '0';
    if (level < 0) level = x == '+' ? 0 : -1;
    if (std::abs(level) > strLocalLog.iLogLevel) return;
  } else if (strLocalLog.iLogLevel < 2) {
    return;
  }

  const char* prefix = "";
  if (prefixed) {
    if (level == 0)
      prefix = x == '0' ? "Error: " : "";
    else if (level == 1)
      prefix = "Warning: ";
    else if (level == 2)
      prefix = "Info: ";
    else if (level == 3 || level == -1)
      prefix = "Trace: ";
    else
      prefix = "Debug: ";
  }
  const std::size_t plen = std::strlen(prefix);
  std::memcpy(g_szTraceBuffer, prefix, plen + 1);
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(g_szTraceBuffer + plen, sizeof g_szTraceBuffer - plen, prefixed ? format + 4 : format, ap);
  va_end(ap);

  // Errors and notices of level 0 always reach standard error as well.
  const bool to_stderr = prefixed && level == 0;
  const int saved_verbose = strLocalLog.iVerbose;
  if (to_stderr) strLocalLog.iVerbose = 1;
  WRITE_TRACE(&strLocalLog, "%s", g_szTraceBuffer);
  if (to_stderr) strLocalLog.iVerbose = saved_verbose;
}

void trace_ln(const char* text) { trace("%s", text != nullptr ? text : ""); }

void WRITE_TRACE(str_log* rec, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  write_trace_v(rec, format, ap);
  va_end(ap);
}

void WRITE_TRACE_COPY_FILE(str_log* rec, const char* file_name) {
  write_trace_unchecked(rec, "COPY_FILE", file_name);
}

void trace_reset_for_tests() {
  if (strLocalLog.fpLogFile != nullptr) std::fclose(strLocalLog.fpLogFile);
  strLocalLog = str_log{};
  pstrFirstLog = nullptr;
  g_bInitialised = false;
  g_bAnnounced = false;
  g_iIndent = 0;
  bWithMilliseconds = 0;
}
