#include "services/hublink/status/hub_reader.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/host.h"
#include "platform/process.h"
#include "service_database/service_database.h"
#include "services/hublink/hublink.h"

namespace {

using Connections = std::vector<const HublinkConnection*>;

// All connections, in the order of their plugin IDs.
Connections connectionsOf(Hublink& hub) {
  Connections all;
  for (const auto* list : {&hub.plugins().active(), &hub.plugins().negotiating()})
    for (const auto& connection : *list) all.push_back(connection.get());
  std::sort(all.begin(), all.end(),
            [](const auto* a, const auto* b) { return a->getPluginID() < b->getPluginID(); });
  return all;
}

// A number at the front of a key, behind which the key goes on; 0 for none.
std::int32_t takeNumber(std::string_view& key) {
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), number);
  key.remove_prefix(static_cast<std::size_t>(end - key.data()));
  if (!key.empty() && key.front() == ' ') key.remove_prefix(1);
  return number;
}

// A time of the steady clock as one of the wall clock.
std::int64_t wallTimeOf(std::uint64_t steady) {
  if (steady == 0) return 0;
  return platform::unixMilliseconds() + static_cast<std::int64_t>(steady) -
         static_cast<std::int64_t>(platform::monotonicMilliseconds());
}

// Who isn't read for whose sake, by the serial numbers of their transports.
struct Stalls {
  explicit Stalls(const Connections& connections) {
    for (const HublinkConnection* connection : connections) {
      pluginIDs[connection->getTransport()->serial()] = connection->getPluginID();
      if (const std::uintptr_t awaited = connection->getTransport()->waitsFor()) ++counts[awaited];
    }
  }
  template <class Map>
  static std::int32_t in(const Map& map, std::uintptr_t serial) {
    const auto place = map.find(serial);
    return place == map.end() ? 0 : place->second;
  }
  std::unordered_map<std::uintptr_t, std::int32_t> pluginIDs, counts;
};

// Whether the page has room for one more; if not, `next` is the key to go on with.
class Page {
 public:
  explicit Page(int most) : left_(most) {}
  bool take(const std::string& key) {
    if (left_-- > 0) {
      last_ = key;
      return true;
    }
    next_ = last_;
    return false;
  }
  const std::string& next() const { return next_; }

 private:
  int left_;
  std::string last_, next_;
};

// How many wait for each service.
std::map<std::string, std::int32_t> waitingByService(const Broker& broker) {
  std::map<std::string, std::int32_t> counts;
  for (const Waiting& entry : broker.waiting().entries())
    if (const std::string* name = serviceIn(entry.wish)) ++counts[*name];
  for (const auto& [cookie, asked] : broker.abroad().questions())
    ++counts[*serviceIn(asked.question.wish)];
  return counts;
}

}  // namespace

HubFacts HubReader::hub() const {
  HubFacts facts;
  const ConnectedPlugins& plugins = hub_.plugins();
  facts.program = platform::executablePath();
  facts.options = hub_.options();
  if (const ActiveHubRecord* record = hub_.activeRecord())
    facts.record = record->file() ? record->file() : "";
  facts.internalLog = hub_.log().internalFile();
  facts.port = static_cast<std::int32_t>(hub_.entrance().port());
  facts.since = hub_.since();
  facts.pluginLog = hub_.log().plugins() != nullptr;
  facts.stopsWhenIdle = hub_.stopsWhenIdle();
  const platform::DescriptorUse descriptors = platform::descriptorUse();
  facts.descriptors = {descriptors.open, descriptors.most};
  const PluginIDs& ids = hub_.plugins().ids();
  facts.pluginIDs = {ids.used(), ids.limit()};
  const Broker& broker = hub_.broker();
  facts.rns = {broker.rns().handedOut(), RNTable::kLast};
  facts.plugins = static_cast<std::int32_t>(plugins.active().size());
  facts.negotiating = static_cast<std::int32_t>(plugins.negotiating().size());
  facts.persistent = plugins.numPersistent();
  facts.services = static_cast<std::int32_t>(broker.services().size());
  for (const HublinkConnection* connection : connectionsOf(hub_))
    for (const PeerLink& link : connection->links()) facts.links += link.since != 0 ? 1 : 0;
  facts.launches = static_cast<std::int32_t>(hub_.launcher().inHand());
  facts.waiting = static_cast<std::int32_t>(broker.waiting().entries().size() +
                                            broker.abroad().questions().size());
  facts.packets = broker.rns().relayed().packets;
  facts.bytes = broker.rns().relayed().bytes;
  return facts;
}

