// Writing answers into the answer pipes of the daemon's clients.
//
// An answer is one status digit ("0" Ok, "1" Warning, "2" Error) followed by
// free text, by convention records "STATUS=<state> MSG=<text>\n"; the end of
// the answer is the writer's close of the pipe.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

#include "qm_lib.h"

struct QueueTriple;

/// Opens the answer pipe of the requester pid ("from_qm_pipe<pid>" below
/// gszQmDir + "com/"; pid 0 means the pipe of the request being served)
/// write-only and non-blocking, retrying 20 times 100 ms apart while no
/// reader has it open. A symbolic link under that name, or anything opened
/// that is no FIFO, is refused at once with a trace line and never written
/// to. Returns the descriptor (close-on-exec) or -1 with errno kept (ELOOP
/// for a link, EINVAL for no FIFO).
int iOpen_From_QM_Pipe(long pid);
/// Called first in a forked answer writer: its timers get no slack, so that
/// the pause before opening the client's pipe is the 10 microseconds asked
/// for rather than the default slack's 60. Not for the daemon, whose jobs
/// would inherit it.
void SetAnswerWriterTimers();

/// Waits at most one second for the stream's descriptor to take data, then
/// formats and writes. Returns the number of characters written. Ends the
/// process with exit code 1 when the wait itself fails.
int pipe_printf(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// One-shot answer: formats the text (cut at the format's length + 1024
/// characters) and hands the writing to a forked child, so that the daemon
/// never waits for a slow client. Nothing happens for a peer that is not
/// valid. Returns the child's pid, or 0 when no child was started.
pid_t answer(const HPEER* peer, int status, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Multi-part answer written by the calling process itself. The first call
/// (iStatusFlag 0) opens the pipe and writes the status digit; every call
/// writes the text (if given) and the view of the triple (if given) that the
/// selector names; a call with iStatusFlag 2 writes the text plus a line feed
/// and closes the answer.
void answer_wildcard(HPEER* peer, int status, const char* text, QueueTriple* triple,
                     char selector);

/// Path of the answer pipe of a requester: "%scom%sfrom_qm_pipe%ld" of
/// gszQmDir, "/" and the pid.
void BuildAnswerPipePath(long pid, char (&path)[1024]);

// ---------------------------------------------------------------------------
// Job exit log: one plain-text file per business day, "%s/kd_qm_exit_%s.log"
// in gv_rw_lgc, with a line per created job and per recorded end or restart.
// Switched together with the trace log: nothing is written at trace level 0.
// ---------------------------------------------------------------------------

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
