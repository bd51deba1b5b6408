// Listings: which triples and jobs a listing picks (wildcards), the
// multi-part answer that writes their views, and the forked child that
// writes a whole listing while the daemon goes on.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "model/list.h"
#include "model/records.h"
#include "protocol/request.h"

/// 1 when text matches pattern: without "*" the whole text; with it, the
/// text begins with the part before the first "*" and ends with the part
/// between the first and a second "*" (one effective "*").
int iStrWildcard(std::string_view text, std::string_view pattern);
/// iStrWildcard of the triple's name.
int iWildcard(QueueTriple* triple, std::string_view pattern);

/// Multi-part answer written by the calling process itself. The first call
/// (iStatusFlag 0) opens the pipe and writes the status digit; every call
/// writes the text (if given) and the view of the triple (if given) that the
/// selector names: "c" comma-separated, "f" full, "n" names, "t" status,
/// "s" the short view after which the triple is removed (the admin triple is
/// only unlinked), "F" and "N" a job handed through the triple argument as a
/// full block or a name line, anything else the short view. A call with
/// iStatusFlag 2 writes the text plus a line feed and closes the answer.
void answer_wildcard(HPEER* peer, int status, const char* text, QueueTriple* triple, char selector);

/// Writes a listing from a forked child, so that the daemon goes on at once:
/// walks list with walk (each call writes through answer_wildcard with the
/// selector) and closes the answer with "STATUS=SUCCESS MSG=ok". Returns the
/// child's pid, or 0 when the fork failed (nothing is answered then).
pid_t answer_show(char selector, List* list, VoidFnPtr3 walk, Query* q);
/// The job listings (selector "j"): an empty Ok part, then list searched
/// with search, then "STATUS=SUCCESS MSG=ok\n".
pid_t answer_show(char selector, List* list, IntFnPtr3 search, Query* q);

/// Walk callback over queue triples (query: Query*, mode: the selector as
/// IntArg): a triple whose name matches the query's que_name is counted in
/// the query and written into its multi-part answer with that selector.
void QueName_wildcard(Node* triple, void* query, void* mode);
/// Search callback over jobs (query: Query*): a job whose job_name matches
/// the query's job_name is written into the answer ("F" for job_sho_full,
/// else "N"); 1 on a match.
int JobNameWildcard(Node* job, void* query, void*);
