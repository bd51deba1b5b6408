// Configuration files: key lookup, bootstrap resolution, lists, the ini
// dictionary, path prefixes and the global-variable readers with defaults.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "kd_test_support.h"

using kdtest::ReadFile;
using kdtest::WriteFile;

namespace {

struct Read {
  int rc = -1;
  std::string value;
  std::string err;
};

Read GetKey(const std::string& file, const char* section, const char* key, std::size_t size = 1024) {
  std::vector<char> value(size, 'x');
  char err[512] = "garbage";
  Read r;
  r.rc = i_GetPrivateProfileString(file.c_str(), section, key, value.data(), size, err, sizeof err);
  r.value = value.data();
  r.err = err;
  return r;
}

Read ReadIni(const char* ini, const char* section, const char* key) {
  char value[1024] = "garbage";
  char err[512] = "garbage";
  Read r;
  r.rc = i_READ_INI(ini, section, key, value, sizeof value, err, sizeof err);
  r.value = value;
  r.err = err;
  return r;
}

// An instance whose fixed bootstrap files lie in a temporary directory (absent unless written).
class IniTest : public ::testing::Test {
 protected:
  IniTest() { cm_set_bootstrap_files_for_tests(opt_boot().c_str(), etc_boot().c_str()); }
  ~IniTest() override { cm_set_bootstrap_files_for_tests(nullptr, nullptr); }

  std::string opt_boot() const { return boot_.file("opt_kelda.ini"); }
  std::string etc_boot() const { return boot_.file("kelda2000.ini"); }
  std::string file(const std::string& name) const { return boot_.file(name); }

  // Starts a trace log of module KD_TEST at the level; TraceText() returns what it holds.
  void StartTrace(int level) {
    inst_.write_glbv("gv_daylbl", "20990101");
    inst_.write_debug_ini("KD_TEST=" + std::to_string(level) + "\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &log_);
  }
  std::string TraceText() {
    v_set_log_all_close(&log_);
    return ReadFile(inst_.lgc() + "kd_test_20990101.log");
  }

  kdtest::TestInstance inst_;
  kdtest::TempDir boot_;
  str_log log_;
};

const char* const kSample =
    "# sample configuration\n"
    "top=before any section\n"
    "[Pathes]\n"
    "Gv_Rw_Lgc=/var/x/\n"
    "gv_blank =/not/this\n"
    "#gv_comment=/commented/\n"
    "\n"
    "padded=   lead kept, trail gone   \t \n"
    "hash=a#b\n"
    "crlf=windows\r\n"
    "empty=\n"
    "empty_blanks=    \n"
    "[Other]\n"
    "later=in other\n"
    "gv_rw_lgc=/other/\n"
    "[pathes2]\n"
    "near=miss\n";

TEST_F(IniTest, FindsKeysInTheirSectionWithCaseAndCommentRules) {
  const std::string f = file("sample.ini");
  WriteFile(f, kSample);
  Read r = GetKey(f, "[Pathes]", "gv_rw_lgc");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.value, "/var/x/");
  EXPECT_EQ(r.err, "");
  // Section without brackets and in another case; key in capitals.
  EXPECT_EQ(GetKey(f, "PATHES", "GV_RW_LGC").value, "/var/x/");
  EXPECT_EQ(GetKey(f, "[pathes", "gv_rw_lgc").value, "/var/x/");
  EXPECT_EQ(GetKey(f, "Other", "gv_rw_lgc").value, "/other/");
  EXPECT_EQ(GetKey(f, "pathes2", "near").value, "miss");
  // Leading blanks stay, trailing blanks go; "#" inside a value is part of it.
  EXPECT_EQ(GetKey(f, "Pathes", "padded").value, "   lead kept, trail gone");
  EXPECT_EQ(GetKey(f, "Pathes", "hash").value, "a#b");
  EXPECT_EQ(GetKey(f, "Pathes", "crlf").value, "windows");
  // A blank before "=" is no key line; a line beginning with "#" is a comment.
  r = GetKey(f, "Pathes", "gv_blank");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: KEY NOT FOUND [pathes]: gv_blank");
  EXPECT_EQ(GetKey(f, "Pathes", "#gv_comment").rc, 0);
  // Without a section the first matching line anywhere wins.
  EXPECT_EQ(GetKey(f, nullptr, "gv_rw_lgc").value, "/var/x/");
  EXPECT_EQ(GetKey(f, "", "later").value, "in other");
  EXPECT_EQ(GetKey(f, "", "top").value, "before any section");
}

TEST_F(IniTest, ReportsEachKindOfMissWithItsText) {
  const std::string f = file("sample.ini");
  WriteFile(f, kSample);
  // The next section header ends the search even though the key follows later.
  Read r = GetKey(f, "[Pathes]", "later");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.value, "");
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: KEY NOT FOUND [pathes]: later");
  r = GetKey(f, "pathes2", "nothing");
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: KEY NOT FOUND: nothing");
  r = GetKey(f, "Missing", "x");
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: SECTION NOT FOUND: [missing].");
  r = GetKey(f, "Pathes", "empty");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: KEY VALUE NOT FOUND.");
  EXPECT_EQ(GetKey(f, "Pathes", "empty_blanks").err, "i_GetPrivateProfileString: KEY VALUE NOT FOUND.");
  r = GetKey("", "Pathes", "x");
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM.");
  r = GetKey(file("absent.ini"), "Pathes", "x");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: FILE [" + file("absent.ini") +
                       "] NOT FOUND OR ACCESS PROBLEM (2): No such file or directory");
  r = GetKey(boot_.path(), "Pathes", "x");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: FILE [" + boot_.path() + "] NOT FOUND OR ACCESS PROBLEM (21): Is a directory");
}

