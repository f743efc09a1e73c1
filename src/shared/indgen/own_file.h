// Files in directories that others can write to: which of them are this user's own, and how they
// are opened and made so that nobody else reads them or has put something in their place.
#pragma once

#include <cstdio>

#include "indgen/memory.h"

/// Whether something stands there that belongs to another user, be it a link.
bool gen_is_foreign(const char* path);
/// Whether this is a regular file of this user, and no link.
bool gen_is_own_file(const char* path);
/// Whether this is a directory of this user, and no link, that nobody else may enter.
bool gen_is_own_directory(const char* path);

/// A stream, to be closed by the caller, that reads a regular file of this user; null for anything
/// else, with the reason in errno.
std::FILE* gen_open_own_file(const char* path);
/// A stream, to be closed by the caller, onto a new file that only this user can read; null, with
/// the reason in errno, if anything is there already.
std::FILE* gen_make_own_file(const char* path);
/// The same, but what is there is emptied, or taken if it is no regular file, as long as it belongs
/// to this user or root. It keeps its mode. A link of theirs is followed. EPERM: it is somebody
/// else's.
std::FILE* gen_open_log_file(const char* path);
