// The names of a view as texts: lists of nodes, names below a tree, and cleaning in place. Only `/`
// separates, except where a parameter says more; no operation asks the file system.
#pragma once

#include <string>

/// The most trees of a view, and the most components of a name that is cleaned.
inline constexpr int gen_view_limit = 128;

/// Takes the next item of a list that is cut at any of `separators`, skipping empty ones. The colon
/// of a drive prefix, which is a letter or digit, `:` and a slash, doesn't cut. Moves `list` on;
/// false at the end.
bool V_next_item(const char*& list, const char* separators, std::string& item);

/// Where in `path` the name relative to `tree` begins: "." if it is the tree itself, null if it
/// doesn't lie in it. Points into `path`, or to a constant.
const char* V_rest_below(const char* path, const char* tree, const char* separators = "/");

/// Takes out, in place, repeated `/`, `.`, `name/..` and a `/` at the end; a leading `..` stays.
/// What leaves nothing becomes ".", so that even an empty name needs room for two bytes. Behind 128
/// components it reports an error and leaves the rest as it stands.
void V_compath(char* path);
/// The same for absolute names, any other ending the process, up to the first name that stands
/// behind a `.` or `..` that was taken out: from there on everything stays.
void V2_compath(char* path);
