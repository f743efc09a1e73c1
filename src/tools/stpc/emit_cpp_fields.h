// The structs of a spec in C++ for authors, and the functions that carry them to and from the wire.
#pragma once

#include <string>

#include "tools/stpc/catalogue.h"

namespace stpc {

/// A catalogue's comment as documentation in C++, or `other` where there is none.
std::string docLines(int indent, const std::string& doc, const std::string& other);

/// The structs of a message and its reply, those of their blocks first.
std::string structsOf(const Message& message);
/// `putFields` and `getFields` for all of them.
std::string codecOf(const Message& message);

}  // namespace stpc
