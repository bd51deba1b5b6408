// Supervising running jobs: reaping an ended job and deciding what follows
// (restart, follow-up job or removal), and stopping jobs gracefully or hard.
// Each job is reaped by its own pid without blocking; signals go to its
// process group.
#pragma once

#include <cstdint>

#include "model/list.h"
#include "model/records.h"

/// Walk callback over the jobs of an executing queue (queue as argument):
/// reaps an ended job, records its end, restarts it or ends it (follow-up or
/// removal). A job whose start failed (pid -1) ends as exit code 127.
void JobControl(Node* job, void* queue, void*);
/// Sends SIGINT to the job's process group and notes the request time.
void JobGracefullStop(Job* job);
/// SIGINT, then SIGKILL to the job's group without waiting; a job not yet
/// reaped stays in the queue for the next JobControl. immediate is traced only.
void JobStopControl(Job* job, Queue* queue, int immediate);
/// The end of a job that is not restarted: unlinked from the queue, then
/// its follow-up job started in its place (when follow-ups are enabled), or
/// its peers answered and the job destroyed. True when its place is free.
bool bRemJobStartFollow(Job* job, Queue* queue, int exit_code);
/// Removes a waiting job (and its follow-up chain) and destroys it.
void RemJob(Job* job, List* list);
