// Pieces of TypeScript in the form that prettier gives them, with its usual settings: what fits
// into 80 columns is one line, and of what doesn't each part has its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace stpc::typescript {

/// `head`, the arguments in parentheses, and `tail`, with a line end.
std::string tsCall(int indent, const std::string& head, const std::vector<std::string>& arguments,
                   const std::string& tail);
/// The same for the parameters of a method, which is what a call looks like too.
std::string tsSignature(int indent, const std::string& head,
                        const std::vector<std::string>& parameters, const std::string& tail);
/// `head`, the elements in brackets, and `tail`.
std::string tsList(int indent, const std::string& head, const std::vector<std::string>& elements,
                   const std::string& tail);
/// `head`, a type argument, and `tail`.
std::string tsTypeArgument(int indent, const std::string& head, const std::string& argument,
                           const std::string& tail);
/// A property of an object whose value can't be broken.
std::string tsProperty(int indent, const std::string& name, const std::string& value);
/// A doc comment; nothing without a text.
std::string tsDoc(int indent, const std::string& text);
/// The lines of a text, none of which ends a comment.
std::vector<std::string> tsDocLines(const std::string& text);

}  // namespace stpc::typescript
