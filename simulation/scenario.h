// What happens in a simulated run: a list of steps that follows from one seed. Each step stands for
// itself, so that a list stays meaningful when some of its steps are left out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class Act : std::uint8_t {
  arrive,      ///< a new plugin comes
  provide,     ///< a plugin registers a service
  withdraw,    ///< a plugin takes a service back
  request,     ///< a plugin asks for a service
  query,       ///< a plugin asks who provides a service
  answer,      ///< a plugin answers what it has put off
  drop,        ///< a plugin ends a link
  send,        ///< a plugin sends packets over a link
  speak,       ///< a plugin uses an interface of its own on a link
  reserve,     ///< a plugin asks for numbers of its own
  launch,      ///< a plugin has a program started
  rush,        ///< several plugins need what has to be started, and some don't wait for it
  reach,       ///< a plugin has the hub connect to a port
  locate,      ///< a plugin asks where the hub is
  ask,         ///< a plugin asks another for a value
  persist,     ///< a plugin says whether the hub is to stay for it
  move,        ///< a plugin changes its working directory
  hush,        ///< a plugin reads and writes nothing for a while
  flood,       ///< a plugin asks without end and reads nothing for a while
  disconnect,  ///< a plugin asks to be disconnected
  leave,       ///< a plugin closes its connection
  die,         ///< a plugin's process ends
  intrude,     ///< a process of another user tries to get in
  wait,        ///< time passes
};
inline constexpr int kActs = static_cast<int>(Act::wait) + 1;
const char* actName(Act act);

/// One thing to be done; `choice` stands for all that is open in it.
struct Order {
  Act act;
  std::uint64_t choice;
};

struct Step {
  std::size_t number;  ///< in the whole list
  Order order;
  std::uint64_t who;   ///< picks a plugin
  std::uint64_t seed;  ///< of the chances of this step
};

struct Scenario {
  std::uint64_t seed;
  std::vector<Step> steps;
};

Scenario makeScenario(std::uint64_t seed);

// What a choice means.

/// Of the services that have to be started each scenario, by its seed, knows some.
std::string serviceName(std::uint64_t choice, std::uint64_t seed);
/// A program that a plugin has started.
std::string programName(std::uint64_t choice, std::uint64_t seed);
/// A choice that means a service which has to be started.
std::uint64_t startingChoice(std::uint64_t choice);
/// Bytes of the packet that is this one of a row.
std::uint32_t packetSize(std::uint64_t choice, std::uint64_t place);

struct RequestShape {
  std::string service;
  std::int32_t pluginID = -1;
  const char* workingDir = nullptr;
  bool localOnly = false, noReuse = false, clientStart = false;
};
RequestShape requestShape(std::uint64_t choice, std::uint64_t seed);

/// The services that description files tell of, each with the program that provides it; the others
/// are provided by whoever registers them.
struct Provision {
  const char* service;
  const char* program;
  int timeout = 0;              ///< seconds that the program may take to connect; 0: the hub's own
  const char* needs = nullptr;  ///< a service that the program asks for before it registers its own
  bool isSharedObject = false;
};
const std::vector<Provision>& provisions();
/// What the program provides, or null.
const Provision* provisionOf(const std::string& program);