PluginFacts HubReader::factsOf(const HublinkConnection& connection) const {
  PluginFacts facts;
  STPTransport& transport = *connection.getTransport();
  const RNTable& rns = hub_.broker().rns();
  facts.pluginID = connection.getPluginID();
  facts.wasLaunched = connection.getProcess() != 0;
  const platform::PeerUser peer = platform::userOfClient(transport.fileDescriptor());
  using Kind = platform::PeerUser::Kind;
  facts.road = peer.byName ? "local" : peer.kind == Kind::elsewhere ? "remote" : "tcp";
  if (peer.kind == Kind::known) facts.user = static_cast<std::int32_t>(peer.user);
  if (peer.process != 0) facts.process = peer.process;
  if (facts.wasLaunched) facts.process = connection.getProcess();
  facts.program = connection.getProgram(facts.process);
  if (const StandIn* standIn = connection.standsFor()) {
    facts.machine = standIn->machine;
    facts.remoteID = standIn->remoteID;
  }
  if (const char* address = transport.peerName()) facts.address = address;
  facts.since = connection.getSince();
  facts.isNegotiated = hub_.plugins().find(facts.pluginID) == &connection;
  facts.isPersistent = connection.isPersistent();
  if (const char* directory = connection.getWorkingDir()) facts.workingDir = directory;
  if (const char* version = connection.getPeerVstamp()) facts.version = version;
  facts.services = static_cast<std::int32_t>(connection.usage().services.count);
  facts.links = static_cast<std::int32_t>(connection.links().size());
  facts.waiting = static_cast<std::int32_t>(connection.usage().waiting.count);
  facts.queuedBytes = static_cast<std::uint64_t>(transport.writeCount());
  facts.slowSince = wallTimeOf(transport.slowSince());
  std::set<std::int32_t> ends;
  for (const PeerLink& link : connection.links()) ends.insert(link.localRN);
  for (const std::int32_t rn : ends) {
    const RNTable::TrafficOfRN traffic = rns.traffic(rn);
    facts.sentPackets += traffic.sent.packets;
    facts.sentBytes += traffic.sent.bytes;
    facts.receivedPackets += traffic.received.packets;
    facts.receivedBytes += traffic.received.bytes;
  }
  return facts;
}

std::string HubReader::plugins(const std::string& after, int most,
                               const Visit<PluginFacts>& visit) const {
  std::string_view key(after);
  const std::int32_t last = takeNumber(key);
  Page page(most);
  const Connections connections = connectionsOf(hub_);
  const Stalls stalls(connections);
  for (const HublinkConnection* connection : connections) {
    if (connection->getPluginID() <= last) continue;
    if (!page.take(std::to_string(connection->getPluginID()))) break;
    PluginFacts facts = factsOf(*connection);
    const STPTransport& transport = *connection->getTransport();
    facts.waitsFor = Stalls::in(stalls.pluginIDs, transport.waitsFor());
    facts.stalled = Stalls::in(stalls.counts, transport.serial());
    visit(facts);
  }
  return page.next();
}

