// Sorting of arrays whose element type only the caller knows.
#pragma once

#include <cstddef>

/// Negative, 0 or positive, as `a` goes before, with or behind `b`.
using gen_compare = int (*)(void* context, const void* a, const void* b);
/// Exchanges two elements of `size` bytes.
using gen_swap = void (*)(void* a, void* b, std::size_t size);

/// Sorts `count` elements of `size` bytes at `base` in place, without allocating. `context` goes to
/// `compare` as it is. With a null `swap` the bytes are exchanged. Equal elements come in no
/// particular order.
void gen_sort(void* context, void* base, std::size_t count, std::size_t size, gen_compare compare,
              gen_swap swap);

/// The same, but equal elements keep their order. Allocates above 64 elements.
void gen_sort_stable(void* context, void* base, std::size_t count, std::size_t size,
                     gen_compare compare, gen_swap swap);
