// Which names a catalogue may use: they become names in C++, beside those of the generated class.
#pragma once

#include <string>
#include <string_view>

namespace stpc {

/// What is wrong with `name` as the name of a spec, side, message or field; empty if nothing is.
std::string nameFault(std::string_view name);
/// The same for what only a message can't be called, for it becomes an operation.
std::string messageFault(std::string_view name);
/// The name of a field as an argument or a local variable: the field's own, with an underscore
/// behind it where the generated code has that name already.
std::string localName(std::string_view fieldName);
/// The same as a member of a block's type.
std::string memberName(std::string_view fieldName);

}  // namespace stpc
