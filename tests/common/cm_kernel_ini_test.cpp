// Configuration files: key lookup, bootstrap resolution, lists, the ini
// dictionary, path prefixes and the global-variable readers with defaults.
#include <stdlib.h>

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "kd_test_support.h"
#include "test_trace.h"

using kdtest::ReadFile;
using kdtest::WriteFile;

namespace {

/// "<result> [<value>] <error text>" of one look-up.
std::string GetKey(const std::string& file, const char* section, const char* key, std::size_t size = 1024) {
  std::vector<char> value(size, 'x');
  char err[512] = "garbage";
  const int rc = i_GetPrivateProfileString(file.c_str(), section, key, value.data(), size, err, sizeof err);
  return std::to_string(rc) + " [" + value.data() + "] " + err;
}

std::string ReadIni(const char* ini, const char* section, const char* key) {
  char value[1024] = "garbage";
  char err[512] = "garbage";
  const int rc = i_READ_INI(ini, section, key, value, sizeof value, err, sizeof err);
  return std::to_string(rc) + " [" + value + "] " + err;
}

const std::string kMiss = "i_GetPrivateProfileString: ";

// An instance whose fixed bootstrap files lie in a temporary directory (absent unless written).
class IniTest : public ::testing::Test {
 protected:
  IniTest() { cm_set_bootstrap_files_for_tests(opt_boot().c_str(), etc_boot().c_str()); }
  ~IniTest() override { cm_set_bootstrap_files_for_tests(nullptr, nullptr); }

  std::string opt_boot() const { return boot_.file("opt_kelda.ini"); }
  std::string etc_boot() const { return boot_.file("kelda2000.ini"); }
  std::string file(const std::string& name) const { return boot_.file(name); }

  kdtest::TestInstance inst_;
  kdtest::TempDir boot_;
};

}  // namespace

TEST_F(IniTest, FindsKeysInTheirSectionWithCaseAndCommentRules) {
  const std::string f = file("sample.ini");
  WriteFile(f,
            "top=before any section\n[Pathes]\nGv_Rw_Lgc=/var/x/\ngv_blank =/not/this\n#gv_comment=/commented/\n\n"
            "padded=   lead kept, trail gone   \t \nhash=a#b\ncrlf=windows\r\nempty=\nempty_blanks=    \n"
            "[Other]\nlater=in other\ngv_rw_lgc=/other/\n[pathes2]\nnear=miss\n");
  EXPECT_EQ(GetKey(f, "[Pathes]", "gv_rw_lgc"), "1 [/var/x/] ");
  // Section without brackets and in another case; key in capitals.
  EXPECT_EQ(GetKey(f, "PATHES", "GV_RW_LGC"), "1 [/var/x/] ");
  EXPECT_EQ(GetKey(f, "Other", "gv_rw_lgc"), "1 [/other/] ");
  // Leading blanks stay, trailing blanks go; "#" inside a value is part of it.
  EXPECT_EQ(GetKey(f, "Pathes", "padded"), "1 [   lead kept, trail gone] ");
  EXPECT_EQ(GetKey(f, "Pathes", "hash"), "1 [a#b] ");
  EXPECT_EQ(GetKey(f, "Pathes", "crlf"), "1 [windows] ");
  EXPECT_EQ(GetKey(f, "", "later"), "1 [in other] ") << "without a section the first matching line wins";
  EXPECT_EQ(GetKey(f, nullptr, "top"), "1 [before any section] ");
  EXPECT_EQ(GetKey(f, "Pathes", "gv_rw_lgc", 5), "1 [/var] ") << "cut to the caller's buffer";

  // Each kind of miss with its text; a blank before "=" is no key line, "#" a comment,
  // and the next section header ends the search.
  const std::string absent = file("absent.ini"), dir = boot_.path();
  for (const auto& [in, section, key, err] : std::vector<std::array<std::string, 4>>{
           {f, "Pathes", "gv_blank", "KEY NOT FOUND [pathes]: gv_blank"},
           {f, "[Pathes]", "later", "KEY NOT FOUND [pathes]: later"},
           {f, "pathes2", "nothing", "KEY NOT FOUND: nothing"},
           {f, "Missing", "x", "SECTION NOT FOUND: [missing]."},
           {f, "Pathes", "empty", "KEY VALUE NOT FOUND."},
           {f, "Pathes", "empty_blanks", "KEY VALUE NOT FOUND."},
           {f, "Pathes", "#gv_comment", "KEY NOT FOUND [pathes]: #gv_comment"},
           {"", "Pathes", "x", "FILE NOT FOUND OR ACCESS PROBLEM."},
           {absent, "Pathes", "x", "FILE [" + absent + "] NOT FOUND OR ACCESS PROBLEM (2): No such file or directory"},
           {dir, "Pathes", "x", "FILE [" + dir + "] NOT FOUND OR ACCESS PROBLEM (21): Is a directory"}}) {
    EXPECT_EQ(GetKey(in, section.c_str(), key.c_str()), "0 [] " + kMiss + err);
  }
}

