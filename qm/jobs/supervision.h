// Job processes: launch, supervision, stop, restart policy.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "qm_job.h"

/// Daemon-wide options; bit follow_up enables follow-up jobs.
enum QMOptions : uint32_t { follow_up = 1 };
extern uint32_t eQMOptions;

/// Entries of a child's argument vector: 0 the executable, 1 to 308 the
/// arguments, 309 the last one written (overwritten by every further one).
inline constexpr int kMaxArgvEntries = 310;
/// Length of the formatted command line of a job (trace and exit log).
inline constexpr std::size_t kCommandLineSize = 24576;

/// The clock of the restart windows and the graceful-stop timestamps
/// (seconds since the epoch); time() unless a test sets another.
extern time_t (*gQmNow)();
/// time(nullptr); the default of gQmNow.
time_t QmSystemNow();

/// The job's command line as traced and logged: "\"%s\"" of the executable,
/// then one blank and each argument, built from the same 310-entry vector as
/// the launch and cut at kCommandLineSize - 1 characters.
std::string JobCommandLine(Job* job);

/// Sets t to the current local time.
void WriteTime(QMTime* t);
/// Starts the job's program as a child in its own process group; the pid or -1.
pid_t runjob(Job* job);
/// Walk callback over ListOfArguments: stores the argument at *index (int*)
/// in argv (const char** of kMaxArgvEntries + 1 null-initialised entries).
void BuildArgv(Node* argument, void* index, void* argv);
/// Append one argument (the number as "%d") and count it in arg_count;
/// 0, or 1 when no memory could be had.
int jobAddArg_str(Job* job, const char* text);
int jobAddArg_int(Job* job, int value);
/// Walk callback over the jobs of an executing queue (queue as argument):
/// reaps an ended job, restarts it or ends it (follow-up or removal).
void JobControl(Node* job, void* queue, void*);
/// Sends SIGINT to the job's process group and notes the request time.
void JobGracefullStop(Job* job);
/// SIGINT, then SIGKILL to the job's group without waiting; a job not yet
/// reaped stays in the queue for the next JobControl. immediate is traced only.
void JobStopControl(Job* job, Queue* queue, int immediate);
/// The end of a job that is not restarted; true when its place is free.
bool bRemJobStartFollow(Job* job, Queue* queue, int exit_code);
/// Removes a waiting job (and its follow-up chain) and destroys it.
void RemJob(Job* job, List* list);
/// Answers a peer with code 0 and marks it answered.
void NotifyAndInvalidateyPeer(Peer* peer, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The new pid when the job was started again, 0 when not, -1 on failure.
int32_t JobRestart(Job* job, int64_t exit_code);
/// Walk callback: iPendingStateExitCode := atoi(text).
void SetPendingStateExitCode(Node* job, void* text, void*);
/// Runs a job that never ran once with "-d" and its pending-state exit code,
/// unless that code is 0.
void RunWithPendingStateExitCode(Job* job);
