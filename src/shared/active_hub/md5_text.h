// The digest by which everybody who looks for a hub arrives at the same file name.
#pragma once

#include "indgen/memory.h"

/// The MD5 digest (RFC 1321) of the text's bytes as 32 lower-case hexadecimal digits. Within each
/// byte the low half comes first, so that "abc" gives 09100589c32df40b6d69f3d7821ef727. None gives
/// the digest of the empty text.
gen_text md5Text(const char* text);
