// What relaying asks beyond passing packets on. A receiver that is slower than those who send to it
// has them wait a little (stp_backlog.h); one that doesn't read stops them for good, so that the
// wait travels back to them, and isn't answered any more itself; what it sends to others is passed
// on all the same, since it may be blocked on just that.
#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/readiness.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

// How often those who aren't read are looked at, in ms.
constexpr std::uint64_t kLookInterval = 100;

using PeerKind = platform::PeerUser::Kind;

STPTransport* transportOf(std::uintptr_t serial) {
  const auto& transports = stpProcess().transportsBySerial;
  const auto place = transports.find(serial);
  return place != transports.end() ? place->second : nullptr;
}

}  // namespace

// Packets are taken whole, so that a backlog passes the limit by one packet and one read at most.
// To be called when something has been queued. What waits for the other end of a pair in one
// process goes without a word to this end.
void STPTransport::noteQueued() {
  if (!hasSocket()) return;
  const std::int64_t waiting = writeQueue_.count();
  if (backlog_.isTooMuch(waiting)) {
    backlog_.hold(platform::monotonicMilliseconds());
    stpProcess().holding.push_back(this);
  }
  if (!isCongested() && waiting >= stpProcess().backlogLimit) setCongested(true);
}

void STPTransport::noteWritten(std::int64_t count) {
  const std::int64_t waiting = writeQueue_.count();
  if (backlog_.isWatched()) {
    const bool wasHeld = backlog_.isHeld(), wasSlow = backlog_.slowSince() != 0;
    backlog_.took(count, waiting, platform::monotonicMilliseconds());
    if (wasHeld && !backlog_.isHeld()) endHold();
    if (wasSlow && backlog_.slowSince() == 0 && forwardingHandler_)
      forwardingHandler_->slownessChanged(this, false);
  }
  if (isCongested() && waiting <= stpProcess().backlogLimit / 2) setCongested(false);
}

void STPTransport::endHold() {
  std::erase(stpProcess().holding, this);
}

// Sleeps until there is something new, or the time is up, or a receiver has had its time to show
// that it is quick: one that can take more hasn't. False as the readiness set says.
bool STPTransport::waitForNews(int timeout, bool& failed) {
  std::vector<STPTransport*>& holding = stpProcess().holding;
  if (!holding.empty() && timeout != 0) {
    const std::uint64_t now = platform::monotonicMilliseconds();
    for (const STPTransport* one : holding) {
      if (one->canWrite()) continue;
      const std::uint64_t deadline = one->backlog_.deadline();
      const int due = deadline > now ? static_cast<int>(deadline - now) : 0;
      if (timeout < 0 || due < timeout) timeout = due;
    }
  }
  if (!stpProcess().stopped.empty()) {
    const int most = static_cast<int>(kLookInterval);
    if (timeout < 0 || timeout > most) timeout = most;
  }
  const bool went = platform::readiness().wait(timeout, failed);
  lookAtStopped();
  if (!holding.empty()) {
    const std::uint64_t now = platform::monotonicMilliseconds();
    std::erase_if(holding, [now](STPTransport* one) {
      const bool wasSlow = one->backlog_.slowSince() != 0;
      if (!one->canWrite()) one->backlog_.expire(now);
      if (!wasSlow && one->backlog_.slowSince() != 0 && one->forwardingHandler_)
        one->forwardingHandler_->slownessChanged(one, true);
      return !one->backlog_.isHeld();
    });
  }
  return went;
}

void STPTransport::setCongested(bool flag) {
  backlog_.setFull(flag);
  if (forwardingHandler_) forwardingHandler_->congestionChanged(this, flag);
}

// The end of a stream lies behind what isn't read, and no event announces it as long as that
// doesn't fit into the socket.
void STPTransport::lookAtStopped() {
  STPProcessState& process = stpProcess();
  if (process.stopped.empty()) return;
  const std::uint64_t now = platform::monotonicMilliseconds();
  if (now < process.nextLook) return;
  std::erase_if(process.stopped, [](std::uintptr_t serial) {
    STPTransport* one = transportOf(serial);
    if (!one) return true;
    const STPTransport* target = transportOf(one->stall_.on);
    one->stall_.isListed = target && target->isCongested();
    if (one->link_ != Link::connected && one->link_ != Link::abandoned)
      return !one->stall_.isListed;
    // A system that can't tell of the receiver can't tell of this one either.
    const bool isGone = one->stall_.isListed &&
                        platform::userOfClient(one->fd_).kind == PeerKind::unknown &&
                        platform::userOfClient(target->fd_).kind == PeerKind::known;
    one->link_ = isGone ? Link::abandoned : Link::connected;
    return !one->stall_.isListed;
  });
  process.nextLook = platform::monotonicMilliseconds() + kLookInterval;
}

// One whose peer has gone has no more to send than what lies in its socket, and that is still to be
// passed on.
bool STPTransport::isStalled() const {
  if ((stall_.on == 0 && !isPaused_) || link_ > Link::connected ||
      platform::readiness().isHungUp(fd_))
    return false;
  if (isPaused_) return true;
  const STPTransport* target = transportOf(stall_.on);
  return target && target->backlog_.stops(stall_.turn);
}

void STPTransport::setReading(bool flag) {
  isPaused_ = !flag;
  attend();
}

void STPTransport::waitFor(const STPTransport& target) {
  if (!target.isCongested() && !target.backlog_.isHeld()) return;
  stall_.on = target.serial_;
  stall_.turn = target.backlog_.turn();
  if (!target.isCongested() || stall_.isListed) return;
  stall_.isListed = true;
  stpProcess().stopped.push_back(serial_);
}

// Each answer to this end would add to what isn't read. A plugin's own queue stops nothing: its
// peer may be stopped by the same rule.
bool STPTransport::isOverfull() const {
  return isCongested() && forwardingHandler_ && link_ != Link::draining;
}
