// The entry-number pool. Numbers come back at the tail and are handed out
// from the head, so a number is reused only after every number that was
// waiting before it: the numbers in client listings and logs stay
// unambiguous long after a job has ended.
//
// The pool is kept in two parts that together are that one queue: the fresh
// numbers not handed out yet (a range, always at the front, as every release
// goes behind them) and the released numbers in release order. A bit per
// number says whether it waits among the released ones, so that the
// no-duplicate check costs the same with a full pool as with an empty one,
// and an idle daemon does not hold a megabyte of numbers it has never used.
#include "model/entry_pool.h"

#include <algorithm>
#include <deque>
#include <vector>

namespace {

/// Numbers below this have a membership bit; the daemon's pool is 1 .. 262143.
constexpr int32_t kMembershipBits = 0x40000;

struct EntryPool {
  int32_t next_fresh = 0;  ///< first fresh number not handed out yet
  int32_t fresh_end = 0;   ///< one past the last fresh number
  std::deque<int32_t> released;
  std::vector<bool> waiting = std::vector<bool>(kMembershipBits);  ///< number is in released
};

// Never destroyed: answer writers and the signal handler's exit run static
// destructors, and the pool must stay intact for the daemon until then.
EntryPool& Pool() {
  static auto* pool = new EntryPool;
  return *pool;
}

bool HasBit(int32_t number) { return number >= 0 && number < kMembershipBits; }

bool InPool(const EntryPool& pool, int32_t number) {
  if (number >= pool.next_fresh && number < pool.fresh_end) return true;
  if (HasBit(number)) return pool.waiting[static_cast<std::size_t>(number)];
  // Outside the daemon's range: only a caller's own numbers get here.
  return std::find(pool.released.begin(), pool.released.end(), number) != pool.released.end();
}

void Append(EntryPool& pool, int32_t number) {
  pool.released.push_back(number);
  if (HasBit(number)) pool.waiting[static_cast<std::size_t>(number)] = true;
}

}  // namespace

void QmEntry_init(int32_t count) {
  EntryPool& pool = Pool();
  if (pool.next_fresh == pool.fresh_end && pool.released.empty()) {
    pool.next_fresh = 1;
    pool.fresh_end = std::max<int32_t>(count, 1);
    return;
  }
  // A pool in use takes the numbers behind those already waiting.
  for (int32_t number = 1; number < count; ++number)
    if (!InPool(pool, number)) Append(pool, number);
}

int32_t QmEntry_fetch() {
  EntryPool& pool = Pool();
  if (pool.next_fresh < pool.fresh_end) return pool.next_fresh++;
  if (pool.released.empty()) return -1;
  const int32_t number = pool.released.front();
  pool.released.pop_front();
  if (HasBit(number)) pool.waiting[static_cast<std::size_t>(number)] = false;
  return number;
}

void QmEntry_release(int32_t number) {
  EntryPool& pool = Pool();
  // A number must never be in the pool twice.
  if (InPool(pool, number)) return;
  Append(pool, number);
}

void QmEntry_destroy() {
  EntryPool& pool = Pool();
  pool.next_fresh = pool.fresh_end = 0;
  pool.released.clear();
  pool.released.shrink_to_fit();
  std::fill(pool.waiting.begin(), pool.waiting.end(), false);
}

std::size_t QmEntry_size() {
  const EntryPool& pool = Pool();
  return static_cast<std::size_t>(pool.fresh_end - pool.next_fresh) + pool.released.size();
}
