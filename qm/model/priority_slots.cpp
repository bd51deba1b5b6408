// Priority slots: per-level extra start places of a resource queue, and the
// "-p" options of the job-limit request that define them.
#include "model/priority_slots.h"

#include <pcreposix.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "cm_common.h"
#include "cm_trace.h"
#include "model/elements.h"
#include "protocol/answer.h"
#include "strlib.h"

namespace {

/// InsertSorted order: a new level goes in front of the first larger one,
/// so equal priorities keep their insertion order.
int slot_after(Node* existing, Node* node) {
  return ElementOf<PrioritySlot>(existing)->Priority > ElementOf<PrioritySlot>(node)->Priority ? 1 : 0;
}

/// The level with the largest Priority not above priority, or null.
PrioritySlot* level_of(List* slots, int priority) {
  for (Node* n = slots->Tail; n != nullptr; n = n->Prev) {
    PrioritySlot* level = ElementOf<PrioritySlot>(n);
    if (level->Priority <= priority) return level;
  }
  return nullptr;
}

PrioritySlot* find_level(List* slots, int priority) {
  for (PrioritySlot* level : Elements<PrioritySlot>(*slots))
    if (level->Priority == priority) return level;
  return nullptr;
}

void free_level(List* slots, PrioritySlot* level) {
  RemoveList(&level->lJobEntryNumber);
  RemNode(slots, NodeOf(level));
  delete level;
}

}  // namespace

int HavePrioritySlotAvailable(List* slots, int priority) {
  const PrioritySlot* level = level_of(slots, priority);
  return level != nullptr && level->SlotsAllocated < level->SlotsAvailable ? 1 : 0;
}

int HaveAnyPrioritySlotAvailable(List* slots) {
  for (const PrioritySlot* level : Elements<PrioritySlot>(*slots))
    if (level->SlotsAllocated < level->SlotsAvailable) return 1;
  return 0;
}

int AllocatePrioritySlot(List* slots, int priority, int entry_number) {
  PrioritySlot* level = level_of(slots, priority);
  if (level == nullptr || level->SlotsAllocated >= level->SlotsAvailable) return 0;
  ++level->SlotsAllocated;
  auto* holder = new PrioritySlotJob{};
  holder->EntryNumber = entry_number;
  AddTail(&level->lJobEntryNumber, NodeOf(holder));
  trace("%l2 AllocatePrioritySlot: Priority: %d, slots allocated/total: %d/%d", level->Priority,
        level->SlotsAllocated, level->SlotsAvailable);
  return 1;
}

int ReleasePrioritySlot(List* slots, int priority, int entry_number) {
  if (slots->Head == nullptr) {
    trace("%l2 ---ReleasePrioritySlot no head");
    return 0;
  }
  PrioritySlot* level = level_of(slots, priority);
  if (level == nullptr) {
    trace("%l2 ---ReleasePrioritySlot - no priority slot for this job - done");
    return 0;
  }
  for (PrioritySlotJob* holder : Elements<PrioritySlotJob>(level->lJobEntryNumber)) {
    if (holder->EntryNumber != entry_number) continue;
    RemNode(&level->lJobEntryNumber, NodeOf(holder));
    delete holder;
    if (level->SlotsAllocated > 0) {
      --level->SlotsAllocated;
      return 1;
    }
    break;
  }
  trace("%l2 ---ReleasePrioritySlot not found or condition does not match");
  return 0;
}

PrioritySlot* InsertPrioritySlot(List* slots, int priority, int available) {
  auto* level = new PrioritySlot{};
  level->Priority = priority;
  level->SlotsAvailable = available;
  InsertSorted(slots, NodeOf(level), slot_after);
  return level;
}

void CopyPriorityList(const List* from, List* to) {
  for (const PrioritySlot* level : Elements<PrioritySlot>(*from)) {
    PrioritySlot* copy = InsertPrioritySlot(to, level->Priority, level->SlotsAvailable);
    copy->SlotsAllocated = level->SlotsAllocated;
  }
}

