// Starts plugins: as children of the hub, or by the client that asks.
//
// A launch is something that the hub has in hand while it does everything else. It has its child,
// the private port to which the child connects, and its deadline, and ends in one of three ways:
// the child has connected and is a plugin, which is still to negotiate; it has ended, or couldn't
// be started; or its time is up, and the port is closed while the child may go on. How those who
// wait for it are told is the broker's.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/process.h"
#include "services/hublink/child_environment.h"
#include "services/hublink/plugin_debugging.h"
#include "services/hublink/waiting_table.h"
#include "stp_transport/child/stp_child_process.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_transport.h"

class Broker;
class ConnectedPlugins;
class Entrance;
class HubEvents;
class HubLog;

/// What is to be launched.
struct LaunchOrder {
  ArrivalID arrival;
  UsageShare share;               ///< of the arrivals of whoever asks for it
  std::vector<std::string> argv;  ///< the program's name or path first
  OptionalText workingDir;        ///< the hub's own if there is none
  /// A service's, applied just before the start; may be null. Outlives the launch.
  const std::vector<NameAndValue>* environment = nullptr;
  std::optional<std::int32_t> timeout = {};  ///< seconds, 0 for no limit; else the launcher's
};

class Launcher {
 public:
  /// Seconds that a child may take to connect, unless told otherwise.
  static constexpr std::int32_t kTimeout = 30;

  /// Tells `broker` how launches end. Clients that start a plugin are told the port of `entrance`.
  Launcher(ConnectedPlugins& plugins, Broker& broker, const Entrance& entrance,
           STPTransportSet& transports, HubEvents& events, HubLog& log)
      : plugins_(plugins),
        broker_(broker),
        entrance_(entrance),
        transports_(transports),
        events_(events),
        log_(log),
        environment_(log),
        debugging_(log) {}

  /// Seconds that a child may take to connect; 0 for no limit.
  void setTimeout(std::int32_t seconds) { timeout_ = seconds; }
  /// Takes a launch in hand; false if it has failed at once, of which nobody else is told.
  bool launch(LaunchOrder order);
  /// Asks the client to start a plugin that then connects to the hub's own port; the start cookie,
  /// or -1 if the client can't be asked.
  std::int32_t startByClient(HublinkConnection* client, const std::vector<OptionalText>& argv,
                             const char* workingDir);

  void setEnvironmentVariable(const char* variable, const char* value);
  PluginDebugging& debugging() { return debugging_; }

  /// A launch in hand, for those who look into the hub. Times are of the steady clock, in ms.
  struct InHand {
    ArrivalID arrival;
    std::string program;
    platform::ProcessId process;  ///< 0 as long as it isn't started
    std::uint64_t since;
    std::uint64_t deadline;  ///< 0 for none
  };
  /// In the order in which they were asked for.
  std::vector<InHand> launches() const;
  /// How many launches are in hand.
  std::size_t inHand() const { return launches_.size(); }
  /// Sees how far the launches are. To be called in each pass.
  void step();
  /// Milliseconds until step() has something to do if nothing else happens, at most `most`.
  int timeLeft(int most) const;
  /// All launches have failed, since the hub ends. The children that run, each with its program's
  /// name, are the caller's.
  std::vector<std::pair<platform::ProcessId, std::string>> giveUp();

 private:
  friend class HublinkInspector;

  struct Launch {
    explicit Launch(LaunchOrder what) : order(std::move(what)) {}

    LaunchOrder order;
    std::string program;  ///< what is executed
    CountedPtr<STPTransport> transport;
    STPChildProcess child{false};
    std::int32_t seconds = 0;               ///< that it may take, 0 for no limit
    std::uint64_t since = 0, deadline = 0;  ///< ms of the steady clock
    bool isStarted = false;
  };
  using Launches = std::list<Launch>;

  bool start(Launch& launch);
  void startWaiting(int most);
  bool hasEnded(Launch& launch);
  void tellFailure(Launch& launch, const std::string& reason);

  ConnectedPlugins& plugins_;
  Broker& broker_;
  const Entrance& entrance_;
  STPTransportSet& transports_;
  HubEvents& events_;
  HubLog& log_;
  ChildEnvironment environment_;
  PluginDebugging debugging_;
  std::int32_t timeout_ = kTimeout;
  Launches launches_;  // in order of their starts; those that haven't been started stand behind
  int startsInPass_ = 0;
  std::int32_t lastStartCookie_ = 0;
};
