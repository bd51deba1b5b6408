// Priority slots: extra start places per job-priority level on a resource
// queue whose job limit is used up. A slot list holds levels sorted by
// ascending Priority; a job may use the level with the largest Priority not
// above its own.
#pragma once

#include <string>

#include "model/list.h"
#include "model/records.h"
#include "protocol/request.h"

/// 1 when the level that a job of this priority may use has a free slot.
int HavePrioritySlotAvailable(List* slots, int priority);
/// 1 when any level has a free slot.
int HaveAnyPrioritySlotAvailable(List* slots);
/// Takes a slot of the job's level for the entry number; 1 taken, 0 none free.
int AllocatePrioritySlot(List* slots, int priority, int entry_number);
/// Gives back the slot the entry number holds on the job's level; 1 when
/// one was held and given back, else 0.
int ReleasePrioritySlot(List* slots, int priority, int entry_number);
/// Copies every level (counts, no holders) into to, sorted.
void CopyPriorityList(const List* from, List* to);
/// Makes current's levels those of update: levels update lacks are freed,
/// existing ones keep their holders and take the new size, new ones are added.
void UpdatePriorityList(List* current, const List* update);
/// Frees every level with its holders.
void DestroyPriorityList(List* slots);
/// Inserts a new level sorted (behind levels of equal priority).
PrioritySlot* InsertPrioritySlot(List* slots, int priority, int available);
/// The levels as "p%d=%d/%d" each, separated by blanks.
std::string PrioritySlotPrint(const List* slots);
/// 1 when text contains "-p"; 0 for null.
int StringContainsPrioritySlots(const char* text);
/// Parses the "-p" options of a job-limit request into limits; 0 done or not
/// applicable, 1 on a malformed value (the client has been answered).
[[nodiscard]] int ParseQueueArgs(int skip, Query* q, QueueJobLimits* limits);
