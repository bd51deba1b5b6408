// The job requests: show or delete jobs picked by name, entry number or
// process id, by a wildcard name, or by queue; change a waiting job's times
// and priority (job_set).
//
// Field 3 of the request (with the word behind it) picks the jobs:
//   WORD [SEQ]   one job: the SEQ-th (from 0, default 0) whose name is WORD,
//                or, for a WORD of digits, whose entry number or pid is WORD
//   PATTERN      every job whose name matches (one "*", as queue names)
//   QUEUE/ [csv] every job of the queues matching QUEUE ("all" or an empty
//                QUEUE: every queue), as state lines or comma-separated
#pragma once

#include "model/list.h"
#include "model/records.h"
#include "protocol/request.h"

/// What field 3 of a job request picks.
enum JobSelection : int { job_by_name = 0, job_by_wildcard = 1, job_by_queue = 2 };

/// Reads the pick of a job request from q->szCmdArgs into the query:
/// job_by_name fills job_name, EntryNumb and PID (the number, or -1 when
/// WORD is no number) and SeqNumb; job_by_wildcard fills job_name and sets
/// bWildcard; job_by_queue leaves the queue pattern in que_name ("*" for
/// "all" or none) and sets *csv when the next word is "csv".
JobSelection ParseJobRequest(Query* q, bool* csv);

/// The job that the JobName match of the query picks, counting over the
/// holding, pending and executing jobs of every triple in turn and the
/// admin triple's terminating jobs; its triple in *triple. Null when none.
Job* FindJobByQuery(Query* q, QueueTriple** triple);

/// job_sho, job_sho_name, job_sho_full and job_del; 0 done, 1 refused.
int process_job_request(Query* q);

/// Looks up one job (job_by_name) and answers it, or answers Warning
/// "STATUS=WARNING MSG=No such job [%s]\n". 0 found, 1 not.
int answer_job(Query* q);
/// Answers Ok with the job as the mode shows it (job_sho: the job line of
/// the queue view, job_sho_name: the line with the name, job_sho_full: the
/// full block), then "STATUS=SUCCESS MSG=ok\n".
void answer_job_entry(Query* q, Job* job);
/// Answers every job whose name matches the query's job_name (JobNameWildcard)
/// from a forked child; Warning "No such job" when none matches. 0 or 1.
int answer_job_wildcard(Query* q);
/// Writes every job of the triple into the open multi-part answer: for
/// job_sho a line "%s:\t %s %d <state>\n" (queue, job name, entry number;
/// states executing, pending, holding, terminating), for job_sho_name and
/// job_sho_full the job as that mode shows it. 0, or 1 when the answer is
/// not open (the search stops).
int answer_all_job(QueueTriple* triple, Query* q);
/// As answer_all_job, as the comma-separated lines of ViewQueCSV.
int answer_all_job_csv(QueueTriple* triple, Query* q);

/// Search callback over triples (query: Query*): when the triple's name
/// matches the query's que_name, all its jobs are answered (answer_all_job);
/// that result, else 0.
int QueName_wildcard_job(Node* triple, void* query, void*);

/// The job_set request: the entry number in q->que_name, the options in
/// q->szCmdArgs. Answers the client; 0 done, 1 refused.
int process_job_set(Query* q);
