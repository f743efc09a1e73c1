// Starting plugins. The hub can't do it yet: no service description files are read and no child is
// started, so that every road that leads here ends in the answer that its message has for a start
// that failed, and what only prepares a start is taken in silence.
#include "services/hublink/hublink.h"

void Hublink::startProviderForConnection(HublinkConnection* requester,
                                         const ServiceRequest& request) {
  logInternal("Service %s requested, but it is not in the service database.\n",
              request.serviceName);
  sendFailureReply(requester, request.serviceName, request.clientCookie);
}

void Hublink::startProviderForQuery(HublinkConnection* requester, std::int32_t cookie,
                                    const char* serviceName, const char*) {
  requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, false);
}

void Hublink::requestPluginLaunch(HublinkConnection* requester, const StringArray&,
                                  std::int32_t cookie, bool, const char*) {
  requester->PluginConnectedEvent(cookie, -1, "Failed to launch plugin");
}

void Hublink::startPluginEvent(HublinkConnection*, std::int32_t, bool, const char*) {}

void Hublink::debugPlugin(const char*, bool, const char*, const char*) {}

void Hublink::setEnvironmentVariable(const char*, const char*) {}

void Hublink::setPreferAda(bool) {}
