// Directories: asking, making, listing and removing them.
//
// A walker covers one directory, without recursion, in the system's order. Its paths are the
// directory and the entry's name put together untouched, so that a name that holds characters which
// elsewhere separate still leads to its own file.
#pragma once

#include <vector>

#include "indgen/memory.h"
#include "platform/file.h"

bool gen_is_directory(const char* path);
/// 0 if the directory was made or is there, else -1.
int gen_make_directory(const char* path, unsigned mode);
/// The same, making missing parents first.
int gen_make_directory_path(const char* path, unsigned mode);

struct gen_dir_walker {
  gen_text directory;          ///< the directory being read
  const char* name = nullptr;  ///< the entry's bare name, valid until the next step
  gen_text path;               ///< the entry's path
  bool is_directory = false;   ///< the entry is a directory, or a link to one
  bool skip_files = false;
  gen_text extension;  ///< if not none, files must have it
  bool skip_directories = false;
  bool skip_dots = true;  ///< leaves out `.` and `..`
  bool skip_cvs = false;  ///< leaves out a directory named `CVS`
  platform::DirectoryReader reader;
};

/// Starts a walk with the default filters: files and directories, without `.` and `..`. False if
/// `directory` is none.
bool gen_walk_open(gen_dir_walker& walker, const char* directory);
void gen_walk_filter_files(gen_dir_walker& walker, bool skip_files, const char* extension);
void gen_walk_filter_directories(gen_dir_walker& walker, bool skip_directories, bool skip_dots,
                                 bool skip_cvs);
/// The next entry's path, the walker's, valid until the next step; null at the end.
const char* gen_walk_next(gen_dir_walker& walker);
/// Frees what the walk holds; the walker's destructor does so too.
void gen_walk_close(gen_dir_walker& walker);

/// The count of entries; with `array`, also their paths, with a none behind the last.
int gen_list_directory(const char* directory, std::vector<gen_text>* array);
/// True also for what is no directory.
bool gen_directory_is_empty(const char* directory);

/// Removes a directory with all that is in it, or a single file. Links are removed, not followed.
/// 0, or -1 if anything is left.
int gen_remove_tree(const char* path);
/// Removes all that is in a directory; the same results.
int gen_empty_directory(const char* path);
