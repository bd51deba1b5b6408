// Writing answers into the answer pipes of the daemon's clients.
//
// An answer is one status digit ("0" Ok, "1" Warning, "2" Error) followed by
// free text, by convention records "STATUS=<state> MSG=<text>\n"; the end of
// the answer is the writer's close of the pipe.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "protocol/request.h"

/// Opens the answer pipe of the requester pid ("from_qm_pipe<pid>" below
/// gszQmDir + "com/"; pid 0 means the pipe of the request being served)
/// write-only and non-blocking, retrying 20 times 100 ms apart while no
/// reader has it open. A symbolic link under that name, or anything opened
/// that is no FIFO, is refused at once with a trace line and never written
/// to. Returns the descriptor (close-on-exec) or -1 with errno kept (ELOOP
/// for a link, EINVAL for no FIFO).
[[nodiscard]] int iOpen_From_QM_Pipe(long pid);
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

/// Path of the answer pipe of a requester: "%scom%sfrom_qm_pipe%ld" of
/// gszQmDir, "/" and the pid.
void BuildAnswerPipePath(long pid, char (&path)[1024]);

/// Answers a whole text of any length with the given status: the text is
/// handed to answer as its format with every "%" doubled, so that it is
/// neither cut nor read as conversions.
void answer_text(Query* q, int status, const std::string& text);
