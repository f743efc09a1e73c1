// Services and their RNs: who provides what, who waits for it, and what is left when a plugin goes.
#include <algorithm>
#include <cstring>

#include "services/hublink/hublink.h"

void Hublink::reserveRNBlock(HublinkConnection* owner, std::int32_t count) {
  std::vector<std::int32_t> list;
  if (count > 0 && canReserve(owner, count)) {
    list.reserve(static_cast<std::size_t>(count));
    connectionsByRN.assignBlock(owner, count, [&list](std::int32_t rn) { list.push_back(rn); });
  }
  owner->RNBlockReservedEvent({static_cast<std::int32_t>(list.size()), list.data()});
}

void Hublink::registerServiceList(HublinkConnection* provider, const StringArray& names) {
  if (names.count <= 0) return;
  if (!canRegister(provider, names.count)) {
    provider->RNBlockReservedEvent({0, nullptr});
    return;
  }
  std::vector<std::int32_t> list;
  for (std::int32_t i = 0; i < names.count; ++i) list.push_back(assignRN(provider));
  // The plugin's only way to learn its RNs, and it must know them before it is asked for one.
  provider->RNBlockReservedEvent({names.count, list.data()});
  for (std::int32_t i = 0; i < names.count; ++i) {
    const char* name = names.data[i];
    if (!name) continue;
    const std::int32_t serviceRN = list[static_cast<std::size_t>(i)];
    const auto bytes = static_cast<std::int64_t>(std::strlen(name));
    servicesByName.add(name, serviceRN, provider, provider->shareOf(&PluginUsage::services, bytes));
    comingProviders.erase({provider->getPluginID(), name});
    serviceRegistered(provider, name, serviceRN);
  }
}

// Serves every request that waits for this service, oldest first.
void Hublink::serviceRegistered(HublinkConnection* provider, const char* name,
                                std::int32_t serviceRN) {
  for (auto place = pendingRequests.begin(); place != pendingRequests.end();) {
    PendingRequest& request = *place;
    const bool fits = request.serviceName == name &&
                      (request.pluginID == -1 || request.pluginID == provider->getPluginID()) &&
                      (!request.workingDir ||
                       sameWorkingDir(textOrNull(request.workingDir), provider->getWorkingDir()));
    if (!fits) {
      ++place;
      continue;
    }
    if (request.isIdQuery)
      request.requester->PluginIdForServiceReplyEvent(request.queryCookie, name,
                                                      provider->getPluginID(), false);
    else
      askProvider(request.requester, provider, name, serviceRN, std::move(request.pairs),
                  request.clientCookie);
    place = pendingRequests.erase(place);
  }
}

std::int32_t Hublink::findServiceRN(HublinkConnection* requester, const char* name,
                                    std::int32_t pluginID, const char* workingDir,
                                    bool localOnly) const {
  if (!name) return -1;
  const bool any = pluginID == -1 && !workingDir && !localOnly;
  return servicesByName.find(name, [&](std::int32_t serviceRN) {
    if (any) return true;
    HublinkConnection* owner = connectionForRN(serviceRN);
    return owner && (pluginID == -1 || pluginID == owner->getPluginID()) &&
           (!localOnly || sameHost(requester, owner)) &&
           (!workingDir || sameWorkingDir(workingDir, owner->getWorkingDir()));
  });
}

// Whether a request for the service joins those that wait already. Once whoever was to provide it
// won't come, that would be for ever, unless there is nothing that could be started.
bool Hublink::isServicePending(const char* name, const char* workingDir) const {
  if (!isStartInHand(name) && serviceDatabase.find_plugin(name)) return false;
  for (const PendingRequest& request : pendingRequests) {
    if (request.serviceName != name) continue;
    if (!workingDir || !request.workingDir ||
        sameWorkingDir(workingDir, textOrNull(request.workingDir)))
      return true;
  }
  return false;
}

bool Hublink::isStartInHand(const char* name) const {
  return std::any_of(comingProviders.begin(), comingProviders.end(),
                     [name](const auto& coming) { return coming.second == name; }) ||
         std::any_of(clientStarts.begin(), clientStarts.end(), [name](const auto& entry) {
           return entry.second.pluginID != 0 && entry.second.serviceName == name;
         });
}

// The record stands in the table before the provider is asked, so that no answer can overtake it.
void Hublink::askProvider(HublinkConnection* requester, HublinkConnection* provider,
                          const char* serviceName, std::int32_t serviceRN, TextPairs pairs,
                          std::int32_t clientCookie) {
  const std::int32_t localRN = assignRN(requester);
  UsageShare share = requester->shareOf(
      &PluginUsage::waiting, static_cast<std::int64_t>(std::strlen(serviceName)) + pairs.bytes());
  const auto place = pendingAccepts.emplace(
      provider, PendingAccept{requester, provider, serviceName, localRN, serviceRN,
                              std::move(pairs), clientCookie, std::move(share)});
  provider->ConnectionRequestedEvent(requester->getPluginID(), serviceRN, localRN,
                                     place->second.pairs.view());
  requester->getTransport()->waitFor(*provider->getTransport());
}

