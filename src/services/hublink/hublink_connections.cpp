// The connections to plugins: how they come, negotiate, are found, and are taken down.
#include <cstring>
#include <utility>

#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/process.h"
#include "services/hublink/hublink.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

// Clients that one pass takes at most.
constexpr int kMostAccepts = 256;
// Milliseconds after which an accept that failed is tried again.
constexpr std::uint64_t kAcceptRetry = 500;
// Lines about refused connections in each of these spans of milliseconds.
constexpr int kMostRefusalLines = 3;
constexpr std::uint64_t kRefusalSpan = 1000;

}  // namespace

bool Hublink::pluginIDsLeft() const {
  return nextPluginID < lastPluginID || !unlearnedPluginIDs.empty();
}

// Whoever needs an ID asks pluginIDsLeft() first.
std::int32_t Hublink::nextPlugin() {
  std::int32_t pluginID = 0;
  if (nextPluginID < lastPluginID) {
    pluginID = ++nextPluginID;
  } else {
    pluginID = unlearnedPluginIDs.front();
    unlearnedPluginIDs.pop_front();
  }
  GEN_ASSERT(nextPluginID > 0);
  GEN_ASSERT(nextPluginID < 65536);
  if (!pluginIDsLeft()) noteUsedUp();
  return pluginID;
}

// Told once: those who still come cost no more than a line in the log each.
void Hublink::noteUsedUp() {
  if (std::exchange(usedUp, true)) return;
  constexpr const char* kText = "All %d plugin IDs are used up: no further plugin is taken.\n";
  logInternal(kText, lastPluginID);
  std::fprintf(stderr, kText, lastPluginID);
}

// Makes the connection on a transport that is connected, sends its negotiate record and counts it.
HublinkConnection* Hublink::addConnection(const CountedPtr<STPTransport>& transport,
                                          std::int32_t process, const char* name,
                                          const char* workingDir) {
  if (transports.insert(transport.get()).second) transport->addRef();
  auto connection = makeCounted<HublinkConnection>(transport.get(), this, nextPlugin(), process,
                                                   name, workingDir, internalLog.get());
  connection->sendNegotiate();
  connection->setPersistent(true);
  ++numPersistent;
  negotiatingConnections.push_back(connection);
  return connection.get();
}

// Takes those who wait, oldest first, up to what one pass may spend on it.
void Hublink::acceptNewConnections() {
  for (int count = 0; count < kMostAccepts && acceptNewConnection(); ++count)
    if (listener) listener->handleRead();  // only a further try tells whether somebody else waits
}

// True if there was a client.
bool Hublink::acceptNewConnection() {
  if (!listener) {
    // Without a listener nobody could come any more: it is made anew as soon as it can be.
    acceptFailed();
    return false;
  }
  if (acceptBroken) {
    if (platform::monotonicMilliseconds() < acceptRetryAt) return false;
    listener->handleRead();  // nothing announces those who already wait
  }
  STPStatus status;
  const bool accepted = listener->tryAccept(false, &status);
  if (!status.good()) {
    acceptFailed();
    return false;
  }
  acceptBroken = false;
  if (!accepted) return false;
  CountedPtr<STPTransport> client(listener);
  freshListener();
  if (!mayConnect(*client)) {
    client->disconnect();
    return true;
  }
  logInternal("Accepted new connection.\n");
  if (pluginIDsLeft()) {
    addConnection(client, 0, nullptr, nullptr);
  } else {
    logInternal("Closed new connection: plugin IDs are used up.\n");
    client->disconnect();
  }
  return true;
}

// Whoever is connected can have programs started as this user: that is for nobody else on this
// machine. One whose user can't be told has mostly gone already, and may be anybody.
bool Hublink::mayConnect(const STPTransport& client) {
  return anyUser ||
         takesUser(platform::userOfClient(client.fileDescriptor()), "a connection to", port);
}

// Whom the hub connects to itself can have as much done.
bool Hublink::mayConnectTo(const STPTransport& server, std::uint32_t peerPort) {
  return anyUser ||
         takesUser(platform::userOfServer(server.fileDescriptor()), "to connect to", peerPort);
}

bool Hublink::takesUser(const platform::PeerUser& peer, const char* what, std::uint32_t atPort) {
  if (peer.kind == platform::PeerUser::Kind::elsewhere || peer.isOwn()) return true;
  // A stranger who comes again and again doesn't fill the log.
  const std::uint64_t now = platform::monotonicMilliseconds();
  if (now - refusalsSince >= kRefusalSpan) {
    refusalsSince = now;
    refusals = 0;
  }
  if (++refusals > kMostRefusalLines) return false;
  const std::string user =
      peer.kind == platform::PeerUser::Kind::known ? std::to_string(peer.user) : "unknown";
  logInternal("Refused %s port %u: user %s.\n", what, atPort, user.c_str());
  return false;
}

