// x_Snprintf: a fitting text is silent; a cut or an encoding error is traced.
#include <clocale>
#include <string>

#include <gtest/gtest.h>

#include "cm_trace.h"
#include "kd_test_support.h"
#include "xutil.h"

namespace {

/// A test instance whose trace log is open at level 1.
class XSnprintfTest : public ::testing::Test {
 protected:
  void SetUp() override {
    inst_.write_debug_ini("KD_TEST=1\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &rec_);
  }
  bool LogHas(const std::string& text) const {
    return kdtest::ReadFile(rec_.szLogFile).find(text) != std::string::npos;
  }

  kdtest::TestInstance inst_;
  str_log rec_;
};

}  // namespace

TEST_F(XSnprintfTest, FittingTextIsSilentACutIsTracedWithTheCutText) {
  char buf[11];
  EXPECT_EQ(x_Snprintf(buf, sizeof buf, "%s-%d", "abcde", 42), 8);
  EXPECT_EQ(x_Snprintf(buf, sizeof buf, "%s", "0123456789"), 10);
  EXPECT_STREQ(buf, "0123456789");
  EXPECT_FALSE(LogHas("x_Snprintf"));

  char ten[10];
  EXPECT_EQ(x_Snprintf(ten, sizeof ten, "%s", "0123456789"), 10);
  EXPECT_STREQ(ten, "012345678");
  EXPECT_TRUE(LogHas("Error: x_Snprintf: Error vsnprintf truncated 10 >= 10 size [012345678]"));
  const std::string huge(100000, 'h');
  char small[16];
  EXPECT_EQ(x_Snprintf(small, sizeof small, "<%s>", huge.c_str()), 100002);
  EXPECT_TRUE(LogHas("truncated 100002 >= 16 size [<hhhhhhhhhhhhhh]"));
  EXPECT_EQ(x_Snprintf(nullptr, 0, "%s", "abc"), 3) << "no buffer only counts";
  EXPECT_TRUE(LogHas("truncated 3 >= 0 size []"));
  char one[1] = {'x'};
  EXPECT_EQ(x_Snprintf(one, 1, "%d", 7), 1);
  EXPECT_STREQ(one, "");

  std::setlocale(LC_ALL, "C");
  EXPECT_LT(x_Snprintf(buf, sizeof buf, "ab%lscd", L"\u00e9"), 0);
  EXPECT_LT(std::string(buf).size(), sizeof buf);
  EXPECT_TRUE(LogHas("Error: x_Snprintf: Error vsnprintf failed with return -1 (11 size) (encoding) ["));
}
