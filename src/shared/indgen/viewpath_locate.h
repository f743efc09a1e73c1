// Where a name leads in the view: which node has the file, and bringing files and directories up
// into the first node.
//
// Meant for the operations of access.h, and while the layer is active; each leaves in `errno` why
// the system refused. What is given back is a new text of the caller's. A null path is found
// nowhere.
#pragma once

#include <functional>

#include "indgen/memory.h"

/// How a file is about to be used.
enum V_how {
  V_FOR_READING = 0,  ///< the first node that has it
  V_FOR_WRITING = 1,  ///< in its own place, copied there if only a lower node has it
  V_UNCHANGED = 2,    ///< in its own place, whatever lies there
};

/// The path; one that is `^` or begins with `^/` is taken from the first node.
gen_text V_from_root(const char* path);

/// The name of `path` relative to the first node, "." for the node itself; none outside of it.
gen_text V_relative_path(const char* path);

/// Asks `ask` (which gives 0, or a negative error number) about the file of `path` in each node
/// after the first, and gives the name of the first one with the answer 0; none if there is none.
/// An error other than a missing file or directory ends the search, unless `persistent`.
gen_text V_search(const char* path, const std::function<int(const char*)>& ask,
                  bool persistent = false);

/// The name by which the file is to be opened; the path itself where the view has nothing better.
gen_text V_locate(const char* path, V_how how);

/// Brings the file up from the lower node that has it, with its directory if that is missing.
/// 0, or -1 with nothing left at `path`. A file that is there already stays.
int V_copy_up(const char* path);

/// The directory part of a path, "." if it has none.
gen_text V_directory_of(const char* path);
/// Makes a directory that a lower node has, with the mode that it has there, and so its missing
/// parents. 0, or -1.
int V_make_shadow_directory(const char* path);
