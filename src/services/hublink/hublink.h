// The central object: every connection to a plugin, the services that are registered, the RNs that
// are owned, and the requests that wait for something. A service pass does all of the program's
// work; what a plugin's message does is an operation of this class, called by its
// HublinkConnection.
//
// The hub holds one reference to each connection and each transport. Both die only in the reaping
// at the end of a service pass, never inside a handler.
//
// The operations stand by subject in hublink_*.cpp.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "active_hub/active_hub_record.h"
#include "platform/credentials.h"
#include "platform/process.h"
#include "service_database/service_database.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/hublink_connection.h"
#include "services/hublink/pending.h"
#include "services/hublink/rn_table.h"
#include "services/hublink/service_table.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_listener.h"
#include "stp_transport/transport/stp_transport.h"

/// The fields of RequestServiceConnection, valid while the message is handled.
struct ServiceRequest {
  const char* serviceName;
  std::int32_t providingPluginID;
  StringArray pairs;
  const char* workingDir;
  bool localOnly;
  std::int32_t clientCookie;
  bool noReuse;
  bool clientStart;
};

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

  // --- Life (hublink.cpp) ---
  /// Connects to a tool that listens, which becomes the first plugin. False on failure.
  bool connectToPeer(const char* host, std::uint32_t peerPort);
  /// Whether it leaves out the socket of this machine beside its port.
  void setTcpOnly(bool flag) { tcpOnly = flag; }
  /// Opens the hub's port, on 127.0.0.1 alone with `loopbackOnly`, and, unless `notShared`,
  /// makes the active hub record. False on failure.
  bool startListening(bool notShared, const char* zone, bool loopbackOnly = false);
  /// Whether it takes connections of other users of this machine than its own and root.
  void setAnyUser(bool flag) { anyUser = flag; }
  /// One pass: accepts, looks at a negotiation, serves all transports for at most `timeout` ms, and
  /// reaps what has died. A failure of the serving stands in `status`, which may be null; the pass
  /// is complete all the same.
  void servicePass(int timeout, STPStatus* status = nullptr);
  /// Silences the hub's last line, for one that never got to run.
  void abandonSetUp() { internalLog.reset(); }
  bool hasNoActiveRecord() const { return !activeRecord; }
  /// Removes the record under its lock, with a line in the internal log, unless it names another
  /// hub by now. False if the lock can't be got.
  bool removeActiveRecord();
  std::int32_t numPersistentPlugins() const { return numPersistent; }
  std::int32_t numPlugins() const { return static_cast<std::int32_t>(activeConnections.size()); }
  /// Writes what is queued for plugins, for at most half a second, disconnects each of them and
  /// waits up to `wait` ms for each child; with `report` those that take longer are printed.
  void shutdownPlugins(bool report, int wait);
  /// Writes a line of the hub's own to the internal log, if there is one.
  void logInternal(const char* format, ...) GEN_PRINTF(2, 3);
  /// The transport of the owner of an RN above the link's own addresses, else null.
  STPTransport* forwardTarget(std::int32_t destinationRN) override;
  /// Tells in the internal log who holds others up.
  void congestionChanged(STPTransport* target, bool isCongested) override;
  std::uint16_t getPort() const { return static_cast<std::uint16_t>(port); }

  // --- Connections (hublink_connections.cpp) ---
  HublinkConnection* connectionForPluginID(std::int32_t pluginID) const;
  bool isOnHubHost(HublinkConnection* connection);
  static bool sameHost(HublinkConnection* requester, HublinkConnection* provider);

  // --- Brokering (hublink_brokering.cpp, hublink_requests.cpp, hublink_providers.cpp) ---
  void releaseRN(HublinkConnection* owner, std::int32_t rn) { connectionsByRN.release(owner, rn); }
  void reserveRNBlock(HublinkConnection* owner, std::int32_t count);
  void registerServiceList(HublinkConnection* provider, const StringArray& names);
  void unregisterService(std::int32_t serviceRN) { servicesByName.remove(serviceRN); }
  void requestServiceConnection(HublinkConnection* requester, const ServiceRequest& request);
  void connectionAccepted(HublinkConnection* provider, std::int32_t serviceRN,
                          std::int32_t remoteRN, bool accept);
  void dropServiceConnection(HublinkConnection* sender, std::int32_t localRN,
                             std::int32_t serviceRN);
  void requestPluginIdForService(HublinkConnection* requester, std::int32_t cookie,
                                 const char* serviceName, const char* workingDir,
                                 bool startupIfNotRunning);
  void adjustPersistentCount(bool persistent) { numPersistent += persistent ? 1 : -1; }

  /// A connection has negotiated and is to be made active with the next pass.
  void negotiationFinished() { someHaveNegotiated = true; }

  // --- What one plugin may take (hublink_bounds.cpp) ---
  /// Whether a text that is kept isn't too long; if it is, that is logged.
  bool isTextTaken(const HublinkConnection* sender, const char* text);

  // --- Small jobs (hublink_remote.cpp) ---
  void requestPluginConnect(HublinkConnection* requester, const char* host, std::int32_t peerPort,
                            std::int32_t cookie);
  void requestValueOfName(HublinkConnection* asker, std::int32_t pluginID, const char* name);
  void answerValueOfName(HublinkConnection* sender, std::int32_t askerID, std::int32_t pluginID,
                         const char* name, const char* value);
  void sendLocation(HublinkConnection* asker);
  void logMessage(const char* message);
  /// Closes a plugin's link, unless it owes an answer to somebody who asked for its service.
  void disconnectPlugin(HublinkConnection* connection);

  // --- Starting plugins (hublink_launching.cpp) ---
  void requestPluginLaunch(HublinkConnection* requester, const StringArray& argv,
                           std::int32_t cookie, bool clientStart, const char* workingDir);
  void startPluginEvent(HublinkConnection* sender, std::int32_t cookie, bool success,
                        const char* errorMessage);
  void debugPlugin(const HublinkConnection* sender, const char* pluginName, bool doDebug,
                   const char* debugger, const char* debuggerOpts);
  void setEnvironmentVariable(const char* variable, const char* value);
  /// No plugin ID is left. The hub has said so, and serves those whom it has.
  bool isUsedUp() const { return usedUp; }
  /// The last plugin ID before old ones are given out again; less for tests.
  void setLastPluginID(std::int32_t pluginID) { lastPluginID = pluginID; }

  friend class HublinkInspector;  // holds the tables against each other

 private:
  using Connections = std::list<CountedPtr<HublinkConnection>>;

  // Life.
  static void awaitChild(platform::ProcessId child, const std::string& name, bool report, int wait);
  bool openListener(bool loopbackOnly);
  void freshListener();

  // Connections.
  bool pluginIDsLeft() const;
  std::int32_t nextPlugin();
  void noteUsedUp();
  HublinkConnection* addConnection(const CountedPtr<STPTransport>& transport, std::int32_t process,
                                   const char* name, const char* workingDir);
  void acceptNewConnections();
  bool acceptNewConnection();
  bool mayConnect(const STPTransport& client);
  bool mayConnectTo(const STPTransport& server, std::uint32_t peerPort);
  bool takesUser(const platform::PeerUser& peer, const char* what, std::uint32_t atPort);
  void acceptFailed();
  void stepNegotiation();
  void becomeActive(HublinkConnection* connection);
  void reap();
  void reapDeadConnections();
  void reapDead(Connections& connections, const char* stage);
  void takeDown(HublinkConnection* connection);
  void reapDeadTransports();

  // What one plugin may take.
  bool canReserve(const HublinkConnection* owner, std::int32_t count);
  bool canRegister(const HublinkConnection* provider, std::int32_t count);
  bool canWait(const HublinkConnection* requester);

  // Brokering.
  std::int32_t assignRN(HublinkConnection* owner) { return connectionsByRN.assign(owner); }
  HublinkConnection* connectionForRN(std::int32_t rn) const { return connectionsByRN.owner(rn); }
  std::int32_t findServiceRN(HublinkConnection* requester, const char* name, std::int32_t pluginID,
                             const char* workingDir, bool localOnly) const;
  bool isServicePending(const char* name, const char* workingDir) const;
  bool isStartInHand(const char* name) const;
  void serviceRegistered(HublinkConnection* provider, const char* name, std::int32_t serviceRN);
  void askProvider(HublinkConnection* requester, HublinkConnection* provider,
                   const char* serviceName, std::int32_t serviceRN, TextPairs pairs,
                   std::int32_t clientCookie);
  void addPendingRequest(HublinkConnection* requester, const ServiceRequest& request,
                         std::int32_t pluginID);
  void addPendingQuery(HublinkConnection* requester, std::int32_t cookie, const char* serviceName,
                       const char* workingDir);
  void sendFailureReply(HublinkConnection* requester, const char* serviceName,
                        std::int32_t clientCookie);
  void failRequestsFor(std::int32_t pluginID);
  void purgeConnection(HublinkConnection* connection);
  void purgeRequests(HublinkConnection* connection);
  void purgeAccepts(HublinkConnection* connection);
  void purgeStarts(HublinkConnection* connection);

  // Starting plugins.
  std::int32_t launchPlugin(const std::vector<std::string>& argv, const char* workingDir);
  std::int32_t clientStartPlugin(HublinkConnection* requester,
                                 const std::vector<OptionalText>& argv, const char* workingDir);
  std::vector<std::string> debugArgsFor(const std::string& pluginName);
  void applyServiceEnvironment(const std::vector<NameAndValue>& environment);
  void changeEnvironment(const char* variable, const char* value);
  std::int32_t launchProvider(const PluginRecord& record, const char* serviceName,
                              const char* workingDir);
  void logFailedLaunch(const PluginRecord& record, const char* serviceName);
  void startProviderForConnection(HublinkConnection* requester, const ServiceRequest& request);
  void startProviderForQuery(HublinkConnection* requester, std::int32_t cookie,
                             const char* serviceName, const char* workingDir);

  /// A plugin that a client was asked to start.
  struct ClientStart {
    HublinkConnection* requester;
    std::int32_t cookie;           ///< the request's own
    std::int32_t pluginID;         ///< set aside for a service request; 0 for a plain launch
    UsageShare share;              ///< of what the requester waits for, by a plain launch
    std::string serviceName = {};  ///< what the plugin is to provide, unless it is a plain launch
  };
  /// Who is to be told when a plugin that was started or connected to has negotiated.
  struct LaunchWaiter {
    HublinkConnection* requester;
    std::int32_t cookie;
    std::string failure;  ///< what the requester is told if that never happens
    UsageShare share;     ///< of what it waits for
  };

  ServiceTable servicesByName;
  RNTable connectionsByRN;
  STPTransportSet transports;
  Connections activeConnections;
  Connections negotiatingConnections;  // a queue
  bool someHaveNegotiated = false;     // since the queue was last looked through
  std::unordered_map<std::int32_t, HublinkConnection*> activeByPluginID;
  PendingRequests pendingRequests;
  PendingAccepts pendingAccepts;
  std::map<std::int32_t, LaunchWaiter> launchWaiters;
  std::map<std::int32_t, ClientStart> clientStarts;  // by start cookie
  // Plugins that were started for a service and haven't registered it yet, each with its name.
  std::set<std::pair<std::int32_t, std::string>> comingProviders;
  STPTransport* listener = nullptr;  // stands in `transports`, or null after a failed set-up
  std::uint32_t port;
  STPListener entrance;
  std::uint64_t reapedClosings = 0;  // the process's count when the hub last reaped
  bool acceptBroken = false;         // the last accept failed
  std::uint64_t acceptRetryAt = 0;   // ms of the steady clock
  bool anyUser = false;
  bool tcpOnly = false;
  std::uint64_t refusalsSince = 0;  // ms of the steady clock
  int refusals = 0;                 // since then
  std::int32_t nextPluginID = 0;    // the last one handed out for the first time
  std::int32_t lastPluginID = 65535;
  std::deque<std::int32_t> unlearnedPluginIDs;  // handed out, but known to nobody, and free again
  bool usedUp = false;
  std::int32_t lastStartCookie = 0;
  const ServiceDatabase& serviceDatabase;
  std::unique_ptr<ActiveHubRecord> activeRecord;
  std::int32_t numPersistent = 0;
  STPFileLog* log;
  std::unique_ptr<HLInternalFileLog> internalLog;
  // Children that hadn't connected when the hub was told to stop, each with its program.
  std::vector<std::pair<platform::ProcessId, std::string>> unconnectedChildren;
  OptionalText debugger;  // named by a plugin, as are its options
  OptionalText debuggerOpts;
  std::set<std::string> debugPlugins;  // to be started under the debugger
};
