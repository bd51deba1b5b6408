// The entry-number pool. Numbers come back at the tail and are handed out
// from the head, so a number is reused only after every number that was
// waiting before it: the numbers in client listings and logs stay
// unambiguous long after a job has ended.
#include "qm_entry.h"

#include <algorithm>
#include <deque>

namespace {

// Never destroyed: answer writers and the signal handler's exit run static
// destructors, and the pool must stay intact for the daemon until then.
std::deque<int32_t>& Pool() {
  static auto* pool = new std::deque<int32_t>;
  return *pool;
}

}  // namespace

void QmEntry_init(int32_t count) {
  for (int32_t number = 1; number < count; ++number) Pool().push_back(number);
}

int32_t QmEntry_fetch() {
  if (Pool().empty()) return -1;
  const int32_t number = Pool().front();
  Pool().pop_front();
  return number;
}

void QmEntry_release(int32_t number) {
  // A linear search: a number must never be in the pool twice.
  if (std::find(Pool().begin(), Pool().end(), number) != Pool().end()) return;
  Pool().push_back(number);
}

void QmEntry_destroy() { Pool().clear(); }

std::size_t QmEntry_size() { return Pool().size(); }
