// cm_strtok: empty fields kept, its own copy of the text, the cut of an overlong text.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_split.h"
#include "test_trace.h"

namespace {

using V = std::vector<std::string>;

/// Every field of text, in order; stops after 1000 fields.
V Fields(const char* text, char delimiter) {
  V out;
  for (char* f = cm_strtok(text, delimiter); f != nullptr && out.size() < 1000; f = cm_strtok(nullptr, delimiter))
    out.emplace_back(f);
  return out;
}

}  // namespace

TEST(CmStrtok, KeepsEmptyFieldsSoThatADoubledBlankShiftsTheFields) {
  EXPECT_EQ(Fields("a,,b,", ','), (V{"a", "", "b", ""}));
  EXPECT_EQ(cm_strtok(nullptr, ','), nullptr) << "stays at the end once passed";
  EXPECT_EQ(Fields(",a", ','), (V{"", "a"}));
  EXPECT_EQ(Fields("", ','), V{""}) << "an empty text is one empty field";
  EXPECT_EQ(Fields("abc", '\0'), V{"abc"});
  EXPECT_EQ(Fields("1  4711 q1", ' '), (V{"1", "", "4711", "q1"}));
  EXPECT_EQ(Fields("\x01\xff,\x7f", ','), (V{"\x01\xff", "\x7f"}));
}

TEST(CmStrtok, WorksOnItsOwnCopyAndANewTextStartsOver) {
  char text[] = "x;y;z";
  EXPECT_STREQ(cm_strtok(text, ';'), "x");
  EXPECT_STREQ(text, "x;y;z") << "the caller's text is not altered";
  EXPECT_STREQ(cm_strtok(nullptr, ';'), "y");
  EXPECT_EQ(Fields("p;q", ';'), (V{"p", "q"}));
  // A caller that overwrote a field's end joins it with the next; the search stays within the text.
  char* f = cm_strtok("ab,c", ',');
  f[2] = 'X';
  EXPECT_EQ(cm_strtok(nullptr, ','), nullptr);
}

TEST(CmStrtok, CutsAnOverlongTextAndTracesTheCut) {
  kdtest::TestInstance inst;
  kdtest::ModuleTrace log(inst, 1);
  const std::string text = std::string(137990, 'a') + ",bbbbbbbbbbbbbbbbbbbb,c";
  EXPECT_EQ(Fields(text.c_str(), ','), (V{std::string(137990, 'a'), "bbbbbbbb"})) << "137999 characters are kept";
  const std::string exact(137999, 'z');
  EXPECT_EQ(Fields(exact.c_str(), ','), V{exact});
  EXPECT_TRUE(log.Has("Error: cm_strok: string shortend to 137999 chars bcs. of string overflow strlen(aaaa"));
}
