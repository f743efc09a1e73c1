// The plugins that the hub is connected with, however that came about: how they get their IDs,
// negotiate, are found, and are taken down.
//
// This holds the one reference to each connection. A connection dies only in the reaping at the end
// of a service pass, never inside a handler.
#pragma once

#include <cstdint>
#include <list>
#include <unordered_map>

#include "services/hublink/hublink_connection.h"
#include "services/hublink/plugin_ids.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_transport.h"

class Broker;
class HubEvents;
class HubLog;
class Hublink;

class ConnectedPlugins {
 public:
  using List = std::list<CountedPtr<HublinkConnection>>;

  /// Tells `broker` who has negotiated and who has gone. New transports go into `transports`.
  ConnectedPlugins(Hublink& hub, Broker& broker, STPTransportSet& transports, HubEvents& events,
                   HubLog& log)
      : hub_(hub),
        broker_(broker),
        transports_(transports),
        events_(events),
        log_(log),
        ids_(log) {}

  PluginIDs& ids() { return ids_; }
  /// Makes the connection on a transport that is connected, sends its negotiate record and counts
  /// it; there must be an ID left. `process` is the child that it is, or 0; name and working
  /// directory may be null.
  HublinkConnection* add(const CountedPtr<STPTransport>& transport, std::int32_t process = 0,
                         const char* name = nullptr, const char* workingDir = nullptr);
  /// Those that have negotiated, oldest first, and those that haven't.
  const List& active() const { return active_; }
  const List& negotiating() const { return negotiating_; }
  /// Null if no plugin that has negotiated has this ID, or this transport.
  HublinkConnection* find(std::int32_t pluginID) const;
  HublinkConnection* ownerOf(const STPTransport* transport) const;

  /// How many keep the hub up.
  std::int32_t numPersistent() const { return numPersistent_; }
  void setPersistent(HublinkConnection* connection, bool persistent);

  /// A connection has negotiated and is to be made active with the next pass.
  void negotiationFinished() { someHaveNegotiated_ = true; }
  /// Makes active those who have finished, the oldest first.
  void stepNegotiation();
  /// Closes the link of a plugin, whatever it owes others; false if there is none with this ID.
  bool kick(std::int32_t pluginID);
  /// Takes down the connections whose links have ended.
  void reap();

  /// Whether the plugin runs on the hub's machine; if that can't be told, it is logged.
  bool isOnHubHost(HublinkConnection* connection);
  static bool sameHost(HublinkConnection* requester, HublinkConnection* provider);

  void clear();

 private:
  friend class HublinkInspector;

  void becomeActive(HublinkConnection* connection);
  void reapDead(List& connections, const char* stage);
  void takeDown(HublinkConnection* connection);

  Hublink& hub_;
  Broker& broker_;
  STPTransportSet& transports_;
  HubEvents& events_;
  HubLog& log_;
  PluginIDs ids_;
  List active_;
  List negotiating_;
  bool someHaveNegotiated_ = false;  // since the list was last looked through
  std::unordered_map<std::int32_t, HublinkConnection*> activeByID_;
  std::int32_t numPersistent_ = 0;
};
