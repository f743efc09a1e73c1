// The hub's end of the link to one plugin, however the link came about. It receives the plugin's
// messages and has each done by the part of the hub that it means.
//
// The hub owns the one reference that keeps a connection; the connection holds a further reference
// to its transport. It is taken down in the reaping step of a service pass and nowhere else.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "generated/hublink_router_impl.h"
#include "services/hublink/plugin_usage.h"

class Hublink;
class STPLog;

/// One side of an established service connection; the other side holds the mirrored record.
struct PeerLink {
  std::int32_t peerPluginID;
  std::int32_t localRN;
  std::int32_t remoteRN;
  UsageShare share;           ///< of the connections, at the side that has asked for it
  std::string serviceName{};  ///< at that side
  std::int64_t since = 0;     ///< at that side, in ms since 1970; 0 at the other
};

/// What a connection of a bridge stands for: a plugin of another machine.
struct StandIn {
  std::string machine;
  std::string program;    ///< of that plugin; empty if it isn't known
  std::int32_t remoteID;  ///< its plugin ID there
  std::int32_t bridgeID;  ///< the plugin ID of the bridge here
};

class HublinkConnection : public virtual Hublink_router_Impl {
 public:
  /// Attaches to `transport` and makes `hub` its forwarding handler. `process` is 0 unless the hub
  /// started the plugin; `name` and `workingDir` may be null.
  HublinkConnection(STPTransport* transport, Hublink* hub, std::int32_t pluginID,
                    std::int32_t process, const char* name, const char* workingDir,
                    STPLog* internalLog);

  /// Closes the link as soon as its other end shows that it is a hub, too: neither would ever take
  /// the other for a plugin, and each would keep the other up.
  void refuseHub();

  /// Sends the negotiate record without waiting.
  virtual void sendNegotiate();
  virtual bool isNegotiated();

  std::int32_t getPluginID() const { return pluginID; }
  /// Base name of the executable that the hub launched, else empty.
  const std::string& getName() const { return name; }
  /// The plugin's working directory; null if none is known.
  const char* getWorkingDir() const { return workingDir.empty() ? nullptr : workingDir.c_str(); }
  std::int32_t getProcess() const { return process; }
  /// The name of the plugin's program, as far as it is known; else empty. With the process at the
  /// other end, if the caller knows it.
  std::string getProgram(std::int32_t peerProcess) const;
  /// Null for a plugin that stands for itself.
  const StandIn* standsFor() const { return standIn ? &*standIn : nullptr; }
  void setStandsFor(StandIn whom) { standIn = std::move(whom); }
  const PluginUsage& usage() const { return *used; }
  /// The part of a new entry in one of the hub's tables.
  UsageShare shareOf(Usage PluginUsage::*kind, std::int64_t bytes = 0) const {
    return {std::shared_ptr<Usage>(used, &((*used).*kind)), bytes};
  }
  bool isPersistent() const { return persistent; }
  /// For ConnectedPlugins, which counts those that are.
  void setPersistent(bool flag) { persistent = flag; }
  /// A message to the hub has come; the plugin may send them before it has negotiated.
  bool hasSpoken() const { return spoken; }
  /// When the connection was made, in ms since 1970.
  std::int64_t getSince() const { return since; }
  /// True once the link is down; the next reaping takes the connection away.
  bool isDead() const;

  void addPeerLink(PeerLink link);
  /// Removes the first record that matches both values, if there is one.
  void removePeerLink(std::int32_t localRN, std::int32_t remoteRN);
  const std::list<PeerLink>& links() const { return peerLinks; }
  /// Gives the records away.
  std::list<PeerLink> takePeerLinks();

  /// Tells the plugin that nobody provides the service that it has asked for.
  void sendFailureReply(const char* serviceName, std::int32_t clientCookie);

 protected:
  ~HublinkConnection() override;

  void peerRecordTaken() override;
  void handleBinaryMessage(STPReceivedMessage& message, STPMessage* reply,
                           std::uint32_t id) override;

  void DebugPlugin(const char* plugin_name, bool do_debug, const char* debugger,
                   const char* debugger_opts) override;
  void RequestLocation() override;
  void RequestPluginLaunch(StringArray argv, std::int32_t cookie, bool client_start,
                           const char* working_dir) override;
  void RequestPluginConnect(const char* host, std::int32_t port, std::int32_t cookie) override;
  void RequestPluginIdForService(std::int32_t cookie, const char* serviceName,
                                 const char* working_dir, bool startup_if_not_running) override;
  void RequestHublinkDisconnect() override;
  void RequestServiceConnection(const char* serviceName, std::int32_t providingPluginID,
                                StringArray name_value_pairs, const char* working_dir,
                                bool local_only, std::int32_t client_cookie, bool no_reuse,
                                bool client_start) override;
  void DropServiceConnection(std::int32_t localRN, std::int32_t serviceRN) override;
  void ConnectionAcceptedEvent(std::int32_t serviceRN, std::int32_t remoteRN, bool accept) override;
  void StartPluginEvent(std::int32_t cookie, bool success, const char* error_message) override;
  void SetWorkingDir(const char* working_dir) override;
  void ReserveRNBlock(std::int32_t count) override;
  void ReleaseRN(std::int32_t rn) override;
  void UnregisterService(std::int32_t serviceRN) override;
  void RegisterServiceList(StringArray name_list) override;
  void RequestValueOfNameOnPlugin(std::int32_t plugin_id, const char* name) override;
  void ValueOfNameOnPluginResponseEvent(std::int32_t requesting_plugin_id, std::int32_t plugin_id,
                                        const char* name, const char* value) override;
  void PersistentService(bool persistent) override;
  void NumPersistentServices(std::int32_t& num_persistent, std::int32_t& num_total) override;
  void LogMessageEvent(const char* message) override;
  void SetEnvironmentVariable(const char* variable, const char* value) override;
  void SetPreferAda(bool preferAda) override;

 private:
  friend class HublinkInspector;
  class HubRefusal;

  bool isTextTaken(const char* text) const;

  Hublink* hub;
  std::int32_t pluginID;
  std::int32_t process;
  std::string name;
  std::string workingDir;
  std::int64_t since;
  bool persistent = false;
  bool spoken = false;
  std::shared_ptr<PluginUsage> used = std::make_shared<PluginUsage>();
  std::list<PeerLink> peerLinks;
  std::optional<StandIn> standIn;
  std::unique_ptr<HubRefusal> hubRefusal;
};
