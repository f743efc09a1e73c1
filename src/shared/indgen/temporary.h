// Names for temporary files and directories.
//
// The names are free when they are made up, but nothing reserves them; only
// gen_make_unique_directory() takes its name at once.
#pragma once

#include "indgen/memory.h"

/// The first that can be written: the variables TMP and TEMP, `fallback`, the variable TMPDIR,
/// "/tmp"; else ".". Remembered; a call with a `fallback` looks again. Valid until then.
const char* gen_temporary_directory(const char* fallback);

/// Makes up to three names of files that don't exist, which share a stem under `directory` and
/// differ in their extensions. Gives the first of them, held in `buffer`; none when the names of
/// this process are used up. The variable BUILDER_TEMPORARY_NAME replaces the stem while its names
/// are free.
const char* gen_temporary_name(const char* directory, gen_text& buffer, const char* extension,
                               gen_text* buffer2 = nullptr, const char* extension2 = nullptr,
                               gen_text* buffer3 = nullptr, const char* extension3 = nullptr);

/// A name that doesn't exist, in gen_temporary_directory(`directory`); none if all are taken.
gen_text gen_unique_name(const char* directory);
/// The same, made as a directory; none for a failure.
gen_text gen_make_unique_directory(const char* directory, unsigned mode);
