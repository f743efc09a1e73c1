// Writes a spec in Python: a dataclass for each message and a class for each side.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/stpc/catalogue.h"
#include "tools/stpc/emit.h"

namespace stpc {

/// Both sides of a spec. `catalogueName` is the catalogue's base name, for the first line.
std::vector<OutputFile> emitPython(const Catalogue& catalogue, const std::string& catalogueName);

/// What every side's class has from its base, so that no message can be called so.
std::vector<std::string_view> namesOfPythonSides();

}  // namespace stpc
