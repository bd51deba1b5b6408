// Platform services: locating the configuration through the bootstrap files,
// and the global variables (one small file per value in gv_rw_glbv).
#include "cm_hal_unix.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "cm_common.h"
#include "cm_kernel.h"
#include "cm_trace.h"

// ---------------------------------------------------------------------------
// Locating the configuration
// ---------------------------------------------------------------------------

namespace {

constexpr const char* kBootstrapOpt = "/etc/opt/kelda/kelda.ini";
constexpr const char* kBootstrapEtc = "/etc/kelda2000.ini";

// The two fixed bootstrap files; tests point them into a temporary directory.
char gszBootstrapOpt[1024] = "/etc/opt/kelda/kelda.ini";
char gszBootstrapEtc[1024] = "/etc/kelda2000.ini";

void set_text(char* text, std::size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
void set_text(char* text, std::size_t size, const char* format, ...) {
  if (text == nullptr || size == 0) return;
  va_list ap;
  va_start(ap, format);
  const int n = std::vsnprintf(text, size, format, ap);
  va_end(ap);
  if (n < 0) text[0] = '\0';
}

}  // namespace

void cm_set_bootstrap_files_for_tests(const char* first_fixed, const char* second_fixed) {
  CopyCut(gszBootstrapOpt, first_fixed ? first_fixed : kBootstrapOpt);
  CopyCut(gszBootstrapEtc, second_fixed ? second_fixed : kBootstrapEtc);
}

int i_GET_ROOT_FOR_INI(const char* name, char* result, std::size_t result_size, char* err, std::size_t err_size) {
  if (err != nullptr && err_size > 0) err[0] = '\0';
  if (result != nullptr && result_size > 0) result[0] = '\0';
  if (result == nullptr || result_size == 0) return 0;
  const char* key = (name != nullptr && *name != '\0') ? name : "KD_INI";
  if (key[0] == '/') {
    CopyCutN(result, result_size, key);
    return 1;
  }
  const char* env = std::getenv("KD_INI");
  char scratch[512];
  const char* files[] = {env, gszBootstrapOpt, gszBootstrapEtc};
  for (const char* file : files) {
    if (file != nullptr && i_GetPrivateProfileString(file, nullptr, key, result, result_size, scratch, sizeof scratch))
      return 1;
  }
  // The message names one fixed file by whether KD_INI is set, not the last one tried.
  set_text(err, err_size, "i_GET_ROOT_FOR_INI: NO KELDA CONFIGURATION FILE FOUND: %s",
           env != nullptr ? gszBootstrapOpt : gszBootstrapEtc);
  return 0;
}

// ---------------------------------------------------------------------------
// Global variables
// ---------------------------------------------------------------------------

namespace {

constexpr std::size_t kAnswerSize = 512;   // the caller's buffer holds at least this
constexpr std::size_t kValueMax = 510;     // a longer value is cut here and marked with ">"
constexpr std::size_t kFileMax = 4096;

// gv_rw_glbv, read from the configuration on the first call and kept.
char gszGlbvDir[1024];
bool gbGlbvDirKnown = false;

void answerf(char* buffer, const char* format, ...) __attribute__((format(printf, 2, 3)));
void answerf(char* buffer, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int n = std::vsnprintf(buffer, kAnswerSize, format, ap);
  va_end(ap);
  if (n < 0) buffer[0] = '\0';
}

// Opens like open(2), but fails with ENAMETOOLONG for a path that was cut.
int open_path(bool fits, const char* path, int flags, mode_t mode = 0) {
  if (!fits) {
    errno = ENAMETOOLONG;
    return -1;
  }
  for (;;) {
    const int fd = ::open(path, flags | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EINTR) return fd;
  }
}

// The part of a read that failed for another reason than a missing file.
void read_failed(const char* name, const char* file, int error, char* buffer) {
  trace("%l0 glbv() read %s failed: %s (%d)\n", file, std::strerror(error), error);
  answerf(buffer, "?? GLBV %s not existing: %s", name, std::strerror(error));
}

void glbv_read(const char* name, const char* file, bool fits, bool remove, char* buffer) {
  UniqueFd fd(open_path(fits, file, O_RDONLY));
  if (!fd) {
    const int error = errno;
    if (error == ENOENT)
      answerf(buffer, "?? GLBV %s not existing", name);
    else
      read_failed(name, file, error, buffer);
    return;
  }
  // The lines are joined without their line ends; what does not fit is cut and marked.
  char value[kValueMax + 2];
  std::size_t len = 0;
  bool any = false;
  bool cut = false;
  char chunk[1024];
  while (!cut) {
    const ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      read_failed(name, file, errno, buffer);
      return;
    }
    if (n == 0) break;
    any = true;
    for (ssize_t i = 0; i < n; ++i) {
      if (chunk[i] == '\n') continue;
      if (len == kValueMax) {
        cut = true;
        break;
      }
      value[len++] = chunk[i];
    }
  }
  if (!any) {
    trace("%l0 glbv() read failed: empty file\n");
    answerf(buffer, "?? GLBV %s not existing", name);
    return;
  }
  if (cut) value[len++] = '>';
  value[len] = '\0';
  std::memcpy(buffer, value, len + 1);
  fd.reset();
  if (remove && ::unlink(file) != 0)
    trace("%l0 glbv() delete %s failed: %s (%d)\n", file, std::strerror(errno), errno);
}

void write_failed(const char* name, int error, char* buffer) {
  answerf(buffer, "?? GLBV %s cannot be created: %s", name, std::strerror(error));
  FPROT(nullptr, "Error: GLBV: %s", buffer);
}

bool write_whole(int fd, const char* text, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::write(fd, text + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// The value is written whole to a file of this process and moved to the
// temporary name, which is then renamed over the variable file. Writers of
// one variable share the temporary name, so each one moves a complete file
// into place and a reader never sees a part of a value.
void glbv_write(const char* name, const char* file, bool fits, char* buffer) {
  char tmp[kFileMax + 8];
  char own[kFileMax + 32];
  std::snprintf(tmp, sizeof tmp, "%s.tmp", file);
  std::snprintf(own, sizeof own, "%s.%ld", tmp, static_cast<long>(::getpid()));
  UniqueFd fd(open_path(fits, own, O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (!fd) {
    const int error = errno;
    trace("%l0 glbv() write %s failed: %s (%d)\n", tmp, std::strerror(error), error);
    write_failed(name, error, buffer);
    return;
  }
  ::fchmod(fd.get(), 0644);  // whatever the umask
  bool ok = write_whole(fd.get(), buffer, std::strlen(buffer));
  int error = errno;
  if (::close(fd.release()) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    trace("%l0 glbv() write %s failed: %s (%d)\n", tmp, std::strerror(error), error);
    ::unlink(own);
    write_failed(name, error, buffer);
    return;
  }
  if (::rename(own, tmp) != 0) {
    error = errno;
    trace("%l0 glbv() rename %s failed: %s (%d)\n", own, std::strerror(error), error);
    ::unlink(own);
    write_failed(name, error, buffer);
    return;
  }
  if (::rename(tmp, file) == 0) return;
  error = errno;
  if (error == ENOENT) {
    // Another writer of the same variable moved the temporary file first; its value wins.
    trace("%l1 ATTENTION: glbv() rename %s failed: %s (%d) - concurrent process has written to same GLBV\n", tmp,
          std::strerror(error), error);
    return;
  }
  trace("%l0 glbv() rename %s failed: %s (%d)\n", tmp, std::strerror(error), error);
  ::unlink(tmp);
  write_failed(name, error, buffer);
}

// File pattern of one alternative: "?" one character, "*" any run.
bool glob_match(std::string_view pattern, std::string_view text) {
  std::size_t p = 0;
  std::size_t t = 0;
  std::size_t star = std::string_view::npos;
  std::size_t resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

}  // namespace

bool glbv_pattern_match(std::string_view pattern, std::string_view name) {
  for (;;) {
    const std::size_t bar = pattern.find('|');
    if (glob_match(pattern.substr(0, bar), name)) return true;
    if (bar == std::string_view::npos) return false;
    pattern.remove_prefix(bar + 1);
  }
}

namespace {

struct VariableFile {
  std::string name;  ///< without directory and ".sgv"
  time_t mtime = 0;
};

// The variable files of the directory whose names match the pattern, sorted by name.
std::vector<VariableFile> find_variables(const char* dir, std::string_view pattern) {
  std::vector<VariableFile> found;
  DIR* d = ::opendir(dir);
  if (d == nullptr) return found;
  while (const dirent* e = ::readdir(d)) {
    const std::string_view file = e->d_name;
    if (file.size() <= 4 || !file.ends_with(".sgv")) continue;
    const std::string_view name = file.substr(0, file.size() - 4);
    if (!glbv_pattern_match(pattern, name)) continue;
    struct stat st {};
    if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
    found.push_back({std::string(name), st.st_mtime});
  }
  ::closedir(d);
  std::sort(found.begin(), found.end(),
            [](const VariableFile& a, const VariableFile& b) { return a.name < b.name; });
  return found;
}

void glbv_delete(const char* dir, const char* name, const char* file, bool fits, const char* buffer) {
  if (std::strchr(name, '*') == nullptr && buffer[0] == '\0') {
    if (fits) ::unlink(file);  // a missing variable is no error
    return;
  }
  const long days = std::strtol(buffer, nullptr, 10);
  const time_t now = std::time(nullptr);
  for (const VariableFile& v : find_variables(dir, name)) {
    if (days > 0 && now - v.mtime <= days * 86400L) continue;
    const std::string path = std::string(dir) + v.name + ".sgv";
    ::unlink(path.c_str());
  }
}

void glbv_list(const char* dir, const char* name, bool with_values) {
  for (const VariableFile& v : find_variables(dir, name)) {
    if (with_values) {
      char var[1024];
      char value[kAnswerSize];
      CopyCut(var, v.name);
      glbv('r', var, value);
      std::printf("%s=%s\n", v.name.c_str(), value);
    } else {
      std::printf("%s\n", v.name.c_str());
    }
  }
  std::fflush(stdout);
}

}  // namespace

void glbv_forget_directory() {
  gszGlbvDir[0] = '\0';
  gbGlbvDirKnown = false;
}

char* glbv(char service, char* name, char* buffer) {
  if (buffer == nullptr) return buffer;
  static char empty_name[1];
  if (name == nullptr) {
    empty_name[0] = '\0';
    name = empty_name;
  }
  for (char* p = name; *p; ++p)
    if (*p == '/' || *p == '\\') *p = '_';

  if (!gbGlbvDirKnown) {
    char err[kAnswerSize];
    if (!i_READ_INI("KD_INI", "[Pathes]", "gv_rw_glbv", gszGlbvDir, sizeof gszGlbvDir, err, sizeof err)) {
      std::string detail(err);
      detail += " error reading kd_ini";
      char message[kAnswerSize];
      std::snprintf(message, sizeof message, msg_text(MSG_FATAL_SOFTWARE_ERROR), "../cm_hal_unix", 298,
                    detail.c_str());
      answerf(buffer, "?? %s", message);
      return buffer;
    }
    gbGlbvDirKnown = true;
  }

  char file[kFileMax];
  const int n = std::snprintf(file, sizeof file, "%s%s.sgv", gszGlbvDir, name);
  const bool fits = n >= 0 && static_cast<std::size_t>(n) < sizeof file;

  switch (service) {
    case 'r': glbv_read(name, file, fits, false, buffer); break;
    case 'R': glbv_read(name, file, fits, true, buffer); break;
    case 'w': glbv_write(name, file, fits, buffer); break;
    case 'd': glbv_delete(gszGlbvDir, name, file, fits, buffer); break;
    case 'l': glbv_list(gszGlbvDir, name, false); break;
    case 'L': glbv_list(gszGlbvDir, name, true); break;
    default: answerf(buffer, msg_text(MSG_GLBV_INVALID_SERVICE), service); break;
  }
  return buffer;
}
