// A settable clock behind the daemon's time source gQmNow, for the tests of
// restart windows, minimal run times and graceful-stop timeouts.
#pragma once

#include <ctime>

#include "protocol/globals.h"

namespace kdtest {

/// While it lives, gQmNow reads this clock; QmSystemNow again once it is gone.
/// One at a time: gQmNow is the process's.
class TestClock {
 public:
  explicit TestClock(time_t start = 0) {
    now_ = start;
    gQmNow = [] { return now_; };
  }
  ~TestClock() { gQmNow = QmSystemNow; }
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  void Set(time_t now) { now_ = now; }
  void Advance(time_t seconds) { now_ += seconds; }
  time_t Now() const { return now_; }

 private:
  static inline time_t now_ = 0;
};

}  // namespace kdtest
