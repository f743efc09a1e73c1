// Operations on whole files by name. Unless said otherwise they give 0, or -1 for a failure, and
// report nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>

#include "indgen/memory.h"
#include "indgen/report.h"

/// Bytes, or -1.
std::int64_t gen_file_size(const char* path);
/// Reads all of a file into `buffer`, closed by a zero that `size` doesn't count.
int gen_read_file(const char* path, gen_text& buffer, std::size_t& size);
int gen_append_text(const char* path, const char* format, ...) GEN_PRINTF(2, 3);
/// Copies contents and mode. Refused for a directory, and for a file onto itself.
int gen_copy_file(const char* from, const char* to);
int gen_copy_to_stream(const char* path, std::FILE* stream);
/// Refused when either is a directory. A file at `to` goes with success only.
int gen_rename(const char* from, const char* to);
/// Makes the file `path` of what `write` puts into a stream. That is a new file beside it, which
/// takes the name at once and whole: nobody sees a part of it, a link at `path` goes and isn't
/// followed, and a failure, with its reason in errno, leaves what was there. If it `isPrivate`,
/// only this user can read it.
int gen_replace_file(const char* path, const std::function<bool(std::FILE*)>& write,
                     bool isPrivate = false);
/// Renames, or if that fails copies and removes.
int gen_move_file(const char* from, const char* to);
/// Refused for a directory. A file that can't be removed is made writable and tried again.
int gen_remove_file(const char* path);
/// Removes the file if `isMeant` says so, which is asked with the present name of the file: once
/// more when it has been moved aside, where nobody can put another one in its place. One that isn't
/// meant after all goes back. True if a file was removed.
bool gen_remove_file_if(const char* path, const std::function<bool(const char*)>& isMeant);
/// Sets the modification time to the present, making a missing file.
int gen_touch(const char* path);
/// 1 if sizes or contents differ, 0 if they agree; -1, with an error reported, if one can't be
/// read.
int gen_files_differ(const char* a, const char* b);
/// Bytes free on the volume of the path's directory part, or -1.
std::int64_t gen_free_disk_space(const char* path);

/// Each changes the permission bits and gives the old ones, 0664 for a file without any known.
unsigned gen_make_read_only(const char* path);
unsigned gen_make_writable(const char* path);
unsigned gen_make_executable(const char* path);
