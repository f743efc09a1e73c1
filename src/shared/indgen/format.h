// Formatted printing with an engine of its own, independent of the C library's in all but the
// decimal point, into a new text or through a sink.
//
// What the engine reads differs from printf in a few ways. Integer arguments are 32 bits wide, also
// with `l`; `ll` makes them 64 bits. `L` reads a double like no modifier. There is no other
// modifier than `l`, `ll`, `L` and `h`, so a size is printed as a cast to `unsigned long long`.
// `%s` of null prints "(null)"; `%x` of 0 keeps its `0x` under `#`; the last places of a
// floating-point number may differ. An unknown conversion prints its letter; a format that ends
// inside a conversion prints nothing for it.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "indgen/memory.h"
#include "indgen/report.h"

/// Takes `length` bytes that aren't zero-closed and are gone after the call.
using gen_sink = void (*)(void* context, const char* text, std::size_t length);

/// The formatted text, or none for a null format, which is reported as an error. Up to 1024 bytes
/// cost one allocation.
gen_text gen_asprintf(const char* format, ...) GEN_PRINTF(1, 2);
/// The same with a list. Where a list can be null, that is an error as well. The list is used up,
/// as by vprintf.
gen_text gen_vasprintf(const char* format, std::va_list arguments) GEN_PRINTF(1, 0);

/// The engine: gives the text to `sink` piece by piece and returns the number of characters. A null
/// format prints "(null)".
std::size_t gen_format(const char* format, std::va_list arguments, void* sinkContext,
                       gen_sink sink);

/// Types of arguments that callbacks are asked for.
enum gen_argument_code {
  GEN_ARG_POINTER = 1,
  GEN_ARG_INT = 2,
  GEN_ARG_UNSIGNED = 3,
  GEN_ARG_LONG = 4,
  GEN_ARG_UNSIGNED_LONG = 5,
  GEN_ARG_LONG_LONG = 6,
  GEN_ARG_UNSIGNED_LONG_LONG = 7,
  GEN_ARG_DOUBLE = 8,
  GEN_ARG_LONG_DOUBLE = 9,
};

/// Size in bytes of a type, by its code.
using gen_size_of = int (*)(void* argumentContext, int code);
/// The next argument, as the type that `code` says.
using gen_get_int32 = std::int32_t (*)(void* argumentContext, int code);
using gen_get_uint32 = std::uint32_t (*)(void* argumentContext, int code);
using gen_get_int64 = std::int64_t (*)(void* argumentContext, int code);
using gen_get_uint64 = std::uint64_t (*)(void* argumentContext, int code);
using gen_get_double = double (*)(void* argumentContext, int code);
using gen_get_long_double = long double (*)(void* argumentContext, int code);
/// The next argument as a text, or null; it goes back to gen_free_string after printing.
using gen_get_string = const char* (*)(void* argumentContext);
using gen_free_string = void (*)(void* argumentContext, const char* text);

/// The engine with its arguments fetched one by one. A type of 8 bytes comes from the 64-bit
/// callbacks, any other integer from the 32-bit ones. `l` and `ll` (or `L`) read longs and long
/// longs where those are 8 bytes and an int is smaller; `L` reads long doubles, which are printed
/// with the precision of a double. `%r` and `%R` print 1 to 3999 as a Roman numeral. `%n` takes its
/// argument and reports an error. `freeString` may be null.
std::size_t gen_format_callbacks(const char* format, void* sinkContext, void* argumentContext,
                                 gen_sink sink, gen_size_of sizeOf, gen_get_int32 getInt32,
                                 gen_get_uint32 getUInt32, gen_get_int64 getInt64,
                                 gen_get_uint64 getUInt64, gen_get_double getDouble,
                                 gen_get_long_double getLongDouble, gen_get_string getString,
                                 gen_free_string freeString);
