// The hub's small jobs: connecting to plugins that listen elsewhere, passing questions about named
// values, telling where the hub is, logging on a plugin's behalf, and disconnecting.
#include <algorithm>

#include "indgen/format.h"
#include "indgen/host.h"
#include "services/hublink/hublink.h"

void Hublink::requestPluginConnect(HublinkConnection* requester, const char* host,
                                   std::int32_t peerPort, std::int32_t cookie) {
  const gen_text failure =
      gen_asprintf("Hublink unable to connect to plugin on host %s and port %d.", host, peerPort);
  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  const auto port16 = static_cast<std::uint16_t>(peerPort);
  if (port16 == peerPort && pluginIDsLeft() && canWait(requester)) transport->connect(host, port16);
  if (transport->isConnected() && !mayConnectTo(*transport, port16)) transport->disconnect();
  if (!transport->isConnected()) {
    requester->PluginConnectedEvent(cookie, -1, failure);
    return;
  }
  HublinkConnection* connection = addConnection(transport, 0, nullptr, nullptr);
  connection->refuseHub();
  logInternal("Created plugin ID %d on host %s, port %d.\n", connection->getPluginID(), host,
              peerPort);
  launchWaiters[connection->getPluginID()] = {requester, cookie, failure.get(),
                                              requester->shareOf(&PluginUsage::waiting)};
}

void Hublink::requestValueOfName(HublinkConnection* asker, std::int32_t pluginID,
                                 const char* name) {
  if (HublinkConnection* target = connectionForPluginID(pluginID)) {
    target->ForwardedRequestValueOfNameOnPlugin(asker->getPluginID(), pluginID, name);
    asker->getTransport()->waitFor(*target->getTransport());
  } else {
    asker->ValueOfNameOnPluginEvent(pluginID, name, nullptr);
  }
}

void Hublink::answerValueOfName(HublinkConnection* sender, std::int32_t askerID,
                                std::int32_t pluginID, const char* name, const char* value) {
  HublinkConnection* asker = connectionForPluginID(askerID);
  if (!asker) return;
  asker->ValueOfNameOnPluginEvent(pluginID, name, value);
  sender->getTransport()->waitFor(*asker->getTransport());
}

void Hublink::sendLocation(HublinkConnection* asker) {
  asker->LocationEvent(gen_host_name(), static_cast<std::int32_t>(port));
  // Whoever asks may want to leave with its next message, which would drop what is still queued.
  STPTransport::flushMarked();
}

void Hublink::logMessage(const char* message) {
  if (log) log->write(message);
}

void Hublink::disconnectPlugin(HublinkConnection* connection) {
  if (pendingAccepts.contains(connection)) return;
  connection->getTransport()->disconnect();
  purgeConnection(connection);
}
