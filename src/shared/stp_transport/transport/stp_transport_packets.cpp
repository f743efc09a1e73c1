// Whole packets into the write buffer and out of the read buffer, and the relay between transports.
#include <algorithm>
#include <cstring>

#include "platform/readiness.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

// A read buffer that has grown past this many times its initial size goes back when it is empty.
constexpr std::int64_t kReadShrinkFactor = 10;

}  // namespace

std::unique_ptr<STPMessage> STPTransport::newMessage(std::int32_t source, std::int32_t destination,
                                                     std::uint32_t type, std::uint32_t id,
                                                     std::uint32_t flags) {
  const STPCallContext& context = requestContext();
  auto message = std::make_unique<STPMessage>();
  message->header.sourceRN = source;
  message->header.destinationRN = destination;
  message->header.type = type;
  message->header.id = id;
  message->header.flags = flags;
  message->header.chain = context.chain();
  message->header.depth = std::uint32_t{context.callDepth} + 1;
  return message;
}

std::unique_ptr<STPMessage> STPTransport::newResponse(std::int32_t source, std::int32_t destination,
                                                      std::uint32_t responseTo,
                                                      std::uint32_t flags) {
  const STPCallContext& context = currentContext();
  auto message = std::make_unique<STPMessage>();
  message->header.sourceRN = source;
  message->header.destinationRN = destination;
  message->header.responseTo = responseTo;
  message->header.type = STP_RESPONSE;
  message->header.id = STP_RESPONSE;
  message->header.flags = flags;
  message->header.chain = context.chain();
  message->header.depth = context.callDepth;
  return message;
}

// Room for one packet of `total` bytes behind the waiting ones, counted as written, its fill zero.
unsigned char* STPTransport::reserveWrite(std::int64_t total) {
  const std::int64_t stored = stpStoredSize(total);
  if (writeCapacity_ < writeOffset_ + writeCount_ + stored) {
    const std::int64_t capacity = writeCount_ + std::max(writeCount_, stored);
    unsigned char* block = STPByteBlock::allocate(capacity);
    if (writeCount_ > 0)
      std::memcpy(block, writeBuffer_.bytes + writeOffset_, static_cast<std::size_t>(writeCount_));
    writeBuffer_.adopt(block, capacity);
    writeCapacity_ = capacity;
    writeOffset_ = 0;
  }
  writeBuffer_.require(writeCapacity_);
  unsigned char* place = writeBuffer_.bytes + writeOffset_ + writeCount_;
  std::memset(place + total, 0, static_cast<std::size_t>(stored - total));
  writeCount_ += stored;
  return place;
}

std::uint32_t STPTransport::enqueueMessage(STPMessage& message) {
  if (message.header.type == 0) {
    status_.set(STP_MISUSE, "[enqueueMessage]: invalid message header");
    return 0;
  }
  // A receiver would take it for an invalid packet and end the connection.
  if (stpStoredSize(message.cursorOffset()) + STP_END_WORD_SIZE > STP_MAX_PACKET_SIZE) {
    status_.set(STP_FAILED, "[enqueueMessage]: message is too large");
    return 0;
  }
  if (++lastSequence_ == 0) ++lastSequence_;
  message.finishMessage(lastSequence_);
  const std::int64_t total = std::int64_t{message.header.headerSize} + message.header.payloadSize;
  std::memcpy(reserveWrite(total), message.storage(), static_cast<std::size_t>(total));
  hasLast_ = true;
  lastType_ = message.header.type;
  lastId_ = message.header.id;
  markUnflushed();
  return lastSequence_;
}

std::uint32_t STPTransport::sendMessage(STPMessage& message, RetryHandler* retry,
                                        STPStatus* status) {
  const Hold hold(this);
  const std::uint32_t sequence = enqueueMessage(message);
  if (sequence == 0) {
    copyStatus(status);
    return 0;
  }
  enterCall(message.header.chain, message.header.depth, message.header.flags);
  bool failed = false;
  if (inProcess_ && notify_) {
    notify_(notifyArgument_);
  } else {
    const STPDepthGuard sending(stpProcess().sendDepth);
    handleWrite();
    if (status_.good() && isWritePending()) {
      waitThenTest(retry, [this] { return !isWritePending(); });
      if (isWritePending() && status_.good())
        status_.set(STP_TIMEOUT, "[sendMessage]: reached timeout while waiting to send message");
    }
    failed = !status_.good();
  }
  if (failed || (message.header.flags & STP_ONE_WAY)) leaveCall();
  copyStatus(status);
  return failed ? 0 : sequence;
}

