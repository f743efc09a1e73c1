// What people get wrong in a description file and the hub passes over without a word: names that
// mean nothing, values of the wrong kind, blocks that are missing or never closed.
#pragma once

#include <vector>

#include "tools/services/block_places.h"
#include "tools/services/finding.h"

namespace services {

/// Of a file that was read to its end. Each finding says what to write instead.
std::vector<Finding> checkDescription(const BlockPlaces& places);

/// What can be said of a file with a syntax error too, and may be its cause.
std::vector<Finding> checkText(const BlockPlaces& places);

}  // namespace services
