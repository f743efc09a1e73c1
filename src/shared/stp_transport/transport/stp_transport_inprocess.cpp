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
  const auto join = [](STPTransport* end, STPTransport* other) {
    STPWriteFields& fields = other->fields_;
    attachInProcess(end, &fields.offset, &fields.count, &fields.capacity, &fields.block.bytes,
                    end->pair_.notify, end->pair_.argument);
  };
  join(a, b);
  join(b, a);
  return true;
}

void STPTransport::attachInProcess(STPTransport* transport, std::int64_t* peerWriteOffset,
                                   std::int64_t* peerWriteCount, std::int64_t* peerWriteCapacity,
                                   unsigned char** peerWriteBuffer, Notify notify,
                                   std::uintptr_t notifyArgument) {
  if (!transport) return;
  if (!transport->isInProcess())
    transport->closeConnection();
  else if (transport->pair_.fields.count != peerWriteCount)
    transport->leavePair();
  transport->stopListening();
  transport->link_ = Link::paired;
  transport->attend();
  transport->pair_.fields = {peerWriteOffset, peerWriteCount, peerWriteCapacity, peerWriteBuffer};
  transport->pair_.notify = notify;
  transport->pair_.argument = notifyArgument;
  transport->findPartner();
}

// The two ends of a pair know each other however they were joined, if both are this process's.
void STPTransport::findPartner() {
  for (const auto& [serial, other] : stpProcess().transportsBySerial) {
    if (&other->fields_.count != pair_.fields.count || other->pair_.fields.count != &fields_.count)
      continue;
    pair_.partner = other;
    other->pair_.partner = this;
    delivery_.setOtherEnd(&other->delivery_);
    other->delivery_.setOtherEnd(&delivery_);
  }
}

// Takes this end's fields out of the other end's reach, and the other's out of its own.
void STPTransport::leavePair() {
  STPTransport* partner = pair_.partner;
  if (partner && partner->pair_.partner == this) {
    partner->pair_.partner = nullptr;
    partner->pair_.fields = {};
    partner->delivery_.setOtherEnd(nullptr);
  }
  pair_ = {};
  delivery_.setOtherEnd(nullptr);
}

void STPTransport::inProcessEndpoints(std::int64_t** writeOffset, std::int64_t** writeCount,
                                      std::int64_t** writeCapacity, unsigned char*** writeBuffer) {
  fields_.block.require(fields_.capacity);
  if (writeOffset) *writeOffset = &fields_.offset;
  if (writeCount) *writeCount = &fields_.count;
  if (writeCapacity) *writeCapacity = &fields_.capacity;
  if (writeBuffer) *writeBuffer = &fields_.block.bytes;
}

// Pulls all that the other end has written; false if that end has gone.
bool STPTransport::receiveInProcess() {
  const STPPeerFields& fields = pair_.fields;
  if (!fields.count) {
    closeWithFailure(STP_PEER_CLOSED, "[handleRead]: peer has closed connection");
    return false;
  }
  const std::int64_t count = *fields.count;
  if (count <= 0) return true;
  std::memcpy(input_.roomFor(count).bytes, *fields.buffer + *fields.offset,
              static_cast<std::size_t>(count));
  input_.add(count);
  *fields.count = 0;
  *fields.offset = 0;
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
