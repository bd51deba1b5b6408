// Reading the request pipe: request lines are taken one by one under the
// alarm of an idle daemon and executed with the five signals blocked.
#pragma once

#include <cstddef>

/// Characters of one request line that are read at most (line feed excluded).
inline constexpr std::size_t kMaxReadLine = 2046;

/// Serves the request pipe until it is quiet: 1 call again at once, 0 no
/// request arrived (a signal or the alarm ended the wait), -1 after a
/// shutdown request.
[[nodiscard]] int ReadExecuteQuery(const char* program, const char* qm_dir);

/// Closes the daemon's descriptor of the request pipe and forgets any
/// buffered input (after a fork, and for tests).
void CloseRequestPipe();
