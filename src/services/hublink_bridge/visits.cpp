#include "services/hublink_bridge/visits.h"

#include <algorithm>
#include <utility>

#include "services/hublink_bridge/exports.h"
#include "services/hublink_bridge/link.h"
#include "services/hublink_bridge/names.h"
#include "services/hublink_bridge/stand_in_table.h"

namespace bridge {

namespace {

// Milliseconds for an answer of a provider that runs, and for one that may have to be started.
constexpr int kVisitTime = 10000;
constexpr int kStartVisitTime = 40000;
constexpr std::size_t kMostPairs = 1000;

bool isSensible(const OpenBody& body) {
  return body.service && !body.service->empty() && body.service->size() <= kMostText &&
         body.requesterProgram.value_or("").size() <= kMostText && body.pairs.size() <= kMostPairs;
}

const char* textOrNull(const OptionalText& text) {
  return text ? text->c_str() : nullptr;
}

}  // namespace

std::size_t Visits::inHandOf(const std::string& machine) const {
  return static_cast<std::size_t>(
      std::count_if(inHand_.begin(), inHand_.end(),
                    [&](const Key& key) { return key.first->machine() == machine; }));
}

bool Visits::open(Session& session, const Frame& frame) {
  OpenBody body;
  const Key key{&session, frame.link};
  if (!readBody(frame, body) || inHand_.contains(key) || parts_.links.find(session, frame.link))
    return false;
  const std::string& machine = session.machine();
  const bool isTooMuch =
      inHandOf(machine) >= kMostInHand || parts_.links.countWith(machine) >= kMostLinks;
  inHand_.insert(key);
  if (isTooMuch || !isSensible(body) || !parts_.exports.isExported(*body.service) ||
      !parts_.plugin.isConnected())
    notFound(key);
  else if ((body.flags & OpenBody::kQueryOnly) != 0)
    query(key, body);
  else
    link(key, body);
  return true;
}

// Whoever isn't in hand any more gets no answer.
void Visits::answer(const Key& key, const OpenedBody& body) {
  if (inHand_.erase(key) != 0) key.first->send(FrameKind::opened, key.second, bodyOf(body));
}

void Visits::query(const Key& key, const OpenBody& body) {
  const bool mayStart =
      (body.flags & OpenBody::kMayStart) != 0 && parts_.exports.mayBeStarted(*body.service);
  parts_.plugin.requestProvider(
      *body.service, textOrNull(body.workingDirectory), mayStart,
      [this, key](std::int32_t pluginID) {
        if (pluginID == -1)
          notFound(key);
        else
          answer(key,
                 {OpenedBody::Outcome::accepted, pluginID, parts_.exports.programOf(pluginID)});
      },
      mayStart ? kStartVisitTime : kVisitTime);
}

// A provider that may not be started is looked for first, and then asked by its number: so nothing
// is started for a service that has gone meanwhile.
void Visits::link(const Key& key, const OpenBody& body) {
  if (body.providerID != -1) {
    if (parts_.exports.isProvider(body.providerID))
      ask(key, body, body.providerID);
    else
      notFound(key);
  } else if ((body.flags & OpenBody::kMayStart) != 0 &&
             parts_.exports.mayBeStarted(*body.service)) {
    ask(key, body, -1);
  } else {
    parts_.plugin.requestProvider(
        *body.service, textOrNull(body.workingDirectory), false,
        [this, key, body](std::int32_t pluginID) {
          if (pluginID == -1)
            notFound(key);
          else
            ask(key, body, pluginID);
        },
        kVisitTime);
  }
}

void Visits::ask(const Key& key, const OpenBody& body, std::int32_t providerID) {
  if (!inHand_.contains(key)) return;
  ServiceQuery query;
  query.serviceName = *body.service;
  query.providingPluginID = providerID;
  query.workingDir = body.workingDirectory;
  for (const OptionalText& text : body.pairs) query.nameValuePairs.push_back(text.value_or(""));
  parts_.standIns.want(
      {key.first->machine(), body.requesterID}, body.requesterProgram.value_or(""),
      [this, key, query, providerID](StandIn* standIn) {
        if (!standIn || !inHand_.contains(key)) {
          notFound(key);
          return;
        }
        parts_.standIns.linkBegins(*standIn);
        standIn->plugin().requestService(
            query,
            [this, key, service = query.serviceName, standIn](const ServiceReply& reply) {
              replied(key, service, *standIn, reply);
            },
            providerID == -1 ? kStartVisitTime : kVisitTime);
      });
}

void Visits::replied(const Key& key, const std::string& service, StandIn& standIn,
                     const ServiceReply& reply) {
  const bool isAccepted = reply.outcome == ServiceReply::Outcome::accepted;
  if (isAccepted && inHand_.contains(key)) {
    Link& link =
        parts_.links.add(*key.first, key.second, {service, reply.pluginID, standIn.key(), false});
    answer(key, {OpenedBody::Outcome::accepted, reply.pluginID,
                 parts_.exports.programOf(reply.pluginID)});
    if (!parts_.links.join(link, standIn, reply.link))
      key.first->end("what came wasn't packets", true);
    return;
  }
  parts_.standIns.linkEnds(standIn, clockNow());
  if (isAccepted)
    reply.link->close();
  else if (reply.outcome == ServiceReply::Outcome::refused)
    answer(key, {OpenedBody::Outcome::refused, reply.pluginID, std::nullopt});
  else
    notFound(key);
}

bool Visits::closed(const Session& session, std::uint32_t number) {
  return inHand_.erase({const_cast<Session*>(&session), number}) != 0;
}

void Visits::sessionEnded(const Session& session) {
  std::erase_if(inHand_, [&](const Key& key) { return key.first == &session; });
}

void Visits::clear() {
  while (!inHand_.empty()) notFound(*inHand_.begin());
}

}  // namespace bridge
