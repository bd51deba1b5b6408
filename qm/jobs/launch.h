// Starting a job's program: its argument vector and command line, and the
// fork and exec of a child that leads a process group of its own, so that
// the daemon can signal the whole job (its grandchildren included) through
// the negated process id.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "model/list.h"
#include "model/records.h"

/// Entries of a child's argument vector: 0 the executable, 1 to 308 the
/// arguments, 309 the last one written (overwritten by every further one).
inline constexpr int kMaxArgvEntries = 310;
/// Length of the formatted command line of a job (trace and exit log).
inline constexpr std::size_t kCommandLineSize = 24576;

/// Appends one argument (the number as "%d") and counts it in arg_count;
/// 0, or 1 when no memory could be had.
[[nodiscard]] int jobAddArg_str(Job* job, const char* text);
[[nodiscard]] int jobAddArg_int(Job* job, int value);
/// Walk callback over ListOfArguments: stores the argument at *index (int*)
/// in argv (const char** of kMaxArgvEntries + 1 null-initialised entries).
/// The last entry is overwritten by every further argument, and the first
/// overflow of a command line is reported once with W003.
void BuildArgv(Node* argument, void* index, void* argv);
/// The job's command line as traced and logged: "\"%s\"" of the executable,
/// then one blank and each argument, built from the same 310-entry vector as
/// the launch and cut at kCommandLineSize - 1 characters.
std::string JobCommandLine(Job* job);

/// Starts the job's program as a child in its own process group: notes the
/// start time, answers the job's peers with its entry number (and with the
/// pid when it wants answer steps), closes every descriptor but standard
/// input, which becomes standard output and error too. The pid, or -1 when
/// every fork retry failed. A failed exec ends the child with 127.
[[nodiscard]] pid_t runjob(Job* job);

/// Answers a peer with code 0 and marks it answered.
void NotifyAndInvalidateyPeer(Peer* peer, const char* format, ...) __attribute__((format(printf, 2, 3)));
/// Sends the same answer with code 0 to every peer of the job that has not
/// been answered yet.
void NotifyPeers(Job* job, const char* format, ...) __attribute__((format(printf, 2, 3)));