// The key is the state's number, an RN, and the name.
std::string HubReader::services(const std::string& after, int most,
                                const Visit<ServiceFacts>& visit) const {
  const Broker& broker = hub_.broker();
  std::string_view key(after);
  const std::int32_t state = takeNumber(key), lastRN = takeNumber(key);
  const std::string lastName(key);
  const auto keyOf = [](int number, std::int32_t rn, const std::string& name) {
    return std::to_string(number) + " " + std::to_string(rn) + " " + name;
  };
  const auto waiting = waitingByService(broker);
  const auto describe = [&](ServiceFacts& facts) {
    const auto count = waiting.find(facts.name);
    if (count != waiting.end()) facts.waiting = count->second;
    if (const PluginRecord* record = broker.database().find_plugin(facts.name.c_str())) {
      facts.program = record->executable_name();
      facts.file = record->file();
      facts.line = record->line();
    }
  };
  Page page(most);
  bool hasRoom = true;
  if (state <= 1)
    broker.services().forEachFrom(lastName, [&](const std::string& name, std::int32_t rn) {
      if (name == lastName && rn <= lastRN && state == 1) return true;
      hasRoom = page.take(keyOf(1, rn, name));
      if (!hasRoom) return false;
      ServiceFacts facts(name, "registered");
      facts.serviceRN = rn;
      if (const HublinkConnection* owner = broker.connectionForRN(rn))
        facts.pluginID = owner->getPluginID();
      describe(facts);
      visit(facts);
      return true;
    });
  const auto isOpen = [&](const std::string& name) {
    return broker.services().find(name, [](std::int32_t) { return true; }) == -1;
  };
  if (state <= 2)
    for (auto place = state == 2 ? waiting.upper_bound(lastName) : waiting.begin();
         hasRoom && place != waiting.end(); ++place) {
      const std::string& name = place->first;
      if (!isOpen(name)) continue;
      hasRoom = page.take(keyOf(2, 0, name));
      if (!hasRoom) break;
      ServiceFacts facts(name, "awaited");
      describe(facts);
      visit(facts);
    }
  const auto& startable = broker.database().providers();
  for (auto place = state == 3 ? startable.upper_bound(lastName) : startable.begin();
       hasRoom && place != startable.end(); ++place) {
    const std::string& name = place->first;
    if (waiting.contains(name) || !isOpen(name)) continue;
    hasRoom = page.take(keyOf(3, 0, name));
    if (!hasRoom) break;
    ServiceFacts facts(name, "startable");
    describe(facts);
    visit(facts);
  }
  return page.next();
}

// The key is the requester's plugin ID and its RN.
std::string HubReader::links(const std::string& after, int most,
                             const Visit<LinkFacts>& visit) const {
  std::string_view key(after);
  const std::int32_t lastID = takeNumber(key), lastRN = takeNumber(key);
  const RNTable& rns = hub_.broker().rns();
  Page page(most);
  for (const HublinkConnection* connection : connectionsOf(hub_)) {
    const std::int32_t id = connection->getPluginID();
    if (id < lastID) continue;
    std::map<std::int32_t, const PeerLink*> links;
    for (const PeerLink& link : connection->links())
      if (link.since != 0) links[link.localRN] = &link;
    for (const auto& [rn, link] : links) {
      if (id == lastID && rn <= lastRN) continue;
      if (!page.take(std::to_string(id) + " " + std::to_string(rn))) return page.next();
      const RNTable::TrafficOfRN traffic = rns.traffic(rn);
      visit({link->serviceName, id, rn, link->peerPluginID, link->remoteRN, link->since,
             traffic.sent.packets, traffic.sent.bytes, traffic.received.packets,
             traffic.received.bytes});
    }
  }
  return page.next();
}

// The key is the arrival, since launches stand in the order of their starts.
std::string HubReader::launches(const std::string& after, int most,
                                const Visit<LaunchFacts>& visit) const {
  std::string_view key(after);
  const ArrivalID last = takeNumber(key);
  Page page(most);
  const WaitingTable& waiting = hub_.broker().waiting();
  for (const Launcher::InHand& launch : hub_.launcher().launches()) {
    if (launch.arrival <= last) continue;
    if (!page.take(std::to_string(launch.arrival))) break;
    LaunchFacts facts;
    facts.program = launch.program;
    facts.service = waiting.serviceOf(launch.arrival);
    if (launch.process != 0) facts.process = launch.process;
    facts.since = wallTimeOf(launch.since);
    facts.until = wallTimeOf(launch.deadline);
    facts.waiting = waiting.countOn(launch.arrival);
    visit(facts);
  }
  return page.next();
}