TEST_F(IniTest, CutsTheValueToTheCallersBuffer) {
  const std::string f = file("cut.ini");
  WriteFile(f, "[s]\nk=0123456789\n");
  Read r = GetKey(f, "s", "k", 5);
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.value, "0123");
}

TEST_F(IniTest, ResolvesOneReferenceFromTheSectionOrDefault) {
  const std::string f = file("ref.ini");
  WriteFile(f,
            "[DEFAULT]\n"
            "y=/from/default\n"
            "base=/def/base/\n"
            "chain=%(base)c\n"
            "[s]\n"
            "a=%(y)/z\n"
            "base=/own/base/\n"
            "b=%(base)x %(y)\n"
            "c=%(chain)/end   \n"
            "d=pre %(nowhere) post\n"
            "e=no close %(y\n"
            "self=%(self)\n"
            "loop1=%(loop2)\n"
            "loop2=x%(loop1)\n");
  EXPECT_EQ(GetKey(f, "s", "a").value, "/from/default/z");
  // The section wins over [DEFAULT]; only the first reference is replaced.
  EXPECT_EQ(GetKey(f, "s", "b").value, "/own/base/x %(y)");
  // A referenced value is resolved where it lives: chain in [DEFAULT] takes base from there.
  EXPECT_EQ(GetKey(f, "s", "c").value, "/def/base/c/end");
  EXPECT_EQ(GetKey(f, "s", "e").value, "no close %(y");
  Read r = GetKey(f, "s", "d");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.value, "");
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: KEY NOT FOUND [default]: nowhere");
  for (const char* key : {"self", "loop1"}) {
    r = GetKey(f, "s", key);
    EXPECT_EQ(r.rc, 0) << key;
    EXPECT_EQ(r.value, "") << key;
    EXPECT_EQ(r.err.rfind("i_GetPrivateProfileString: REFERENCE LOOP OR NESTED TOO DEEP: ", 0), 0u) << r.err;
  }
}

TEST_F(IniTest, SurvivesOverlongLinesAndBinaryBytes) {
  const std::string f = file("long.ini");
  // The tail of an overlong line looks like a key line; it must not be taken for one.
  std::string bogus = "[s]\nfiller=" + std::string(1022 - 7, 'f') + "k=evil\nk=good\n";
  WriteFile(f, bogus);
  EXPECT_EQ(GetKey(f, "s", "k").value, "good");
  // An overlong key line counts with its first 1022 characters.
  WriteFile(f, "[s]\nlong=" + std::string(2000, 'v') + "\n");
  Read r = GetKey(f, "s", "long");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.value, std::string(1022 - 5, 'v'));
  // Binary bytes, a NUL among them, neither crash the scan nor hide later lines.
  std::string bin = "[s]\n\x01\x02\xff\xfe=\x80\n";
  bin += std::string("zero=a\0b\n", 9);
  bin += "after=ok\n";
  WriteFile(f, bin);
  EXPECT_EQ(GetKey(f, "s", "after").value, "ok");
  EXPECT_EQ(GetKey(f, "s", "zero").value, "a");
  // A last line without line end is read.
  WriteFile(f, "[s]\nlast=end");
  EXPECT_EQ(GetKey(f, "s", "last").value, "end");
}

