// What a plugin asks for: a connection to a service, who provides it, and plugins to be started or
// connected to. A provider that nobody runs is started as the service description files tell, by
// the hub or by the requester, and the request waits until the new plugin registers the service.
#include <algorithm>
#include <cstring>

#include "indgen/format.h"
#include "service_database/service_database.h"
#include "services/hublink/abroad/abroad_service.h"
#include "services/hublink/broker.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/hub_events.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/launcher.h"
#include "services/hublink/plugin_bounds.h"
#include "services/hublink/plugin_connector.h"
#include "services/hublink/status/status_service.h"

namespace {

constexpr const char* kNotDescribed =
    "Service %s requested, but it is not in the service database.\n";
constexpr const char* kLaunchFailure = "Failed to launch plugin";

std::vector<std::string> commandOf(const PluginRecord& record) {
  std::vector<std::string> argv{record.executable_name()};
  argv.insert(argv.end(), record.arguments().begin(), record.arguments().end());
  return argv;
}

// The texts of a message.
std::vector<OptionalText> textsOf(const StringArray& array) {
  std::vector<OptionalText> texts;
  for (std::int32_t i = 0; i < array.count; ++i) texts.push_back(optionalText(array.data[i]));
  return texts;
}

ServiceWish wishOf(const ServiceRequest& request) {
  return {request.serviceName,      optionalText(request.workingDir),
          request.localOnly,        request.noReuse || request.clientStart,
          TextPairs(request.pairs), request.clientCookie};
}

// As a program is started with them: a null among them is an empty argument.
std::vector<std::string> argumentsOf(const StringArray& array) {
  std::vector<std::string> arguments;
  for (std::int32_t i = 0; i < array.count; ++i)
    arguments.emplace_back(array.data[i] ? array.data[i] : "");
  return arguments;
}

}  // namespace

void Broker::replyFailure(HublinkConnection* requester, const char* serviceName,
                          std::int32_t clientCookie) {
  requester->sendFailureReply(serviceName, clientCookie);
  events_.tell("answered", requester->getPluginID(), 0, serviceName ? serviceName : "",
               "not found");
}

// The hub provides this one itself, on the requester's own link.
void Broker::openStatus(HublinkConnection* requester, const ServiceRequest& request) {
  const std::int32_t viewerRN = rns_.assign(requester);
  requester->ConnectionReplyEvent(request.serviceName, viewerRN, true, false, true,
                                  StatusService::kRN, StatusService::kPluginID, nullptr,
                                  request.clientCookie);
  status_.open(requester, viewerRN);
}

bool Broker::canWait(const HublinkConnection* requester) {
  const PluginUsage& usage = requester->usage();
  if (usage.waiting.count < kMostWaiting && usage.waiting.bytes < kMostWaitingBytes &&
      usage.connections.count < kMostConnections)
    return canReserve(requester, 1);
  log_.logInternal("Warning: Plugin ID %d has too many requests or connections: it gets no more.\n",
                   requester->getPluginID());
  return false;
}

bool Broker::canHaveArrival(const HublinkConnection* requester) {
  if (requester->usage().arrivals.count < kMostArrivals) return true;
  log_.logInternal("Warning: Plugin ID %d has too many launches in hand: it gets no more.\n",
                   requester->getPluginID());
  return false;
}

void Broker::addServiceWish(HublinkConnection* requester, const ServiceRequest& request,
                            Awaited on) {
  Wish wish = wishOf(request);
  UsageShare share = requester->shareOf(&PluginUsage::waiting, bytesOf(wish));
  waiting_.add(requester, std::move(wish), on, std::move(share));
}

void Broker::addQueryWish(HublinkConnection* requester, std::int32_t cookie,
                          const char* serviceName, const char* workingDir, Awaited on) {
  Wish wish = QueryWish{serviceName, optionalText(workingDir), cookie};
  UsageShare share = requester->shareOf(&PluginUsage::waiting, bytesOf(wish));
  waiting_.add(requester, std::move(wish), on, std::move(share));
}

void Broker::addPluginWish(HublinkConnection* requester, std::int32_t cookie, const char* failure,
                           Awaited on) {
  waiting_.add(requester, PluginWish{cookie, failure}, on,
               requester->shareOf(&PluginUsage::waiting));
}

// Whether a request for the service joins those that wait already. Once whoever was to provide it
// won't come, that would be for ever, unless there is nothing that could be started.
bool Broker::isServicePending(const char* name, const char* workingDir) const {
  if (!waiting_.isExpected(name) && database_.find_plugin(name)) return false;
  return waiting_.isAwaited(name, workingDir);
}

