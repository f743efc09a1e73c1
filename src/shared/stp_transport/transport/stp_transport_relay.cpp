// What relaying asks beyond passing packets on. A receiver that doesn't read stops those who send
// to it, so that the wait travels back to them. And relaying goes on while something else is waited
// for: on each connection nothing overtakes its first packet that is to be delivered here.
#include "platform/readiness.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

// Packets are taken whole, so that a backlog passes the limit by one packet and one read at most.
void STPTransport::noteCongestion(STPTransport& target) {
  stalledOn_ = target.serial_;
  if (target.congested_) return;
  target.congested_ = true;
  forwardingHandler_->congestionChanged(&target, true);
}

void STPTransport::endCongestion() {
  congested_ = false;
  if (forwardingHandler_) forwardingHandler_->congestionChanged(this, false);
}

// One whose peer has gone has no more to send than what lies in its socket, and that is still to be
// passed on.
bool STPTransport::isStalled() const {
  if (stalledOn_ == 0 || writeFailed_ || platform::readiness().isHungUp(fd_)) return false;
  const auto& transports = stpProcess().transportsBySerial;
  const auto place = transports.find(stalledOn_);
  return place != transports.end() && place->second->congested_;
}

// A connection whose front packet has to wait isn't read any further: what comes behind it stays
// with the sender.
bool STPTransport::canRelay() const {
  return connected_ && !inProcess_ && !heldBack_ && !writeFailed_ && !isStalled() &&
         platform::readiness().isReadable(fd_);
}

// Passes on what the read buffer holds, up to the first packet that has to wait.
void STPTransport::relayInput() {
  if (!connected_ || inProcess_) return;
  while (readCount_ > 0 && !needMore_ && !heldBack_ && !isStalled()) {
    const STPPacketTest test = stpTestPacket(readBuffer_.bytes + readOffset_, readCount_);
    if (test.state == STPPacketState::incomplete)
      needMore_ = true;
    else
      heldBack_ = test.state == STPPacketState::invalid || !passOn(test);
  }
  if (!heldBack_) finishInput();
}

void STPTransport::serviceOnceRelaying(int timeout, const STPTransportSet& others,
                                       STPStatus* status) {
  const Hold hold(this);
  // Nothing is delivered here, so that neither set changes but by transports that come to need
  // attention.
  attendNews();
  const STPTransportSet& attention = stpProcess().attention;
  for (STPTransport* other : attention)
    if (others.contains(other)) other->relayInput();
  flushMarked();
  for (STPTransport* other : attention)
    if (others.contains(other) &&
        (other->canRelay() || (other->canWrite() && !other->writeFailed_)))
      timeout = 0;
  bool failed = false;
  if (!canRead() && !canWrite()) platform::readiness().wait(timeout, failed);
  attendNews();
  for (STPTransport* other : attention) {
    if (other == this || !others.contains(other)) continue;
    // A write that fails is left to the connection's own turn.
    if (other->canWrite()) other->writeOnce();
    if (other->canRelay() && other->receiveFromSocket()) other->relayInput();
    flushMarked();
  }
  serviceOnce(0, status);
}
