// A list of trees of the program's own, independent of the view path: it serves to tell a path
// relative to one of them. The list is the process's, owned here and used on one thread.
#pragma once

#include "indgen/memory.h"

/// Replaces the list by the items of `text`, which is cut at `:`, `;` or `,`; null or empty leaves
/// no entry. Up to 128 items are taken, with links followed; one that leads nowhere is kept as it
/// was written. Gives the count of entries.
int gen_set_view_nodes(const char* text);

/// Gives the count, and in each argument that isn't null an array of so many names: the resolved
/// ones, and the ones as written, none where that is no second absolute name. Valid until the list
/// is replaced.
int gen_view_nodes(const gen_text** resolved, const gen_text** written);

/// Makes gen_view_relative_path go by the view path whenever that is on.
void gen_use_viewpath_nodes();

/// The path relative to the first entry that it lies in, "." for the entry itself, none if it lies
/// in no entry. `index`, if given, receives the entry's number, or -1.
gen_text gen_view_relative_path(const char* path, int* index);
