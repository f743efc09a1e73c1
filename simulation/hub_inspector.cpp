#include "simulation/hub_inspector.h"

#include <algorithm>
#include <iterator>

#include "platform/clock.h"

namespace {

std::string about(const char* what, std::int32_t number) {
  return "the hub's tables: " + std::string(what) + " " + std::to_string(number);
}

std::int32_t cookieOf(const Wish& wish) {
  if (const auto* service = std::get_if<ServiceWish>(&wish)) return service->clientCookie;
  if (const auto* query = std::get_if<QueryWish>(&wish)) return query->cookie;
  return std::get<PluginWish>(wish).cookie;
}

// Null for a wish that is for no service.
const std::string* serviceOf(const Wish& wish) {
  if (const auto* service = std::get_if<ServiceWish>(&wish)) return &service->name;
  if (const auto* query = std::get_if<QueryWish>(&wish)) return &query->name;
  return nullptr;
}

}  // namespace

std::string HublinkInspector::firstFault() {
  for (const std::string& fault : {faultOfPlugins(), faultOfLaunches(), faultOfTables(),
                                   faultOfWaiting(), faultOfProviders(), faultOfLinks()})
    if (!fault.empty()) return fault;
  return {};
}

std::string HublinkInspector::faultOfPlugins() {
  alive_.clear();
  ids_.clear();
  stalled_.clear();
  std::int32_t persistent = 0;
  for (const auto* list : {&plugins_.active_, &plugins_.negotiating_})
    for (const auto& connection : *list) {
      alive_.insert(connection.get());
      ids_.insert(connection->getPluginID());
      if (connection->getTransport()->isStalled()) stalled_.insert(connection->getPluginID());
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
  return {};
}

// A launch comes to its end, and leaves no port behind.
std::string HublinkInspector::faultOfLaunches() {
  constexpr std::uint64_t kSlack = 1000;  // ms
  const Launcher& launcher = hub_.launcher_;
  const std::uint64_t now = platform::monotonicMilliseconds();
  std::ptrdiff_t started = 0;
  std::set<ArrivalID> inHand;
  for (const auto& launch : launcher.launches_) {
    const std::int32_t limit = launch.order.timeout.value_or(launcher.timeout_);
    if (now > launch.since + static_cast<std::uint64_t>(limit) * 1000 + kSlack)
      return about("a launch past its time, s", limit);
    if (launch.isStarted) ++started;
    inHand.insert(launch.order.arrival);
  }
  for (const auto& attempt : hub_.connector_.attempts_) inHand.insert(attempt.arrival);
  const auto before = std::exchange(arrivals_, std::move(inHand));
  // Without a new plugin none of those that are over has arrived.
  failed_.clear();
  if (std::exchange(idsBefore_, idsGiven()) == idsGiven())
    std::set_difference(before.begin(), before.end(), arrivals_.begin(), arrivals_.end(),
                        std::inserter(failed_, failed_.end()));
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
    if (arrival && !arrivals_.contains(arrival->arrival))
      return about("a service awaited from a launch that is over", arrival->arrival);
    if (start && !starts.contains(start->startCookie))
      return about("a start by nobody, cookie", start->startCookie);
    if (start) setAside.insert(expected.setAside);
  }
  std::set<AwaitedPlugin> stillAwaited;
  std::map<Asked, ArrivalID> hoping, owners;
  for (const Waiting& entry : broker_.waiting_.entries_) {
    const std::int32_t cookie = cookieOf(entry.wish);
    if (!alive_.contains(entry.requester))
      return about("a request by somebody who has gone, cookie", cookie);
    const Asked asked{entry.requester->getPluginID(), cookie};
    if (const auto* arrival = std::get_if<OnArrival>(&entry.on)) {
      if (!arrivals_.contains(arrival->arrival))
        return about("a request waits for a launch that is over, cookie", cookie);
      hoping[asked] = arrival->arrival;
      if (arrival->isOwn && !std::holds_alternative<QueryWish>(entry.wish))
        owners[asked] = arrival->arrival;
    } else if (const auto before = hoping_.find(asked);
               before != hoping_.end() && failed_.contains(before->second)) {
      const std::string* service = serviceOf(entry.wish);
      if (!service || !broker_.waiting_.isExpected(*service))
        return about("nobody has been told of a failed launch who asked under cookie", cookie);
    }
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
  for (const auto& [asked, arrival] : owners_)
    if (arrivals_.contains(arrival) && ids_.contains(asked.first) && !owners.contains(asked))
      return about("an answer before the end of the launch, cookie", asked.second);
  hoping_ = std::move(hoping);
  owners_ = std::move(owners);
  return {};
}

// Nobody waits for a service that is there.
std::string HublinkInspector::faultOfProviders() const {
  for (const Waiting& entry : broker_.waiting_.entries_) {
    const auto* wish = std::get_if<ServiceWish>(&entry.wish);
    const auto* query = std::get_if<QueryWish>(&entry.wish);
    const auto* arrival = std::get_if<OnArrival>(&entry.on);
    const bool takesAny =
        (wish && !wish->workingDir && !wish->localOnly &&
         (std::holds_alternative<OnAnybody>(entry.on) || (arrival && !arrival->isOwn))) ||
        (query && !query->workingDir);
    if (takesAny && isProvided(*serviceOf(entry.wish)))
      return about("a request waits for a service that is there, cookie", cookieOf(entry.wish));
  }
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
  for (const auto& [cookie, asked] : broker_.abroad().questions())
    if (asked.question.requester->getPluginID() == pluginID) ++count;
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

bool HublinkInspector::isProvided(const std::string& service) const {
  return broker_.services_.find(service, [](std::int32_t) { return true; }) != -1;
}

std::vector<std::int32_t> HublinkInspector::ownLaunches(std::int32_t pluginID) const {
  std::vector<std::int32_t> cookies;
  for (const Waiting& entry : broker_.waiting_.entries_) {
    const std::string* service = serviceOf(entry.wish);
    const auto* arrival = std::get_if<OnArrival>(&entry.on);
    if (entry.requester->getPluginID() == pluginID && arrival && arrival->isOwn &&
        !(service && isProvided(*service)))
      cookies.push_back(cookieOf(entry.wish));
  }
  return cookies;
}

std::set<platform::ProcessId> HublinkInspector::children() const {
  std::set<platform::ProcessId> all;
  for (const auto& launch : hub_.launcher_.launches_) all.insert(launch.child.process());
  for (const HublinkConnection* connection : alive_) all.insert(connection->getProcess());
  all.erase(0);
  return all;
}

std::size_t HublinkInspector::inHand() const {
  return hub_.launcher_.inHand() + hub_.connector_.inHand();
}

bool HublinkInspector::isEmpty() const {
  return broker_.rns_.pages() == 0 && broker_.services_.size() == 0 && broker_.waiting_.empty() &&
         broker_.accepts_.empty() && broker_.abroad().questions().empty() &&
         plugins_.numPersistent_ == 0 && inHand() == 0;
}

std::string HublinkInspector::describe() const {
  return std::to_string(connections()) + " connections, " +
         std::to_string(broker_.services_.size()) + " services, " +
         std::to_string(broker_.waiting_.entries_.size()) + " waiting, " +
         std::to_string(broker_.accepts_.size()) + " accepts, " + std::to_string(inHand()) +
         " launches and connects";
}
