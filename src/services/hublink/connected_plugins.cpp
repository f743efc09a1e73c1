#include "services/hublink/connected_plugins.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/process.h"
#include "services/hublink/broker.h"
#include "services/hublink/hub_events.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/hublink.h"

HublinkConnection* ConnectedPlugins::add(const CountedPtr<STPTransport>& transport,
                                         std::int32_t process, const char* name,
                                         const char* workingDir) {
  if (transports_.insert(transport.get()).second) transport->addRef();
  auto connection = makeCounted<HublinkConnection>(transport.get(), &hub_, ids_.next(), process,
                                                   name, workingDir, log_.internal());
  connection->sendNegotiate();
  setPersistent(connection.get(), true);
  negotiating_.push_back(connection);
  return connection.get();
}

HublinkConnection* ConnectedPlugins::find(std::int32_t pluginID) const {
  const auto place = activeByID_.find(pluginID);
  return place == activeByID_.end() ? nullptr : place->second;
}

HublinkConnection* ConnectedPlugins::ownerOf(const STPTransport* transport) const {
  const auto place = std::find_if(active_.begin(), active_.end(), [transport](const auto& one) {
    return one->getTransport() == transport;
  });
  return place == active_.end() ? nullptr : place->get();
}

void ConnectedPlugins::setPersistent(HublinkConnection* connection, bool persistent) {
  if (connection->isPersistent() == persistent) return;
  numPersistent_ += persistent ? 1 : -1;
  connection->setPersistent(persistent);
}

void ConnectedPlugins::stepNegotiation() {
  if (!std::exchange(someHaveNegotiated_, false)) return;
  for (auto place = negotiating_.begin(); place != negotiating_.end();) {
    const auto connection = place++;
    if (!(*connection)->isNegotiated()) continue;
    active_.splice(active_.end(), negotiating_, connection);
    becomeActive(active_.back().get());
  }
}

void ConnectedPlugins::becomeActive(HublinkConnection* connection) {
  const std::int32_t pluginID = connection->getPluginID();
  activeByID_[pluginID] = connection;
  if (log_.plugins()) connection->StartLogging();
  connection->PluginId(pluginID);
  events_.tell("plugin came", pluginID, 0, connection->getName());
  broker_.negotiated(pluginID);
}

bool ConnectedPlugins::kick(std::int32_t pluginID) {
  for (const List* list : {&active_, &negotiating_})
    for (const auto& connection : *list)
      if (connection->getPluginID() == pluginID && !connection->isDead()) {
        log_.logInternal("Plugin ID %d is disconnected by request.\n", pluginID);
        connection->getTransport()->disconnect();
        return true;
      }
  return false;
}

void ConnectedPlugins::reap() {
  reapDead(active_, "");
  reapDead(negotiating_, " in negotiation stage 2");
}

void ConnectedPlugins::reapDead(List& connections, const char* stage) {
  for (auto place = connections.begin(); place != connections.end();) {
    HublinkConnection* connection = place->get();
    if (!connection->isDead()) {
      ++place;
      continue;
    }
    log_.logInternal("Connection to plugin ID %d down%s.\n", connection->getPluginID(), stage);
    events_.tell("plugin gone", connection->getPluginID(), 0, connection->getName());
    takeDown(connection);
    // Without a message of its own nobody else has heard of it.
    if (!connection->isNegotiated() && !connection->hasSpoken())
      ids_.giveBack(connection->getPluginID());
    place = connections.erase(place);
  }
}

// Takes a dead connection out of every table and tells those who were connected with it.
void ConnectedPlugins::takeDown(HublinkConnection* connection) {
  connection->setTransport(nullptr);
  broker_.purgeConnection(connection);
  broker_.dropPeerLinks(connection);
  activeByID_.erase(connection->getPluginID());
  if (connection->getProcess() != 0) platform::releaseChild(connection->getProcess());
}

bool ConnectedPlugins::sameHost(HublinkConnection* requester, HublinkConnection* provider) {
  const char* a = requester->getTransport()->peerName();
  const char* b = provider->getTransport()->peerName();
  return a && b && std::strcmp(a, b) == 0;
}

bool ConnectedPlugins::isOnHubHost(HublinkConnection* connection) {
  const char* peer = connection->getTransport()->peerName();
  if (!peer) {
    log_.logInternal("Warning: Unable to determine remote host address for plugin id %d.\n",
                     connection->getPluginID());
    return false;
  }
  if (std::strcmp(peer, "127.0.0.1") == 0) return true;
  const char* local = connection->getTransport()->localName();
  return local && std::strcmp(peer, local) == 0;
}

void ConnectedPlugins::clear() {
  active_.clear();
  negotiating_.clear();
}
