// Starting the provider of a service that nobody runs: as the service description files tell, by
// the hub or by the requester. The request then waits until the new plugin registers the service.
#include "services/hublink/hublink.h"

namespace {

std::vector<std::string> commandOf(const PluginRecord& record) {
  std::vector<std::string> argv{record.executable_name()};
  argv.insert(argv.end(), record.arguments().begin(), record.arguments().end());
  return argv;
}

}  // namespace

void Hublink::startProviderForConnection(HublinkConnection* requester,
                                         const ServiceRequest& request) {
  const char* name = request.serviceName;
  const PluginRecord* record = serviceDatabase.find_plugin(name);
  if (!record) {
    logInternal("Service %s requested, but it is not in the service database.\n", name);
    sendFailureReply(requester, name, request.clientCookie);
    return;
  }
  if (record->is_shared_object()) {
    requester->ConnectionReplyEvent(name, -1, true, true, false, -1, -1,
                                    record->executable_name().c_str(), request.clientCookie);
    return;
  }
  const std::vector<std::string> argv = commandOf(*record);
  std::int32_t pluginID = -1;
  if (request.clientStart) {
    const std::int32_t startCookie =
        pluginIDsLeft() ? clientStartPlugin(requester, argv, request.workingDir) : -1;
    if (startCookie != -1) {
      // Stands in for the ID that the plugin will get when it connects.
      pluginID = nextPlugin();
      clientStarts[startCookie] = {requester, request.clientCookie, pluginID};
    }
  } else {
    applyServiceEnvironment(record->environment());
    pluginID = launchPlugin(argv, request.workingDir);
  }
  if (pluginID == -1) {
    logInternal("Warning: Failed to launch plugin: %s to handle service %s.\n", argv[0].c_str(),
                name);
    sendFailureReply(requester, name, request.clientCookie);
  } else {
    addPendingRequest(requester, request, pluginID);
  }
}

void Hublink::startProviderForQuery(HublinkConnection* requester, std::int32_t cookie,
                                    const char* serviceName, const char* workingDir) {
  const PluginRecord* record = serviceDatabase.find_plugin(serviceName);
  if (!record) {
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, false);
    return;
  }
  applyServiceEnvironment(record->environment());
  const std::vector<std::string> argv = commandOf(*record);
  if (launchPlugin(argv, workingDir) == -1) {
    std::fprintf(stderr, "Unable to startup service: %s.\n", argv[0].c_str());
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, true);
  } else {
    addPendingQuery(requester, cookie, serviceName, workingDir);
  }
}
