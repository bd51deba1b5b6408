// Bounded formatting.
#pragma once

#include <cstdarg>
#include <cstddef>

/// Formats like snprintf; an encoding error or a cut is traced at level 0.
/// The buffer is always terminated. Returns the formatter's result.
int x_Snprintf(char* buffer, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