// The transport that waited is idle now and goes with the next reaping; the socket itself is sound.
void Hublink::acceptFailed() {
  if (!acceptBroken) logInternal("Unable to accept a new connection.\n");
  acceptBroken = true;
  acceptRetryAt = platform::monotonicMilliseconds() + kAcceptRetry;
  freshListener();
}

// Makes active those who have finished, the oldest first.
void Hublink::stepNegotiation() {
  if (!std::exchange(someHaveNegotiated, false)) return;
  for (auto place = negotiatingConnections.begin(); place != negotiatingConnections.end();) {
    if ((*place)->isNegotiated()) {
      const auto finished = place++;
      activeConnections.splice(activeConnections.end(), negotiatingConnections, finished);
      becomeActive(activeConnections.back().get());
    } else {
      ++place;
    }
  }
}

void Hublink::becomeActive(HublinkConnection* connection) {
  const std::int32_t pluginID = connection->getPluginID();
  activeByPluginID[pluginID] = connection;
  if (log) connection->StartLogging();
  connection->PluginId(pluginID);
  const auto waiter = launchWaiters.find(pluginID);
  if (waiter == launchWaiters.end()) return;
  waiter->second.requester->PluginConnectedEvent(waiter->second.cookie, pluginID, "");
  launchWaiters.erase(waiter);
}

// Without an end since the last time there is nobody to take down.
void Hublink::reap() {
  const std::uint64_t closings = stpProcess().closings;
  if (closings == reapedClosings) return;
  reapedClosings = closings;
  reapDeadConnections();
  reapDeadTransports();
}

void Hublink::reapDeadConnections() {
  reapDead(activeConnections, "");
  reapDead(negotiatingConnections, " in negotiation stage 2");
}

void Hublink::reapDead(Connections& connections, const char* stage) {
  for (auto place = connections.begin(); place != connections.end();) {
    HublinkConnection* connection = place->get();
    if (!connection->isDead()) {
      ++place;
      continue;
    }
    logInternal("Connection to plugin ID %d down%s.\n", connection->getPluginID(), stage);
    takeDown(connection);
    // Without a message of its own nobody else has heard of it.
    if (!connection->isNegotiated() && !connection->hasSpoken())
      unlearnedPluginIDs.push_back(connection->getPluginID());
    place = connections.erase(place);
  }
}

// Takes a dead connection out of every table and tells those who were connected with it.
void Hublink::takeDown(HublinkConnection* connection) {
  connection->setTransport(nullptr);
  purgeConnection(connection);
  for (const PeerLink& link : connection->takePeerLinks()) {
    HublinkConnection* peer = connectionForPluginID(link.peerPluginID);
    if (!peer || peer == connection) continue;
    peer->removePeerLink(link.remoteRN, link.localRN);
    peer->ConnectionDroppedEvent(link.remoteRN, link.localRN);
  }
  activeByPluginID.erase(connection->getPluginID());
  if (connection->getProcess() != 0) platform::releaseChild(connection->getProcess());
}

void Hublink::reapDeadTransports() {
  for (auto place = transports.begin(); place != transports.end();) {
    STPTransport* transport = *place;
    if (!transport->isClosed()) {
      ++place;
      continue;
    }
    place = transports.erase(place);
    transport->release();
  }
}

HublinkConnection* Hublink::connectionForPluginID(std::int32_t pluginID) const {
  const auto place = activeByPluginID.find(pluginID);
  return place == activeByPluginID.end() ? nullptr : place->second;
}

bool Hublink::sameHost(HublinkConnection* requester, HublinkConnection* provider) {
  const char* a = requester->getTransport()->peerName();
  const char* b = provider->getTransport()->peerName();
  return a && b && std::strcmp(a, b) == 0;
}

bool Hublink::isOnHubHost(HublinkConnection* connection) {
  const char* peer = connection->getTransport()->peerName();
  if (!peer) {
    logInternal("Warning: Unable to determine remote host address for plugin id %d.\n",
                connection->getPluginID());
    return false;
  }
  if (std::strcmp(peer, "127.0.0.1") == 0) return true;
  const char* local = connection->getTransport()->localName();
  return local && std::strcmp(peer, local) == 0;
}
