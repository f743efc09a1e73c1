#include "hublink_plugin/interface_side.h"

#include <algorithm>

#include "hublink_plugin/countdown.h"
#include "hublink_plugin/hublink_plugin.h"
#include "hublink_plugin/interface_core.h"

namespace hublink {
namespace {

// Milliseconds between two questions for a service that nobody provides: soon at first, for a
// provider that is just starting, then more rarely, since the hub may start one for each.
constexpr int kFirstPause = 20;
constexpr int kLongestPause = 500;

}  // namespace

const char* failureText(Failure failure) {
  switch (failure) {
    case Failure::timedOut:
      return "timed out";
    case Failure::linkEnded:
      return "the link has ended";
    case Failure::notSupported:
      return "not supported by the peer";
    case Failure::refused:
      return "refused";
    case Failure::tooLarge:
      return "too large for a packet";
    case Failure::badValue:
      return "a text with a zero byte in it";
    case Failure::notFound:
      return "nobody provides the service";
  }
  return "";
}

InterfaceSide::InterfaceSide(const SideTables& tables) : core_(new InterfaceCore(tables, this)) {}

InterfaceSide::~InterfaceSide() {
  core_->leave();
  if (link_) link_->close();
}

void InterfaceSide::Release::operator()(InterfaceCore* core) const {
  core->release();
}

void InterfaceSide::attach(const std::shared_ptr<HublinkLink>& link) {
  if (link_ || !link) return;
  link_ = link;
  core_->attachTo(link);
}

bool InterfaceSide::isUp() const {
  return link_ && link_->isUp();
}

std::int32_t InterfaceSide::peerPluginID() const {
  return link_ ? link_->peerPluginID() : -1;
}

bool InterfaceSide::knows(std::string_view message, int milliseconds) {
  const CountedPtr<InterfaceCore> core(core_.get());
  return core->awaitRecord(milliseconds) && core->takesMessage(message);
}

bool InterfaceSide::knowsField(std::string_view field, int milliseconds) {
  const CountedPtr<InterfaceCore> core(core_.get());
  return core->awaitRecord(milliseconds) && core->hasField(field);
}

void keepOn(const std::shared_ptr<HublinkLink>& link, std::unique_ptr<InterfaceSide> side) {
  InterfaceSide& kept = *side;
  const CountedPtr<InterfaceCore> core(&InterfaceCore::of(kept));
  core->keep(std::move(side));
  kept.attach(link);
}

Result<std::shared_ptr<HublinkLink>> findLink(HublinkPlugin& plugin, const ServiceQuery& query,
                                              int milliseconds) {
  using Outcome = ServiceReply::Outcome;
  const Countdown countdown(milliseconds);
  ServiceReply reply = plugin.requestService(query, milliseconds);
  for (int pause = kFirstPause; reply.outcome == Outcome::notFound;
       pause = std::min(2 * pause, kLongestPause)) {
    const int left = countdown.left();
    plugin.serveUntil([] { return false; }, left < 0 ? pause : std::min(pause, left));
    if (countdown.left() == 0) break;
    reply = plugin.requestService(query, countdown.left());
  }
  if (reply.link) return reply.link;
  const std::string text = query.serviceName + ": " + outcomeText(reply.outcome);
  switch (reply.outcome) {
    case Outcome::refused:
      return Error{Failure::refused, text};
    case Outcome::timedOut:
      return Error{Failure::timedOut, text};
    case Outcome::lostProvider:
    case Outcome::disconnected:
      return Error{Failure::linkEnded, text};
    default:
      return Error{Failure::notFound, text};
  }
}

Result<std::shared_ptr<HublinkLink>> findLink(HublinkPlugin& plugin, const std::string& service,
                                              int milliseconds) {
  ServiceQuery query;
  query.serviceName = service;
  return findLink(plugin, query, milliseconds);
}

}  // namespace hublink
