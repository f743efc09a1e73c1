// The two forms in which a survey is printed.
#pragma once

#include <string>

#include "tools/services/survey.h"

namespace services {

/// For people: each file with its plugins and what there is to say about it, and a last line with
/// the counts. Texts from the files are in quotes, with control characters escaped.
std::string textOf(const Survey& survey);

/// For machines: one object, indented. Bytes that are no UTF-8 are replaced.
std::string jsonOf(const Survey& survey);

}  // namespace services
