#include "tools/stpc/emit_typescript.h"

namespace stpc {

std::vector<OutputFile> emitTypeScript(const Catalogue&, const std::string&) {
  return {};
}

std::vector<std::string_view> namesOfTypeScriptSides() {
  return {};
}

}  // namespace stpc
