// Fixtures shared by the tests: temporary directories, a self-contained
// instance of the server's configuration, and deadline-bounded waiting.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace kdtest {

/// A fresh directory below $TMPDIR (or /tmp), removed with everything in it
/// on destruction. Never changes the working directory.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  /// The directory, without a trailing "/".
  const std::string& path() const { return path_; }
  /// path() + "/" + name.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// A self-contained server instance in a temporary directory:
///   kelda.ini           bootstrap file with KD_INI=<dir>/ini/kd.ini
///   ini/kd.ini          "[Pathes]" with gv_rw_lgc, gv_rw_ini, gv_rw_glbv,
///                       gv_rw_work, gv_rw_qm, gv_ro_bin, gv_rw_bin (each ending in "/")
///   ini/debug.ini       trace levels per module
///   log/ ini/ glbv/ workdir/ workdir/sem/ qm/ qm/com/ bin/
/// The environment variable KD_INI points at the bootstrap file while the
/// instance lives (restored afterwards); the process-wide caches of the
/// runtime (global-variable directory, trace state) are reset on creation
/// and destruction.
class TestInstance {
 public:
  TestInstance();
  ~TestInstance();
  TestInstance(const TestInstance&) = delete;
  TestInstance& operator=(const TestInstance&) = delete;

  const std::string& root() const { return dir_.path(); }
  std::string bootstrap() const { return root() + "/kelda.ini"; }
  std::string kd_ini() const { return root() + "/ini/kd.ini"; }
  std::string debug_ini() const { return root() + "/ini/debug.ini"; }
  /// The directories, each ending in "/".
  std::string lgc() const { return root() + "/log/"; }
  std::string ini_dir() const { return root() + "/ini/"; }
  std::string glbv_dir() const { return root() + "/glbv/"; }
  std::string work() const { return root() + "/workdir/"; }
  std::string qm() const { return root() + "/qm/"; }
  std::string bin() const { return root() + "/bin/"; }

  /// Rewrites kd.ini: the "[Pathes]" section followed by extra (ini text).
  void write_kd_ini(const std::string& extra = "") const;
  /// Rewrites debug.ini with the given text (lines such as "KD_QM_MAIN=3\n").
  void write_debug_ini(const std::string& text) const;
  /// Writes a global variable file directly (name + ".sgv" in glbv/).
  void write_glbv(const std::string& name, const std::string& value) const;

 private:
  TempDir dir_;
  std::string old_kd_ini_;
  bool had_kd_ini_ = false;
};

/// Polls condition every few milliseconds until it holds or the deadline
/// passes; returns whether it held.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline);

/// The whole content of a file ("" if it cannot be read).
std::string ReadFile(const std::string& path);
/// Writes (replaces) a file; mode applied with chmod.
void WriteFile(const std::string& path, const std::string& content, int mode = 0644);
/// True if the path exists.
bool Exists(const std::string& path);

/// Runs fn with standard error (fd 2) and/or standard output (fd 1)
/// redirected into a temporary file; returns what was written.
std::string CaptureFd(int fd, const std::function<void()>& fn);

/// True when text begins with the shape: "9" stands for any digit, every
/// other character for itself ("9999-99-99 99:99:99" matches a timestamp).
/// (std::regex is avoided: g++ 12 warns falsely inside it under the sanitizers.)
bool StartsWithShape(std::string_view text, std::string_view shape);
/// Every part of text that has the shape, replaced by with.
std::string ReplaceShape(std::string text, std::string_view shape, std::string_view with);
/// After every marker, the run of digits that follows, replaced by with.
std::string ReplaceDigitsAfter(std::string text, std::string_view marker, std::string_view with);
/// After every marker, the text up to the next stop character, replaced by with.
std::string ReplaceUntil(std::string text, std::string_view marker, char stop, std::string_view with);

}  // namespace kdtest
