#include "tools/stpc/emit_cpp.h"

namespace stpc {

std::vector<OutputFile> emitCpp(const Catalogue&, const std::string&) {
  return {};
}

std::vector<std::string_view> namesOfCppSides() {
  return {};
}

}  // namespace stpc
