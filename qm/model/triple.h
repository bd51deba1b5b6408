// Queue triples and their resource queues: the root lists, construction,
// resource texts, look-ups, mode keywords, the match predicates of the
// searches and the small per-queue operations that requests and the
// scheduling pass walk over a triple's resource queues.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "model/list.h"
#include "model/records.h"

// ---------------------------------------------------------------------------
// The daemon's root lists
// ---------------------------------------------------------------------------

extern List Root;              ///< all queue triples
extern List gCounters;         ///< global job-limit counters
extern List gGlobalResources;  ///< global resources

/// Initialises the three root lists (and empties the name index of Root).
void InitRootLists();
/// Appends a triple to Root and enters it into the name index of
/// FindQueTriple. A triple's name never changes once it is in Root.
void LinkQueTriple(QueueTriple* triple);
/// Takes a triple out of Root and out of the name index; the triple stays.
void UnlinkQueTriple(QueueTriple* triple);

// ---------------------------------------------------------------------------
// Mode keywords
// ---------------------------------------------------------------------------

/// The mode whose keyword equals keyword (case ignored); the table's last
/// entry, "invalid_mode", with a warning trace when none does.
AllocationMode e_GetAllocationMode(std::string_view keyword);
BalancingMode e_GetBalancingMode(std::string_view keyword);
DecisionMode e_GetDecisionMode(std::string_view keyword);
/// The keyword of a mode; "invalid_mode" for a number outside the table.
const char* szAllocationMode(int mode);
const char* szBalancingMode(int mode);
const char* szDecisionMode(int mode);
/// The name of a queue state; "unknown" outside the table.
const char* szQueState(int state);

// ---------------------------------------------------------------------------
// Construction and resource texts
// ---------------------------------------------------------------------------

/// A new resource queue for the resource text "[share_]name[@server]", idle,
/// unallocated ("*"), wanting a job, with the triple's allocation mode and
/// a copy of the limits' priority slots; null when memory is exhausted.
[[nodiscard]] Queue* CreateResourceQue(QueueTriple* triple, std::string_view resource_text, Counter* counter,
                         const QueueJobLimits* limits);
/// A new, empty triple of that name and kind (2 ordinary, 1 the admin
/// triple, which gets an empty terminating queue), not yet in any list;
/// null when it cannot be allocated.
[[nodiscard]] QueueTriple* NewQueTriple(std::string_view name, char que_type);
/// A new triple with its resource queues (resources: "" for the single
/// resource "single", else "a/b/..."), appended to Root. Null when it
/// cannot be allocated; *failed_queues set when a resource queue could not
/// be made.
[[nodiscard]] QueueTriple* CreateQueTriple(std::string_view name, std::string_view resources, Counter* counter,
                             const QueueJobLimits* limits, bool* failed_queues);
/// Splits "[share_]resource[@server]" (the server keeps its "@"); always 1.
int getResourceNames(std::string_view resource_text, std::string* share, std::string* resource,
                     std::string* server);
/// Splits a resource request into Resource items appended to out (the first
/// ends at ",", the later ones at blanks; a server the triple does not know
/// is dropped with a warning; no item at all gives one empty item). Always 1.
int getResourceList(QueueTriple* triple, std::string_view request, std::string* text, List* out);

// ---------------------------------------------------------------------------
// Look-ups and match predicates (1 match, 0 not)
// ---------------------------------------------------------------------------

/// The triple of that name in Root, or null (through the name index: with
/// thousands of triples a walk of Root would be the main cost of a request).
QueueTriple* FindQueTriple(std::string_view name);
/// The resource queue of that name in the triple (null triple: none), or null.
Queue* FindResourceQue(QueueTriple* triple, std::string_view name);
/// The counter of that name, or null.
Counter* FindCounter(std::string_view name);
/// SearchList over ListOfJobs of each Queue of the list in turn.
Node* SearchQueList(List* queues, IntFnPtr3 fn, void* a1, void* a2);

int QueName(Node* node, void* name, void*);                 ///< a triple named name (const char*)
int ExecQueName(Node* node, void* name, void*);             ///< a resource queue named name
int CheckResource(Node* node, void* name, void*);           ///< the same, for resource checks
int CheckResourceList(Node* node, void* resources, void*);  ///< a queue that a Resource of the List* names
/// CheckResourceList; a matching queue is also marked as wanting a job.
int CheckResourceListSetJobRequest(Node* node, void* resources, void*);
int CheckServer(Node* node, void* server, void*);           ///< a queue whose server (with "@") is server
int CheckCounter(Node* node, void* name, void*);            ///< a counter named name
int EntryNumber(Node* node, void* entry, void*);            ///< a job of entry number entry (IntArg)
/// A resource queue holding the job of entry number entry (IntArg).
int QueCheckQueEntry(Node* node, void* entry, void*);
/// A job that ranks below priority (IntArg): priority 0 ranks above all
/// others, else the larger number ranks higher.
int Priority(Node* node, void* priority, void*);
/// Job look-up of the job requests (query: Query*, count: int*): a job whose
/// name, entry number or pid is the query's (or without an entry number for
/// the name "\"\""), and which is the SeqNumb-th such job counted in *count.
int JobName(Node* node, void* query, void* count);

// ---------------------------------------------------------------------------
// Per-queue operations (walk callbacks over a triple's ExecQueues)
// ---------------------------------------------------------------------------

void que_set_idle(Node* node, void*, void*);                  ///< state idle
void que_set_job_request(Node* node, void*, void*);           ///< wants a job
void que_set_share_pending(Node* node, void* share, void*);  ///< state pending where the share (const char*) matches
/// Where the share matches: idle and wanting a job; a permanent queue is
/// unbound but keeps its allocation text, any other is unbound with its
/// allocation cleared unless the triple is in occupied mode.
void que_set_share_idle(Node* node, void* triple, void* share);
/// Raises *max_state (QueState*) to the state of a queue of that share.
void que_get_state(Node* node, void* share, void* max_state);
/// Sets the allocation mode (IntArg) and, when text is not null, the allocation.
void que_set_allocation(Node* node, void* mode, void* text);
void que_set_mode(Node* node, void* triple, void*);  ///< the triple's decision mode
/// Sets the weight (double*) and adds it to the triple's dWeightSum (callers
/// reset the sum first).
void que_set_weight(Node* node, void* triple, void* weight);
/// Applies new job limits (QueueJobLimits*) and the counter (Counter* or
/// null): the difference of the limit goes to the free places as well, so
/// running jobs keep their share; the priority slots are updated.
void que_change_job_limit(Node* node, void* counter, void* limits);