void Broker::requestServiceConnection(HublinkConnection* requester, const ServiceRequest& request) {
  const char* name = request.serviceName;
  events_.tell("asked", requester->getPluginID(), std::max(request.providingPluginID, 0),
               name ? name : "");
  if (name && canWait(requester))
    serveRequest(requester, request, !request.localOnly);
  else
    replyFailure(requester, name, request.clientCookie);
}

void Broker::serveRequest(HublinkConnection* requester, const ServiceRequest& request,
                          bool mayGoAbroad) {
  const char* name = request.serviceName;
  const std::int32_t pluginID = request.providingPluginID;
  const bool reuse = !request.noReuse && !request.clientStart;
  if (reuse) {
    const std::int32_t serviceRN =
        findServiceRN(requester, name, pluginID, request.workingDir, request.localOnly);
    if (serviceRN != -1) {
      if (HublinkConnection* provider = connectionForRN(serviceRN)) {
        askProvider(requester, provider, name, serviceRN, TextPairs(request.pairs),
                    request.clientCookie);
      } else {
        log_.logInternal("Warning: Service connection is missing for serviceRN: %d.\n", serviceRN);
        replyFailure(requester, name, request.clientCookie);
      }
      return;
    }
    if (pluginID <= StatusService::kPluginID && std::strcmp(name, StatusService::kName) == 0) {
      openStatus(requester, request);
      return;
    }
    if (pluginID <= AbroadService::kPluginID && std::strcmp(name, AbroadService::kName) == 0) {
      openAbroad(requester, request);
      return;
    }
    const HublinkConnection* named = pluginID != -1 ? plugins_.find(pluginID) : nullptr;
    const bool isStandIn = named && named->standsFor();
    if (mayGoAbroad && (pluginID == -1 || isStandIn) && goesAbroad(requester, name, named)) {
      askAbroad(requester, wishOf(request), true, named);
      return;
    }
    // A stand-in never registers what the other one provides.
    if (isStandIn) {
      replyFailure(requester, name, request.clientCookie);
      return;
    }
    if (isServicePending(name, request.workingDir) || named) {
      addServiceWish(requester, request,
                     pluginID == -1 ? waiting_.joining(name) : OnPlugin{pluginID});
      return;
    }
  }
  if (pluginID != -1) {
    log_.logInternal("Plugin id %d for service %s no longer exists.\n", pluginID, name);
    replyFailure(requester, name, request.clientCookie);
    return;
  }
  // A plugin that would start on this machine is no local provider to a requester elsewhere.
  if (request.localOnly && !plugins_.isOnHubHost(requester)) {
    log_.logInternal(
        "Local connection requested for service with no plugin, but requestor is on different "
        "host.\n");
    replyFailure(requester, name, request.clientCookie);
    return;
  }
  startProviderForConnection(requester, request);
}

void Broker::requestPluginIdForService(HublinkConnection* requester, std::int32_t cookie,
                                       const char* serviceName, const char* workingDir,
                                       bool startupIfNotRunning) {
  answerQuery(requester, cookie, serviceName, workingDir, startupIfNotRunning, true);
}

void Broker::answerQuery(HublinkConnection* requester, std::int32_t cookie, const char* serviceName,
                         const char* workingDir, bool startupIfNotRunning, bool mayGoAbroad) {
  const std::int32_t serviceRN = findServiceRN(requester, serviceName, -1, workingDir, false);
  if (serviceRN != -1) {
    const HublinkConnection* owner = connectionForRN(serviceRN);
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, owner ? owner->getPluginID() : -1,
                                            owner != nullptr);
  } else if (serviceName && std::strcmp(serviceName, StatusService::kName) == 0) {
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, StatusService::kPluginID, true);
  } else if (serviceName && std::strcmp(serviceName, AbroadService::kName) == 0) {
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, AbroadService::kPluginID, true);
  } else if (mayGoAbroad && serviceName && goesAbroad(requester, serviceName, nullptr) &&
             canWait(requester)) {
    askAbroad(requester, QueryWish{serviceName, optionalText(workingDir), cookie},
              startupIfNotRunning, nullptr);
  } else if (!startupIfNotRunning || !serviceName || !canWait(requester)) {
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, false);
  } else if (isServicePending(serviceName, workingDir)) {
    addQueryWish(requester, cookie, serviceName, workingDir, waiting_.joining(serviceName));
  } else {
    startProviderForQuery(requester, cookie, serviceName, workingDir);
  }
}

