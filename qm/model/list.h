// Intrusive lists: every collection of the daemon is one doubly linked list
// whose elements carry their Node as first member `n`, so a pointer to the
// node is a pointer to the element. The lists are touched by the daemon's
// main thread only.
//
// The link updates are exact on purpose: they decide which misuse is
// tolerated (AddHead never touches Tail, PostInsert never checks for a
// successor). Callers rely on that.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

/// Element kinds of the lists; traces print them by name.
enum ListOf : int32_t {
  QueueTriples = 0,
  Queues = 1,
  Pointer2Queues = 2,
  Jobs = 3,
  Arguments = 4,
  Counters = 5,
  Peers = 6,
  GlobalResources = 7,
  GlobalResourceNames = 8,
  RestartTimes = 9,
  RestartConditions = 10,
  JobArgs_GlobalResources = 11,
  JobLimitsByJobPriority = 12,
  JobLimitsByJobPriority_SlotJobs = 13,
  JobPreferredResources = 14
};

inline constexpr std::array<const char*, 15> gszListOf{
    "QueueTriples",          "Queues",
    "Pointer2Queues",        "Jobs",
    "Arguments",             "Counters",
    "Peers",                 "GlobalResources",
    "GlobalResourceNames",   "RestartTimes",
    "RestartConditions",     "JobArgs_GlobalResources",
    "JobLimitsByJobPriority", "JobLimitsByJobPriority_SlotJobs",
    "JobPreferredResources"};
static_assert(gszListOf.size() == JobPreferredResources + 1);

/// Name of an element kind; "unknown" outside the table.
inline const char* ListOfName(int type) {
  return type >= 0 && type <= JobPreferredResources ? gszListOf[static_cast<std::size_t>(type)]
                                                    : "unknown";
}

/// The link every element carries as its first member.
struct Node {
  Node* Next = nullptr;  ///< following node, null at the tail
  Node* Prev = nullptr;  ///< preceding node, null at the head
};

/// The anchor of one list.
struct List {
  Node* Head = nullptr;           ///< first node, null when empty
  Node* Tail = nullptr;           ///< last node
  ListOf ElementType = QueueTriples;
};

// Callback shapes of the walks and searches; the arguments are opaque
// pointer-sized values handed through unchanged.
using IntFnPtr2 = int (*)(Node*, void*);
using IntFnPtr3 = int (*)(Node*, void*, void*);
using IntFnPtr4 = int (*)(Node*, void*, void*, void*);
using VoidFnPtr3 = void (*)(Node*, void*, void*);
using VoidFnPtr4 = void (*)(Node*, void*, void*, void*);

/// An int handed through a callback argument, and back.
// NOLINTNEXTLINE(performance-no-int-to-ptr): the pointer carries a value and is never dereferenced
inline void* IntArg(intptr_t v) { return reinterpret_cast<void*>(v); }
inline int ArgInt(void* p) { return static_cast<int>(reinterpret_cast<intptr_t>(p)); }

/// The element kind of each record type; specialised next to each record.
template <class T>
struct ElementKind;

/// Checked downcast from a node to its element: T must be a list element
/// record (ElementKind specialised) whose first member is its Node.
template <class T>
T* ElementOf(Node* node) {
  static_assert(std::is_standard_layout_v<T>, "list elements start with their Node");
  static_assert(ElementKind<T>::value >= 0);
  return reinterpret_cast<T*>(node);
}
template <class T>
Node* NodeOf(T* element) {
  static_assert(std::is_standard_layout_v<T>);
  static_assert(ElementKind<T>::value >= 0);
  return reinterpret_cast<Node*>(element);
}

/// Range over the elements of a list. The next link is read before an
/// element is yielded, so the loop body may unlink and free that element
/// (but not the one after it).
template <class T>
class Elements {
 public:
  explicit Elements(const List& list) : head_(list.Head) {}
  class iterator {
   public:
    explicit iterator(Node* n) : cur_(n), next_(n ? n->Next : nullptr) {}
    T* operator*() const { return ElementOf<T>(cur_); }
    iterator& operator++() {
      cur_ = next_;
      next_ = cur_ ? cur_->Next : nullptr;
      return *this;
    }
    bool operator!=(const iterator& o) const { return cur_ != o.cur_; }

   private:
    Node* cur_;
    Node* next_;
  };
  iterator begin() const { return iterator(head_); }
  iterator end() const { return iterator(nullptr); }

 private:
  Node* head_;
};


/// Empties the anchor (the nodes are not freed) and sets its element kind.
void InitList(List* list, ListOf type);
/// Number of nodes, counted by walking the list.
uint64_t QueSize(const List* list);
/// Number of nodes, counted by walking the list.
int CountList(const List* list);
/// Appends node at the tail.
void AddTail(List* list, Node* node);
/// Prepends; never touches Tail (only reached through PreInsert on a
/// non-empty list).
void AddHead(List* list, Node* node);
/// Links node directly behind existing; neither checks for a successor nor
/// updates Tail (only reached through PreInsert, where a successor exists).
void PostInsert(Node* existing, Node* node);
/// Links node in front of existing; in front of the head through AddHead.
void PreInsert(List* list, Node* existing, Node* node);
/// Inserts in front of the first node for which compare(existing, node) is
/// non-zero, else at the tail; returns the inserted node.
Node* InsertSorted(List* list, Node* node, int (*compare)(Node* existing, Node* node));
/// Unlinks and returns the head, or null for an empty list.
Node* RemHead(List* list);
/// Unlinks node (a node without predecessor is taken as the head) and returns it.
Node* RemNode(List* list, Node* node);
/// The first node for which fn(node, a1, a2) is non-zero, or null.
Node* SearchList(List* list, IntFnPtr3 fn, void* a1, void* a2);
/// The first node for which fn(node, a1, a2, a3) is non-zero, or null.
Node* SearchList2(List* list, IntFnPtr4 fn, void* a1, void* a2, void* a3);
/// Calls fn(node, arg) on every node; the largest result, or 0 when none is larger.
int iWalkList(List* list, IntFnPtr2 fn, void* arg);
/// Calls fn(node, a1, a2) on every node; fn may unlink and free its node.
void WalkList(List* list, VoidFnPtr3 fn, void* a1, void* a2);
/// Calls fn(node, a1, a2, a3) on every node; fn may unlink and free its node.
void WalkList3(List* list, VoidFnPtr4 fn, void* a1, void* a2, void* a3);
