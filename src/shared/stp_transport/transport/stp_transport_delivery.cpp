// The way of a received packet to its delivery (stp_delivery.h), and the wait for a response.
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

void STPTransport::dispatchMessage(std::unique_ptr<STPReceivedMessage> message) {
  switch (message->header.type) {
    case STP_DISCARD:
      return;
    case STP_SYNC:
      recordSync(*message);
      return;
    case STP_CHANNEL:
      handleChannelPacket(*message);
      return;
    default:
      break;
  }
  const Hold hold(this);
  delivery_.dispatch(std::move(message));
  if (delivery_.hasDeferred()) attend();
}

bool STPTransport::hasDeliverable() const {
  if (isClosed() || stpProcess().sendDepth >= 1) return false;
  if (input_.hasInput() && !isStalled() && !(isOverfull() && isFrontForThisEnd())) return true;
  return !isOverfull() && delivery_.hasDeliverable();
}

bool STPTransport::redispatchUnclaimed(std::int32_t source, std::int32_t destination,
                                       std::uint32_t type) {
  const Hold hold(this);
  const bool isFound = delivery_.redispatchUnclaimed(source, destination, type);
  if (delivery_.hasDeferred()) attend();
  return isFound;
}

std::unique_ptr<STPReceivedMessage> STPTransport::awaitResponse(std::uint32_t sequence,
                                                                RetryHandler* retry,
                                                                STPStatus* status) {
  if (sequence == 0) return nullptr;
  const Hold hold(this);
  status_.clear();
  auto response = delivery_.takeResponse(sequence);
  if (!response) {
    const bool holds = (currentContext().callFlags & STP_HOLD_OTHERS) != 0;
    if (holds) ++stpProcess().holdDepth;
    delivery_.expect(sequence);
    waitUntil(retry, WaitOrder::passFirst, [&] {
      response = delivery_.takeResponse(sequence);
      return response || isClosed();
    });
    if (holds) --stpProcess().holdDepth;
  }
  delivery_.giveUp(sequence);
  if (!response && status_.good()) {
    if (isClosed())
      status_.set(STP_PEER_CLOSED,
                  "[awaitResponse]: connection closed while waiting to receive response");
    else
      status_.set(STP_TIMEOUT,
                  "[awaitResponse]: reached timeout while waiting to receive response");
  }
  leaveCall();
  copyStatus(status);
  return response;
}
