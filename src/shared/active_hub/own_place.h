// Where a user's records and locks go whose names are taken by somebody else.
//
// The directory in which they mostly lie is shared with others, and whoever is first has a name
// there for as long as he likes. Then a file goes into the directory `hublink_U` beside it, of the
// same name; U is the user's number. So all tools of a user agree on the place. It is made when it
// is first needed, can be entered by this user alone, and stays. If that name is taken as well, or
// isn't what it should be, there is no such place.
#pragma once

#include <string>

#include "indgen/memory.h"

/// What stands for the file `path` in that directory, whether there is one or not.
gen_text ownPlaceOf(const char* path);
/// Whether that directory is there and is this user's alone.
bool hasOwnPlace(const char* path);
/// The same, and makes it if nothing is there.
bool makeOwnPlace(const char* path);
/// Why this user can have no file `path`: somebody else has that name and there is no place of the
/// user's own either. Empty if nothing is in the way. Makes that place if it is needed.
std::string whyNoPlace(const char* path);
