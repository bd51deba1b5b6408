// The entry-number pool: first in, first out, no number twice.
#pragma once

#include <cstddef>
#include <cstdint>

/// Appends 1 .. count-1.
void QmEntry_init(int32_t count);
/// The number at the front, or -1 when the pool is empty.
[[nodiscard]] int32_t QmEntry_fetch();
/// Appends the number unless it is already in the pool.
void QmEntry_release(int32_t number);
void QmEntry_destroy();
/// Numbers currently in the pool.
std::size_t QmEntry_size();
