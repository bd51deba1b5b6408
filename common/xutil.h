// Bounded formatting.
#pragma once

#include <cstdarg>
#include <cstddef>

/// Formats like snprintf. An encoding error is traced at level 0 as
/// "x_Snprintf: Error vsnprintf failed with return %d (%d size) (encoding) [%s]",
/// a result that does not fit (result >= size) as
/// "x_Snprintf: Error vsnprintf truncated %d >= %d size [%s]" with the cut
/// text. The buffer is always terminated (unless it is null or size is 0);
/// the caller goes on with the cut text. Returns the formatter's result.
int x_Snprintf(char* buffer, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
