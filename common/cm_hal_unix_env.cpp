// Process environment and signalling: the environment given to jobs and the
// traced kill.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "strlib.h"

namespace {

/// The new PATH holds at most kPathSize - 1 characters.
constexpr std::size_t kPathSize = 2048;

// Entries handed to putenv become part of the environment, so they live as
// long as the process; a later call rewrites the same entry.
char gPathEntry[kPathSize + 5];
char gPgPortEntry[1024 + 7];
char gLdLibraryPathEntry[4096];

using IniValue = char[1024];

bool read_kd_ini(const char* section, const char* key, IniValue& value) {
  char err[1024];
  return i_READ_INI("KD_INI", section, key, value, sizeof value, err, sizeof err) == 1;
}

/// Appends dir to path behind a ":" unless path already holds it somewhere
/// (a plain substring test); the appended length, or 0.
int append_missing(std::string& path, const char* dir) {
  if (path.find(dir) != std::string::npos) return 0;
  path += ':';
  path += dir;
  return static_cast<int>(std::strlen(dir));
}

}  // namespace

int i_setenv_kelda(const char* module) {
  char szModule[512];
  const char* text = module ? module : "";
  while (*text == ' ' || *text == '\t') ++text;
  CopyCut(szModule, text);
  str_to_lower(szModule);

  int iWithDbAccess = std::strstr(szModule, "kd_db") != nullptr ? 1 : 0;
  trace("i_setenv_kelda: check [%s] -> iWithDbAccess %d", szModule, iWithDbAccess);
  const char* first_blank = std::strchr(szModule, ' ');
  const char* netware = std::strstr(szModule, "netware");
  const bool bNetware = netware != nullptr && (first_blank == nullptr || netware < first_blank);

  IniValue szRoDb = {};
  IniValue szPgsql = {};
  if (iWithDbAccess && !read_kd_ini("PATHES", "gv_ro_db", szRoDb)) {
    trace("i_setenv_kelda: 'gv_ro_db' does not exist -> go on without database environment");
    iWithDbAccess = 0;
  }
  if (iWithDbAccess) {
    IniValue szPort = {};
    if (!read_kd_ini("SERVER", "gv_port_db", szPort)) {
      trace("%l0 %s", "key gv_port_db not found in kd.ini");
      std::printf("%s\n", "key gv_port_db not found in kd.ini");
      return 0;
    }
    const char* current = std::getenv("PGPORT");
    if (std::strcmp(current ? current : "", szPort) != 0) {
      std::snprintf(gPgPortEntry, sizeof gPgPortEntry, "PGPORT=%s", szPort);
      if (putenv(gPgPortEntry) != 0) {
        trace("error in putenv [%s]", gPgPortEntry);
        std::printf("error in putenv [%s]\n", gPgPortEntry);
        return 0;
      }
    }
    if (!read_kd_ini("PATHES", "gv_ro_pgsql", szPgsql)) CopyCut(szPgsql, "/usr/local/pgsql/bin/");
  }

  IniValue szRwBin = {};
  IniValue szRoBin = {};
  IniValue szRoKds = {};
  const bool bRwBin = read_kd_ini("Pathes", "gv_rw_bin", szRwBin);
  if (!bRwBin) trace("%l0 i_setenv_kelda: ERROR: i_READ_INI(gv_rw_bin) failed");
  if (!read_kd_ini("PATHES", "gv_ro_bin", szRoBin)) {
    trace("%l0 i_setenv_kelda: ERROR: i_READ_INI(gv_ro_bin) failed");
    return 0;
  }
  const bool bRoKds = read_kd_ini("PATHES", "gv_ro_kds", szRoKds);

  const char* path = std::getenv("PATH");
  if (path == nullptr) {
    trace("%l0 i_setenv_kelda: ERROR: getenv(PATH) returned 0");
    std::printf("error in getenv PATH");
    return 0;
  }
  // A copy: path may point into gPathEntry, which is rewritten below.
  std::string szNewPath = path;
  const int iStrLenPath = static_cast<int>(szNewPath.size());
  int iStrLenRwBin = 0, iStrLenRoBin = 0, iStrLenRoDb = 0, iStrLenRoPgsql = 0, iStrLenRoKds = 0;
  if (bRwBin) iStrLenRwBin = append_missing(szNewPath, szRwBin);
  iStrLenRoBin = append_missing(szNewPath, szRoBin);
  if (iWithDbAccess) {
    iStrLenRoDb = append_missing(szNewPath, szRoDb);
    iStrLenRoPgsql = append_missing(szNewPath, szPgsql);
  }
  if (bRoKds) iStrLenRoKds = append_missing(szNewPath, szRoKds);

  if (szNewPath.size() > kPathSize - 1) {
    std::printf("iStrLenRwBin = %d (0 means that string already in PATH)\n", iStrLenRwBin);
    std::printf("iStrLenRoBin = %d (0 means that string already in PATH)\n", iStrLenRoBin);
    std::printf("iStrLenRoDb  = %d (0 means that string already in PATH)\n", iStrLenRoDb);
    std::printf("iStrLenRoPgsql = %d (0 means that string already in PATH)\n", iStrLenRoPgsql);
    std::printf("iStrLenRoKds = %d (0 means that string already in PATH)\n", iStrLenRoKds);
    std::printf("iStrLenPath  = %d\n", iStrLenPath);
    std::printf("iSizeOfPath  = %d\n", static_cast<int>(kPathSize));
    std::printf("length of string is not sufficient");
    return 0;
  }
  std::snprintf(gPathEntry, sizeof gPathEntry, "PATH=%s", szNewPath.c_str());
  if (putenv(gPathEntry) != 0) {
    std::printf("error in putenv %s", gPathEntry);
    return 0;
  }

  if (bNetware) {
    const char* ld = std::getenv("LD_LIBRARY_PATH");
    if (ld == nullptr) {
      std::printf("didn't get LD_LIBRARY_PATH");
      ld = "";
    }
    std::fprintf(stderr, "check LD_LIBRARY_PATH=%s\n", ld);
    if (std::strstr(ld, "/opt/novell/lib") == nullptr) {
      const std::string entry = std::string("LD_LIBRARY_PATH=") + ld + ":" + "/opt/novell/lib";
      if (entry.size() >= sizeof gLdLibraryPathEntry) {
        std::printf("error in putenv %s\n", entry.c_str());
        return 0;
      }
      CopyCut(gLdLibraryPathEntry, entry);
      if (putenv(gLdLibraryPathEntry) != 0) {
        std::printf("error in putenv %s\n", gLdLibraryPathEntry);
        return 0;
      }
      std::printf("set %s\n", gLdLibraryPathEntry);
    }
  }
  return 1;
}

int i_cm_kill(pid_t pid, int sig) {
  trace("i_cm_kill: pid %d signal %d", static_cast<int>(pid), sig);
  if (kill(pid, sig) != 0) {
    const int error = errno;
    trace("%l0 ERROR (%d): %s", error, std::strerror(error));
    trace("i_cm_kill returns %d", 0);
    return 0;
  }
  trace("i_cm_kill returns %d", 1);
  return 1;
}
