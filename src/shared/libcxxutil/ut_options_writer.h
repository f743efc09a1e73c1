// The tree of a configuration as text, in the block form that the reader takes, or flat, with the
// full path of every attribute on a line of its own.
#pragma once

#include <cstdio>

#include "libcxxutil/ut_attribute_list.h"

/// Writes what `root` holds, without a heading for itself. Failures stay in the stream's error
/// flag.
void ut_write_blocks(const ut_attribute_list& root, std::FILE* stream);
void ut_write_flat(const ut_attribute_list& root, std::FILE* stream);
