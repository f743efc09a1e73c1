// File names as texts. Nothing here asks the file system, and nothing keeps a path: every text that
// is given is a new one of the caller's, and pointers are into the argument.
//
// Both `/` and `\` separate directories; `:` closes a drive or device prefix and separates in
// gen_base_name and gen_directory_name. A null path is no path: unless said otherwise it gives
// none.
#pragma once

#include <cstddef>

#include "indgen/memory.h"

/// What joining and cleaning write between names.
extern char gen_preferred_separator;
/// What stands before an extension.
extern char gen_extension_separator;

/// True for `/` and `\`.
bool gen_is_separator(char c);

/// `directory` and `name` with one separator, cleaned, "." if that leaves nothing. An absolute
/// `name` stands alone and as it is, but one that starts with `~` is joined. An empty or absent
/// `directory` gives `name`.
gen_text gen_join(const char* directory, const char* name);
/// The same, but an empty `name` gives `directory`, and a `~` name stands alone too.
gen_text gen_join_relative(const char* directory, const char* name);

/// Takes out, in place, empty components, `.`, and `name/..`; a separator at the end stays. With
/// `host_form` all separators become the preferred one, and a drive or server prefix is kept;
/// without it only `/` separates.
void gen_clean_path(char* path, bool host_form = true);

/// Points behind the last `/`, `\` or `:`.
const char* gen_base_name(const char* path);
/// What stands before the base name, without its separator unless it is the root or `:`; none if
/// there is no separator.
gen_text gen_directory_name(const char* path);
/// True for a path that starts with a separator or `~`, or has a drive letter.
bool gen_is_absolute(const char* path);

/// Points behind the last `.` of the base name; none without one. A library name with two version
/// numbers (`libx.so.1.2`) has the extension "so" or "sa".
const char* gen_extension(const char* path);
/// Compares the extension in any case; a leading `.` of `extension` doesn't count. With a null
/// `extension`: there is one.
bool gen_has_extension(const char* path, const char* extension);
/// The part behind the last `.` of the base name replaced, or added if there is none; a null
/// `extension` takes it away with its `.`.
gen_text gen_replace_extension(const char* path, const char* extension);
/// `extension` behind `path` with one `.`; a null `extension` gives a copy.
gen_text gen_add_extension(const char* path, const char* extension);

/// The first name, its `:` included, with leading separators skipped; none if there is no name.
gen_text gen_first_component(const char* path);
/// The position behind what gen_first_component gives.
const char* gen_rest_components(const char* path);

/// Takes the first item of a `:`-separated list into `buffer` of `size` bytes, cut to fit, and
/// gives the position to go on from; null, with `buffer` untouched, when the list is at its end.
const char* gen_next_path_item(const char* list, char* buffer, std::size_t size);

/// True if the first `length` characters are a drive (`x:`) or a `//server/share`, with or without
/// a last separator.
bool gen_is_root(const char* path, std::size_t length);
