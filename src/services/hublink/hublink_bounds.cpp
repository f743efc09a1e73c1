// Whether a plugin may take more of what the hub keeps, asked before anything is done for it.
#include <cstring>

#include "services/hublink/hublink.h"
#include "services/hublink/plugin_bounds.h"

bool Hublink::canReserve(const HublinkConnection* owner, std::int32_t count) {
  if (count < 0 || count > kLargestRNBlock) return false;
  if (connectionsByRN.count(owner) + count <= kMostRNs) return true;
  logInternal("Warning: Plugin ID %d has too many RNs: it gets no more.\n", owner->getPluginID());
  return false;
}

bool Hublink::canRegister(const HublinkConnection* provider, std::int32_t count) {
  const Usage& services = provider->usage().services;
  if (services.count + count <= kMostServices && services.bytes < kMostServiceBytes)
    return canReserve(provider, count);
  logInternal("Warning: Plugin ID %d has too many services: no more are registered.\n",
              provider->getPluginID());
  return false;
}

bool Hublink::canWait(const HublinkConnection* requester) {
  const PluginUsage& usage = requester->usage();
  if (usage.waiting.count < kMostWaiting && usage.waiting.bytes < kMostWaitingBytes &&
      usage.connections.count < kMostConnections)
    return canReserve(requester, 1);
  logInternal("Warning: Plugin ID %d has too many requests or connections: it gets no more.\n",
              requester->getPluginID());
  return false;
}

bool Hublink::isTextTaken(const HublinkConnection* sender, const char* text) {
  if (!text || std::strlen(text) <= kLongestText) return true;
  logInternal("Warning: Ignored a text of plugin ID %d that is too long.\n", sender->getPluginID());
  return false;
}
