// Names of a catalogue as the authors of a language would write them. Catalogues mix customs
// (`serviceRN`, `client_cookie`, `PluginId`); each name is cut into words and put together again.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/stpc/catalogue.h"

namespace stpc {

enum class Language { cpp, python, typescript };

/// The words of a name in lower case: `RNBlockReservedEvent` is rn, block, reserved, event. A digit
/// belongs to the word in front of it.
std::vector<std::string> wordsOf(std::string_view name);

std::string snakeCase(std::string_view name);   ///< rn_block_reserved_event
std::string camelCase(std::string_view name);   ///< rnBlockReservedEvent
std::string pascalCase(std::string_view name);  ///< RnBlockReservedEvent, for a name of one's own

/// `name`, with an underscore behind it if it is a reserved word of the language.
std::string unreserved(const std::string& name, Language language);

/// A field as a member of its struct.
std::string fieldName(const Field& field, Language language);
/// The call of a message, and the handler at the other side, such as `add` and `onAdd`.
std::string callName(const Message& message, Language language);
std::string handlerName(const Message& message, Language language);
/// The types of a message and of its reply, which is Reply behind it.
std::string messageType(const Message& message);
std::string replyType(const Message& message);
/// The type of a block, which is named after its place: `outer` is the type that it stands in.
std::string blockType(const std::string& outer, const Field& block);
/// The class of a side: in C++ it stands in the namespace of its spec.
std::string sideType(const Catalogue& catalogue, const Side& side, Language language);
/// The namespace or module of a spec: its name in lower case.
std::string moduleName(const Catalogue& catalogue, Language language);

/// Whether all types, the fields of each type, and the operations of each side have names of their
/// own in the language. `taken` are the names that each side's class has from its base.
bool checkAuthorNames(const Catalogue& catalogue, Language language,
                      const std::vector<std::string_view>& taken, Error& error);

}  // namespace stpc
