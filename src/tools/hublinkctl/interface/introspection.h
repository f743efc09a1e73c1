// What an interface consists of, for people and for machines: its messages with their fields.
#pragma once

#include <string>

#include "tools/hublinkctl/interface/interface_client.h"

namespace hublinkctl {

/// The messages that the provider takes, and with a catalogue those that it sends.
Facts describe(const InterfaceClient& client);
/// The same as lines of text, fit to be printed.
std::string textOfInterface(const Facts& description);

/// The fields of an answer as lines of text; one alone goes without its name.
std::string textOfAnswer(const Facts& values);
/// One message that has come, as one line: an object of JSON, or its name and its fields.
std::string messageLine(const std::string& name, const Facts& values, bool json);

}  // namespace hublinkctl
