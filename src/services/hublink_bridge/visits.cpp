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
                    [&](const auto& one) { return one.second.machine == machine; }));
}

Visits::Visit* Visits::find(const Session& session, std::uint32_t number) {
  const auto place = std::find_if(inHand_.begin(), inHand_.end(), [&](const auto& one) {
    return one.second.session == &session && one.second.number == number;
  });
  return place == inHand_.end() ? nullptr : &place->second;
}

bool Visits::isWaiting(Ticket ticket) const {
  const auto place = inHand_.find(ticket);
  return place != inHand_.end() && place->second.session;
}

bool Visits::open(Session& session, const Frame& frame) {
  OpenBody body;
  if (!readBody(frame, body) || find(session, frame.link) || parts_.links.find(session, frame.link))
    return false;
  const std::string& machine = session.machine();
  const std::size_t inHand = inHandOf(machine);
  const bool isTooMuch =
      inHand >= kMostInHand || parts_.links.countWith(machine) + inHand >= kMostLinks;
  const Ticket ticket = ++lastTicket_;
  inHand_[ticket] = {machine, &session, frame.link};
  if (isTooMuch || !isSensible(body) || !parts_.exports.isExported(*body.service) ||
      !parts_.plugin.isConnected())
    notFound(ticket);
  else if ((body.flags & OpenBody::kQueryOnly) != 0)
    query(ticket, body);
  else
    link(ticket, body);
  return true;
}

void Visits::answer(Ticket ticket, const OpenedBody& body) {
  const auto visit = inHand_.extract(ticket);
  if (!visit || !visit.mapped().session) return;
  visit.mapped().session->send(FrameKind::opened, visit.mapped().number, bodyOf(body));
}

// A directory chooses among the providers that run: where a program is started is this machine's.
bool Visits::mayStart(const OpenBody& body) const {
  return (body.flags & OpenBody::kMayStart) != 0 && !body.workingDirectory &&
         parts_.exports.mayBeStarted(*body.service);
}

void Visits::query(Ticket ticket, const OpenBody& body) {
  const bool starts = mayStart(body);
  parts_.plugin.requestProvider(
      *body.service, textOrNull(body.workingDirectory), starts,
      [this, ticket](std::int32_t pluginID) {
        if (pluginID == -1)
          notFound(ticket);
        else
          answer(ticket,
                 {OpenedBody::Outcome::accepted, pluginID, parts_.exports.programOf(pluginID)});
      },
      starts ? kStartVisitTime : kVisitTime);
}

// A provider that may not be started is looked for first, and then asked by its number: so nothing
// is started for a service that has gone meanwhile. One that is named must provide the service: the
// hub would wait for it to do so, longer than anybody here.
void Visits::link(Ticket ticket, const OpenBody& body) {
  if (body.providerID != -1) {
    if (parts_.exports.isProvider(body.providerID, *body.service))
      ask(ticket, body, body.providerID);
    else
      notFound(ticket);
  } else if (mayStart(body)) {
    ask(ticket, body, -1);
  } else {
    parts_.plugin.requestProvider(
        *body.service, textOrNull(body.workingDirectory), false,
        [this, ticket, body](std::int32_t pluginID) {
          if (pluginID == -1)
            notFound(ticket);
          else
            ask(ticket, body, pluginID);
        },
        kVisitTime);
  }
}

void Visits::ask(Ticket ticket, const OpenBody& body, std::int32_t providerID) {
  if (!isWaiting(ticket)) {
    notFound(ticket);
    return;
  }
  ServiceQuery query;
  query.serviceName = *body.service;
  query.providingPluginID = providerID;
  query.workingDir = body.workingDirectory;
  for (const OptionalText& text : body.pairs) query.nameValuePairs.push_back(text.value_or(""));
  parts_.standIns.want(
      {inHand_[ticket].machine, body.requesterID}, body.requesterProgram.value_or(""),
      [this, ticket, query, providerID](StandIn* standIn) {
        if (!standIn || !isWaiting(ticket)) {
          notFound(ticket);
          return;
        }
        parts_.standIns.linkBegins(*standIn);
        standIn->plugin().requestService(
            query,
            [this, ticket, service = query.serviceName, standIn](const ServiceReply& reply) {
              replied(ticket, service, *standIn, reply);
            },
            providerID == -1 ? kStartVisitTime : kVisitTime);
      });
}

void Visits::replied(Ticket ticket, const std::string& service, StandIn& standIn,
                     const ServiceReply& reply) {
  const bool isAccepted = reply.outcome == ServiceReply::Outcome::accepted;
  if (isAccepted && isWaiting(ticket)) {
    const Visit& visit = inHand_[ticket];
    Session& session = *visit.session;
    Link& link =
        parts_.links.add(session, visit.number, {service, reply.pluginID, standIn.key(), false});
    answer(ticket, {OpenedBody::Outcome::accepted, reply.pluginID,
                    parts_.exports.programOf(reply.pluginID)});
    if (!parts_.links.join(link, standIn, reply.link))
      session.end("what came wasn't packets", true);
    return;
  }
  parts_.standIns.linkEnds(standIn, clockNow());
  if (isAccepted) reply.link->close();
  if (reply.outcome == ServiceReply::Outcome::refused)
    answer(ticket, {OpenedBody::Outcome::refused, reply.pluginID, std::nullopt});
  else
    notFound(ticket);
}

bool Visits::closed(const Session& session, std::uint32_t number) {
  Visit* visit = find(session, number);
  if (visit) visit->session = nullptr;
  return visit != nullptr;
}

void Visits::sessionEnded(const Session& session) {
  for (auto& [ticket, visit] : inHand_)
    if (visit.session == &session) visit.session = nullptr;
}

void Visits::clear() {
  while (!inHand_.empty()) notFound(inHand_.begin()->first);
}

}  // namespace bridge
