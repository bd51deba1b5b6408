#include "xutil.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "cm_trace.h"
#include "kd_test_support.h"

namespace {

/// A test instance whose trace log is open at level 1.
class XSnprintfTest : public ::testing::Test {
 protected:
  void SetUp() override {
    inst_.write_debug_ini("KD_TEST=1\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &rec_);
  }
  std::string Log() const {
    std::string all;
    if (DIR* d = opendir(inst_.lgc().c_str())) {
      while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0)
          all += kdtest::ReadFile(inst_.lgc() + name);
      }
      closedir(d);
    }
    return all;
  }
  bool LogHas(const std::string& text) const { return Log().find(text) != std::string::npos; }

  kdtest::TestInstance inst_;
  str_log rec_;
};

}  // namespace

TEST_F(XSnprintfTest, FittingTextIsWrittenWithoutTrace) {
  char buf[16];
  EXPECT_EQ(x_Snprintf(buf, sizeof buf, "%s-%d", "abc", 42), 6);
  EXPECT_STREQ(buf, "abc-42");
  EXPECT_EQ(x_Snprintf(buf, 11, "%s", "0123456789"), 10);
  EXPECT_STREQ(buf, "0123456789");
  EXPECT_FALSE(LogHas("x_Snprintf")) << Log();
}

TEST_F(XSnprintfTest, ACutIsTracedWithTheCutText) {
  char buf[8];
  EXPECT_EQ(x_Snprintf(buf, sizeof buf, "%s", "abcdefghij"), 10);
  EXPECT_STREQ(buf, "abcdefg");
  EXPECT_TRUE(LogHas("Error: x_Snprintf: Error vsnprintf truncated 10 >= 8 size [abcdefg]")) << Log();

  char ten[10];
  EXPECT_EQ(x_Snprintf(ten, sizeof ten, "%s", "0123456789"), 10);
  EXPECT_STREQ(ten, "012345678");
  EXPECT_TRUE(LogHas("truncated 10 >= 10 size [012345678]")) << "a result equal to the size does not fit";

  const std::string huge(100000, 'h');
  char small[16];
  EXPECT_EQ(x_Snprintf(small, sizeof small, "<%s>", huge.c_str()), 100002);
  EXPECT_STREQ(small, ("<" + std::string(14, 'h')).c_str());
  EXPECT_TRUE(LogHas("truncated 100002 >= 16 size [<hhhhhhhhhhhhhh]"));
}

TEST_F(XSnprintfTest, AnEncodingErrorIsTracedAndTheBufferTerminated) {
  std::setlocale(LC_ALL, "C");
  char buf[32];
  const int result = x_Snprintf(buf, sizeof buf, "ab%lscd", L"\u00e9");
  EXPECT_LT(result, 0);
  EXPECT_LT(std::string(buf).size(), sizeof buf);
  EXPECT_TRUE(LogHas("Error: x_Snprintf: Error vsnprintf failed with return -1 (32 size) (encoding) [")) << Log();
}

TEST_F(XSnprintfTest, NoBufferOnlyCounts) {
  EXPECT_EQ(x_Snprintf(nullptr, 0, "%s", "abc"), 3);
  EXPECT_TRUE(LogHas("truncated 3 >= 0 size []"));
  char one[1] = {'x'};
  EXPECT_EQ(x_Snprintf(one, 1, "%d", 7), 1);
  EXPECT_STREQ(one, "");
}