void Hublink::connectionAccepted(HublinkConnection* provider, std::int32_t serviceRN,
                                 std::int32_t remoteRN, bool accept) {
  const auto [first, last] = pendingAccepts.equal_range(provider);
  for (auto place = first; place != last; ++place) {
    const PendingAccept& pending = place->second;
    if (pending.localRN != remoteRN || pending.serviceRN != serviceRN) continue;
    pending.requester->ConnectionReplyEvent(pending.serviceName.c_str(), pending.localRN, true,
                                            false, accept, serviceRN, provider->getPluginID(),
                                            nullptr, pending.clientCookie);
    if (accept) {
      provider->addPeerLink(pending.requester->getPluginID(), serviceRN, pending.localRN);
      pending.requester->addPeerLink(provider->getPluginID(), pending.localRN, serviceRN,
                                     pending.requester->shareOf(&PluginUsage::connections));
    }
    pendingAccepts.erase(place);
    return;
  }
}

void Hublink::dropServiceConnection(HublinkConnection* sender, std::int32_t localRN,
                                    std::int32_t serviceRN) {
  if (HublinkConnection* other = connectionForRN(serviceRN)) {
    other->removePeerLink(serviceRN, localRN);
    other->ConnectionDroppedEvent(serviceRN, localRN);
    if (other != sender) sender->getTransport()->waitFor(*other->getTransport());
  }
  sender->removePeerLink(localRN, serviceRN);
}

// Takes a connection out of every table. A second time finds nothing.
void Hublink::purgeConnection(HublinkConnection* connection) {
  if (connection->isPersistent()) {
    adjustPersistentCount(false);
    connection->setPersistent(false);
  }
  connectionsByRN.releaseAll(connection, [this](std::int32_t rn) { servicesByName.remove(rn); });
  // Those whose RN it has given back.
  if (connection->usage().services.count > 0) servicesByName.removeAllOf(connection);
  purgeRequests(connection);
  purgeAccepts(connection);
  purgeStarts(connection);
}

void Hublink::purgeRequests(HublinkConnection* connection) {
  pendingRequests.remove_if(
      [connection](const PendingRequest& request) { return request.requester == connection; });
  failRequestsFor(connection->getPluginID());
}

// Whoever waits for this plugin and no other waits in vain.
void Hublink::failRequestsFor(std::int32_t pluginID) {
  for (auto place = pendingRequests.begin(); place != pendingRequests.end();) {
    if (place->pluginID != pluginID) {
      ++place;
      continue;
    }
    sendFailureReply(place->requester, place->serviceName.c_str(), place->clientCookie);
    place = pendingRequests.erase(place);
  }
}

void Hublink::purgeAccepts(HublinkConnection* connection) {
  for (auto place = pendingAccepts.begin(); place != pendingAccepts.end();) {
    const PendingAccept& pending = place->second;
    const bool asked = pending.provider == connection;
    const bool own = pending.requester == connection;
    if (asked && !own) {
      releaseRN(pending.requester, pending.localRN);
      pending.requester->ConnectionReplyEvent(pending.serviceName.c_str(), -1, true, false, false,
                                              0, -1, nullptr, pending.clientCookie);
    }
    place = asked || own ? pendingAccepts.erase(place) : std::next(place);
  }
}

// A requester that waits for this plugin to negotiate is told that it won't, and one that has gone
// itself is forgotten. With a start that a client had in hand goes the ID that was set aside for
// it, which others may have named.
void Hublink::purgeStarts(HublinkConnection* connection) {
  for (auto place = launchWaiters.begin(); place != launchWaiters.end();) {
    const bool own = place->second.requester == connection;
    const bool lost = place->first == connection->getPluginID();
    if (lost && !own)
      place->second.requester->PluginConnectedEvent(place->second.cookie, -1,
                                                    place->second.failure.c_str());
    place = own || lost ? launchWaiters.erase(place) : std::next(place);
  }
  for (auto place = clientStarts.begin(); place != clientStarts.end();) {
    if (place->second.requester != connection) {
      ++place;
      continue;
    }
    const std::int32_t setAside = place->second.pluginID;
    place = clientStarts.erase(place);
    if (setAside == 0) continue;
    failRequestsFor(setAside);
    unlearnedPluginIDs.push_back(setAside);
  }
  std::erase_if(comingProviders, [connection](const auto& coming) {
    return coming.first == connection->getPluginID();
  });
}
