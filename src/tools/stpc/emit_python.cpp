#include "tools/stpc/emit_python.h"

namespace stpc {

std::vector<OutputFile> emitPython(const Catalogue&, const std::string&) {
  return {};
}

std::vector<std::string_view> namesOfPythonSides() {
  return {};
}

}  // namespace stpc
