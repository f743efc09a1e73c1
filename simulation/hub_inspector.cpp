#include "simulation/hub_inspector.h"

#include <algorithm>

namespace {

using Connections = std::set<const HublinkConnection*>;

std::string about(const char* what, std::int32_t number) {
  return "the hub's tables: " + std::string(what) + " " + std::to_string(number);
}

}  // namespace

std::string HublinkInspector::firstFault() {
  Connections alive;
  std::set<std::int32_t> ids;
  std::int32_t persistent = 0;
  for (const auto* list : {&hub_.activeConnections, &hub_.negotiatingConnections})
    for (const auto& connection : *list) {
      alive.insert(connection.get());
      ids.insert(connection->getPluginID());
      persistent += connection->isPersistent() ? 1 : 0;
      if (!hub_.transports.contains(connection->getTransport()))
        return about("no transport in the set for plugin", connection->getPluginID());
    }
  if (persistent != hub_.numPersistent) return about("numPersistent is", hub_.numPersistent);
  if (hub_.activeByPluginID.size() != hub_.activeConnections.size())
    return about("plugins by ID:", static_cast<std::int32_t>(hub_.activeByPluginID.size()));
  for (const auto& [id, connection] : hub_.activeByPluginID)
    if (!alive.contains(connection)) return about("an ID of somebody who has gone:", id);

  for (const std::size_t index : hub_.connectionsByRN.live_) {
    const auto& slot = hub_.connectionsByRN.slots_[index];
    if (slot.whole && !alive.contains(slot.whole))
      return about("a block owned by somebody who has gone, page",
                   static_cast<std::int32_t>(index));
    if (!slot.page) continue;
    for (const HublinkConnection* owner : slot.page->owners)
      if (owner && !alive.contains(owner))
        return about("an RN owned by somebody who has gone, page",
                     static_cast<std::int32_t>(index));
  }
  for (const auto& [rn, name] : hub_.servicesByName.byRN_)
    if (!hub_.connectionsByRN.owner(rn)) return about("a service that nobody owns, RN", rn);

  std::set<std::int32_t> setAside;
  for (const auto& [cookie, start] : hub_.clientStarts) {
    if (!alive.contains(start.requester)) return about("a start by nobody, cookie", cookie);
    if (start.pluginID != 0) setAside.insert(start.pluginID);
  }
  for (const auto& [id, service] : hub_.comingProviders)
    if (!ids.contains(id)) return about("a service awaited from somebody who has gone, plugin", id);
  std::set<Awaited> stillAwaited;
  for (const PendingRequest& request : hub_.pendingRequests) {
    if (!alive.contains(request.requester))
      return about("a request by somebody who has gone, cookie", request.clientCookie);
    // One may name a plugin that never was there; but whoever waited for somebody has been told of
    // his end.
    const Awaited awaited{request.requester->getPluginID(), request.clientCookie, request.pluginID};
    if (ids.contains(request.pluginID) || setAside.contains(request.pluginID))
      stillAwaited.insert(awaited);
    else if (request.pluginID != -1 && awaited_.contains(awaited))
      return about("a request waits for somebody who has gone, plugin", request.pluginID);
  }
  awaited_ = std::move(stillAwaited);
  for (const auto& [provider, accept] : hub_.pendingAccepts) {
    if (!alive.contains(provider) || !alive.contains(accept.requester))
      return about("an open accept of somebody who has gone, RN", accept.localRN);
    if (hub_.connectionsByRN.owner(accept.localRN) != accept.requester)
      return about("an open accept without its RN", accept.localRN);
  }
  for (const auto& [id, waiter] : hub_.launchWaiters)
    if (!alive.contains(waiter.requester) || !ids.contains(id))
      return about("a launch waiter of somebody who has gone, plugin", id);

  for (const HublinkConnection* connection : alive) {
    const std::int32_t id = connection->getPluginID();
    if (connection->usage().waiting.count != waitingRequests(id) + waitingStarts(id))
      return about("a wrong count of what a plugin waits for, plugin", id);
    for (const PeerLink& link : connection->peerLinks) {
      const HublinkConnection* peer = hub_.connectionForPluginID(link.peerPluginID);
      if (!peer) return about("a link to somebody who has gone, RN", link.localRN);
      const bool mirrored =
          std::any_of(peer->peerLinks.begin(), peer->peerLinks.end(), [&](const PeerLink& other) {
            return other.localRN == link.remoteRN && other.remoteRN == link.localRN;
          });
      if (!mirrored) return about("a link that its other side lacks, RN", link.localRN);
    }
  }
  return {};
}

int HublinkInspector::waitingRequests(std::int32_t pluginID) const {
  std::ptrdiff_t count = std::count_if(hub_.pendingRequests.begin(), hub_.pendingRequests.end(),
                                       [pluginID](const PendingRequest& request) {
                                         return request.requester->getPluginID() == pluginID;
                                       });
  for (const auto& [provider, accept] : hub_.pendingAccepts)
    if (accept.requester->getPluginID() == pluginID) ++count;
  return static_cast<int>(count);
}

int HublinkInspector::waitingStarts(std::int32_t pluginID) const {
  int count = 0;
  for (const auto& [id, waiter] : hub_.launchWaiters)
    if (waiter.requester->getPluginID() == pluginID) ++count;
  for (const auto& [cookie, start] : hub_.clientStarts)
    if (start.pluginID == 0 && start.requester->getPluginID() == pluginID) ++count;
  return count;
}

std::size_t HublinkInspector::connections() const {
  return hub_.activeConnections.size() + hub_.negotiatingConnections.size();
}

bool HublinkInspector::isEmpty() const {
  return hub_.connectionsByRN.pages() == 0 && hub_.servicesByName.size() == 0 &&
         hub_.pendingRequests.empty() && hub_.pendingAccepts.empty() &&
         hub_.launchWaiters.empty() && hub_.clientStarts.empty() && hub_.comingProviders.empty() &&
         hub_.numPersistent == 0;
}

std::string HublinkInspector::describe() const {
  return std::to_string(connections()) + " connections, " +
         std::to_string(hub_.servicesByName.size()) + " services, " +
         std::to_string(hub_.pendingRequests.size()) + " requests, " +
         std::to_string(hub_.pendingAccepts.size()) + " accepts, " +
         std::to_string(hub_.launchWaiters.size() + hub_.clientStarts.size()) + " starts";
}
