// The number rule of all text input, and bytes as hexadecimal digits.
#pragma once

#include <cstddef>
#include <cstdint>

#include "indgen/memory.h"

/// Reads a 32-bit number after blanks and one sign, in `base` 2 to 36, or 0 for the base that the
/// text shows by `0x` or `0` in front. A minus negates, modulo 2^32. `end` (may be null) becomes
/// the place behind the digits, or `text` if there are none. A number over 32 bits gives 0xFFFFFFFF
/// and sets `errno` to ERANGE; nothing else touches `errno`. Null text: 0, with `end` null.
std::uint32_t gen_strtoul(const char* text, const char** end, int base);

/// Two lower-case digits for each byte, the low half of the byte first. None for none.
gen_text gen_hex(const void* bytes, std::size_t count);
