// The pieces of a TypeScript module that follow from the fields of one message.
#pragma once

#include <string>
#include <vector>

#include "tools/stpc/author_names.h"
#include "tools/stpc/catalogue.h"

namespace stpc::typescript {

inline constexpr Language kLanguage = Language::typescript;

/// The interface of a list of fields, and those of the blocks in it.
std::string interfaceTypes(const std::vector<Field>& fields, const std::string& type,
                           const std::string& doc);
/// The functions that write and read the blocks of a list of fields.
std::string blockFunctions(const std::vector<Field>& fields, const std::string& type);
/// The methods that write and read the list itself.
std::string writeMethod(const std::string& name, const std::vector<Field>& fields,
                        const std::string& type);
std::string readMethod(const std::string& name, const std::vector<Field>& fields,
                       const std::string& type);

}  // namespace stpc::typescript
