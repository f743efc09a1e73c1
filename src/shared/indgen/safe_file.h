// Stream operations that report their own failures, and reading by lines and words.
//
// `name` is the file's name for the message and may be absent. Operations that return after a
// failure have reported it with the system's error text and hand the short count back.
#pragma once

#include <cstddef>
#include <cstdio>

#include "indgen/memory.h"

/// An open stream, positioned at its end for a mode with `a`. A failure ends the process with
/// status 1; the message shows `description`, if given, before the name.
std::FILE* gen_safe_fopen(const char* name, const char* description, const char* mode);
/// The count of items read. Less than one is reported; a null buffer is an error and gives -1.
long gen_safe_fread(const char* name, void* buffer, std::size_t size, std::size_t count,
                    std::FILE* stream);
/// Reads one item of `size` bytes into `buffer`, or into a block of its own, to be freed with
/// gen_free, if that is null. Gives the block, or null after a reported failure.
void* gen_safe_fread_alloc(const char* name, std::FILE* stream, void* buffer, std::size_t size);
/// The count of items written.
long gen_safe_fwrite(const char* name, const void* data, std::size_t size, std::size_t count,
                     std::FILE* stream);
/// The result of the close: 0, or EOF after a reported failure.
int gen_safe_fclose(const char* name, const char* description, std::FILE* stream);
/// A failure ends the process with status 1.
void gen_safe_fseek(const char* name, std::FILE* stream, long offset, int whence);

/// Reads to a line feed, a carriage return with the byte behind it, or the end, which are not kept.
/// `buffer` of `size` bytes grows as needed and holds the line, which is also given; none when the
/// end comes before any byte.
const char* gen_read_line(std::FILE* stream, gen_text& buffer, std::size_t& size);
/// The same for a word between white space.
const char* gen_read_word(std::FILE* stream, gen_text& buffer, std::size_t& size);
/// Lines of a text file, a last one without end included; -1 if it can't be read.
long gen_count_lines(const char* path);
