// The one road of every report: a line on the standard error stream with the program's name and a
// level word, counters by level, the orderly end of the process, and assertions.
//
// All entry points go through the pointer gen_report, so that a program that embeds the library can
// put its own reporter in place; the same holds for gen_exit_hook and the end of the process.
#pragma once

#include <cstdarg>

#include "indgen/memory.h"

/// Report codes. A code above 100 is `code - 100` with the text of `errno` added.
enum gen_level {
  GEN_PLAIN = 0,
  GEN_DISASTER = 1,
  GEN_FATAL = 2,
  GEN_ERROR = 3,
  GEN_WARNING = 4,
  GEN_INFO = 5,
  GEN_RAW = 6,
  GEN_WITH_ERRNO = 100,
};

/// The reporter in use. The standard one writes the line to the standard error stream, counts it,
/// and leaves `errno` as it was unless it printed its text.
extern void (*gen_report)(int code, const char* format, std::va_list arguments);

/// How the process ends. The start value runs the normal exit with its clean-up; called again from
/// within that clean-up, it ends the process at once.
extern void (*gen_exit_hook)(int status);

/// Reports at each level, by code.
extern int gen_error_count[7];
/// Reports at codes below GEN_WARNING, over all levels.
extern int gen_error_total;
/// Prefix of every report but the raw ones; none or empty leaves it out. Set by gen_initialise().
/// The owner behind it is never destroyed, so that a report from exit clean-up still finds it.
extern gen_text& program_name;

#define GEN_PRINTF(text_index, first) __attribute__((format(printf, text_index, first)))

/// Reports (fatal, or plain for a status of 0) and ends the process with `status`.
[[noreturn]] void gen_exit_message(int status, const char* format, ...) GEN_PRINTF(2, 3);
/// Reports as fatal with the text of `errno` and ends the process with `status`.
[[noreturn]] void gen_fatal_errno(int status, const char* format, ...) GEN_PRINTF(2, 3);
/// Reports as fatal with the text of `errno`, clears `errno` and returns.
void gen_errno_report(const char* format, ...) GEN_PRINTF(1, 2);

/// Report at the level of their name and return.
void gen_error(const char* format, ...) GEN_PRINTF(1, 2);
void gen_warning(const char* format, ...) GEN_PRINTF(1, 2);
void gen_info(const char* format, ...) GEN_PRINTF(1, 2);
void gen_raw(const char* format, ...) GEN_PRINTF(1, 2);

/// Ends the process by gen_exit_hook; by force if a replaced hook returns.
[[noreturn]] void gen_exit(int status);

/// Does nothing for a true condition; otherwise prints an assertion line to the standard error
/// stream and ends the process with status 1. `expression` may be null or "x" (not shown); a `code`
/// of 0 is not shown.
void gen_assert(bool condition, const char* expression, const char* file, int line, int code = 0);

/// gen_assert on an expression, with its text and place.
#define GEN_ASSERT(expression) gen_assert((expression), #expression, __FILE__, __LINE__)
