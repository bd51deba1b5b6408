#include "cm_split.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cm_trace.h"
#include "kd_test_support.h"

namespace {

/// Every field of text, in order; stops after 1000 fields.
std::vector<std::string> Fields(const char* text, char delimiter) {
  std::vector<std::string> out;
  for (char* f = cm_strtok(text, delimiter); f != nullptr && out.size() < 1000; f = cm_strtok(nullptr, delimiter))
    out.emplace_back(f);
  return out;
}

/// All trace log files of the instance, concatenated.
std::string TraceLogs(const kdtest::TestInstance& inst) {
  std::string all;
  if (DIR* d = opendir(inst.lgc().c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0) all += kdtest::ReadFile(inst.lgc() + name);
    }
    closedir(d);
  }
  return all;
}

using V = std::vector<std::string>;

}  // namespace

TEST(CmStrtok, KeepsEmptyFieldsBetweenAndAfterDelimiters) {
  EXPECT_EQ(Fields("a,,b,", ','), (V{"a", "", "b", ""}));
  EXPECT_EQ(cm_strtok(nullptr, ','), nullptr) << "stays at the end once passed";
  EXPECT_EQ(Fields(",a", ','), (V{"", "a"}));
  EXPECT_EQ(Fields("", ','), V{""}) << "an empty text is one empty field";
  EXPECT_EQ(Fields("abc", ','), V{"abc"});
  EXPECT_EQ(Fields("abc", '\0'), V{"abc"});
}

TEST(CmStrtok, SplitsRequestLinesSoThatADoubledBlankShiftsTheFields) {
  EXPECT_EQ(Fields("1 4711 q1", ' '), (V{"1", "4711", "q1"}));
  EXPECT_EQ(Fields("1  4711 q1", ' '), (V{"1", "", "4711", "q1"}));
  // A wildcard pattern with a leading "*".
  EXPECT_EQ(Fields("*abc", '*'), (V{"", "abc"}));
}

TEST(CmStrtok, WorksOnItsOwnCopyAndANewTextStartsOver) {
  char text[] = "x;y;z";
  char* first = cm_strtok(text, ';');
  EXPECT_STREQ(text, "x;y;z") << "the caller's text is not altered";
  EXPECT_STREQ(first, "x");
  EXPECT_STREQ(cm_strtok(nullptr, ';'), "y");
  EXPECT_STREQ(cm_strtok("p;q", ';'), "p");
  EXPECT_STREQ(cm_strtok(nullptr, ';'), "q");
  EXPECT_EQ(cm_strtok(nullptr, ';'), nullptr);
  // A caller that overwrote a field's end joins it with the next; the search stays within the text.
  char* f = cm_strtok("ab,c", ',');
  f[2] = 'X';
  EXPECT_EQ(cm_strtok(nullptr, ','), nullptr);
  EXPECT_EQ(Fields("\x01\xff,\x7f", ','), (V{"\x01\xff", "\x7f"}));
}

TEST(CmStrtok, CutsAnOverlongTextAndTracesTheCut) {
  kdtest::TestInstance inst;
  inst.write_debug_ini("KD_TEST=1\n");
  str_log rec;
  v_set_log_main("kd_test.lgc", "KD_TEST", &rec);

  const std::string text = std::string(137990, 'a') + ",bbbbbbbbbbbbbbbbbbbb,c";
  const V fields = Fields(text.c_str(), ',');
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_EQ(fields[0], std::string(137990, 'a'));
  EXPECT_EQ(fields[1], "bbbbbbbb") << "137999 characters are kept";

  const std::string log = TraceLogs(inst);
  EXPECT_NE(log.find("Error: cm_strok: string shortend to 137999 chars bcs. of string overflow strlen(aaaa"),
            std::string::npos)
      << log.substr(0, 400);

  const std::string exact(137999, 'z');
  EXPECT_EQ(Fields(exact.c_str(), ','), V{exact});
}
