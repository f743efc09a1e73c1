// Relaying while something else is waited for: what goes through to other transports goes on, and
// on each connection nothing overtakes its first packet that is to be delivered here.
#include "platform/readiness.h"
#include "stp_transport/transport/stp_transport.h"

// A connection whose front packet has to wait isn't read any further: what comes behind it stays
// with the sender.
bool STPTransport::canRelay() const {
  return connected_ && !inProcess_ && !heldBack_ && !writeFailed_ &&
         platform::readiness().isReadable(fd_);
}

// Passes on what the read buffer holds, up to the first packet that has to wait.
void STPTransport::relayInput() {
  if (!connected_ || inProcess_) return;
  while (readCount_ > 0 && !needMore_ && !heldBack_) {
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
  for (STPTransport* other : others) other->relayInput();
  flushMarked();
  for (const STPTransport* other : others)
    if (other->canRelay() || (other->canWrite() && !other->writeFailed_)) timeout = 0;
  bool failed = false;
  if (!canRead() && !canWrite()) platform::readiness().wait(timeout, failed);
  for (STPTransport* other : others) {
    if (other == this) continue;
    // A write that fails is left to the connection's own turn.
    if (other->canWrite()) other->writeOnce();
    if (other->canRelay() && other->receiveFromSocket()) other->relayInput();
    flushMarked();
  }
  serviceOnce(0, status);
}