TEST_F(IniTest, ReadIniResolvesTheBootstrapFileEveryTime) {
  inst_.write_kd_ini("[Params]\nlevel=1\n");
  Read r = ReadIni(nullptr, "Params", "level");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.value, "1");
  EXPECT_EQ(ReadIni("", "[Pathes]", "gv_rw_lgc").value, inst_.lgc());
  EXPECT_EQ(ReadIni("KD_INI", "[Pathes]", "gv_rw_lgc").value, inst_.lgc());
  // No cache: an edit takes effect at the next read.
  inst_.write_kd_ini("[Params]\nlevel=2\n");
  EXPECT_EQ(ReadIni(nullptr, "Params", "level").value, "2");
  r = ReadIni(nullptr, "Params", "absent");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.value, "");
  EXPECT_EQ(r.err, "i_GetPrivateProfileString: KEY NOT FOUND: absent");
  // A name beginning with "/" is the file itself.
  WriteFile(file("direct.ini"), "[x]\nk=direct\n");
  EXPECT_EQ(ReadIni(file("direct.ini").c_str(), "x", "k").value, "direct");
}

TEST_F(IniTest, TriesTheFixedBootstrapFilesInOrder) {
  char path[1024];
  char err[512];
  // KD_INI names a file without the key: the first fixed file, then the second.
  WriteFile(inst_.bootstrap(), "OTHER=1\n");
  WriteFile(etc_boot(), "[any]\nKD_INI=" + file("etc_kd.ini") + "\n");
  EXPECT_EQ(i_GET_ROOT_FOR_INI("KD_INI", path, sizeof path, err, sizeof err), 1);
  EXPECT_EQ(std::string(path), file("etc_kd.ini"));
  WriteFile(opt_boot(), "kd_ini=" + file("opt_kd.ini") + "\n");
  EXPECT_EQ(i_GET_ROOT_FOR_INI("KD_INI", path, sizeof path, err, sizeof err), 1);
  EXPECT_EQ(std::string(path), file("opt_kd.ini"));
  EXPECT_EQ(i_GET_ROOT_FOR_INI("/abs/file.ini", path, sizeof path, err, sizeof err), 1);
  EXPECT_EQ(std::string(path), "/abs/file.ini");

  // Nowhere found: the message names the first fixed file while KD_INI is set, else the second.
  EXPECT_EQ(i_GET_ROOT_FOR_INI("NOWHERE", path, sizeof path, err, sizeof err), 0);
  EXPECT_EQ(std::string(path), "");
  EXPECT_EQ(std::string(err), "i_GET_ROOT_FOR_INI: NO KELDA CONFIGURATION FILE FOUND: " + opt_boot());
  unsetenv("KD_INI");
  EXPECT_EQ(i_GET_ROOT_FOR_INI("NOWHERE", path, sizeof path, err, sizeof err), 0);
  EXPECT_EQ(std::string(err), "i_GET_ROOT_FOR_INI: NO KELDA CONFIGURATION FILE FOUND: " + etc_boot());
  Read r = ReadIni(nullptr, "[Pathes]", "gv_rw_lgc");
  EXPECT_EQ(r.value, "");  // opt_kd.ini does not exist
  EXPECT_EQ(r.rc, 0);
}

TEST_F(IniTest, ReadIniFailureIsTracedUnlevelled) {
  StartTrace(2);
  ReadIni(nullptr, "[Pathes]", "gv_nothing");
  const std::string text = TraceText();
  EXPECT_NE(text.find(": READ_INI: KD_INI [Pathes] gv_nothing not found\n"), std::string::npos) << text;
}

TEST_F(IniTest, ReadIniListKeepsFileOrderWithinTheSection) {
  inst_.write_kd_ini(
      "[List]\n"
      "srv#3=third\n"
      "SRV#1=first\n"
      "srv10=not numbered\n"
      "srv#=bare\n"
      "srv#9=\n"
      "srv#2=second   \n"
      "[Next]\n"
      "srv#4=other section\n");
  std::vector<std::string> list{"stale"};
  char err[512];
  // Whatever name is given, the main configuration is read.
  EXPECT_EQ(i_READ_INI_LIST("ignored", "List", "srv", list, err, sizeof err), 4);
  EXPECT_EQ(list, (std::vector<std::string>{"third", "first", "bare", "second"}));
  EXPECT_STREQ(err, "");
  EXPECT_EQ(i_READ_INI_LIST(nullptr, "[Next]", "SRV", list, err, sizeof err), 1);
  EXPECT_EQ(list, (std::vector<std::string>{"other section"}));

  EXPECT_EQ(i_READ_INI_LIST(nullptr, "List", "none", list, err, sizeof err), 0);
  EXPECT_TRUE(list.empty());
  EXPECT_STREQ(err, "i_READ_INI_LIST: No values for [none#] found in KD_INI");
  unsetenv("KD_INI");
  EXPECT_EQ(i_READ_INI_LIST(nullptr, "List", "srv", list, err, sizeof err), 0);
  EXPECT_STREQ(err, "i_READ_INI_LIST: i_GET_ROOT_FOR_INI() failed");
}