TEST_F(IniTest, ResolvesOneReferenceFromTheSectionOrDefaultAndStopsLoops) {
  const std::string f = file("ref.ini");
  WriteFile(f, "[DEFAULT]\ny=/from/default\nbase=/def/base/\nchain=%(base)c\n[s]\nbase=/own/base/\n"
               "b=%(base)x %(y)\nc=%(chain)/end   \nself=%(self)\nloop1=%(loop2)\nloop2=x%(loop1)\n");
  // The section wins over [DEFAULT]; only the first reference is replaced; a referenced
  // value is resolved where it lives: chain in [DEFAULT] takes base from there.
  EXPECT_EQ(GetKey(f, "s", "b"), "1 [/own/base/x %(y)] ");
  EXPECT_EQ(GetKey(f, "s", "c"), "1 [/def/base/c/end] ");
  for (const char* key : {"self", "loop1"})
    EXPECT_EQ(GetKey(f, "s", key).rfind("0 [] " + kMiss + "REFERENCE LOOP OR NESTED TOO DEEP: ", 0), 0u) << key;
}

TEST_F(IniTest, SurvivesOverlongLinesAndBinaryBytes) {
  const std::string f = file("long.ini");
  // The tail of an overlong line looks like a key line; it must not be taken for one.
  WriteFile(f, "[s]\nfiller=" + std::string(1022 - 7, 'f') + "k=evil\nk=good\n");
  EXPECT_EQ(GetKey(f, "s", "k"), "1 [good] ");
  // An overlong key line counts with its first 1022 characters.
  WriteFile(f, "[s]\nlong=" + std::string(2000, 'v') + "\n");
  EXPECT_EQ(GetKey(f, "s", "long"), "1 [" + std::string(1022 - 5, 'v') + "] ");
  // Binary bytes, a NUL among them, neither crash the scan nor hide later lines.
  WriteFile(f, "[s]\n\x01\x02\xff\xfe=\x80\n" + std::string("zero=a\0b\n", 9) + "last=end");
  EXPECT_EQ(GetKey(f, "s", "zero"), "1 [a] ");
  EXPECT_EQ(GetKey(f, "s", "last"), "1 [end] ") << "a last line without line end is read";
}

TEST_F(IniTest, ReadIniResolvesTheBootstrapFileEveryTime) {
  inst_.write_kd_ini("[Params]\nlevel=1\n");
  EXPECT_EQ(ReadIni(nullptr, "Params", "level"), "1 [1] ");
  // No cache: an edit takes effect at the next read.
  inst_.write_kd_ini("[Params]\nlevel=2\n");
  EXPECT_EQ(ReadIni("", "Params", "level"), "1 [2] ");
  // A name beginning with "/" is the file itself.
  WriteFile(file("direct.ini"), "[x]\nk=direct\n");
  EXPECT_EQ(ReadIni(file("direct.ini").c_str(), "x", "k"), "1 [direct] ");

  // A failed read is traced unlevelled.
  kdtest::ModuleTrace log(inst_, 2);
  EXPECT_EQ(ReadIni(nullptr, "[Pathes]", "gv_nothing"), "0 [] " + kMiss + "KEY NOT FOUND [pathes]: gv_nothing");
  EXPECT_TRUE(log.Has(": READ_INI: KD_INI [Pathes] gv_nothing not found\n"));
}

