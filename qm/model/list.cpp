// The link updates below are exact on purpose: they decide which misuse is
// tolerated (AddHead never touches Tail, PostInsert never checks for a
// successor). Callers rely on that; do not "repair" them.
#include "model/list.h"

#include "cm_common.h"
#include "cm_trace.h"

void InitList(List* list, ListOf type) {
  trace("%l3 queue Kelda GitID: %s", kd_build_id());
  list->Head = nullptr;
  list->Tail = nullptr;
  list->ElementType = type;
  trace("%l2 InitList: %s", ListOfName(type));
}

uint64_t QueSize(const List* list) {
  trace("%l2 QueSize");
  uint64_t count = 0;
  for (const Node* n = list->Head; n != nullptr; n = n->Next) ++count;
  return count;
}

int CountList(const List* list) {
  int count = 0;
  for (const Node* n = list->Head; n != nullptr; n = n->Next) ++count;
  return count;
}

void AddTail(List* list, Node* node) {
  if (list->Head == nullptr) {
    trace("%l2 AddTail: List is empty");
    list->Head = node;
    node->Prev = nullptr;
  } else {
    trace("%l2 AddTail: List is filled");
    if (list->Tail != nullptr) list->Tail->Next = node;
    node->Prev = list->Tail;
  }
  list->Tail = node;
  node->Next = nullptr;
}

void AddHead(List* list, Node* node) {
  trace("%l2 AddHead");
  node->Next = list->Head;
  node->Prev = nullptr;
  if (list->Head != nullptr) list->Head->Prev = node;
  // Tail stays as it is: only PreInsert on a non-empty list comes here.
  list->Head = node;
}

void PostInsert(Node* existing, Node* node) {
  trace("%l2 PostInsert");
  node->Next = existing->Next;
  node->Prev = existing;
  // No check for a successor and no Tail update: PreInsert always has one.
  existing->Next->Prev = node;
  existing->Next = node;
}

void PreInsert(List* list, Node* existing, Node* node) {
  trace("%l2 PreInsert:");
  if (existing->Prev != nullptr)
    PostInsert(existing->Prev, node);
  else
    AddHead(list, node);
}

Node* InsertSorted(List* list, Node* node, int (*compare)(Node* existing, Node* node)) {
  if (list->Head == nullptr) {
    AddTail(list, node);
    return list->Head;
  }
  for (Node* n = list->Head; n != nullptr; n = n->Next) {
    if (compare(n, node) != 0) {
      PreInsert(list, n, node);
      return node;
    }
  }
  AddTail(list, node);
  return list->Tail;
}

Node* RemHead(List* list) {
  trace("%l2 RemHead");
  Node* head = list->Head;
  if (head == nullptr) return nullptr;
  list->Head = head->Next;
  if (list->Head != nullptr)
    list->Head->Prev = nullptr;
  else
    list->Tail = nullptr;
  return head;
}

Node* RemNode(List* list, Node* node) {
  trace("%l2 +++ RemNode %s", ListOfName(list->ElementType));
  if (node->Prev == nullptr) {
    // Without a predecessor the node is taken as the head.
    Node* head = RemHead(list);
    trace("%l2 --- RemNode");
    return head;
  }
  if (node->Next != nullptr)
    node->Next->Prev = node->Prev;
  else
    list->Tail = node->Prev;
  node->Prev->Next = node->Next;
  trace("%l2 --- RemNode");
  return node;
}

Node* SearchList(List* list, IntFnPtr3 fn, void* a1, void* a2) {
  int checked = 0;
  Node* next = nullptr;
  for (Node* n = list->Head; n != nullptr; n = next) {
    next = n->Next;
    ++checked;
    if (fn(n, a1, a2) != 0) {
      trace("%l2 SearchList: %d %s checked", checked, ListOfName(list->ElementType));
      return n;
    }
  }
  trace("%l2 SearchList: %d %s checked", checked, ListOfName(list->ElementType));
  return nullptr;
}

Node* SearchList2(List* list, IntFnPtr4 fn, void* a1, void* a2, void* a3) {
  int checked = 0;
  Node* next = nullptr;
  for (Node* n = list->Head; n != nullptr; n = next) {
    next = n->Next;
    ++checked;
    if (fn(n, a1, a2, a3) != 0) {
      trace("%l2 SearchList: %d %s checked", checked, ListOfName(list->ElementType));
      return n;
    }
  }
  trace("%l2 SearchList: %d %s checked", checked, ListOfName(list->ElementType));
  return nullptr;
}

int iWalkList(List* list, IntFnPtr2 fn, void* arg) {
  trace("%l2 +++ iWalkList %s", ListOfName(list->ElementType));
  if (fn == nullptr) {
    trace("%l2 --- WalkList %s function fn not defined", ListOfName(list->ElementType));
    return 0;
  }
  int result = 0;
  Node* next = nullptr;
  for (Node* n = list->Head; n != nullptr; n = next) {
    next = n->Next;
    const int r = fn(n, arg);
    if (r > result) result = r;
  }
  trace("%l2 --- iWalkList: return %d", result);
  return result;
}

void WalkList(List* list, VoidFnPtr3 fn, void* a1, void* a2) {
  trace("%l2 +++ WalkList %s", ListOfName(list->ElementType));
  if (fn == nullptr) {
    trace("%l2 --- WalkList %s function fn not defined", ListOfName(list->ElementType));
    return;
  }
  Node* next = nullptr;
  for (Node* n = list->Head; n != nullptr; n = next) {
    next = n->Next;
    fn(n, a1, a2);
  }
  trace("%l2 --- WalkList");
}

void WalkList3(List* list, VoidFnPtr4 fn, void* a1, void* a2, void* a3) {
  trace("%l2 +++ WalkList3 %s", ListOfName(list->ElementType));
  if (fn != nullptr) {
    Node* next = nullptr;
    for (Node* n = list->Head; n != nullptr; n = next) {
      next = n->Next;
      fn(n, a1, a2, a3);
    }
  }
  trace("%l2 --- WalkList3");
}
