// The pieces of generated code that follow from the fields of one message.
#pragma once

#include <string>
#include <vector>

#include "tools/stpc/catalogue.h"

namespace stpc {

/// What a stub takes (`outputs` as pointers) and what a handler takes (as references), each with
/// its type. Request fields come first.
std::vector<std::string> stubParameters(const Message& message);
std::vector<std::string> handlerParameters(const Message& message);
/// The names of all of them, for a call.
std::vector<std::string> argumentNames(const Message& message);

/// The types that the blocks of a message become, as members of its class; empty if there are none.
std::string blockTypes(const Message& message);

/// Reads the request fields from the reader `in` into variables of their names.
std::string readFields(const Message& message, int indent);
/// Declares the variables of the reply fields.
std::string declareReply(const Message& message, int indent);
/// Reads the reply from the reader `in` to where the stub's arguments point.
std::string readReply(const Message& message, int indent);
/// Gives what the stub's arguments for the reply point to the value of a missing field.
std::string clearReply(const Message& message, int indent);
/// Writes fields into the message that the pointer `packet` leads to.
std::string writeFields(const std::vector<Field>& fields, const std::string& packet, int indent);
/// Traces fields behind a heading such as "RECV: " to the log of that name.
std::string traceFields(const std::vector<Field>& fields, const std::string& log,
                        const std::string& heading, const std::string& messageName, int indent);

}  // namespace stpc
