// "Give me the hub": how a plugin that was started by hand comes to the hub that it shares with
// others, and has one started if there is none.
//
//   HublinkPlugin plugin;
//   std::string error;
//   if (!connectToHub(plugin, argc, argv, error)) ...
//
// A hub is found by its record (active_hub_record.h), whose name follows from a zone or from where
// the hub's program lies. Tools that look at the same moment agree on one hub: it is looked for
// again, and started, under the record's lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "active_hub/active_hub.h"
#include "hublink_plugin/hublink_plugin.h"

/// Which hub is meant, and how it is started.
struct HubChoice {
  /// A name that the tools agree on; without one each installation has its own hub for each user.
  std::optional<std::string> zone;
  /// The hub's executable, or a bare name in PATH. Empty: `hublink` beside this program, in
  /// `../lib/hublink` from there, or in PATH.
  std::string program;
  /// Whether a hub that is started can be reached from this machine alone.
  bool loopbackOnly = true;
  /// Whether a hub that runs as another user is taken; one that is started takes every user then.
  bool anyUser = false;
  /// Whether the local road is left out, by this program and by a hub that is started.
  bool tcpOnly = false;
  /// Further options for a hub that is started.
  std::vector<std::string> arguments;
};

/// The hub's executable without links, or empty if there is none.
std::string hubProgram(const HubChoice& choice);

/// The port of a hub that runs, or 0.
std::uint16_t findHub(const HubChoice& choice);
/// The record of that hub, which may be a dead one's.
struct HubRecord {
  std::string path;  ///< empty without a zone and a program, from which it would follow
  ActiveHub hub;
  /// What another user has put in the way of every record of this name; mostly empty.
  std::string obstacle;
};
HubRecord readHubRecord(const HubChoice& choice);

/// Why findHub() finds none, for people: the zone, the record, and what is wrong with it.
std::string whyNoHub(const HubChoice& choice);

/// What came of looking for a hub.
enum class HubSearch {
  joined,   ///< the plugin is connected to it
  started,  ///< the same, and the hub is new: the plugin is its first one
  none,     ///< there is none
  gone,     ///< it was there and has closed the connection
  silent,   ///< it is there and doesn't answer
  failed,   ///< it can't be started
};

/// Connects `plugin` to a hub that runs. Takes at most `milliseconds`. Anything but `joined` has a
/// text in `error`.
HubSearch joinHub(HublinkPlugin& plugin, const HubChoice& choice, std::string& error,
                  int milliseconds = 5000);
/// The same for the hub on a port of this machine.
HubSearch joinHubOnPort(HublinkPlugin& plugin, std::uint16_t port, std::string& error,
                        int milliseconds = 5000);
/// The same, and starts a hub if there is none. The wait for others who are starting one comes on
/// top of the time, 20 seconds at most. A hub that is started outlives the caller.
HubSearch joinOrStartHub(HublinkPlugin& plugin, const HubChoice& choice, std::string& error,
                         int milliseconds = 10000);
/// The same for those who only need to know whether they have a hub.
bool connectToHub(HublinkPlugin& plugin, const HubChoice& choice, std::string& error);

/// The choice that a command line makes: `-hl_zone NAME` and `-hl_hub PROGRAM`.
HubChoice hubChoiceArguments(int argc, char** argv);
/// Connects a plugin as its command line says: to the hub that has started it
/// (`-hl_connect_hublink_port`), else to the one of its choice, which is started if it isn't there.
bool connectToHub(HublinkPlugin& plugin, int argc, char** argv, std::string& error);
