// The connections that the hub is making to plugins that listen: each is an attempt in hand, until
// the plugin has taken it or it has failed.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <utility>

#include "services/hublink/waiting_table.h"
#include "stp_transport/transport/stp_connect_attempt.h"
#include "stp_transport/transport/stp_transport.h"

class Broker;
class ConnectedPlugins;
class HubLog;
class UserGate;

class PluginConnector {
 public:
  /// Tells `broker` how the attempts end.
  PluginConnector(ConnectedPlugins& plugins, Broker& broker, UserGate& gate, HubLog& log)
      : plugins_(plugins), broker_(broker), gate_(gate), log_(log) {}

  /// Begins to connect; false if that can't be. `share` is that of the arrivals of whoever asks.
  bool connect(ArrivalID arrival, UsageShare share, const char* host, std::int32_t port);
  /// How many attempts are in hand.
  std::size_t inHand() const { return attempts_.size(); }
  /// Takes those that have ended off the list. To be called in each pass.
  void step();
  /// Milliseconds until step() has something to do if nothing else happens, at most `most`.
  int timeLeft(int most) const;
  /// All of them have failed, since the hub ends.
  void giveUp();

 private:
  friend class HublinkInspector;

  struct Attempt {
    Attempt(ArrivalID id, UsageShare part, const char* name, std::uint16_t number)
        : arrival(id), share(std::move(part)), host(name), port(number), connect(name, number) {}

    ArrivalID arrival;
    UsageShare share;
    std::string host;
    std::uint16_t port;
    STPConnectAttempt connect;
  };
  void finish(Attempt& attempt);

  ConnectedPlugins& plugins_;
  Broker& broker_;
  UserGate& gate_;
  HubLog& log_;
  std::list<Attempt> attempts_;
};