void UpdatePriorityList(List* current, const List* update) {
  for (PrioritySlot* level : Elements<PrioritySlot>(*current))
    if (find_level(const_cast<List*>(update), level->Priority) == nullptr) free_level(current, level);
  for (const PrioritySlot* wanted : Elements<PrioritySlot>(*update)) {
    // An existing level keeps its holders; only its size changes.
    if (PrioritySlot* level = find_level(current, wanted->Priority)) {
      level->SlotsAvailable = wanted->SlotsAvailable;
    } else {
      PrioritySlot* added = InsertPrioritySlot(current, wanted->Priority, wanted->SlotsAvailable);
      added->SlotsAllocated = wanted->SlotsAllocated;
    }
  }
}

void DestroyPriorityList(List* slots) {
  for (PrioritySlot* level : Elements<PrioritySlot>(*slots)) free_level(slots, level);
}

std::string PrioritySlotPrint(const List* slots) {
  std::string text;
  for (const PrioritySlot* level : Elements<PrioritySlot>(*slots)) {
    char item[64];
    std::snprintf(item, sizeof item, "p%d=%d/%d", level->Priority, level->SlotsAllocated, level->SlotsAvailable);
    if (!text.empty()) text += ' ';
    text += item;
  }
  return text;
}

int StringContainsPrioritySlots(const char* text) {
  return text != nullptr && std::strstr(text, "-p") != nullptr ? 1 : 0;
}

namespace {

/// The request pattern of ParseQueueArgs, compiled once for the process's
/// life; null when it does not compile. Kept as it has always been: in
/// effect any text holding "-p".
const regex_t* PrioritySlotPattern() {
  static regex_t re;
  static const bool compiled = regcomp(&re, ".*-p[\\d\\.\\s]*[0-9=]*.*", 0) == 0;
  return compiled ? &re : nullptr;
}

}  // namespace

int ParseQueueArgs(int skip, Query* q, QueueJobLimits* limits) {
  trace("%l2 +++ ParseQueueArgs");
  const regex_t* re = PrioritySlotPattern();
  if (re == nullptr) {
    trace("%l1 ParseQueueArgs: ERROR: regcomp failed");
    return 1;
  }
  if (skip != 0) {
    trace("%l2 --- ParseQueueArgs: skipped");
    return 0;
  }
  const bool matched = regexec(re, q->szCmdArgs, 0, nullptr, 0) == 0;
  if (!matched) {
    trace("%l2 --- ParseQueueArgs: no priority slots");
    return 0;
  }

  // Vector: the queue name, then the words from the first one holding "-" on
  // (the first word of the argument text is the queue itself).
  std::vector<std::string> words{q->que_name};
  const std::string_view args(q->szCmdArgs);
  bool first = true;
  bool options = false;
  std::size_t pos = 0;
  while (pos < args.size()) {
    while (pos < args.size() && args[pos] == ' ') ++pos;
    if (pos >= args.size()) break;
    std::size_t end = args.find(' ', pos);
    if (end == std::string_view::npos) end = args.size();
    const std::string_view word = args.substr(pos, end - pos);
    pos = end;
    if (first) {
      first = false;
      continue;
    }
    if (!options && word.find('-') == std::string_view::npos) continue;
    options = true;
    words.emplace_back(word);
  }
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  mygetopt_reset();
  int c;
  while ((c = mygetopt(static_cast<int>(words.size()), argv.data(), "p:")) != -1) {
    if (c != 'p') continue;
    int priority = 0;
    int slots = 0;
    if (myoptarg == nullptr || std::sscanf(myoptarg, "%d=%d", &priority, &slots) != 2) {
      answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Malformed string. -p requires a value like 1=3. ex.: -p 1=3\n");
      trace("%l1 --- ParseQueueArgs: malformed value [%s]", myoptarg != nullptr ? myoptarg : "");
      return 1;
    }
    trace("%l2 Insert priority slot priority = %d slots = %d", priority, slots);
    InsertPrioritySlot(&limits->ListOfJobLimitsByJobPriority, priority, slots);
  }
  trace("%l2 --- ParseQueueArgs");
  return 0;
}
