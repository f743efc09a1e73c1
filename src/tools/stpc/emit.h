// Writes the class of one side of a spec as a header and a source.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/stpc/catalogue.h"

namespace stpc {

struct OutputFile {
  std::string name;  ///< without a directory
  std::string text;
};

/// Both files of a side. `catalogueName` is the catalogue's base name, for the first line.
std::vector<OutputFile> emitSide(const Catalogue& catalogue, std::size_t side,
                                 const std::string& catalogueName);

}  // namespace stpc
