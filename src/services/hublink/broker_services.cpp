// Services and their RNs: who provides what, and the introduction of a requester to a provider.
#include <cstring>

#include "platform/clock.h"
#include "services/hublink/abroad/abroad_service.h"
#include "services/hublink/broker.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/hub_events.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/plugin_bounds.h"
#include "services/hublink/status/status_service.h"

bool Broker::canReserve(const HublinkConnection* owner, std::int32_t count) {
  if (count < 0 || count > kLargestRNBlock) return false;
  if (rns_.count(owner) + count <= kMostRNs) return true;
  log_.logInternal("Warning: Plugin ID %d has too many RNs: it gets no more.\n",
                   owner->getPluginID());
  return false;
}

bool Broker::canRegister(const HublinkConnection* provider, std::int32_t count) {
  const Usage& services = provider->usage().services;
  if (services.count + count <= kMostServices && services.bytes < kMostServiceBytes)
    return canReserve(provider, count);
  log_.logInternal("Warning: Plugin ID %d has too many services: no more are registered.\n",
                   provider->getPluginID());
  return false;
}

void Broker::reserveRNBlock(HublinkConnection* owner, std::int32_t count) {
  std::vector<std::int32_t> list;
  if (count > 0 && canReserve(owner, count)) {
    list.reserve(static_cast<std::size_t>(count));
    rns_.assignBlock(owner, count, [&list](std::int32_t rn) { list.push_back(rn); });
  }
  owner->RNBlockReservedEvent({static_cast<std::int32_t>(list.size()), list.data()});
}

void Broker::registerServiceList(HublinkConnection* provider, const StringArray& names) {
  if (names.count <= 0) return;
  if (!canRegister(provider, names.count)) {
    provider->RNBlockReservedEvent({0, nullptr});
    return;
  }
  std::vector<std::int32_t> list;
  for (std::int32_t i = 0; i < names.count; ++i) list.push_back(rns_.assign(provider));
  // The plugin's only way to learn its RNs, and it must know them before it is asked for one.
  provider->RNBlockReservedEvent({names.count, list.data()});
  for (std::int32_t i = 0; i < names.count; ++i) {
    const char* name = names.data[i];
    if (!name) continue;
    const std::int32_t serviceRN = list[static_cast<std::size_t>(i)];
    const auto bytes = static_cast<std::int64_t>(std::strlen(name));
    services_.add(name, serviceRN, provider, provider->shareOf(&PluginUsage::services, bytes));
    events_.tell("service registered", provider->getPluginID(), 0, name);
    serviceRegistered(provider, name, serviceRN);
  }
}

void Broker::unregisterService(std::int32_t serviceRN) {
  const HublinkConnection* owner = connectionForRN(serviceRN);
  if (const auto name = services_.remove(serviceRN))
    events_.tell("service withdrawn", owner ? owner->getPluginID() : 0, 0, *name);
}

void Broker::releaseRN(HublinkConnection* owner, std::int32_t rn) {
  status_.close(owner, rn);
  abroad_.close(owner, rn);
  rns_.release(owner, rn);
}

// Serves every request that waits for this service, oldest first.
void Broker::serviceRegistered(HublinkConnection* provider, const char* name,
                               std::int32_t serviceRN) {
  const char* directory = provider->getWorkingDir();
  for (Waiting& waiting : waiting_.registered(provider->getPluginID(), directory, name))
    serveWish(waiting.requester, waiting.wish, provider, serviceRN, false);
  for (AbroadQuestion& question : abroad_.registered(name, directory))
    serveWish(question.requester, question.wish, provider, serviceRN, false);
}

