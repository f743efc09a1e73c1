// The hub as a whole: its parts, its life, and the service pass that does all of the program's
// work.
//
//   Entrance      the hub's port, where plugins come in
//   Launcher      plugins that are being started        PluginConnector   or connected to
//   ConnectedPlugins   the connections: IDs, negotiation, end
//   Broker        services, RNs, and who waits for what
//   StatusService   what all of them tell to those who look into the hub
//   AbroadService   bridges to other machines, and what they are asked
//
// What a plugin's message does is an operation of one of them, called by its HublinkConnection.
// The hub holds one reference to each transport, which dies only in the reaping at the end of a
// service pass, never inside a handler.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "active_hub/active_hub_record.h"
#include "platform/process.h"
#include "services/hublink/abroad/abroad_service.h"
#include "services/hublink/broker.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/entrance.h"
#include "services/hublink/hub_events.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/launcher.h"
#include "services/hublink/plugin_connector.h"
#include "services/hublink/status/status_service.h"
#include "services/hublink/user_gate.h"
#include "stp_transport/transport/stp_transport.h"

class Hublink : public ForwardingHandler {
 public:
  /// A hub that will listen on `port`, or on a free one for 0, and starts what `database`
  /// describes. `log` and `internalFile` may be null; none of the three is owned.
  Hublink(const ServiceDatabase& database, std::uint32_t port, STPFileLog* log,
          std::FILE* internalFile);
  /// Takes nothing down in order: connections that are left just end.
  ~Hublink() override;
  Hublink(const Hublink&) = delete;
  Hublink& operator=(const Hublink&) = delete;

  // --- Set-up ---
  /// Connects to a tool that listens, which becomes the first plugin. False on failure.
  bool connectToPeer(const char* host, std::uint32_t peerPort);
  /// Opens the hub's port, on 127.0.0.1 alone with `loopbackOnly`, and, unless `notShared`,
  /// makes the active hub record. False on failure.
  bool startListening(bool notShared, const char* zone, bool loopbackOnly = false);
  /// Silences the hub's last line, for one that never got to run.
  void abandonSetUp() { log_.endInternal(); }

  // --- Parts ---
  Broker& broker() { return broker_; }
  ConnectedPlugins& plugins() { return plugins_; }
  Launcher& launcher() { return launcher_; }
  Entrance& entrance() { return entrance_; }
  UserGate& gate() { return gate_; }
  HubLog& log() { return log_; }

  /// Null without one.
  const ActiveHubRecord* activeRecord() const { return activeRecord_.get(); }
  /// How it was called, for those who look into it.
  void setOptions(std::string options) { options_ = std::move(options); }
  const std::string& options() const { return options_; }
  /// When it was made, in ms since 1970.
  std::int64_t since() const { return since_; }

  // --- Life ---
  /// One pass: accepts, looks at negotiations, launches and connects in hand, serves all transports
  /// for at most `timeout` ms, and reaps what has died. A failure of the serving stands in
  /// `status`, which may be null; the pass is complete all the same.
  void servicePass(int timeout, STPStatus* status = nullptr);
  bool hasNoActiveRecord() const { return !activeRecord_; }
  /// Removes the record under its lock, with a line in the internal log, unless it names another
  /// hub by now. False if the lock can't be got.
  bool removeActiveRecord();
  std::int32_t numPersistentPlugins() const { return plugins_.numPersistent(); }
  std::int32_t numPlugins() const { return static_cast<std::int32_t>(plugins_.active().size()); }
  /// Has the main loop end, at once or as soon as nobody needs the hub.
  void stop(bool whenIdle) { (whenIdle ? stopsWhenIdle_ : stopsNow_) = true; }
  bool stopsNow() const { return stopsNow_; }
  bool stopsWhenIdle() const { return stopsWhenIdle_; }
  /// Writes the trace of all connections to the internal log that there is now, if any.
  void traceAll();
  /// Whether a plugin keeps the hub up, or one that is about to come.
  bool isNeeded() const;
  /// Writes what is queued for plugins, for at most half a second, disconnects each of them and
  /// waits up to `wait` ms for each child; with `report` those that take longer are printed.
  void shutdownPlugins(bool report, int wait);

  /// The transport of the owner of an RN above the link's own addresses, else null.
  STPTransport* forwardTarget(std::int32_t destinationRN) override;
  /// Counts the traffic of links.
  void relayed(const STPTransport& sender, std::int32_t sourceRN, std::int32_t destinationRN,
               std::int64_t packets, std::int64_t bytes) override;
  void slownessChanged(STPTransport* target, bool isSlow) override;
  /// Tells in the internal log who holds others up.
  void congestionChanged(STPTransport* target, bool isCongested) override;

 private:
  friend class HublinkInspector;

  static void awaitChild(platform::ProcessId child, const std::string& name, bool report, int wait);
  void reap();

  HubLog log_;
  HubEvents events_;
  STPTransportSet transports_;
  UserGate gate_;
  ConnectedPlugins plugins_;
  Entrance entrance_;
  Launcher launcher_;
  PluginConnector connector_;
  StatusService status_;
  AbroadService abroad_;
  Broker broker_;
  std::unique_ptr<ActiveHubRecord> activeRecord_;
  std::int64_t since_;
  std::string options_;
  bool stopsNow_ = false, stopsWhenIdle_ = false;
  std::uint64_t reapedClosings_ = 0;  // the process's count when the hub last reaped
};
