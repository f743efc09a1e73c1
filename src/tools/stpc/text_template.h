// Text with named gaps, written ${name}.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace stpc {

using TemplateValues = std::initializer_list<std::pair<std::string_view, std::string>>;

/// `text` with each gap filled by the value of its name. A gap without a value, a value without a
/// gap and a gap without its end are faults of the program and end it with a message.
std::string fillTemplate(std::string_view text, TemplateValues values);

}  // namespace stpc
