#include "views/listing.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cm_common.h"
#include "cm_trace.h"
#include "jobs/admin_queue.h"
#include "jobs/removal.h"
#include "model/triple.h"
#include "protocol/answer.h"
#include "views/job_view.h"
#include "views/queue_view.h"
#include "xutil.h"

namespace {

/// Fork and its failure as answer_show traces them; 0 in the child.
pid_t fork_listing_child() {
  // Nothing buffered may be written twice, once by the child.
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) {
    const int err = errno;
    trace("%l0 answer_show: ERROR: Fork into background failed: %s (%d)", std::strerror(err), err);
    return -1;
  }
  if (child > 0) trace("%l2 answer_show: Further work will be done by my child with pid %d", static_cast<int>(child));
  if (child == 0) SetAnswerWriterTimers();
  return child;
}

/// Writes the view that the selector names (see answer_wildcard).
void write_view(FILE* out, QueueTriple* triple, char selector) {
  HPEER peer;
  peer.valid = true;
  peer.fOut = out;
  peer.fd = out != nullptr ? fileno(out) : -1;
  switch (selector) {
    case 'F':
    case 'N':
      // The job listings hand a job through the triple argument.
      PrintJob(ElementOf<Job>(NodeOf(triple)), selector == 'F' ? "full" : "name", out);
      break;
    case 'c': ViewQueCSV(triple, &peer); break;
    case 'f': ViewQueFull(triple, out); break;
    case 'n': ViewQueNames(triple, out); break;
    case 't': ViewQueStatus(triple, out); break;
    case 's':
      ViewQue(triple, out);
      trace("%l2 [%d] removing queue %s", static_cast<int>(getpid()), triple->name.c_str());
      if (triple == gAdminQueue) {
        // Unlinked but kept: the triples removed after it still hand their
        // waiting jobs to its terminating queue.
        UnlinkQueTriple(triple);
      } else {
        RemoveQueTriple(&Root, triple);
      }
      break;
    default: ViewQue(triple, out); break;
  }
}

}  // namespace

int iStrWildcard(std::string_view text, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern ? 1 : 0;
  // Only the fields before the first and between the first and the second
  // "*" count: a pattern holds one effective "*".
  const std::string_view first = pattern.substr(0, star);
  std::string_view second = pattern.substr(star + 1);
  if (const std::size_t next = second.find('*'); next != std::string_view::npos) second = second.substr(0, next);

  const bool first_holds = first.empty() || text.substr(0, first.size()) == first;
  bool second_holds = second.empty();
  if (!second_holds) {
    // The first occurrence must be the end: "ab" does not end "abab" here.
    const std::size_t at = text.find(second);
    second_holds = at != std::string_view::npos && text.substr(at) == second;
  }
  return first_holds && second_holds ? 1 : 0;
}

int iWildcard(QueueTriple* triple, std::string_view pattern) { return iStrWildcard(triple->name.view(), pattern); }

void QueName_wildcard(Node* node, void* query, void* mode) {
  QueueTriple* triple = ElementOf<QueueTriple>(node);
  auto* q = static_cast<Query*>(query);
  if (iWildcard(triple, q->que_name) == 0) return;
  ++q->count;
  answer_wildcard(&q->peer, KD_SUCCESS, nullptr, triple, static_cast<char>(ArgInt(mode)));
}

int JobNameWildcard(Node* node, void* query, void*) {
  Job* job = ElementOf<Job>(node);
  auto* q = static_cast<Query*>(query);
  if (iStrWildcard(job->job_name.view(), q->job_name) == 0) return 0;
  // The job travels through the triple argument of the answer writer; the
  // selectors "F" and "N" read it back as a job.
  answer_wildcard(&q->peer, KD_SUCCESS, nullptr, ElementOf<QueueTriple>(NodeOf(job)),
                  q->function == job_sho_full ? 'F' : 'N');
  return 1;
}

void answer_wildcard(HPEER* peer, int status, const char* text, QueueTriple* triple, char selector) {
  if (!peer->valid) {
    trace("--- answer_wildcard [%d]: no need to answer - peer not valid - done", static_cast<int>(peer->PID));
    return;
  }
  if (peer->iStatusFlag == 2) {
    if (peer->fOut != nullptr) {
      if (text != nullptr) pipe_printf(peer->fOut, "%s\n", text);
      std::fclose(peer->fOut);  // closes fd as well
      peer->fd = -1;
      peer->fOut = nullptr;
    }
    return;
  }
  if (peer->iStatusFlag == 0) {
    peer->iStatusFlag = 1;
    const int fd = iOpen_From_QM_Pipe(static_cast<long>(peer->PID));
    if (fd < 0) {
      char what[128];
      x_Snprintf(what, sizeof what, "File from_qm_pipe%ld can't be opened", static_cast<long>(peer->PID));
      std::perror(what);
      return;
    }
    FILE* out = fdopen(fd, "w");
    if (out == nullptr) {
      std::perror("Cannot open from_qm pipe");
      close(fd);
      return;
    }
    peer->fd = fd;
    peer->fOut = out;
    pipe_printf(out, "%d", status);
  }
  if (peer->fOut == nullptr) return;  // the pipe could not be opened by the first part
  if (text != nullptr) pipe_printf(peer->fOut, "%s", text);
  if (triple != nullptr) write_view(peer->fOut, triple, selector);
}

pid_t answer_show(char selector, List* list, VoidFnPtr3 walk, Query* q) {
  const pid_t child = fork_listing_child();
  if (child != 0) return child > 0 ? child : 0;
  // The child lists its own copy of the daemon's memory: the state at the fork.
  trace("%l3 answer_show: queue %s", q->que_name);
  WalkList(list, walk, q, IntArg(selector));
  trace("%l3 answer_show: ### QueName_wildcard done: queue %s", q->que_name);
  q->peer.iStatusFlag = 2;
  answer_wildcard(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=ok", nullptr, selector);
  _exit(0);
}

pid_t answer_show(char selector, List* list, IntFnPtr3 search, Query* q) {
  const pid_t child = fork_listing_child();
  if (child != 0) return child > 0 ? child : 0;
  trace("%l3 answer_show: queue %s", q->que_name);
  answer_wildcard(&q->peer, KD_SUCCESS, "", nullptr, selector);
  SearchList(list, search, q, nullptr);
  trace("%l3 answer_show: ### answer_all_job done: queue %s", q->que_name);
  q->peer.iStatusFlag = 2;
  answer_wildcard(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=ok\n", nullptr, selector);
  _exit(0);
}
