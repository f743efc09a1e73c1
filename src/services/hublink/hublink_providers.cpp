// Starting the provider of a service that nobody runs: as the service description files tell, by
// the hub or by the requester. The request then waits until the new plugin registers the service.
#include "services/hublink/hublink.h"

namespace {

constexpr const char* kNotDescribed =
    "Service %s requested, but it is not in the service database.\n";

std::vector<std::string> commandOf(const PluginRecord& record) {
  std::vector<std::string> argv{record.executable_name()};
  argv.insert(argv.end(), record.arguments().begin(), record.arguments().end());
  return argv;
}

}  // namespace

void Hublink::logFailedLaunch(const PluginRecord& record, const char* serviceName) {
  logInternal("Warning: Failed to launch plugin: %s to handle service %s.\n",
              record.executable_name().c_str(), serviceName);
}

// The plugin ID, or -1.
std::int32_t Hublink::launchProvider(const PluginRecord& record, const char* serviceName,
                                     const char* workingDir) {
  applyServiceEnvironment(record.environment());
  const std::int32_t pluginID = launchPlugin(commandOf(record), workingDir);
  if (pluginID != -1) comingProviders.emplace(pluginID, serviceName);
  return pluginID;
}

void Hublink::startProviderForConnection(HublinkConnection* requester,
                                         const ServiceRequest& request) {
  const char* name = request.serviceName;
  const PluginRecord* record = serviceDatabase.find_plugin(name);
  if (!record) {
    logInternal(kNotDescribed, name);
    sendFailureReply(requester, name, request.clientCookie);
    return;
  }
  if (record->is_shared_object()) {
    requester->ConnectionReplyEvent(name, -1, true, true, false, -1, -1,
                                    record->executable_name().c_str(), request.clientCookie);
    return;
  }
  std::int32_t pluginID = -1;
  if (request.clientStart) {
    const std::vector<std::string> argv = commandOf(*record);
    const std::int32_t startCookie =
        pluginIDsLeft()
            ? clientStartPlugin(requester, {argv.begin(), argv.end()}, request.workingDir)
            : -1;
    if (startCookie != -1) {
      // Stands in for the ID that the plugin will get when it connects.
      pluginID = nextPlugin();
      clientStarts[startCookie] = {requester, request.clientCookie, pluginID, {}, name};
    }
  } else {
    pluginID = launchProvider(*record, name, request.workingDir);
  }
  if (pluginID == -1) {
    logFailedLaunch(*record, name);
    sendFailureReply(requester, name, request.clientCookie);
  } else {
    addPendingRequest(requester, request, pluginID);
  }
}

void Hublink::startProviderForQuery(HublinkConnection* requester, std::int32_t cookie,
                                    const char* serviceName, const char* workingDir) {
  const PluginRecord* record = serviceDatabase.find_plugin(serviceName);
  if (!record) {
    logInternal(kNotDescribed, serviceName);
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, false);
    return;
  }
  if (launchProvider(*record, serviceName, workingDir) == -1) {
    logFailedLaunch(*record, serviceName);
    std::fprintf(stderr, "Unable to startup service: %s.\n", record->executable_name().c_str());
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, true);
  } else {
    addPendingQuery(requester, cookie, serviceName, workingDir);
  }
}
