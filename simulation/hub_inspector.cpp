#include "simulation/hub_inspector.h"

#include <algorithm>

namespace {

std::string about(const char* what, std::int32_t number) {
  return "the hub's tables: " + std::string(what) + " " + std::to_string(number);
}

std::int32_t cookieOf(const Wish& wish) {
  if (const auto* service = std::get_if<ServiceWish>(&wish)) return service->clientCookie;
  if (const auto* query = std::get_if<QueryWish>(&wish)) return query->cookie;
  return std::get<PluginWish>(wish).cookie;
}

}  // namespace

std::string HublinkInspector::firstFault() {
  for (const std::string& fault :
       {faultOfPlugins(), faultOfTables(), faultOfWaiting(), faultOfLinks()})
    if (!fault.empty()) return fault;
  return {};
}

std::string HublinkInspector::faultOfPlugins() {
  alive_.clear();
  ids_.clear();
  std::int32_t persistent = 0;
  for (const auto* list : {&plugins_.active_, &plugins_.negotiating_})
    for (const auto& connection : *list) {
      alive_.insert(connection.get());
      ids_.insert(connection->getPluginID());
      persistent += connection->isPersistent() ? 1 : 0;
      if (!hub_.transports_.contains(connection->getTransport()))
        return about("no transport in the set for plugin", connection->getPluginID());
    }
  if (persistent != plugins_.numPersistent_)
    return about("numPersistent is", plugins_.numPersistent_);
  if (plugins_.activeByID_.size() != plugins_.active_.size())
    return about("plugins by ID:", static_cast<std::int32_t>(plugins_.activeByID_.size()));
  for (const auto& [id, connection] : plugins_.activeByID_)
    if (!alive_.contains(connection)) return about("an ID of somebody who has gone:", id);
  // A launch that is over has left nothing behind.
  const auto started =
      std::count_if(hub_.launcher_.launches_.begin(), hub_.launcher_.launches_.end(),
                    [](const auto& launch) { return launch.isStarted; });
  const auto listening =
      std::count_if(hub_.transports_.begin(), hub_.transports_.end(),
                    [](const STPTransport* transport) { return transport->isListening(); });
  if (listening > started + 1)
    return about("more ports than launches:", static_cast<std::int32_t>(listening));
  return {};
}

std::string HublinkInspector::faultOfTables() const {
  for (const std::size_t index : broker_.rns_.live_) {
    const auto& slot = broker_.rns_.slots_[index];
    if (slot.whole && !alive_.contains(slot.whole))
      return about("a block owned by somebody who has gone, page",
                   static_cast<std::int32_t>(index));
    if (!slot.page) continue;
    for (const HublinkConnection* owner : slot.page->owners)
      if (owner && !alive_.contains(owner))
        return about("an RN owned by somebody who has gone, page",
                     static_cast<std::int32_t>(index));
  }
  for (const auto& [rn, name] : broker_.services_.byRN_)
    if (!broker_.rns_.owner(rn)) return about("a service that nobody owns, RN", rn);
  for (const auto& [provider, accept] : broker_.accepts_) {
    if (!alive_.contains(provider) || !alive_.contains(accept.requester))
      return about("an open accept of somebody who has gone, RN", accept.localRN);
    if (broker_.rns_.owner(accept.localRN) != accept.requester)
      return about("an open accept without its RN", accept.localRN);
  }
  return {};
}

