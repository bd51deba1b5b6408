#include "kd_test_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cm_hal_unix.h"
#include "cm_trace.h"

namespace kdtest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/kdtest.XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = templ;
}

TempDir::~TempDir() {
  std::error_code ec;
  // Make everything writable again first: tests remove permissions on purpose.
  for (auto it = std::filesystem::recursive_directory_iterator(
           path_, std::filesystem::directory_options::skip_permission_denied, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
  }
  ::chmod(path_.c_str(), 0755);
  std::filesystem::remove_all(path_, ec);
}

TestInstance::TestInstance() {
  for (const char* d : {"log", "ini", "glbv", "workdir", "workdir/sem", "qm", "qm/com", "bin"})
    std::filesystem::create_directories(dir_.file(d));
  WriteFile(bootstrap(), "# bootstrap file of a test instance\nKD_INI=" + kd_ini() + "\n");
  write_kd_ini();
  write_debug_ini("");
  if (const char* old = std::getenv("KD_INI")) {
    had_kd_ini_ = true;
    old_kd_ini_ = old;
  }
  setenv("KD_INI", bootstrap().c_str(), 1);
  v_set_log_all_close(&strLocalLog);
  trace_reset_for_tests();
  glbv_forget_directory();
}

TestInstance::~TestInstance() {
  v_set_log_all_close(&strLocalLog);
  trace_reset_for_tests();
  glbv_forget_directory();
  if (had_kd_ini_)
    setenv("KD_INI", old_kd_ini_.c_str(), 1);
  else
    unsetenv("KD_INI");
}

void TestInstance::write_kd_ini(const std::string& extra) const {
  std::string text = "[Pathes]\n";
  text += "gv_rw_lgc=" + lgc() + "\n";
  text += "gv_rw_ini=" + ini_dir() + "\n";
  text += "gv_rw_glbv=" + glbv_dir() + "\n";
  text += "gv_rw_work=" + work() + "\n";
  text += "gv_rw_qm=" + qm() + "\n";
  text += "gv_ro_bin=" + bin() + "\n";
  text += "gv_rw_bin=" + bin() + "\n";
  text += extra;
  WriteFile(kd_ini(), text);
}

void TestInstance::write_debug_ini(const std::string& text) const { WriteFile(debug_ini(), text); }

void TestInstance::write_glbv(const std::string& name, const std::string& value) const {
  WriteFile(glbv_dir() + name + ".sgv", value);
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  for (;;) {
    if (condition()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "";
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFile(const std::string& path, const std::string& content, int mode) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << content;
  out.close();
  ::chmod(path.c_str(), static_cast<mode_t>(mode));
}

bool Exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

std::string CaptureFd(int fd, const std::function<void()>& fn) {
  std::fflush(nullptr);
  char name[] = "/tmp/kdcapture.XXXXXX";
  const int tmp = mkstemp(name);
  if (tmp < 0) throw std::runtime_error("mkstemp failed");
  ::unlink(name);
  const int saved = ::dup(fd);
  ::dup2(tmp, fd);
  fn();
  std::fflush(nullptr);
  ::dup2(saved, fd);
  ::close(saved);
  std::string out;
  ::lseek(tmp, 0, SEEK_SET);
  char buf[4096];
  ssize_t n;
  while ((n = ::read(tmp, buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
  ::close(tmp);
  return out;
}

bool StartsWithShape(std::string_view text, std::string_view shape) {
  if (text.size() < shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const char c = text[i];
    if (shape[i] == '9' ? (c < '0' || c > '9') : c != shape[i]) return false;
  }
  return true;
}

std::string ReplaceShape(std::string text, std::string_view shape, std::string_view with) {
  for (std::size_t at = 0; at + shape.size() <= text.size();) {
    if (StartsWithShape(std::string_view(text).substr(at), shape)) {
      text.replace(at, shape.size(), with);
      at += with.size();
    } else {
      ++at;
    }
  }
  return text;
}

std::string ReplaceDigitsAfter(std::string text, std::string_view marker, std::string_view with) {
  for (std::size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at)) {
    at += marker.size();
    std::size_t end = at;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
    if (end == at) continue;
    text.replace(at, end - at, with);
    at += with.size();
  }
  return text;
}

std::string ReplaceUntil(std::string text, std::string_view marker, char stop, std::string_view with) {
  for (std::size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at)) {
    at += marker.size();
    const std::size_t end = text.find(stop, at);
    if (end == std::string::npos) break;
    text.replace(at, end - at, with);
    at += with.size();
  }
  return text;
}

}  // namespace kdtest
