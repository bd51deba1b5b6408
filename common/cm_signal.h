// Signal-mask helpers.
#pragma once

#include <signal.h>

#include <array>

/// Blocks a signal set for the lifetime of the object and restores the
/// previous mask on destruction, unless KeepBlocked() was called.
class ScopedSigBlock {
 public:
  explicit ScopedSigBlock(const sigset_t& set) { sigprocmask(SIG_BLOCK, &set, &old_); }
  ScopedSigBlock(const ScopedSigBlock&) = delete;
  ScopedSigBlock& operator=(const ScopedSigBlock&) = delete;
  ~ScopedSigBlock() {
    if (!keep_) sigprocmask(SIG_SETMASK, &old_, nullptr);
  }
  /// For the one path that deliberately returns with the signals still blocked.
  void KeepBlocked() { keep_ = true; }
  /// The mask that was in force before the block.
  const sigset_t& previous() const { return old_; }

 private:
  sigset_t old_{};
  bool keep_ = false;
};

/// The symbolic name of a signal ("SIGTERM"), or "SIG?" for an unknown number.
const char* cm_signal_name(int sig);

/// A signal's number and symbolic name.
struct SignalName {
  int sig;
  const char* name;
};
/// Every signal by name, in alphabetical order; the aliases SIGIOT and
/// SIGPOLL are names of their own, behind the names they stand for.
extern const std::array<SignalName, 32> kSignalNames;
