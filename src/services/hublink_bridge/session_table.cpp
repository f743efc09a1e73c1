#include "services/hublink_bridge/session_table.h"

#include <algorithm>

#include "services/hublink_bridge/names.h"

namespace bridge {

Session* SessionTable::open(const std::string& machine, std::uint64_t id, bool isInitiator,
                            std::int64_t now) {
  auto session = std::make_unique<Session>(machine, id, isInitiator, host_, options_, now);
  if (!isUp_) session->carrierChanged(false, now);
  Session* opened = session.get();
  sessions_[{machine, id}] = std::move(session);
  shareOutWindows();
  return opened;
}

void SessionTable::setOptions(const SessionOptions& options) {
  options_ = options;
  for (const auto& [key, session] : sessions_)
    if (!session->hasEnded() && session->maxMessage() > options.maxMessage)
      session->end("this NATS server takes only smaller messages", true);
}

void SessionTable::shareOutWindows() {
  const auto count = static_cast<std::uint32_t>(sessions_.size());
  for (const auto& [key, session] : sessions_) session->setWindow(kAllWindows / count);
}

std::size_t SessionTable::countWith(const std::string& machine) const {
  std::size_t count = 0;
  eachWith(machine, [&](const Session&) { ++count; });
  return count;
}

Session& SessionTable::ours(const std::string& machine, std::int64_t now) {
  Session* found = nullptr;
  eachWith(machine, [&](Session& session) {
    if (session.isInitiator() && !session.hasEnded()) found = &session;
  });
  return found ? *found : *open(machine, randomNumber(), true, now);
}

void SessionTable::take(const std::string& machine, unsigned char* message, std::size_t size,
                        std::int64_t now) {
  const auto head = readMessageHead(message, size);
  if (!head) return;
  const auto place = sessions_.find({machine, head->session});
  Session* session = place == sessions_.end() ? nullptr : place->second.get();
  const bool isReset = (head->flags & kReset) != 0;
  if (!session && (head->flags & kFirst) != 0 && !isReset && !hasEnded(machine, head->session) &&
      countWith(machine) < kMostWithMachine)
    session = open(machine, head->session, false, now);
  if (session && !session->hasEnded()) {
    session->take(message, size, now);
  } else if (!isReset) {
    const auto reset = Session::resetMessage(head->session);
    transmit_(machine, reset.data(), reset.size());
  }
}

bool SessionTable::hasEnded(const std::string& machine, std::uint64_t id) const {
  return std::any_of(ended_.begin(), ended_.end(),
                     [&](const Key& key) { return key.second == id && key.first == machine; });
}

void SessionTable::heard(const std::string& machine, std::int64_t now) {
  eachWith(machine, [&](Session& session) { session.heard(now); });
}

void SessionTable::carrierChanged(bool isUp, std::int64_t now) {
  isUp_ = isUp;
  for (const auto& [key, session] : sessions_)
    if (!session->hasEnded()) session->carrierChanged(isUp, now);
}

void SessionTable::endAll(const std::string& machine, const std::string& why) {
  eachWith(machine, [&](Session& session) {
    if (!session.hasEnded()) session.end(why, false);
  });
}

void SessionTable::endAll(const std::string& why) {
  for (const auto& [key, session] : sessions_)
    if (!session->hasEnded()) session->end(why, true);
}

void SessionTable::flush(std::int64_t now) {
  // Each is the first in its turn: that one may take all the room that the carrier has.
  auto place = sessions_.upper_bound(flushedFirst_);
  for (std::size_t i = 0, count = sessions_.size(); i < count; ++i, ++place) {
    if (place == sessions_.end()) place = sessions_.begin();
    if (i == 0) flushedFirst_ = place->first;
    if (!place->second->hasEnded()) place->second->flush(now);
  }
}

std::int64_t SessionTable::step(std::int64_t now,
                                const std::function<bool(const Session&)>& isUsed) {
  std::int64_t next = -1;
  const std::size_t before = sessions_.size();
  for (auto place = sessions_.begin(); place != sessions_.end();) {
    Session& session = *place->second;
    const std::int64_t own = session.hasEnded() ? -1 : session.step(now);
    if (own >= 0 && (next < 0 || own < next)) next = own;
    if (session.isInitiator() && !session.hasEnded() && session.isAtRest(now) && !isUsed(session))
      session.end("it isn't used any more", true);
    if (!session.hasEnded() || isUsed(session)) {
      ++place;
      continue;
    }
    if (ended_.size() == kMostEnded) ended_.pop_front();
    ended_.push_back(place->first);
    place = sessions_.erase(place);
  }
  if (sessions_.size() != before && !sessions_.empty()) shareOutWindows();
  return next;
}

}  // namespace bridge