std::uint32_t STPTransport::postMessage(STPMessage& message, int attempts, STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  const std::uint32_t sequence = enqueueMessage(message);
  if (sequence != 0 && inProcess_ && notify_) {
    notify_(notifyArgument_);
  } else if (sequence != 0) {
    const STPDepthGuard sending(stpProcess().sendDepth);
    for (int i = 0; i < attempts && isWritePending() && status_.good(); ++i) {
      // A failure closes the connection only in its own turn of the loop, after its read.
      if (writeOnce() == WriteResult::failed) status_ = writeFailure();
    }
  }
  copyStatus(status);
  return sequence;
}

void STPTransport::parseInput() {
  const Hold hold(this);
  heldBack_ = false;
  // A handler may run a step of its own, which is then to see what is left here.
  attend();
  retryDeferred();
  while (readCount_ > 0 && !needMore_ && !isStalled()) {
    const STPPacketTest test = stpTestPacket(readBuffer_.bytes + readOffset_, readCount_);
    if (test.state == STPPacketState::incomplete) {
      needMore_ = true;
    } else if (test.state == STPPacketState::invalid) {
      closeWithFailure(STP_FAILED, "[handleRead]: remote host sent invalid packet");
      return;
    } else {
      takePacket(test);
    }
  }
  finishInput();
}

// Passes the packet at the front of the read buffer on or delivers it. The buffer is in a sound
// state before anything is called that may come back here.
void STPTransport::takePacket(const STPPacketTest& test) {
  heldBack_ = false;
  if (passOn(test)) return;
  const std::int64_t stored = stpStoredSize(std::int64_t{test.headerSize} + test.payloadSize);
  auto message = std::make_unique<STPReceivedMessage>(readBuffer_.bytes + readOffset_,
                                                      test.headerSize, test.payloadSize);
  readOffset_ += stored;
  readCount_ -= stored;
  dispatchMessage(std::move(message));
}

// False if the packet at the front is for this end.
bool STPTransport::passOn(const STPPacketTest& test) {
  if (!forwardingHandler_) return false;
  const unsigned char* packet = readBuffer_.bytes + readOffset_;
  const auto destination = static_cast<std::int32_t>(stpReadWord(packet + 12));
  STPTransport* target = forwardingHandler_->forwardTarget(destination);
  if (target) forwardPacket(*target, std::int64_t{test.headerSize} + test.payloadSize);
  return target != nullptr;
}

void STPTransport::forwardPacket(STPTransport& target, std::int64_t total) {
  unsigned char* place = target.reserveWrite(total);
  std::memcpy(place, readBuffer_.bytes + readOffset_, static_cast<std::size_t>(total));
  readOffset_ += stpStoredSize(total);
  readCount_ -= stpStoredSize(total);
  target.markUnflushed();
  if (target.congested_ || target.writeCount_ >= stpProcess().backlogLimit) noteCongestion(target);
}

// Offers what has been put off, from the head again after each delivery, which may have changed the
// list. A listener that refuses for ever gets each message once in a call.
void STPTransport::retryDeferred() {
  std::size_t offers = deferredMessages_.size();
  auto place = deferredMessages_.begin();
  while (offers > 0 && place != deferredMessages_.end()) {
    if (!canDeliver(**place)) {
      ++place;
      continue;
    }
    auto message = std::move(*place);
    deferredMessages_.erase(place);
    --offers;
    dispatchMessage(std::move(message));
    place = deferredMessages_.begin();
  }
}

void STPTransport::finishInput() {
  if (readCount_ != 0) return;
  readOffset_ = 0;
  needMore_ = false;
  if (readCapacity_ > kReadShrinkFactor * readInitial_) {
    readCapacity_ = readInitial_;
    readBuffer_.release();
  }
}

void STPTransport::markUnflushed() {
  if (unflushed_ || !isWritePending()) return;
  unflushed_ = true;
  stpProcess().unflushed.push_back(this);
}

// Writes out what the turn of one transport has queued on others. A write that fails is left to
// that transport's own turn.
void STPTransport::flushMarked() {
  std::vector<STPTransport*>& marked = stpProcess().unflushed;
  for (std::size_t i = 0; i < marked.size(); ++i) {
    STPTransport* transport = marked[i];
    transport->unflushed_ = false;
    if (transport->canWrite()) transport->writeOnce();
    transport->attend();  // for what is left, or for the empty buffer
  }
  marked.clear();
}
