// Shared basics of the common runtime: result and language enumerations,
// bounded text copies, capped texts and descriptor ownership.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

/// Result of runtime services such as the semaphores.
enum EXIT_STATE : int { KD_SUCCESS = 0, KD_WARNING = 1, KD_ERROR = 2, KD_FATAL = 3, KD_ROLLBACK = 4 };

/// Result of the boolean runtime services.
enum RETURN_STATE : int { KD_FAILURE = 0, KD_OK = 1 };

/// Message language of the process.
enum LANGUAGES : int {
  LANG_EN = 0,
  LANG_ES = 1,
  LANG_DE = 2,
  LANG_BY = 3,
  LANG_FR = 4,
  LANG_HR = 5,
  LANG_PT = 6
};

/// The process's message language; set from "[SETUP]" lang by v_set_log_main.
extern LANGUAGES eLang;

/// "SUCCESS", "WARNING", "ERROR", "FATAL", "ROLLBACK"; "UNKNOWN" for any other value.
const char* exit_state_name(int state);

/// The build's source-revision identifier (written after "Kelda GitID: ").
const char* kd_build_id();

/// Fills at most size-1 (and at most 511) characters describing the parent
/// process of the caller: "PPID=%d (%s)" with its command name.
void get_parent_info(char* buffer, std::size_t size);

/// Copies src into dst, cut to N-1 characters, always terminated.
template <std::size_t N>
inline void CopyCut(char (&dst)[N], std::string_view src) {
  static_assert(N > 0);
  const std::size_t n = src.size() < N - 1 ? src.size() : N - 1;
  std::memcpy(dst, src.data(), n);
  dst[n] = '\0';
}

/// Copies src into a buffer of the given size, cut to size-1 characters,
/// always terminated (for buffers that arrive as pointer and size).
inline void CopyCutN(char* dst, std::size_t size, std::string_view src) {
  if (size == 0) return;
  const std::size_t n = src.size() < size - 1 ? src.size() : size - 1;
  std::memcpy(dst, src.data(), n);
  dst[n] = '\0';
}

/// A text stored at its own length but cut, like a char[Cap] field, at Cap-1
/// characters. For records that exist by the thousand.
template <std::size_t Cap>
class CappedText {
 public:
  static constexpr std::size_t kMaxLength = Cap - 1;
  CappedText() = default;
  CappedText(std::string_view s) { assign(s); }  // NOLINT: implicit on purpose
  CappedText& operator=(std::string_view s) {
    assign(s);
    return *this;
  }
  void assign(std::string_view s) { text_.assign(s.substr(0, kMaxLength)); }
  const char* c_str() const { return text_.c_str(); }
  std::string_view view() const { return text_; }
  std::size_t size() const { return text_.size(); }
  bool empty() const { return text_.empty(); }
  void clear() { text_.clear(); }
  operator std::string_view() const { return text_; }  // NOLINT
  friend bool operator==(const CappedText& a, std::string_view b) { return a.view() == b; }

 private:
  std::string text_;
};

/// Owns one file descriptor; closes it on destruction. Move-only.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    if (this != &o) reset(std::exchange(o.fd_, -1));
    return *this;
  }
  ~UniqueFd() { reset(); }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }
  /// Gives up ownership without closing.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }
  /// Closes the held descriptor (if any) and takes fd.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};
