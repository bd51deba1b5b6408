// Priority slots: extra start places per job-priority level on a resource
// queue whose job limit is used up.
#pragma once

#include <string>

#include "queue.h"

/// One level of a slot list, sorted by ascending Priority.
struct PrioritySlot {
  Node n;
  int Priority = 0;        ///< lowest job priority that may use this level
  int SlotsAllocated = 0;  ///< slots of this level in use
  int SlotsAvailable = 0;  ///< slots of this level
  List lJobEntryNumber{nullptr, nullptr, JobLimitsByJobPriority_SlotJobs};  ///< holders
};

/// A job holding a slot of a level.
struct PrioritySlotJob {
  Node n;
  int EntryNumber = 0;
};

template <> struct ElementKind<PrioritySlot> { static constexpr ListOf value = JobLimitsByJobPriority; };
template <> struct ElementKind<PrioritySlotJob> {
  static constexpr ListOf value = JobLimitsByJobPriority_SlotJobs;
};

int HavePrioritySlotAvailable(List* slots, int priority);
int HaveAnyPrioritySlotAvailable(List* slots);
int AllocatePrioritySlot(List* slots, int priority, int entry_number);
int ReleasePrioritySlot(List* slots, int priority, int entry_number);
/// Copies every level (counts, no holders) into to, sorted.
void CopyPriorityList(const List* from, List* to);
void UpdatePriorityList(List* current, const List* update);
void DestroyPriorityList(List* slots);
/// Inserts a new level sorted (behind levels of equal priority).
PrioritySlot* InsertPrioritySlot(List* slots, int priority, int available);
/// The levels as "p%d=%d/%d" each, separated by blanks.
std::string PrioritySlotPrint(const List* slots);
/// 1 when text contains "-p"; 0 for null.
int StringContainsPrioritySlots(const char* text);
/// Parses the "-p" options of a job-limit request into limits; 0 done or not
/// applicable, 1 on a malformed value (the client has been answered).
int ParseQueueArgs(int skip, Query* q, QueueJobLimits* limits);
