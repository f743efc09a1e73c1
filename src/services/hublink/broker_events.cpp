// What happens to plugins that others wait for: they arrive, or fail to, or go.
#include <cstdio>
#include <utility>

#include "services/hublink/abroad/abroad_service.h"
#include "services/hublink/broker.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/hub_events.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/status/status_service.h"

void Broker::logFailedLaunch(const std::string& program, const char* serviceName) {
  log_.logInternal("Warning: Failed to launch plugin: %s to handle service %s.\n", program.c_str(),
                   serviceName);
}

void Broker::printFailedStartup(const std::string& program) {
  std::fprintf(stderr, "Unable to startup service: %s.\n", program.c_str());
}

void Broker::fail(const Waiting& waiting) {
  if (const auto* service = std::get_if<ServiceWish>(&waiting.wish))
    replyFailure(waiting.requester, service->name.c_str(), service->clientCookie);
  else if (const auto* query = std::get_if<QueryWish>(&waiting.wish))
    waiting.requester->PluginIdForServiceReplyEvent(query->cookie, query->name.c_str(), -1, true);
  else if (const auto* plugin = std::get_if<PluginWish>(&waiting.wish))
    waiting.requester->PluginConnectedEvent(plugin->cookie, -1, plugin->failure.c_str());
}

// A provider that has come by another road meanwhile.
bool Broker::findAnother(Waiting& waiting) {
  auto* service = std::get_if<ServiceWish>(&waiting.wish);
  if (!service || service->noReuse) return false;
  const std::int32_t serviceRN = findServiceRN(waiting.requester, service->name.c_str(), -1,
                                               textOrNull(service->workingDir), service->localOnly);
  HublinkConnection* provider = connectionForRN(serviceRN);
  if (!provider) return false;
  askProvider(waiting.requester, provider, service->name.c_str(), serviceRN,
              std::move(service->pairs), service->clientCookie);
  return true;
}

void Broker::arrived(ArrivalID arrival, const HublinkConnection* connection) {
  waiting_.arrived(arrival, connection->getPluginID());
  abroad_.arrived(arrival, connection->getPluginID());
}

void Broker::arrivalFailed(ArrivalID arrival, const std::string& program) {
  auto [service, ended] = waiting_.arrivalFailed(arrival);
  if (service) logFailedLaunch(program, service->c_str());
  bool isPrinted = false;
  for (Waiting& waiting : ended) {
    if (std::holds_alternative<QueryWish>(waiting.wish) && !std::exchange(isPrinted, true))
      printFailedStartup(program);
    if (!findAnother(waiting)) fail(waiting);
  }
  abroad_.arrivalFailed(arrival);
}

void Broker::negotiated(std::int32_t pluginID) {
  for (const Waiting& waiting : waiting_.negotiated(pluginID))
    waiting.requester->PluginConnectedEvent(std::get<PluginWish>(waiting.wish).cookie, pluginID,
                                            "");
}

void Broker::startPluginEvent(HublinkConnection* sender, std::int32_t startCookie, bool success,
                              const char* errorMessage) {
  const std::int32_t pluginID = sender->getPluginID();
  const auto service = waiting_.serviceOfStart(startCookie);
  const bool isProviding =
      service && findServiceRN(sender, service->c_str(), pluginID, nullptr, false) != -1;
  const WaitingTable::ClientStartEnd end =
      success ? waiting_.clientStarted(startCookie, pluginID, isProviding)
              : waiting_.clientStartFailed(startCookie);
  if (end.own) {
    if (const auto* plugin = std::get_if<PluginWish>(&end.own->wish))
      end.own->requester->PluginConnectedEvent(plugin->cookie, success ? pluginID : -1,
                                               errorMessage);
    else if (const auto* wish = std::get_if<ServiceWish>(&end.own->wish))
      replyFailure(end.own->requester, "", wish->clientCookie);
  }
  for (const Waiting& waiting : end.others) fail(waiting);
  if (end.setAside != 0) plugins_.ids().giveBack(end.setAside);
}

void Broker::disconnectPlugin(HublinkConnection* connection) {
  if (accepts_.contains(connection)) return;
  connection->getTransport()->disconnect();
  purgeConnection(connection);
}

void Broker::purgeConnection(HublinkConnection* connection) {
  plugins_.setPersistent(connection, false);
  status_.closeAll(connection);
  rns_.releaseAll(connection, [this](std::int32_t rn) { unregisterService(rn); });
  // Those whose RN it has given back.
  if (connection->usage().services.count > 0) services_.removeAllOf(connection);
  const WaitingTable::Departure departure = waiting_.gone(connection, connection->getPluginID());
  for (const Waiting& waiting : departure.ended) fail(waiting);
  for (const std::int32_t pluginID : departure.setAside) plugins_.ids().giveBack(pluginID);
  purgeAccepts(connection);
  abroad_.gone(connection);
}

void Broker::purgeAccepts(HublinkConnection* connection) {
  for (auto place = accepts_.begin(); place != accepts_.end();) {
    const PendingAccept& pending = place->second;
    const bool asked = pending.provider == connection;
    const bool own = pending.requester == connection;
    if (asked && !own) {
      releaseRN(pending.requester, pending.localRN);
      pending.requester->ConnectionReplyEvent(pending.serviceName.c_str(), -1, true, false, false,
                                              0, -1, nullptr, pending.clientCookie);
      events_.tell("answered", pending.requester->getPluginID(), connection->getPluginID(),
                   pending.serviceName, "the provider has gone");
    }
    // A stand-in keeps a link with another machine for it.
    if (own && !asked && pending.provider->standsFor())
      pending.provider->ConnectionDroppedEvent(pending.serviceRN, pending.localRN);
    place = asked || own ? accepts_.erase(place) : std::next(place);
  }
}

void Broker::dropPeerLinks(HublinkConnection* connection) {
  for (const PeerLink& link : connection->takePeerLinks()) {
    HublinkConnection* peer = plugins_.find(link.peerPluginID);
    if (!peer || peer == connection) continue;
    peer->removePeerLink(link.remoteRN, link.localRN);
    peer->ConnectionDroppedEvent(link.remoteRN, link.localRN);
    events_.tell("link down", connection->getPluginID(), link.peerPluginID, link.serviceName);
  }
}
