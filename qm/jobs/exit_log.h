// The job exit log: one plain-text file per business day,
// "%s/kd_qm_exit_%s.log" in gv_rw_lgc, with a line per created job and per
// recorded end or restart. Switched together with the trace log: nothing is
// written at trace level 0.
#pragma once

#include <cstdint>

struct Job;

/// The current exit-log path; empty when gv_rw_lgc is not configured.
extern char gszKdQmExitLog[1024];

/// Sets the exit-log path for the day tag from gv_rw_lgc of "[Pathes]"; a
/// missing directory is reported (E003, standard error) and leaves it empty.
void SetKdQmExitLog(const char* day_tag);

/// Appends "%Y-%m-%d %H:%M:%S", a blank and the text as one line.
void AppendKdQmExitLog(const char* text);

/// The creation record "CTX:%d;name:%s;submit:%s;start:%s;command: %s".
void JobCreatedKdQmExitLog(Job* job);

/// Writes the accumulated termination reasons and restart notes of the job
/// (a record each) and frees them.
void FlushJobKdQmExitLog(Job* job);

/// Adds a termination reason (a blank between reasons) and flushes.
void AppendJobTerminationReason(Job* job, const char* reason);
/// Adds a restart note (a blank between notes) and flushes.
void AppendJobRestart(Job* job, const char* note);
/// Adds the reason followed by " [exit code: %lld]" and flushes.
void AppendJobTerminationReasonExitStatus(Job* job, const char* reason, int64_t exit_code);