TEST_F(IniTest, ChangeIniOverwritesOnlyWithFlagO) {
  inst_.write_kd_ini("[Params]\nMode=old\n");
  EXPECT_EQ(i_change_ini(nullptr, "[Params]", "mode", "new", ' '), 1);
  EXPECT_EQ(ReadIni(nullptr, "Params", "mode").value, "old");
  EXPECT_EQ(i_change_ini(nullptr, "Params", "MODE", "new", 'o'), 1);
  EXPECT_EQ(ReadIni(nullptr, "Params", "mode").value, "new");
  // A new key in a known section and a new section; the rest survives the rewrite.
  EXPECT_EQ(i_change_ini("KD_INI", "params", "added", "a#1", ' '), 1);
  EXPECT_EQ(i_change_ini("", "[Fresh]", "k", "v", 'o'), 1);
  EXPECT_EQ(ReadIni(nullptr, "Params", "added").value, "a#1");
  EXPECT_EQ(ReadIni(nullptr, "Fresh", "k").value, "v");
  EXPECT_EQ(ReadIni(nullptr, "Pathes", "gv_rw_glbv").value, inst_.glbv_dir());
  const std::string text = ReadFile(inst_.kd_ini());
  EXPECT_NE(text.find("[Params]\nMode=new\nadded=a#1\n"), std::string::npos) << text;
  EXPECT_FALSE(kdtest::Exists(inst_.kd_ini() + ".tmp"));

  // A file given directly; one that does not exist yet is created.
  const std::string f = file("direct.ini");
  EXPECT_EQ(i_change_ini(f.c_str(), "S", "k", "1", ' '), 1);
  EXPECT_EQ(GetKey(f, "s", "k").value, "1");
  EXPECT_EQ(i_change_ini(f.c_str(), "S", "k", "2", ' '), 1);
  EXPECT_EQ(GetKey(f, "s", "k").value, "1");
  // Unresolvable names and bad keys fail.
  EXPECT_EQ(i_change_ini("NOWHERE", "S", "k", "1", 'o'), 0);
  EXPECT_EQ(i_change_ini(f.c_str(), "S", "a=b", "1", 'o'), 0);
}

TEST_F(IniTest, ParseIniLoadsTheWholeFile) {
  inst_.write_kd_ini("[Params]\nMode=%(x)\nmode=second\n");
  char err[512];
  auto dict = p_PARSE_INI(nullptr, err, sizeof err);
  ASSERT_NE(dict, nullptr) << err;
  const IniDict::Entry* e = dict->find("PARAMS", "MODE");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->value, "%(x)");  // as written: the first line of a key
  ASSERT_NE(dict->find("[pathes]", "gv_rw_lgc"), nullptr);
  EXPECT_EQ(dict->find("pathes", "gv_rw_lgc")->value, inst_.lgc());
  EXPECT_EQ(dict->find("params", "absent"), nullptr);
  EXPECT_EQ(p_PARSE_INI("NOWHERE", err, sizeof err), nullptr);
  EXPECT_STREQ(err, ("i_GET_ROOT_FOR_INI: NO KELDA CONFIGURATION FILE FOUND: " + opt_boot()).c_str());
}

TEST_F(IniTest, ResolvePathExpandsPathesPrefixes) {
  char p[1024] = "gv_rw_lgc:";
  EXPECT_EQ(resolve_path(p, sizeof p), 1);
  EXPECT_EQ(std::string(p), inst_.lgc());
  CopyCut(p, "GV_RW_WORK:sem/x.sem");
  resolve_path(p, sizeof p);
  EXPECT_EQ(std::string(p), inst_.work() + "sem/x.sem");
  for (const char* unchanged : {"C:\\dir", "C:\\dir:x", "unknown:x", "a/gv_rw_lgc:x", "a\\b:c", "plain", "", "ab"}) {
    CopyCut(p, unchanged);
    EXPECT_EQ(resolve_path(p, sizeof p), 1);
    EXPECT_STREQ(p, unchanged);
  }
  char small[8];
  CopyCut(small, "gv_rw_lgc:");  // cut to "gv_rw_l": no colon left, unchanged
  resolve_path(small, sizeof small);
  EXPECT_STREQ(small, "gv_rw_l");
  char cut[12] = "gv_rw_lgc:";
  resolve_path(cut, sizeof cut);
  EXPECT_EQ(std::string(cut), inst_.lgc().substr(0, 11));
}