TEST_F(IniTest, TriesTheFixedBootstrapFilesInOrder) {
  const auto root = [](const char* name) {
    char path[1024] = "garbage";
    char err[512];
    const int rc = i_GET_ROOT_FOR_INI(name, path, sizeof path, err, sizeof err);
    return std::to_string(rc) + " [" + path + "] " + err;
  };
  // KD_INI names a file without the key: the first fixed file, then the second.
  WriteFile(inst_.bootstrap(), "OTHER=1\n");
  WriteFile(etc_boot(), "[any]\nKD_INI=" + file("etc_kd.ini") + "\n");
  EXPECT_EQ(root("KD_INI"), "1 [" + file("etc_kd.ini") + "] ");
  WriteFile(opt_boot(), "kd_ini=" + file("opt_kd.ini") + "\n");
  EXPECT_EQ(root("KD_INI"), "1 [" + file("opt_kd.ini") + "] ");
  // Nowhere found: the message names the first fixed file while KD_INI is set, else the second.
  const std::string none = "0 [] i_GET_ROOT_FOR_INI: NO KELDA CONFIGURATION FILE FOUND: ";
  EXPECT_EQ(root("NOWHERE"), none + opt_boot());
  unsetenv("KD_INI");
  EXPECT_EQ(root("NOWHERE"), none + etc_boot());
}

TEST_F(IniTest, ChangeIniOverwritesOnlyWithFlagOAndKeepsTheRest) {
  inst_.write_kd_ini("[Params]\nMode=old\n");
  EXPECT_EQ(i_change_ini(nullptr, "[Params]", "mode", "new", ' '), 1);
  EXPECT_EQ(ReadIni(nullptr, "Params", "mode"), "1 [old] ");
  EXPECT_EQ(i_change_ini(nullptr, "Params", "MODE", "new", 'o'), 1);
  EXPECT_EQ(i_change_ini("KD_INI", "params", "added", "a#1", ' '), 1);
  EXPECT_EQ(i_change_ini("", "[Fresh]", "k", "v", 'o'), 1);
  EXPECT_EQ(ReadIni(nullptr, "Fresh", "k"), "1 [v] ");
  EXPECT_EQ(ReadIni(nullptr, "Pathes", "gv_rw_glbv"), "1 [" + inst_.glbv_dir() + "] ");
  EXPECT_NE(ReadFile(inst_.kd_ini()).find("[Params]\nMode=new\nadded=a#1\n"), std::string::npos);
  EXPECT_FALSE(kdtest::Exists(inst_.kd_ini() + ".tmp"));
  EXPECT_EQ(i_change_ini(file("new.ini").c_str(), "S", "a=b", "1", 'o'), 0);
}

TEST_F(IniTest, ResolvePathAndResolveGlbvExpandPrefixes) {
  char p[1024] = "GV_RW_WORK:sem/x.sem";
  EXPECT_EQ(resolve_path(p, sizeof p), 1);
  EXPECT_EQ(std::string(p), inst_.work() + "sem/x.sem");
  char cut[12] = "gv_rw_lgc:";
  resolve_path(cut, sizeof cut);
  EXPECT_EQ(std::string(cut), inst_.lgc().substr(0, 11));
  inst_.write_glbv("gv_dir", "/data/x/");
  CopyCut(p, "\"gv_dir:file.txt\"");
  EXPECT_EQ(resolve_glbv(p, sizeof p), 1);
  EXPECT_STREQ(p, "\"/data/x/file.txt\"");
  for (const char* unchanged : {"C:\\dir", "unknown:x", "a/gv_rw_lgc:x", "gv_unset:x"}) {
    CopyCut(p, unchanged);
    resolve_path(p, sizeof p);
    EXPECT_EQ(resolve_glbv(p, sizeof p), 0) << unchanged;
    EXPECT_STREQ(p, unchanged);
  }
  char small[7] = "gv_dir";
  EXPECT_EQ(resolve_glbv(small, sizeof small), 1);
  EXPECT_STREQ(small, "/data/");
}

TEST_F(IniTest, GlbvReadersFallBackToTheirDefaults) {
  inst_.write_glbv("app", "blue");
  inst_.write_glbv("app_color", "red");
  inst_.write_glbv("flag_n", "no");
  EXPECT_EQ(std::string(read_glbv_default("gv_none", std::string(300, 'd').c_str())), std::string(255, 'd'));
  EXPECT_STREQ(read_2_glbv_default("color", "app", "green"), "red");
  EXPECT_STREQ(read_2_glbv_default("size", "app", "green"), "blue");
  EXPECT_EQ(i_read_glbv_default_long("gv_none", 7), 7);
  EXPECT_FALSE(b_is_glbv_set("flag_n") || b_is_glbv_set("flag_none"));
}
