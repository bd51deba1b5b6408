#include "cm_common.h"
#include "cm_signal.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

TEST(CopyCut, CutsAtTheArraySizeAndTerminates) {
  char small[5];
  CopyCut(small, "abcdefgh");
  EXPECT_STREQ(small, "abcd");
  CopyCut(small, "");
  EXPECT_STREQ(small, "");
  char exact[4];
  CopyCut(exact, "abc");
  EXPECT_STREQ(exact, "abc");
}

TEST(CappedText, CutsLikeTheFixedFieldItReplaces) {
  CappedText<1024> name(std::string(2000, 'x'));
  EXPECT_EQ(name.size(), 1023u);
  name = "short";
  EXPECT_STREQ(name.c_str(), "short");
}

TEST(ExitState, PrintsTheStateNames) {
  const char* const names[] = {"SUCCESS", "WARNING", "ERROR", "FATAL", "ROLLBACK"};
  for (int s = KD_SUCCESS; s <= KD_ROLLBACK; ++s) EXPECT_STREQ(exit_state_name(s), names[s]);
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
