// Brings plugins together: who provides which service, who owns which RN, who waits for what, and
// who has been asked for a connection and hasn't answered. A plugin's question is answered at once
// if that can be; else it waits here until what it hangs on has happened.
//
// The operations that handle messages are named after them and take the plugin that sent it.
#pragma once

#include <cstdint>
#include <string>

#include "services/hublink/hublink_connection.h"
#include "services/hublink/pending_accepts.h"
#include "services/hublink/rn_table.h"
#include "services/hublink/service_table.h"
#include "services/hublink/waiting_table.h"

class AbroadService;
class ConnectedPlugins;
class HubEvents;
class HubLog;
class Launcher;
class PluginConnector;
class PluginRecord;
class ServiceDatabase;
class StatusService;
struct AbroadQuestion;

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

class Broker {
 public:
  /// Has plugins that `database` describes started by `launcher`.
  Broker(const ServiceDatabase& database, ConnectedPlugins& plugins, Launcher& launcher,
         PluginConnector& connector, StatusService& status, AbroadService& abroad,
         HubEvents& events, HubLog& log)
      : database_(database),
        plugins_(plugins),
        launcher_(launcher),
        connector_(connector),
        status_(status),
        abroad_(abroad),
        events_(events),
        log_(log) {}
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  // --- Services and RNs (broker_services.cpp) ---
  HublinkConnection* connectionForRN(std::int32_t rn) const { return rns_.owner(rn); }
  void releaseRN(HublinkConnection* owner, std::int32_t rn);
  void countTraffic(std::int32_t source, std::int32_t destination,
                    const RNTable::Traffic& traffic) {
    rns_.count(source, destination, traffic);
  }
  void reserveRNBlock(HublinkConnection* owner, std::int32_t count);
  void registerServiceList(HublinkConnection* provider, const StringArray& names);
  void unregisterService(std::int32_t serviceRN);
  void connectionAccepted(HublinkConnection* provider, std::int32_t serviceRN,
                          std::int32_t remoteRN, bool accept);
  void dropServiceConnection(HublinkConnection* sender, std::int32_t localRN,
                             std::int32_t serviceRN);

  // --- For those who look into the hub ---
  const ServiceDatabase& database() const { return database_; }
  const ServiceTable& services() const { return services_; }
  const RNTable& rns() const { return rns_; }
  const WaitingTable& waiting() const { return waiting_; }
  const AbroadService& abroad() const { return abroad_; }

  // --- Questions (broker_requests.cpp) ---
  void requestServiceConnection(HublinkConnection* requester, const ServiceRequest& request);
  void requestPluginIdForService(HublinkConnection* requester, std::int32_t cookie,
                                 const char* serviceName, const char* workingDir,
                                 bool startupIfNotRunning);
  void requestPluginLaunch(HublinkConnection* requester, const StringArray& argv,
                           std::int32_t cookie, bool clientStart, const char* workingDir);
  void requestPluginConnect(HublinkConnection* requester, const char* host, std::int32_t port,
                            std::int32_t cookie);

  // --- How questions to bridges end (broker_abroad.cpp) ---
  /// `provider` is a stand-in; it is asked for a connection at `rn`, which it owns, unless the
  /// question was only who provides the service.
  void foundAbroad(AbroadQuestion& question, HublinkConnection* provider, std::int32_t rn);
  void notFoundAbroad(const AbroadQuestion& question);

  // --- What happens to plugins (broker_events.cpp) ---
  void startPluginEvent(HublinkConnection* sender, std::int32_t startCookie, bool success,
                        const char* errorMessage);
  /// An arrival is this plugin now.
  void arrived(ArrivalID arrival, const HublinkConnection* connection);
  /// `program` is what was to arrive.
  void arrivalFailed(ArrivalID arrival, const std::string& program);
  void negotiated(std::int32_t pluginID);
  /// Closes a plugin's link, unless it owes an answer to somebody who asked for its service.
  void disconnectPlugin(HublinkConnection* connection);
  /// Takes a connection out of every table. A second time finds nothing.
  void purgeConnection(HublinkConnection* connection);
  /// Tells those who were connected with a plugin that it has gone.
  void dropPeerLinks(HublinkConnection* connection);

 private:
  friend class HublinkInspector;

  // What one plugin may take (plugin_bounds.h), asked before anything is done for it.
  bool canReserve(const HublinkConnection* owner, std::int32_t count);
  bool canRegister(const HublinkConnection* provider, std::int32_t count);
  bool canWait(const HublinkConnection* requester);
  bool canHaveArrival(const HublinkConnection* requester);

  std::int32_t findServiceRN(HublinkConnection* requester, const char* name, std::int32_t pluginID,
                             const char* workingDir, bool localOnly) const;
  bool isServicePending(const char* name, const char* workingDir) const;
  void serviceRegistered(HublinkConnection* provider, const char* name, std::int32_t serviceRN);
  void serveWish(HublinkConnection* requester, Wish& wish, HublinkConnection* provider,
                 std::int32_t serviceRN, bool isFound);
  void askProvider(HublinkConnection* requester, HublinkConnection* provider,
                   const char* serviceName, std::int32_t serviceRN, TextPairs pairs,
                   std::int32_t clientCookie);
  /// What is done for the request, and for the question who provides a service; abroad only if that
  /// may be.
  void serveRequest(HublinkConnection* requester, const ServiceRequest& request, bool mayGoAbroad);
  void answerQuery(HublinkConnection* requester, std::int32_t cookie, const char* serviceName,
                   const char* workingDir, bool startupIfNotRunning, bool mayGoAbroad);
  void addServiceWish(HublinkConnection* requester, const ServiceRequest& request, Awaited on);
  void addQueryWish(HublinkConnection* requester, std::int32_t cookie, const char* serviceName,
                    const char* workingDir, Awaited on);
  void addPluginWish(HublinkConnection* requester, std::int32_t cookie, const char* failure,
                     Awaited on);
  void startProviderForConnection(HublinkConnection* requester, const ServiceRequest& request);
  void startProviderForQuery(HublinkConnection* requester, std::int32_t cookie,
                             const char* serviceName, const char* workingDir);
  bool startByClient(HublinkConnection* requester, const PluginRecord& record,
                     const ServiceRequest& request);
  bool launchProvider(HublinkConnection* requester, ArrivalID arrival, const PluginRecord& record,
                      const char* serviceName, const char* workingDir);

  void logFailedLaunch(const std::string& program, const char* serviceName);
  static void printFailedStartup(const std::string& program);
  bool findAnother(Waiting& waiting);
  void fail(const Waiting& waiting);
  void replyFailure(HublinkConnection* requester, const char* serviceName,
                    std::int32_t clientCookie);
  void openStatus(HublinkConnection* requester, const ServiceRequest& request);
  void openAbroad(HublinkConnection* requester, const ServiceRequest& request);
  /// `named` is the stand-in that the requester wants, or null.
  bool goesAbroad(HublinkConnection* requester, const char* name, const HublinkConnection* named);
  void askAbroad(HublinkConnection* requester, Wish wish, bool mayStart,
                 const HublinkConnection* named);
  bool awaitsBridge(HublinkConnection* requester);
  void purgeAccepts(HublinkConnection* connection);

  const ServiceDatabase& database_;
  ConnectedPlugins& plugins_;
  Launcher& launcher_;
  PluginConnector& connector_;
  StatusService& status_;
  AbroadService& abroad_;
  HubEvents& events_;
  HubLog& log_;
  ServiceTable services_;
  RNTable rns_;
  WaitingTable waiting_;
  PendingAccepts accepts_;
};
