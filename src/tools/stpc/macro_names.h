// Names that the preprocessor would replace wherever generated code uses them.
#pragma once

#include <string_view>

namespace stpc {

/// Whether the headers of the system, or those of this project, define a macro of this name.
bool isMacroName(std::string_view name);

}  // namespace stpc
