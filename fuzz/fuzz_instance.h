// A throw-away server instance for the fuzz targets: a temporary directory
// with the bootstrap file, kd.ini ("[Pathes]"), debug.ini and the
// directories the daemon reads, KD_INI pointing at it, removed at exit.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace kdfuzz {

inline std::string& InstanceRoot() {
  static std::string root;
  return root;
}

inline void WriteText(const std::string& path, const std::string& text, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  chmod(path.c_str(), mode);
}

/// Creates the instance once; trace level 0 keeps the trace log small while
/// millions of requests pass. Returns the root without a trailing "/".
inline const std::string& MakeInstance() {
  std::string& root = InstanceRoot();
  if (!root.empty()) return root;
  const char* base = std::getenv("TMPDIR");
  std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kdfuzz.XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  root = templ;
  for (const char* d : {"log", "ini", "glbv", "workdir", "workdir/sem", "qm", "qm/com", "bin"})
    std::filesystem::create_directories(root + "/" + d);
  WriteText(root + "/kelda.ini", "KD_INI=" + root + "/ini/kd.ini\n");
  std::string ini = "[Pathes]\n";
  for (const auto& [key, dir] : {std::pair{"gv_rw_lgc", "log"}, {"gv_rw_ini", "ini"}, {"gv_rw_glbv", "glbv"},
                                 {"gv_rw_work", "workdir"}, {"gv_rw_qm", "qm"}, {"gv_ro_bin", "bin"},
                                 {"gv_rw_bin", "bin"}})
    ini += std::string(key) + "=" + root + "/" + dir + "/\n";
  WriteText(root + "/ini/kd.ini", ini);
  WriteText(root + "/ini/debug.ini", "KD_QM_MAIN=0\n");
  // Programs that the seeds name; they are never run.
  WriteText(root + "/bin/job.sh", "#!/bin/sh\nexit 0\n", 0755);
  WriteText(root + "/bin/kill.sh", "#!/bin/sh\nexit 0\n", 0755);
  setenv("KD_INI", (root + "/kelda.ini").c_str(), 1);
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(InstanceRoot(), ec);
  });
  return root;
}

}  // namespace kdfuzz
