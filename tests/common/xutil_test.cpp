// x_Snprintf: a fitting text is silent; a cut or an encoding error is traced.
#include <clocale>
#include <string>

#include <gtest/gtest.h>

#include "test_trace.h"
#include "xutil.h"

TEST(XSnprintfTest, FittingTextIsSilentACutIsTracedWithTheCutText) {
  kdtest::TestInstance inst;
  kdtest::ModuleTrace log(inst, 1);
  char buf[11];
  EXPECT_EQ(x_Snprintf(buf, sizeof buf, "%s-%d", "abcde", 42), 8);
  EXPECT_EQ(x_Snprintf(buf, sizeof buf, "%s", "0123456789"), 10);
  EXPECT_STREQ(buf, "0123456789");
  EXPECT_FALSE(log.Has("x_Snprintf"));

  char ten[10];
  EXPECT_EQ(x_Snprintf(ten, sizeof ten, "%s", "0123456789"), 10);
  EXPECT_STREQ(ten, "012345678");
  EXPECT_TRUE(log.Has("Error: x_Snprintf: Error vsnprintf truncated 10 >= 10 size [012345678]"));
  const std::string huge(100000, 'h');
  char small[16];
  EXPECT_EQ(x_Snprintf(small, sizeof small, "<%s>", huge.c_str()), 100002);
  EXPECT_TRUE(log.Has("truncated 100002 >= 16 size [<hhhhhhhhhhhhhh]"));
  EXPECT_EQ(x_Snprintf(nullptr, 0, "%s", "abc"), 3) << "no buffer only counts";
  EXPECT_TRUE(log.Has("truncated 3 >= 0 size []"));
  char one[1] = {'x'};
  EXPECT_EQ(x_Snprintf(one, 1, "%d", 7), 1);
  EXPECT_STREQ(one, "");

  std::setlocale(LC_ALL, "C");
  EXPECT_LT(x_Snprintf(buf, sizeof buf, "ab%lscd", L"\u00e9"), 0);
  EXPECT_LT(std::string(buf).size(), sizeof buf);
  EXPECT_TRUE(log.Has("Error: x_Snprintf: Error vsnprintf failed with return -1 (11 size) (encoding) ["));
}
