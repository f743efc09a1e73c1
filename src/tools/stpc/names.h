// Which names a catalogue may use: they become names in C++, beside those of the generated class.
#pragma once

#include <string>
#include <string_view>

namespace stpc {

/// What is wrong with `name` as the name of a spec, side, message or field; empty if nothing is.
std::string nameFault(std::string_view name);
/// Whether the base of the generated classes has a member of this name.
bool isBaseMember(std::string_view name);
/// The name of a field as an argument or a local variable: the field's own, with an underscore
/// behind it where the generated code has that name already.
std::string localName(std::string_view fieldName);

}  // namespace stpc
