// A plugin of a simulated run, as its own process.
//
// What it is to do comes as orders, which it takes up when it is woken; how it answers what it is
// asked follows from chances of its own. The ledger keeps what it has done and been told.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "simulation/ledger.h"
#include "simulation/scenario.h"

namespace platform::sim {
struct Process;
class World;
}  // namespace platform::sim

/// What all plugins of one run share.
struct Stage {
  platform::sim::World& world;
  Ledger& ledger;
  std::uint16_t hubPort = 0;
  std::uint16_t anchorPort = 0;  ///< of the plugin that the hub connects to at its start
  std::uint64_t seed = 0;        ///< of the scenario
  bool finishing = false;        ///< nobody holds anything back any more
  /// Starts one more plugin that speaks bytes, which was asked for under a cookie.
  std::function<void(std::uint16_t port, std::int32_t cookie)> startPlugin{};
  /// Starts one more plugin that speaks bytes and listens for the hub; the port.
  std::function<std::uint16_t()> startListener{};
  /// Says what happens, for those who watch.
  std::function<void(const std::string& line)> say{};
};

struct ActorRole {
  std::string name;
  std::uint64_t seed = 0;
  std::uint16_t port = 0;         ///< to connect to, or to listen on
  std::string service{};          ///< registered at the start; empty: none
  std::string needs{};            ///< a service that it asks for before that; empty: none
  int patience = 0;               ///< ms that it waits for what it needs
  bool isErrand = false;          ///< on the library: asks as another plugin, before it connects
  int delay = 0;                  ///< ms that it takes before it does anything
  int doom = 0;                   ///< moments that it has until it is ended from outside; 0: none
  std::int32_t startCookie = -1;  ///< was started by a client, which is to be told
  bool negotiates = true;
  bool listens = false;  ///< for the hub, instead of connecting to it
  int life = -1;         ///< steps of its loop until it leaves by itself; below 0: none
  std::vector<std::string> arguments{};  ///< of a program that the hub starts, its name first
};

class Actor {
 public:
  Actor(Stage& stage, ActorRole role)
      : stage_(stage), role_(std::move(role)), random_(role_.seed) {}
  virtual ~Actor() = default;
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  const std::string& name() const { return role_.name; }
  /// The body of its process.
  virtual int run() = 0;
  /// Gives an order and wakes the process.
  void order(const Order& order);
  /// Whether it still has its connection, as far as it knows.
  bool isConnected() const { return connected_; }
  /// Whether the hub has ended it, and not this side.
  bool isCutOff() const { return cutOff_; }
  std::int32_t pluginID() const { return pluginID_; }
  /// Whether it takes what comes.
  virtual bool isAwake() const = 0;
  /// Has had a connection for so long, ms, and done all that the hub waits for, but isn't a plugin.
  std::uint64_t waitsForID() const;
  /// Whether it answers for itself.
  virtual bool isLibrary() const = 0;
  /// The process has been ended from outside.
  void lose();

  platform::sim::Process* process = nullptr;

 protected:
  bool chance(unsigned percent) { return random_() % 100 < percent; }
  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  void say(const std::string& text) { stage_.say(name() + " " + text); }

  Stage& stage_;
  ActorRole role_;
  std::mt19937_64 random_;
  std::deque<Order> orders_;
  bool connected_ = false, cutOff_ = false;
  std::uint64_t connectedAt_ = 0;  // ms
  std::int32_t pluginID_ = -1;
};
