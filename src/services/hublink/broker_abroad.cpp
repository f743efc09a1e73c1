// What nobody here provides, and what nothing here could be started for, is asked of bridges, which
// speak for other machines. Without a bridge all of this comes to nothing, and no time.
#include <cstring>
#include <string_view>

#include "platform/credentials.h"
#include "service_database/service_database.h"
#include "services/hublink/abroad/abroad_service.h"
#include "services/hublink/broker.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/hub_log.h"

namespace {

// What belongs to a machine: its hub, its bridge.
constexpr std::string_view kOwnNames = "hublink.";

}  // namespace

// A bridge hears of everybody's wishes, and whom it names gets their links: it must be of those who
// could have anything done here anyway.
void Broker::openAbroad(HublinkConnection* requester, const ServiceRequest& request) {
  const bool isOwn = platform::userOfClient(requester->getTransport()->fileDescriptor()).isOwn();
  const bool isTaken = isOwn && !requester->standsFor() && !abroad_.isBridge(requester);
  const std::int32_t bridgeRN = isTaken ? rns_.assign(requester) : -1;
  requester->ConnectionReplyEvent(request.serviceName, bridgeRN, true, false, isTaken,
                                  AbroadService::kRN, AbroadService::kPluginID, nullptr,
                                  request.clientCookie);
  if (isTaken)
    abroad_.open(requester, bridgeRN);
  else
    log_.logInternal("Warning: Plugin ID %d can't be a bridge.\n", requester->getPluginID());
}

// Starts one if there is none and one is described. One that is there and hasn't opened its desk
// won't be told anything, but isn't started a second time.
bool Broker::awaitsBridge(HublinkConnection* requester) {
  if (abroad_.hasBridge()) return true;
  const PluginRecord* record = database_.find_plugin(AbroadService::kBridgeName);
  if (!record || record->is_shared_object()) return false;
  if (services_.find(AbroadService::kBridgeName, [](std::int32_t) { return true; }) != -1)
    return false;
  if (waiting_.isExpected(AbroadService::kBridgeName)) {
    const Awaited on = waiting_.joining(AbroadService::kBridgeName);
    if (const auto* arrival = std::get_if<OnArrival>(&on)) abroad_.expectBridge(arrival->arrival);
    return abroad_.hasBridge();
  }
  const ArrivalID arrival = waiting_.newArrival();
  if (launchProvider(requester, arrival, *record, AbroadService::kBridgeName, nullptr)) {
    abroad_.expectBridge(arrival);
    return true;
  }
  logFailedLaunch(record->executable_name(), AbroadService::kBridgeName);
  return false;
}

// What comes from abroad doesn't go there: a bridge would ask the next one for ever.
bool Broker::goesAbroad(HublinkConnection* requester, const char* name,
                        const HublinkConnection* named) {
  if (std::strncmp(name, kOwnNames.data(), kOwnNames.size()) == 0 || requester->standsFor() ||
      abroad_.isBridge(requester))
    return false;
  if (named) return true;
  return !database_.find_plugin(name) && !waiting_.isExpected(name) && awaitsBridge(requester);
}

void Broker::askAbroad(HublinkConnection* requester, Wish wish, bool mayStart,
                       const HublinkConnection* named) {
  UsageShare share = requester->shareOf(&PluginUsage::waiting, bytesOf(wish));
  AbroadQuestion question{requester, std::move(wish), mayStart, -1, 0, std::move(share)};
  if (named) {
    question.standIn = named->getPluginID();
    question.bridgeID = named->standsFor()->bridgeID;
  }
  abroad_.ask(std::move(question));
}

void Broker::foundAbroad(AbroadQuestion& question, HublinkConnection* provider, std::int32_t rn) {
  serveWish(question.requester, question.wish, provider, rn, true);
}

// As if there were no bridge.
void Broker::notFoundAbroad(const AbroadQuestion& question) {
  if (const auto* query = std::get_if<QueryWish>(&question.wish)) {
    answerQuery(question.requester, query->cookie, query->name.c_str(),
                textOrNull(query->workingDir), question.mayStart, false);
    return;
  }
  const auto& wish = std::get<ServiceWish>(question.wish);
  serveRequest(question.requester,
               {wish.name.c_str(), question.standIn, wish.pairs.view(), textOrNull(wish.workingDir),
                false, wish.clientCookie, false, false},
               false);
}