// A wish for a service. `isFound` is what a query's answer says of it.
void Broker::serveWish(HublinkConnection* requester, Wish& wish, HublinkConnection* provider,
                       std::int32_t serviceRN, bool isFound) {
  if (const auto* query = std::get_if<QueryWish>(&wish))
    requester->PluginIdForServiceReplyEvent(query->cookie, query->name.c_str(),
                                            provider->getPluginID(), isFound);
  else if (auto* service = std::get_if<ServiceWish>(&wish))
    askProvider(requester, provider, service->name.c_str(), serviceRN, std::move(service->pairs),
                service->clientCookie);
}

std::int32_t Broker::findServiceRN(HublinkConnection* requester, const char* name,
                                   std::int32_t pluginID, const char* workingDir,
                                   bool localOnly) const {
  if (!name) return -1;
  const bool any = pluginID == -1 && !workingDir && !localOnly;
  return services_.find(name, [&](std::int32_t serviceRN) {
    if (any) return true;
    HublinkConnection* owner = connectionForRN(serviceRN);
    return owner && (pluginID == -1 || pluginID == owner->getPluginID()) &&
           (!localOnly || ConnectedPlugins::sameHost(requester, owner)) &&
           (!workingDir || sameWorkingDir(workingDir, owner->getWorkingDir()));
  });
}

// The record stands in the table before the provider is asked, so that no answer can overtake it.
void Broker::askProvider(HublinkConnection* requester, HublinkConnection* provider,
                         const char* serviceName, std::int32_t serviceRN, TextPairs pairs,
                         std::int32_t clientCookie) {
  const std::int32_t localRN = rns_.assign(requester);
  UsageShare share = requester->shareOf(
      &PluginUsage::waiting, static_cast<std::int64_t>(std::strlen(serviceName)) + pairs.bytes());
  const auto place =
      accepts_.emplace(provider, PendingAccept{requester, provider, serviceName, localRN, serviceRN,
                                               std::move(pairs), clientCookie, std::move(share)});
  provider->ConnectionRequestedEvent(requester->getPluginID(), serviceRN, localRN,
                                     place->second.pairs.view());
  requester->getTransport()->waitFor(*provider->getTransport());
}

void Broker::connectionAccepted(HublinkConnection* provider, std::int32_t serviceRN,
                                std::int32_t remoteRN, bool accept) {
  const auto [first, last] = accepts_.equal_range(provider);
  for (auto place = first; place != last; ++place) {
    const PendingAccept& pending = place->second;
    if (pending.localRN != remoteRN || pending.serviceRN != serviceRN) continue;
    pending.requester->ConnectionReplyEvent(pending.serviceName.c_str(), pending.localRN, true,
                                            false, accept, serviceRN, provider->getPluginID(),
                                            nullptr, pending.clientCookie);
    events_.tell("answered", pending.requester->getPluginID(), provider->getPluginID(),
                 pending.serviceName, accept ? "accepted" : "refused");
    if (accept) {
      provider->addPeerLink({pending.requester->getPluginID(), serviceRN, pending.localRN, {}});
      pending.requester->addPeerLink({provider->getPluginID(), pending.localRN, serviceRN,
                                      pending.requester->shareOf(&PluginUsage::connections),
                                      pending.serviceName, platform::unixMilliseconds()});
      events_.tell("link up", pending.requester->getPluginID(), provider->getPluginID(),
                   pending.serviceName);
    }
    accepts_.erase(place);
    return;
  }
}

void Broker::dropServiceConnection(HublinkConnection* sender, std::int32_t localRN,
                                   std::int32_t serviceRN) {
  if (serviceRN == StatusService::kRN) status_.close(sender, localRN);
  if (serviceRN == AbroadService::kRN) abroad_.close(sender, localRN);
  if (HublinkConnection* other = connectionForRN(serviceRN)) {
    other->removePeerLink(serviceRN, localRN);
    other->ConnectionDroppedEvent(serviceRN, localRN);
    events_.tell("link down", sender->getPluginID(), other->getPluginID());
    if (other != sender) sender->getTransport()->waitFor(*other->getTransport());
  }
  sender->removePeerLink(localRN, serviceRN);
}