TEST_F(IniTest, ResolveGlbvExpandsVariablePrefixes) {
  inst_.write_glbv("gv_dir", "/data/x/");
  char p[1024] = "gv_dir:file.txt";
  EXPECT_EQ(resolve_glbv(p, sizeof p), 1);
  EXPECT_STREQ(p, "/data/x/file.txt");
  CopyCut(p, "\"gv_dir:file.txt\"");
  EXPECT_EQ(resolve_glbv(p, sizeof p), 1);
  EXPECT_STREQ(p, "\"/data/x/file.txt\"");
  CopyCut(p, "\"gv_dir\"");
  EXPECT_EQ(resolve_glbv(p, sizeof p), 1);
  EXPECT_STREQ(p, "\"/data/x/\"");
  CopyCut(p, "gv_dir");
  EXPECT_EQ(resolve_glbv(p, sizeof p), 1);
  EXPECT_STREQ(p, "/data/x/");
  // Drive paths and unset variables stay as they are.
  for (const char* unchanged : {"C:\\dir", "\"C:\\dir\"", "gv_unset:x", "\"gv_unset:x\"", ":x"}) {
    CopyCut(p, unchanged);
    EXPECT_EQ(resolve_glbv(p, sizeof p), 0) << unchanged;
    EXPECT_STREQ(p, unchanged);
  }
  char small[7] = "gv_dir";
  EXPECT_EQ(resolve_glbv(small, sizeof small), 1);
  EXPECT_STREQ(small, "/data/");
}

TEST_F(IniTest, GlbvReadersFallBackToTheirDefaults) {
  inst_.write_glbv("gv_mode", "fast");
  inst_.write_glbv("app_color", "red");
  inst_.write_glbv("app", "blue");
  inst_.write_glbv("gv_num", "42");
  inst_.write_glbv("flag_y", "Yes");
  inst_.write_glbv("flag_1", "1");
  inst_.write_glbv("flag_n", "no");
  EXPECT_STREQ(read_glbv_default("gv_mode", "slow"), "fast");
  EXPECT_STREQ(read_glbv_default("gv_none", "slow"), "slow");
  EXPECT_EQ(std::string(read_glbv_default("gv_none", std::string(300, 'd').c_str())), std::string(255, 'd'));
  EXPECT_STREQ(read_2_glbv_default("color", "app", "green"), "red");
  EXPECT_STREQ(read_2_glbv_default("size", "app", "green"), "blue");
  EXPECT_STREQ(read_2_glbv_default("gv_mode", "app", "green"), "fast");
  EXPECT_STREQ(read_2_glbv_default("size", "none", "green"), "green");
  EXPECT_EQ(i_read_glbv_default_long("gv_num", 7), 42);
  EXPECT_EQ(i_read_glbv_default_long("gv_none", 7), 7);
  EXPECT_STREQ(read_glbv("gv_mode"), "fast");
  EXPECT_STREQ(read_glbv("gv_none"), "?? GLBV gv_none not existing");
  EXPECT_TRUE(b_is_glbv_set("flag_y"));
  EXPECT_TRUE(b_is_glbv_set("flag_1"));
  EXPECT_FALSE(b_is_glbv_set("flag_n"));
  EXPECT_FALSE(b_is_glbv_set("flag_none"));
}

TEST_F(IniTest, GlbvReadersTraceAtLevelThree) {
  inst_.write_glbv("gv_num", "42");
  StartTrace(3);
  i_read_glbv_default_long("gv_num", 7);
  i_read_glbv_default_long("gv_none", 7);
  char p[64] = "gv_num:x";
  resolve_glbv(p, sizeof p);
  const std::string text = TraceText();
  EXPECT_NE(text.find("Trace: read_glbv_default_long: GLBV variable [gv_num] has the value 42\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("Trace: read_glbv_default_long: GLBV [gv_none] is not set -> use default 7\n"),
            std::string::npos);
  EXPECT_NE(text.find("Trace: resolve_glbv: [gv_num] -> [42]\n"), std::string::npos);
  EXPECT_NE(text.find("Trace: resolve_glbv: return [42x]\n"), std::string::npos);
}

}  // namespace
