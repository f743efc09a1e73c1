// Reads a catalogue file. It stops at the first fault.
//
//   spec Hublink                      one spec for each file
//   side router {                     two sides; each setting may be left out
//     vstamp "1"                      version stamp ("1")
//     flags 0                         flags in the negotiate record (0)
//     source 2                        RNs that a transport takes if it is given none
//     destination 1                   (1 and 2 for the first side, 2 and 1 for the second)
//   }
//   from router to plugin {           messages, in the order of the operations
//     PluginId "plugin_id:%u4% "      its format; adjacent texts are one
//     ConnectionDroppedEvent entry 0x12 packet 0x22 "..."   flags other than 0x02
//     NumPersistentServices two-way "| num_total:%u4% "     a call that is answered
//   }
#pragma once

#include <string_view>

#include "tools/stpc/catalogue.h"

namespace stpc {

/// Fills `catalogue` from the text of a file. False with the first fault in `error`; the catalogue
/// is then incomplete.
bool parseCatalogue(std::string_view source, Catalogue& catalogue, Error& error);

}  // namespace stpc
