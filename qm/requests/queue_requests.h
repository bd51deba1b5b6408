// Requests that create, change, remove and list queue triples, and the
// table of global resources.
//
// Each handler takes the parsed request (que_name, szCmdArgs and the resource
// part in gszResource as the request splitting left them), answers the
// requester and returns 0 done or 1 refused.
#pragma once

#include "protocol/request.h"

/// queue_init: creates a triple with its resource queues, adds a resource
/// queue to an existing one, or changes job limits and counters.
int process_que_init(Query* q);
/// queue_block, queue_start, queue_stop: the state of a resource queue (with
/// a resource part) or of the triple; start and stop run a scheduling pass.
int process_que_block(Query* q);
int process_que_start(Query* q);
int process_que_stop(Query* q);
/// queue_delete: removes a resource queue, or the triple with its waiting
/// jobs marked with the exit code of "-e" (default "0").
int process_que_delete(Query* q, const char* resource);
/// queue_set: allocation, balancing, weights, and the option follow_up.
int process_que_set(Query* q);
/// queue_sho and its variants: lists the matching triples through answer_show.
int process_que_sho(Query* q);
/// show_global_resources: the table of global resources and their users.
int process_show_global_resources(Query* q);
