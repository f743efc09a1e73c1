// Checksums and pseudo-random numbers. Neither is fit for secrets.
#pragma once

#include <cstddef>
#include <cstdint>

/// `crc` carried on over `length` bytes, most significant bit first. Null data leaves it unchanged.
std::uint32_t gen_crc(const void* data, std::size_t length, std::uint32_t crc);

/// The next number of the process's sequence, below 2029052025. Without a seed so far, the time of
/// day becomes the seed.
std::uint32_t gen_random();

/// Starts the sequence anew from the low 31 bits of `seed`.
void gen_seed_random(std::uint32_t seed);