// False if that has failed at once.
bool Broker::launchProvider(HublinkConnection* requester, ArrivalID arrival,
                            const PluginRecord& record, const char* serviceName,
                            const char* workingDir) {
  if (!canHaveArrival(requester) ||
      !launcher_.launch({arrival, requester->shareOf(&PluginUsage::arrivals), commandOf(record),
                         optionalText(workingDir), &record.environment(), record.launch_timeout()}))
    return false;
  waiting_.expect(serviceName, arrival);
  return true;
}

bool Broker::startByClient(HublinkConnection* requester, const PluginRecord& record,
                           const ServiceRequest& request) {
  const std::vector<std::string> argv = commandOf(record);
  const std::int32_t startCookie =
      plugins_.ids().areLeft()
          ? launcher_.startByClient(requester, {argv.begin(), argv.end()}, request.workingDir)
          : -1;
  if (startCookie == -1) return false;
  addServiceWish(requester, request, OnClientStart{startCookie});
  // Stands in for the ID that the plugin will get when it connects.
  waiting_.expectFromClient(request.serviceName, startCookie, plugins_.ids().next());
  return true;
}

void Broker::startProviderForConnection(HublinkConnection* requester,
                                        const ServiceRequest& request) {
  const char* name = request.serviceName;
  const PluginRecord* record = database_.find_plugin(name);
  if (!record) {
    log_.logInternal(kNotDescribed, name);
    replyFailure(requester, name, request.clientCookie);
    return;
  }
  if (record->is_shared_object()) {
    requester->ConnectionReplyEvent(name, -1, true, true, false, -1, -1,
                                    record->executable_name().c_str(), request.clientCookie);
    events_.tell("answered", requester->getPluginID(), 0, name, "is a library");
    return;
  }
  if (request.clientStart) {
    if (startByClient(requester, *record, request)) return;
  } else {
    const ArrivalID arrival = waiting_.newArrival();
    if (launchProvider(requester, arrival, *record, name, request.workingDir)) {
      addServiceWish(requester, request, OnArrival{arrival, true});
      return;
    }
  }
  logFailedLaunch(record->executable_name(), name);
  replyFailure(requester, name, request.clientCookie);
}

void Broker::startProviderForQuery(HublinkConnection* requester, std::int32_t cookie,
                                   const char* serviceName, const char* workingDir) {
  const PluginRecord* record = database_.find_plugin(serviceName);
  if (!record) {
    log_.logInternal(kNotDescribed, serviceName);
    requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, false);
    return;
  }
  const ArrivalID arrival = waiting_.newArrival();
  if (launchProvider(requester, arrival, *record, serviceName, workingDir)) {
    addQueryWish(requester, cookie, serviceName, workingDir, OnArrival{arrival, true});
    return;
  }
  logFailedLaunch(record->executable_name(), serviceName);
  printFailedStartup(record->executable_name());
  requester->PluginIdForServiceReplyEvent(cookie, serviceName, -1, true);
}

void Broker::requestPluginLaunch(HublinkConnection* requester, const StringArray& argv,
                                 std::int32_t cookie, bool clientStart, const char* workingDir) {
  const bool canStart = canWait(requester);
  if (canStart && clientStart) {
    const std::int32_t startCookie = launcher_.startByClient(requester, textsOf(argv), workingDir);
    if (startCookie != -1) {
      addPluginWish(requester, cookie, kLaunchFailure, OnClientStart{startCookie});
      return;
    }
  } else if (canStart && canHaveArrival(requester)) {
    const ArrivalID arrival = waiting_.newArrival();
    if (launcher_.launch({arrival, requester->shareOf(&PluginUsage::arrivals), argumentsOf(argv),
                          optionalText(workingDir)})) {
      addPluginWish(requester, cookie, kLaunchFailure, OnArrival{arrival, true});
      return;
    }
  }
  requester->PluginConnectedEvent(cookie, -1, kLaunchFailure);
}

void Broker::requestPluginConnect(HublinkConnection* requester, const char* host, std::int32_t port,
                                  std::int32_t cookie) {
  const gen_text failure =
      gen_asprintf("Hublink unable to connect to plugin on host %s and port %d.", host, port);
  const ArrivalID arrival = waiting_.newArrival();
  if (canWait(requester) && canHaveArrival(requester) &&
      connector_.connect(arrival, requester->shareOf(&PluginUsage::arrivals), host, port))
    addPluginWish(requester, cookie, failure, OnArrival{arrival, true});
  else
    requester->PluginConnectedEvent(cookie, -1, failure);
}
