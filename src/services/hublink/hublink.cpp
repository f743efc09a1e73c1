#include "services/hublink/hublink.h"

#include <algorithm>

#include "platform/clock.h"
#include "platform/process.h"

namespace {

// Milliseconds that what is queued has to leave at the hub's end.
constexpr int kFarewell = 500;

}  // namespace

Hublink::Hublink(const ServiceDatabase& database, std::uint32_t listenPort, STPFileLog* pluginLog,
                 std::FILE* internalFile)
    : port(listenPort), serviceDatabase(database), log(pluginLog) {
  if (internalFile) internalLog = std::make_unique<HLInternalFileLog>(this, internalFile, false);
}

Hublink::~Hublink() {
  logInternal("Shutting down Hublink.\n");
  activeConnections.clear();
  negotiatingConnections.clear();
  for (STPTransport* transport : transports) transport->release();
}

bool Hublink::connectToPeer(const char* host, std::uint32_t peerPort) {
  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  transport->connect(host, static_cast<std::uint16_t>(peerPort), &status);
  if (!status.good() || !mayConnectTo(*transport, peerPort)) return false;
  addConnection(transport, 0, nullptr, nullptr)->refuseHub();
  return true;
}

bool Hublink::openListener(bool loopbackOnly) {
  STPStatus status;
  if (!entrance.open(static_cast<std::uint16_t>(port), &status, loopbackOnly, !tcpOnly))
    return false;
  port = entrance.port();
  if (!tcpOnly && entrance.local() == 0)
    logInternal("Local socket of port %u can't be had: plugins connect by TCP.\n", port);
  freshListener();
  return listener != nullptr;
}

// A new transport for the next client.
void Hublink::freshListener() {
  listener = nullptr;
  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  transport->startListenOn(entrance, &status);
  if (!status.good()) return;
  listener = transport.get();
  transport->addRef();
  transports.insert(listener);
}

bool Hublink::startListening(bool notShared, const char* zone, bool loopbackOnly) {
  if (!openListener(loopbackOnly)) return false;
  if (!notShared) activeRecord = std::make_unique<ActiveHubRecord>(port, zone, nullptr, nullptr);
  return true;
}

void Hublink::servicePass(int timeout, STPStatus* status) {
  acceptNewConnections();
  stepNegotiation();
  serviceFirst(timeout, transports, status);
  // A plugin that goes is no failure of the hub's.
  if (status && status->code == STP_PEER_CLOSED) status->clear();
  reap();
  platform::collectChildren();
}

bool Hublink::removeActiveRecord() {
  if (!activeRecord || !activeRecord->lock()) return false;
  const bool removed = activeRecord->remove();
  activeRecord->unlock();
  if (removed) logInternal("Removed active hublink file.\n");
  return true;
}

void Hublink::shutdownPlugins(bool report, int wait) {
  STPTransport::takeLeave(transports, kFarewell);
  for (const Connections* connections : {&activeConnections, &negotiatingConnections})
    for (const auto& connection : *connections) disconnectPlugin(connection.get());
  for (const Connections* connections : {&activeConnections, &negotiatingConnections})
    for (const auto& connection : *connections)
      if (connection->getProcess() != 0)
        awaitChild(connection->getProcess(), connection->getName(), report, wait);
  for (const auto& [child, name] : unconnectedChildren) awaitChild(child, name, report, wait);
}

void Hublink::awaitChild(platform::ProcessId child, const std::string& name, bool report,
                         int wait) {
  std::size_t ended = 0;
  const platform::WaitOutcome outcome = platform::waitForChildren(&child, 1, true, wait, ended);
  if (!report || outcome == platform::WaitOutcome::ended) return;
  if (outcome == platform::WaitOutcome::timedOut)
    std::fprintf(stderr, "hublink: (%s, pid=%d) took more than %d msecs to shut down", name.c_str(),
                 child, wait);
  else
    std::fprintf(stderr, "unexpected GetSingleObject(pid) ret=%d", -1);
}

void Hublink::logInternal(const char* format, ...) {
  if (!internalLog) return;
  std::va_list arguments;
  va_start(arguments, format);
  internalLog->writeOwnLine(format, arguments);
  va_end(arguments);
}

STPTransport* Hublink::forwardTarget(std::int32_t destinationRN) {
  const HublinkConnection* owner = connectionForRN(destinationRN);
  return owner ? owner->getTransport() : nullptr;
}

void Hublink::congestionChanged(STPTransport* target, bool isCongested) {
  const auto place = std::find_if(
      activeConnections.begin(), activeConnections.end(),
      [target](const auto& connection) { return connection->getTransport() == target; });
  if (place == activeConnections.end()) return;
  logInternal(isCongested ? "Plugin ID %d doesn't read: those who send to it wait.\n"
                          : "Plugin ID %d no longer holds others up.\n",
              (*place)->getPluginID());
}
