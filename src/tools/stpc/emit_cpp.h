// Writes a spec in C++ for authors: a struct for each message and a class for each side, in
// standard types.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/stpc/catalogue.h"
#include "tools/stpc/emit.h"

namespace stpc {

/// Both sides of a spec. `catalogueName` is the catalogue's base name, for the first line.
std::vector<OutputFile> emitCpp(const Catalogue& catalogue, const std::string& catalogueName);

/// What every side's class has from its base, so that no message can be called so.
std::vector<std::string_view> namesOfCppSides();

}  // namespace stpc
