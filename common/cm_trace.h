// Trace log: the per-module diagnostic log of every program of the server.
//
// `trace` writes levelled messages ("%l3 text": a percent sign, the letter l,
// one level character and a blank) to the process's local log record, its
// format checked against its arguments at compile time;
// `WRITE_TRACE` writes one line to a given record whatever the level.
#pragma once

#include <cstdio>
#include <type_traits>

#include "cm_trace_format.h"

/// The log record; one per log, owned by the caller (usually a global).
struct str_log {
  char szLogFile[1024] = {};  ///< full path of the log file
  int iLogLevel = 0;          ///< level of this module from debug.ini
  int iPid = 0;               ///< 1 = " [%ld]" of the pid behind the timestamp (gv_log_pid)
  int iVerbose = 0;           ///< 1 = every line also goes to standard error
  char szIns[65] = {};        ///< current indentation, two blanks per open "+" block
  int iProtDB = 0;            ///< level of the pseudo-module PROT_DB; only reported
  int iThreadId = 0;          ///< 1 = " [TID: %lu]" in each line
  int iProcessId = 0;         ///< 1 = " [%d]" of the pid in each line
  int iNoIdent = 0;           ///< 1 = ignore "+"/"-" indentation marks
  FILE* fpLogFile = nullptr;  ///< open handle of szLogFile in append mode, or none
  int bIsPidUsedInName = 0;   ///< 1 = the log name held the token "<PID>"
  char szExeName[256] = {};   ///< module name, lower-cased
};

/// The record `trace` always writes to: a copy of the first log.
extern str_log strLocalLog;
/// The first record ever passed to v_set_log_main; none before.
extern str_log* pstrFirstLog;
/// 1 = timestamps carry milliseconds (gv_log_milliseconds).
extern int bWithMilliseconds;

/// Initialises or re-initialises a log record: log name (may hold "<PID>" and
/// "<DAYLBL>"), upper-case module name as in debug.ini, the record.
void v_set_log_main(const char* log_name, const char* module, str_log* rec);

/// Sets iProcessId = 1 in the record (if given), then v_set_log_main.
void v_set_log_main_with_pid(const char* log_name, const char* module, str_log* rec);

/// Sets level and verbosity of a record (and of strLocalLog if it is the first log).
void v_set_log(int level, int verbose, str_log* rec);

/// Closes the file handles of the record; given the first log, also the
/// handle of strLocalLog, so that afterwards no trace stream of the process
/// is open (call it before fork). The next line reopens the file.
void v_set_log_all_close(str_log* rec);

/// Moves the record's log file to a new name in gv_rw_lgc (renaming it, or
/// appending it to an existing file of that name); the record and strLocalLog
/// take the new path.
void v_set_log_mover(str_log* rec, const char* new_name);

/// The level of the name in debug.ini of gv_rw_ini, or 0.
int log_check(const char* name);

/// Writes a levelled message to strLocalLog. The format carries the level
/// prefix ("%l0 ", "%l3 ", "%l+ ", "%l* "), so it is no plain printf format
/// and the compiler's format checking cannot see it; messages above the
/// level are not formatted. For a format known only at run time.
void trace_unchecked(const char* format, ...);

/// trace_unchecked with the format checked against the arguments at compile
/// time (cm_trace_format.h): a mismatch is a compile error at the call.
template <class... Args>
void trace(std::type_identity_t<TraceFormat<Args...>> format, Args... args) {
  trace_unchecked(format.text, args...);
}

/// trace("%s", text).
void trace_ln(const char* text);

/// Writes one line to the record, whatever the level. A format beginning
/// with "+" opens an indentation block, "-" closes one.
void WRITE_TRACE(str_log* rec, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// WRITE_TRACE with the format "COPY_FILE": copies the named file into the log.
void WRITE_TRACE_COPY_FILE(str_log* rec, const char* file_name);

/// Forgets every piece of process-wide trace state (first log, flags,
/// indentation) and closes strLocalLog's handle, as in a fresh process.
/// For tests and for a child that must start a log of its own.
void trace_reset_for_tests();
