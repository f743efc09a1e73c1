// Two transports of one process joined without a socket: a writer leaves its bytes in its own write
// buffer, and the reader pulls them from there.
#include <cstring>

#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

bool STPTransport::createInProcessPair(STPTransport** a, STPTransport** b) {
  if (!a || !b) return false;
  *a = new STPTransport(STP_BUFFER_SIZE);
  *b = new STPTransport(STP_BUFFER_SIZE);
  return connectInProcess(*a, *b);
}

bool STPTransport::connectInProcess(STPTransport* a, STPTransport* b) {
  if (!a || !b) return false;
  attachInProcess(a, &b->writeOffset_, &b->writeCount_, &b->writeCapacity_, &b->writeBuffer_.bytes,
                  a->notify_, a->notifyArgument_);
  attachInProcess(b, &a->writeOffset_, &a->writeCount_, &a->writeCapacity_, &a->writeBuffer_.bytes,
                  b->notify_, b->notifyArgument_);
  return true;
}

void STPTransport::attachInProcess(STPTransport* transport, std::int64_t* peerWriteOffset,
                                   std::int64_t* peerWriteCount, std::int64_t* peerWriteCapacity,
                                   unsigned char** peerWriteBuffer, Notify notify,
                                   std::uintptr_t notifyArgument) {
  if (!transport) return;
  if (!transport->isInProcess())
    transport->closeConnection();
  else if (transport->peerWriteCount_ != peerWriteCount)
    transport->leavePair();
  transport->stopListening();
  transport->link_ = Link::paired;
  transport->attend();
  transport->peerWriteOffset_ = peerWriteOffset;
  transport->peerWriteCount_ = peerWriteCount;
  transport->peerWriteCapacity_ = peerWriteCapacity;
  transport->peerWriteBuffer_ = peerWriteBuffer;
  transport->notify_ = notify;
  transport->notifyArgument_ = notifyArgument;
  transport->findPartner();
}

// The two ends of a pair know each other however they were joined, if both are this process's.
void STPTransport::findPartner() {
  for (const auto& [serial, other] : stpProcess().transportsBySerial) {
    if (&other->writeCount_ != peerWriteCount_ || other->peerWriteCount_ != &writeCount_) continue;
    partner_ = other;
    other->partner_ = this;
    delivery_.setOtherEnd(&other->delivery_);
    other->delivery_.setOtherEnd(&delivery_);
  }
}

// Takes this end's fields out of the other end's reach, and the other's out of its own.
void STPTransport::leavePair() {
  if (partner_ && partner_->partner_ == this) {
    partner_->partner_ = nullptr;
    partner_->delivery_.setOtherEnd(nullptr);
    partner_->peerWriteOffset_ = partner_->peerWriteCount_ = partner_->peerWriteCapacity_ = nullptr;
    partner_->peerWriteBuffer_ = nullptr;
  }
  partner_ = nullptr;
  delivery_.setOtherEnd(nullptr);
  peerWriteOffset_ = peerWriteCount_ = peerWriteCapacity_ = nullptr;
  peerWriteBuffer_ = nullptr;
  notify_ = nullptr;
  notifyArgument_ = 0;
}

void STPTransport::inProcessEndpoints(std::int64_t** writeOffset, std::int64_t** writeCount,
                                      std::int64_t** writeCapacity, unsigned char*** writeBuffer) {
  writeBuffer_.require(writeCapacity_);
  if (writeOffset) *writeOffset = &writeOffset_;
  if (writeCount) *writeCount = &writeCount_;
  if (writeCapacity) *writeCapacity = &writeCapacity_;
  if (writeBuffer) *writeBuffer = &writeBuffer_.bytes;
}

// Pulls all that the other end has written; false if that end has gone.
bool STPTransport::receiveInProcess() {
  if (!peerWriteCount_) {
    closeWithFailure(STP_PEER_CLOSED, "[handleRead]: peer has closed connection");
    return false;
  }
  const std::int64_t count = *peerWriteCount_;
  if (count <= 0) return true;
  std::memcpy(input_.roomFor(count).bytes, *peerWriteBuffer_ + *peerWriteOffset_,
              static_cast<std::size_t>(count));
  input_.add(count);
  *peerWriteCount_ = 0;
  *peerWriteOffset_ = 0;
  return true;
}

void STPTransport::pumpFor(const STPTransport* transport, Notify* function,
                           std::uintptr_t* argument) {
  *function = [](std::uintptr_t serial) {
    const auto& transports = stpProcess().transportsBySerial;
    const auto place = transports.find(serial);
    if (place != transports.end()) place->second->handleRead();
  };
  *argument = transport->serial_;
}
