// The parts of a bridge that its roads share: who asks for a link and who opens one works on the
// same tables.
#pragma once

#include <cstdint>

class HublinkPlugin;

namespace bridge {

class Exports;
class HubDesk;
class LinkTable;
class Members;
class SessionTable;
class StandInTable;

/// All of them are the bridge's, and outlive who holds this.
struct Parts {
  HublinkPlugin& plugin;  ///< the bridge's own connection to the hub
  HubDesk& desk;
  Exports& exports;
  Members& members;
  SessionTable& sessions;
  StandInTable& standIns;
  LinkTable& links;
};

/// Milliseconds of the clock that goes on evenly.
std::int64_t clockNow();

}  // namespace bridge
