#include "model/elements.h"

#include <new>

#include "cm_trace.h"
#include "model/records.h"

void DeleteElement(ListOf type, Node* node) {
  if (node == nullptr) return;
  switch (type) {
    case QueueTriples: delete ElementOf<QueueTriple>(node); break;
    case Queues: delete ElementOf<Queue>(node); break;
    case Pointer2Queues: delete ElementOf<Pointer_to_Queues>(node); break;
    case Jobs: delete ElementOf<Job>(node); break;
    case Arguments: delete ElementOf<Argument>(node); break;
    case Counters: delete ElementOf<Counter>(node); break;
    case Peers: delete ElementOf<Peer>(node); break;
    case GlobalResources: delete ElementOf<GlobalResource>(node); break;
    case GlobalResourceNames: delete ElementOf<GlobalResourceName>(node); break;
    case RestartTimes: delete ElementOf<JobRestartTime>(node); break;
    case RestartConditions: delete ElementOf<JobRestartCondition>(node); break;
    case JobArgs_GlobalResources: delete ElementOf<JATuple>(node); break;
    case JobLimitsByJobPriority: delete ElementOf<PrioritySlot>(node); break;
    case JobLimitsByJobPriority_SlotJobs: delete ElementOf<PrioritySlotJob>(node); break;
    case JobPreferredResources: delete ElementOf<Resource>(node); break;
  }
}

void RemoveList(List* list) {
  trace("%l2 +++ RemoveList");
  while (Node* n = RemHead(list)) DeleteElement(list->ElementType, n);
  trace("%l2 --- RemoveList");
}

int AddList(List* out, const List* in) {
  if (out == nullptr) {
    trace("%l1 AddList: ERROR: pOutList is NULL");
    return 0;
  }
  if (in != nullptr && in->ElementType != out->ElementType) {
    trace("%l1 AddList: ERROR: Incompatible Element Types");
    return 0;
  }
  if (in == nullptr || in->Head == nullptr) {
    trace("%l1 AddList: pNode is NULL");
    return 0;
  }
  int count = 0;
  for (Node* n = in->Head; n != nullptr; n = n->Next) {
    // Copying is done for arguments only; every other kind is refused node by node.
    if (in->ElementType != Arguments) {
      trace("%l1 AddList: ERROR: Element type %s not yet implemented!", ListOfName(in->ElementType));
      continue;
    }
    auto* copy = new (std::nothrow) Argument{};
    if (copy == nullptr) {
      trace("%l1 AddList: malloc() failed: return [%d]", count);
      return count;
    }
    copy->argument = ElementOf<Argument>(n)->argument.view();
    AddTail(out, NodeOf(copy));
    ++count;
  }
  trace("%l2 AddList: return [%d]", count);
  return count;
}

void FreeResourceList(List* list) { RemoveList(list); }
