// The file access layer: every file of the suite is reached through these operations, so that there
// is one place where the search over the trees of a view path (viewpath.h) takes part. While that
// is off they are the plain calls; while it is on, a file is found, copied up or refused in the
// view, and a name that is `^` or begins with `^/` is taken from the view's first node.
//
// Each has the arguments of the plain call that it stands for, gives that call's result (-1 or null
// for a failure) and sets `errno`. The types are those of the platform room, since the system's own
// never leave it.
#pragma once

#include <cstdio>

#include "indgen/memory.h"
#include "platform/file.h"

/// What the platform gave, in these operations' way: its error goes from the result to `errno`.
int gen_plain_result(int result);

/// A descriptor; `flags` are platform::OpenFlag, `mode` is for a file that is created.
int V_open(const char* path, unsigned flags, unsigned mode = 0666);
/// A stream that the caller closes; a missing path gives none. Besides the modes of the standard
/// library, `t`, `c` and `n` are allowed.
std::FILE* V_fopen(const char* path, const char* mode);
std::FILE* V_freopen(const char* path, const char* mode, std::FILE* stream);
/// 0 if the file has the access that the platform::AccessBit of `mode` ask for. In a view what can
/// be copied up can be written.
int V_access(const char* path, int mode);
int V_stat(const char* path, platform::FileStatus* buffer);
/// Also forgets what gen_getcwd() remembers, even when it fails. An empty path fails. In a
/// view, a directory that only a lower node has is made in the first one; no name is ENOENT, no
/// directory ENOTDIR, one that can't be made EPERM.
int V_chdir(const char* path);
/// A descriptor for writing; the file is made or emptied.
int V_creat(const char* path, unsigned mode);
/// In a view, a file that only a lower node has can't be removed: EPERM.
int V_unlink(const char* path);

/// The mode of an open by the suite's rule: with `w` or `a`, and neither `c` (commit to disk when
/// flushed) nor `n` (don't), a `c` is added.
gen_text V_open_mode(const char* mode);
/// The same mode as the standard library understands it: without `c` and `n`, which would mean
/// something else to it.
gen_text V_library_mode(const char* mode);
