// The tables of a spec as they stand in generated code: names of fields, and messages by name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/stpc/catalogue.h"

namespace stpc {

/// As a flag is written.
std::string hexNumber(std::uint32_t value);

std::vector<std::string> namesOf(const std::vector<const Message*>& messages);

/// An enumeration in a namespace of its own; nothing without words.
std::string enumeration(const std::string& name, const char* type,
                        const std::vector<std::string>& words);
/// The words of the enumeration `tag`. Placeholders are left out, and the name behind them tells
/// its number.
std::vector<std::string> tagWords(const std::vector<std::string>& tags);

/// `kTagNames`, and a table of messages, sorted by name; nothing without any.
std::string tagTable(std::vector<std::string> tags);
std::string messageTable(const std::string& name, const std::vector<const Message*>& messages);

}  // namespace stpc
