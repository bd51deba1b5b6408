// The bounded copy, and the RAII holders of a descriptor and of a signal mask.
// CappedText's cut is checked where names and arguments are cut (model
// triple_test, job_grammar_test); the state names in the semaphore's traces.
#include <fcntl.h>

#include <string>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_signal.h"

TEST(CopyCut, CutsAtTheArraySizeAndTerminates) {
  char small[5];
  CopyCut(small, "abcdefgh");
  EXPECT_STREQ(small, "abcd");
  CopyCut(small, "");
  EXPECT_STREQ(small, "");
}

TEST(UniqueFd, ClosesOnDestructionAndMovesOwnership) {
  int raw;
  {
    UniqueFd fd(::open("/dev/null", O_RDONLY));
    raw = fd.get();
    ASSERT_GE(raw, 0);
    UniqueFd moved(std::move(fd));
    EXPECT_FALSE(fd.valid());
    EXPECT_EQ(moved.get(), raw);
  }
  EXPECT_EQ(::fcntl(raw, F_GETFD), -1);
}

TEST(ScopedSigBlock, RestoresTheMaskUnlessKept) {
  sigset_t set, now;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  for (const bool keep : {false, true}) {
    {
      ScopedSigBlock block(set);
      sigprocmask(SIG_SETMASK, nullptr, &now);
      EXPECT_TRUE(sigismember(&now, SIGUSR1));
      if (keep) block.KeepBlocked();
    }
    sigprocmask(SIG_SETMASK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGUSR1), keep ? 1 : 0);
  }
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}
