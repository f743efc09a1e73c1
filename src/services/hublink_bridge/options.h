// What the bridge is told on its command line or in a file of the same options.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hublink_plugin/hub_finder.h"
#include "services/hublink_bridge/nats_connection.h"

namespace bridge {

struct Options {
  std::string realm;
  std::string machine;  ///< the name of this hub in the realm
  NatsOptions nats;
  std::vector<std::string> exports;       ///< patterns of services
  std::vector<std::string> imports;       ///< the same; none: all that others export
  std::vector<std::string> exportValues;  ///< patterns of values' names
  std::int64_t grace = 10000;             ///< ms that links outlast a cut
  HubChoice hub;
  std::uint16_t hubPort = 0;  ///< of the hub that has started the bridge, else 0
  bool keepsHub = true;       ///< whether the hub stays up for the bridge's sake
};

/// Reads them; false if the program is to end with `exitCode`: all that is to be said has been.
bool readOptions(int argc, char** argv, Options& options, int& exitCode);

}  // namespace bridge