std::string HublinkInspector::faultOfWaiting() {
  std::set<ArrivalID> arrivals;
  for (const auto& launch : hub_.launcher_.launches_) arrivals.insert(launch.order.arrival);
  for (const auto& attempt : hub_.connector_.attempts_) arrivals.insert(attempt.arrival);
  std::set<std::int32_t> starts, setAside;
  for (const Waiting& entry : broker_.waiting_.entries_)
    if (const auto* start = std::get_if<OnClientStart>(&entry.on))
      starts.insert(start->startCookie);
  for (const auto& expected : broker_.waiting_.expected_) {
    const auto* plugin = std::get_if<OnPlugin>(&expected.from);
    const auto* arrival = std::get_if<OnArrival>(&expected.from);
    const auto* start = std::get_if<OnClientStart>(&expected.from);
    if (plugin && !ids_.contains(plugin->pluginID))
      return about("a service awaited from somebody who has gone, plugin", plugin->pluginID);
    if (arrival && !arrivals.contains(arrival->arrival))
      return about("a service awaited from a launch that is over", arrival->arrival);
    if (start && !starts.contains(start->startCookie))
      return about("a start by nobody, cookie", start->startCookie);
    if (start) setAside.insert(expected.setAside);
  }
  std::set<AwaitedPlugin> stillAwaited;
  for (const Waiting& entry : broker_.waiting_.entries_) {
    const std::int32_t cookie = cookieOf(entry.wish);
    if (!alive_.contains(entry.requester))
      return about("a request by somebody who has gone, cookie", cookie);
    if (const auto* arrival = std::get_if<OnArrival>(&entry.on);
        arrival && !arrivals.contains(arrival->arrival))
      return about("a request waits for a launch that is over, cookie", cookie);
    // One may name a plugin that never was there; but whoever waited for somebody has been told of
    // his end.
    const auto* plugin = std::get_if<OnPlugin>(&entry.on);
    if (!plugin) continue;
    const AwaitedPlugin awaited{entry.requester->getPluginID(), cookie, plugin->pluginID};
    if (ids_.contains(plugin->pluginID) || setAside.contains(plugin->pluginID))
      stillAwaited.insert(awaited);
    else if (awaited_.contains(awaited) || std::holds_alternative<PluginWish>(entry.wish))
      return about("a request waits for somebody who has gone, plugin", plugin->pluginID);
  }
  awaited_ = std::move(stillAwaited);
  return {};
}

std::string HublinkInspector::faultOfLinks() const {
  for (const HublinkConnection* connection : alive_) {
    const std::int32_t id = connection->getPluginID();
    if (connection->usage().waiting.count != waitingRequests(id) + waitingStarts(id))
      return about("a wrong count of what a plugin waits for, plugin", id);
    for (const PeerLink& link : connection->peerLinks) {
      const HublinkConnection* peer = plugins_.find(link.peerPluginID);
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
  std::ptrdiff_t count =
      std::count_if(broker_.waiting_.entries_.begin(), broker_.waiting_.entries_.end(),
                    [pluginID](const Waiting& entry) {
                      return entry.requester->getPluginID() == pluginID &&
                             !std::holds_alternative<PluginWish>(entry.wish);
                    });
  for (const auto& [provider, accept] : broker_.accepts_)
    if (accept.requester->getPluginID() == pluginID) ++count;
  return static_cast<int>(count);
}

int HublinkInspector::waitingStarts(std::int32_t pluginID) const {
  return static_cast<int>(std::count_if(broker_.waiting_.entries_.begin(),
                                        broker_.waiting_.entries_.end(),
                                        [pluginID](const Waiting& entry) {
                                          return entry.requester->getPluginID() == pluginID &&
                                                 std::holds_alternative<PluginWish>(entry.wish);
                                        }));
}

std::size_t HublinkInspector::connections() const {
  return plugins_.active_.size() + plugins_.negotiating_.size();
}

std::size_t HublinkInspector::inHand() const {
  return hub_.launcher_.inHand() + hub_.connector_.inHand();
}

bool HublinkInspector::isEmpty() const {
  return broker_.rns_.pages() == 0 && broker_.services_.size() == 0 && broker_.waiting_.empty() &&
         broker_.accepts_.empty() && plugins_.numPersistent_ == 0 && inHand() == 0;
}

std::string HublinkInspector::describe() const {
  return std::to_string(connections()) + " connections, " +
         std::to_string(broker_.services_.size()) + " services, " +
         std::to_string(broker_.waiting_.entries_.size()) + " waiting, " +
         std::to_string(broker_.accepts_.size()) + " accepts, " + std::to_string(inHand()) +
         " launches and connects";
}
