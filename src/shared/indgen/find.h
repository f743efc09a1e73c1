// Where things are: full names, the working directory, what a name leads to, and the search for
// programs. These ask the file system and the environment.
#pragma once

#include "indgen/memory.h"

/// The path as an absolute, clean name. Purely textual: it need not exist and links are not
/// followed. A separator at the end stays. An absent or empty path gives a copy.
gen_text gen_full_path(const char* path);
/// An absolute path cleaned, any other joined to the working directory; an empty one gives "".
gen_text gen_absolute_path(const char* path);
/// The same with `directory`, if given, in place of the working directory.
gen_text gen_absolute_path_in(const char* directory, const char* path);
/// True if the full forms are equal in any case; a separator at the end doesn't count.
bool gen_same_path(const char* a, const char* b);

/// The working directory, remembered until V_chdir; gen_user_home() if the system refuses, and
/// without that the process ends with a fatal report. Valid until the next call after a V_chdir.
const char* gen_getcwd();
/// Makes the next gen_getcwd() ask the system again.
void gen_forget_cwd();

/// -1 for a missing file or an empty name, 0 for a directory, 1 for anything else.
int gen_file_kind(const char* path);
/// True for a plain file, also behind links: opening one never waits for somebody else, as that of
/// a pipe does.
bool gen_is_regular_file(const char* path);
/// The program's file: a name with a directory part in absolute form; a bare one sought in the
/// program's own directory, if asked, and in PATH. With `full` the result is a gen_full_path. None
/// if there is no such file.
gen_text gen_find_program(const char* name, bool search_program_dir, bool full);

/// The variable, or `fallback` if it is missing or empty. Valid until the variable changes.
const char* gen_getenv(const char* name, const char* fallback);
/// Sets a variable; a null `value` sets it empty. False if the system refuses.
bool gen_setenv(const char* name, const char* value);

/// True if the file system that holds `path` is a versioned one, "MVFS" by name.
bool gen_is_mvfs(const char* path);
