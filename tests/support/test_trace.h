// Trace logs for unit tests: the process's own log (strLocalLog) or the log
// of the module KD_TEST, each set up for one test and given up after it.
#pragma once

#include <string>

#include "cm_common.h"
#include "cm_trace.h"
#include "kd_test_support.h"

namespace kdtest {

/// While it lives, strLocalLog writes to <lgc>trace.log at the level.
class LocalTrace {
 public:
  LocalTrace(const TestInstance& inst, int level) {
    CopyCut(strLocalLog.szLogFile, inst.lgc() + "trace.log");
    strLocalLog.iLogLevel = level;
  }
  ~LocalTrace() {
    strLocalLog.szLogFile[0] = '\0';
    strLocalLog.iLogLevel = 0;
  }
  LocalTrace(const LocalTrace&) = delete;
  LocalTrace& operator=(const LocalTrace&) = delete;

  std::string Text() const { return ReadFile(strLocalLog.szLogFile); }
  bool Has(const std::string& part) const { return Text().find(part) != std::string::npos; }
};

/// The log of the module KD_TEST at the level (its debug.ini line), opened
/// with v_set_log_main and closed on destruction.
class ModuleTrace {
 public:
  ModuleTrace(const TestInstance& inst, int level) {
    inst.write_debug_ini("KD_TEST=" + std::to_string(level) + "\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &log_);
  }
  ~ModuleTrace() { v_set_log_all_close(&log_); }
  ModuleTrace(const ModuleTrace&) = delete;
  ModuleTrace& operator=(const ModuleTrace&) = delete;

  std::string Text() const { return ReadFile(log_.szLogFile); }
  bool Has(const std::string& part) const { return Text().find(part) != std::string::npos; }

 private:
  str_log log_;
};

}  // namespace kdtest
