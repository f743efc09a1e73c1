// The two questions that a plugin asks of a service: for a connection to it, and for who provides
// it.
#include <cstring>

#include "services/hublink/hublink.h"

namespace {

std::int64_t bytesOf(const char* serviceName, const char* workingDir) {
  const std::size_t bytes = std::strlen(serviceName) + (workingDir ? std::strlen(workingDir) : 0);
  return static_cast<std::int64_t>(bytes);
}

}  // namespace

void Hublink::sendFailureReply(HublinkConnection* requester, const char* serviceName,
                               std::int32_t clientCookie) {
  requester->ConnectionReplyEvent(serviceName, -1, false, false, false, 0, -1, nullptr,
                                  clientCookie);
}

void Hublink::addPendingRequest(HublinkConnection* requester, const ServiceRequest& request,
                                std::int32_t pluginID) {
  TextPairs pairs(request.pairs);
  const std::int64_t bytes = bytesOf(request.serviceName, request.workingDir) + pairs.bytes();
  pendingRequests.push_back({requester, request.serviceName, pluginID, std::move(pairs), false, -1,
                             optionalText(request.workingDir), request.clientCookie,
                             requester->shareOf(&PluginUsage::waiting, bytes)});
}

void Hublink::addPendingQuery(HublinkConnection* requester, std::int32_t cookie,
                              const char* serviceName, const char* workingDir) {
  pendingRequests.push_back(
      {requester, serviceName, -1, TextPairs(), true, cookie, optionalText(workingDir), -1,
       requester->shareOf(&PluginUsage::waiting, bytesOf(serviceName, workingDir))});
}

void Hublink::requestServiceConnection(HublinkConnection* requester,
                                       const ServiceRequest& request) {
  const char* name = request.serviceName;
  const bool reuse = !request.noReuse && !request.clientStart;
  if (!name || !canWait(requester)) {
    sendFailureReply(requester, name, request.clientCookie);
    return;
  }
  if (reuse) {
    const std::int32_t serviceRN = findServiceRN(requester, name, request.providingPluginID,
                                                 request.workingDir, request.localOnly);
    if (serviceRN != -1) {
      if (HublinkConnection* provider = connectionForRN(serviceRN)) {
        askProvider(requester, provider, name, serviceRN, TextPairs(request.pairs),
                    request.clientCookie);
      } else {
        logInternal("Warning: Service connection is missing for serviceRN: %d.\n", serviceRN);
        sendFailureReply(requester, name, request.clientCookie);
      }
      return;
    }
    if (isServicePending(name, request.workingDir) ||
        (request.providingPluginID != -1 && connectionForPluginID(request.providingPluginID))) {
      addPendingRequest(requester, request, request.providingPluginID);
      return;
    }
  }
  if (request.providingPluginID != -1) {
    logInternal("Plugin id %d for service %s no longer exists.\n", request.providingPluginID, name);
    sendFailureReply(requester, name, request.clientCookie);
    return;
  }
  // A plugin that would start on this machine is no local provider to a requester elsewhere.
  if (request.localOnly && !isOnHubHost(requester)) {
    logInternal(
        "Local connection requested for service with no plugin, but requestor is on different "
        "host.\n");
    sendFailureReply(requester, name, request.clientCookie);
    return;
  }
  startProviderForConnection(requester, request);
}

void Hublink::requestPluginIdForService(HublinkConnection* requester, std::int32_t cookie,
                                        const char* serviceName, const char* workingDir,
                                        bool startupIfNotRunning) {
  const std::int32_t serviceRN = findServiceRN(requester, serviceName, -1, workingDir, false);
  if (serviceRN != -1) {
    const HublinkConnection* owner = connectionForRN(serviceRN);
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, owner ? owner->getPluginID() : -1,
                                            owner != nullptr);
  } else if (!startupIfNotRunning || !serviceName || !canWait(requester)) {
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, false);
  } else if (isServicePending(serviceName, workingDir)) {
    addPendingQuery(requester, cookie, serviceName, workingDir);
  } else {
    startProviderForQuery(requester, cookie, serviceName, workingDir);
  }
}
