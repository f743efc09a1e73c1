#include "services/hublink_bridge/link.h"

#include "platform/clock.h"

namespace bridge {

Link::~Link() {
  if (standIn_) standIn_->setHeld(localRN(), false);
}

bool Link::join(StandIn& standIn, const std::shared_ptr<HublinkLink>& hubLink) {
  standIn_ = &standIn;
  hubLink_ = hubLink;
  since_ = platform::unixMilliseconds();
  if (!incoming_.start(*this, hubLink->localRN(), hubLink->remoteRN())) return false;
  if (hasRemoteEnded_) endHere();
  return true;
}

std::uint64_t Link::passOn(const unsigned char* packets, std::size_t size) {
  return standIn_->send(packets, size);
}

void Link::holdReading() {
  if (standIn_) standIn_->setHeld(localRN(), !hasRemoteEnded_ && outgoing_.isStopped());
}

void Link::packetsArrived(const unsigned char* packets, std::size_t size) {
  if (hasRemoteEnded_ || hasLocalEnded_) return;
  outgoing_.send(packets, size);
  holdReading();
}

bool Link::dataArrived(const Frame& frame) {
  return hasRemoteEnded_ || incoming_.take(frame.body, frame.size);
}

bool Link::creditArrived(const Frame& frame) {
  const bool isGood = outgoing_.takeCredit(frame);
  holdReading();
  return isGood;
}

void Link::sendMore() {
  outgoing_.sendMore();
  holdReading();
}

void Link::noteWritten() {
  if (standIn_) incoming_.written(standIn_->written());
}

void Link::localEnded() {
  if (std::exchange(hasLocalEnded_, true)) return;
  incoming_.drop();
  if (!hasRemoteEnded_) outgoing_.close();
}

void Link::remoteEnded() {
  if (std::exchange(hasRemoteEnded_, true)) return;
  holdReading();
  if (hubLink_) endHere();
}

void Link::endHere() {
  incoming_.close();
  if (!hasLocalEnded_) hubLink_->close();
}

bool Link::isOver() const {
  if (incoming_.hasUnwritten() && standIn_->plugin().isConnected()) return false;
  if (hasRemoteEnded_) return hubLink_ || hasLocalEnded_;
  return hasLocalEnded_ && outgoing_.isClosed();
}

Link& LinkTable::add(Session& session, std::uint32_t number, LinkEnds ends) {
  std::unique_ptr<Link>& place = links_[{&session, number}];
  place = std::make_unique<Link>(session, number, std::move(ends));
  return *place;
}

bool LinkTable::join(Link& link, StandIn& standIn, const std::shared_ptr<HublinkLink>& hubLink) {
  byRN_[{&standIn, hubLink->localRN()}] = &link;
  const Key key{&link.session(), link.number()};
  hubLink->onEnd([this, key] {
    const auto place = links_.find(key);
    if (place == links_.end()) return;
    place->second->localEnded();
    settleLater(*place->second);
  });
  settleLater(link);
  return link.join(standIn, hubLink);
}

Link* LinkTable::find(const Session& session, std::uint32_t number) const {
  const auto place = links_.find({&session, number});
  return place == links_.end() ? nullptr : place->second.get();
}

Link* LinkTable::find(const StandIn& standIn, std::int32_t localRN) const {
  const auto place = byRN_.find({&standIn, localRN});
  return place == byRN_.end() ? nullptr : place->second;
}

StandIn* LinkTable::standInBetween(std::int32_t localPluginID, const std::string& machine) const {
  for (const auto& [key, link] : links_)
    if (link->standIn() && link->ends().localPluginID == localPluginID &&
        link->ends().remote.machine == machine)
      return link->standIn();
  return nullptr;
}

std::size_t LinkTable::countWith(const std::string& machine) const {
  std::size_t count = 0;
  for (const auto& [key, link] : links_) count += link->ends().remote.machine == machine ? 1 : 0;
  return count;
}

void LinkTable::forEach(const std::function<void(const Link& link)>& visit) const {
  for (const auto& [key, link] : links_) visit(*link);
}

// One link may take all the room that there is: the next time those behind it come first.
void LinkTable::roomAgain(const Session& session) {
  const std::uint32_t last = lastServed_[&session];
  const auto serve = [&](Link& link) {
    const bool hadRoom = session.hasRoom();
    link.sendMore();
    if (hadRoom && !session.hasRoom()) lastServed_[&session] = link.number();
    if (link.isOver()) settleLater(link);
  };
  eachOf(session, [&](Link& link) {
    if (link.number() > last) serve(link);
  });
  eachOf(session, [&](Link& link) {
    if (link.number() <= last) serve(link);
  });
}

void LinkTable::sessionEnded(const Session& session) {
  lastServed_.erase(&session);
  eachOf(session, [this](Link& link) {
    link.remoteEnded();
    settleLater(link);
  });
}

void LinkTable::settleLater(Link& link) {
  if (std::exchange(link.isToSettle_, true)) return;
  toSettle_.push_back({&link.session(), link.number()});
}

bool LinkTable::hasAny(const Session& session) const {
  const auto place = links_.lower_bound({&session, 0});
  return place != links_.end() && place->first.first == &session;
}

void LinkTable::settle() {
  // What ends meanwhile is looked at in the next pass.
  for (const Key& key : std::exchange(toSettle_, {})) {
    const auto place = links_.find(key);
    if (place == links_.end()) continue;
    Link& link = *place->second;
    link.isToSettle_ = false;
    link.noteWritten();
    if (link.isOver()) {
      ended_(link);
      byRN_.erase({link.standIn(), link.localRN()});
      links_.erase(place);
    } else if (link.hasUnwritten()) {
      settleLater(link);
    }
  }
}

}  // namespace bridge
