// Whole packets into the write buffer and out of the read buffer, and the relay between transports.
#include <algorithm>
#include <cstring>

#include "platform/clock.h"
#include "platform/readiness.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

// What one turn of a connection to a relay may take with messages that are delivered there, so that
// others get their turns: the last one is begun before.
constexpr std::uint64_t kTurnMilliseconds = 10;
constexpr std::int64_t kTurnBytes = 65536;

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

// Copies the bytes, and `fill` bytes of 0, behind the waiting ones.
void STPTransport::queueBytes(const unsigned char* bytes, std::int64_t count, std::int64_t fill) {
  static constexpr unsigned char kFill[STP_MAX_FILL] = {};
  if (link_ == Link::draining) writeQueue_.clear();  // what waits will never leave
  if (hasSocket()) {
    writeQueue_.append(bytes, count);
    writeQueue_.append(kFill, fill);
  } else {
    fields_.append(bytes, count);
    fields_.append(kFill, fill);
  }
}

std::uint32_t STPTransport::enqueueMessage(STPMessage& message) {
  if (message.header.type == 0) {
    status_.set(STP_MISUSE, "[enqueueMessage]: invalid message header");
    return 0;
  }
  // A receiver would take it for an invalid packet and end the connection.
  if (!stpFitsPacket(message.cursorOffset())) {
    status_.set(STP_FAILED, "[enqueueMessage]: message is too large");
    return 0;
  }
  lastSequence_ = stpNextSequence(lastSequence_);
  message.finishMessage(lastSequence_);
  const std::int64_t total = std::int64_t{message.header.headerSize} + message.header.payloadSize;
  queueBytes(message.storage(), total, stpStoredSize(total) - total);
  if (forwardingHandler_) noteQueued();
  lastType_ = message.header.type;
  lastId_ = message.header.id;
  markUnflushed();
  return lastSequence_;
}

void STPTransport::queuePackets(const unsigned char* packets, std::int64_t size) {
  queueBytes(packets, size);
  markUnflushed();
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
  const bool isOneWay = (message.header.flags & STP_ONE_WAY) != 0;
  if (!isOneWay) delivery_.expect(sequence);
  bool failed = false;
  if (isInProcess() && pair_.notify) {
    pair_.notify(pair_.argument);
  } else {
    const STPDepthGuard sending(stpProcess().sendDepth);
    handleWrite();
    if (status_.good() && isWritePending()) {
      if (waitUntil(retry, WaitOrder::passFirst, [this] { return !isWritePending(); }) ==
          WaitState::gaveUp)
        status_.set(STP_TIMEOUT, "[sendMessage]: reached timeout while waiting to send message");
    }
    failed = !status_.good();
  }
  if (failed) delivery_.giveUp(sequence);
  if (failed || isOneWay) leaveCall();
  copyStatus(status);
  return failed ? 0 : sequence;
}

std::uint32_t STPTransport::postMessage(STPMessage& message, int attempts, STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  const std::uint32_t sequence = enqueueMessage(message);
  if (sequence != 0 && isInProcess() && pair_.notify) {
    pair_.notify(pair_.argument);
  } else if (sequence != 0) {
    const STPDepthGuard sending(stpProcess().sendDepth);
    for (int i = 0; i < attempts && isWritePending() && status_.good(); ++i) {
      if (!platform::readiness().isWritable(fd_)) break;
      // A failure closes the connection only in its own turn of the loop, after its read.
      if (writeOnce() == WriteResult::failed) status_ = writeFailure();
    }
  }
  copyStatus(status);
  return sequence;
}

void STPTransport::parseInput() {
  const Hold hold(this);
  // A handler may run a step of its own, which is then to see what is left here.
  attend();
  if (!isOverfull() && delivery_.hasDeferred()) {
    delivery_.retryDeferred();
    attend();  // what was refused again
  }
  const std::uint64_t turnEnd = platform::monotonicMilliseconds() + kTurnMilliseconds;
  std::int64_t turnBytes = 0;
  while (input_.mayHavePacket() && !isStalled()) {
    const STPPacketTest test = passOnFront();
    if (test.state == STPPacketState::invalid) {
      closeWithFailure(STP_FAILED, "[handleRead]: remote host sent invalid packet");
      return;
    }
    if (test.state != STPPacketState::complete) continue;
    if (isOverfull()) break;
    if (packetSink_ && isForSink()) {
      giveFrontToSink(test);
      continue;
    }
    deliverFront(test);
    turnBytes += std::int64_t{test.headerSize} + test.payloadSize;
    if (forwardingHandler_ && input_.hasInput() &&
        (turnBytes >= kTurnBytes || platform::monotonicMilliseconds() >= turnEnd))
      break;
  }
  input_.settle();
}

// Null for a packet that is for this end.
STPTransport* STPTransport::targetOf(const unsigned char* packet) const {
  if (!forwardingHandler_) return nullptr;
  return forwardingHandler_->forwardTarget(
      static_cast<std::int32_t>(stpReadWord(packet + STP_DESTINATION_OFFSET)));
}

bool STPTransport::isFrontForThisEnd() const {
  return input_.test().state == STPPacketState::complete && !targetOf(input_.front());
}

// Passes on the packets at the front of the read buffer, those that follow each other to one
// receiver together. Ends before the first that is for this end, is not complete or not valid, and
// tells which; or, as if more had to come, when this end has to wait for the receiver.
STPPacketTest STPTransport::passOnFront() {
  STPTransport* target = nullptr;
  std::int64_t run = 0;     // bytes at the front that are for `target`
  std::int64_t latest = 0;  // the place of the packet that was tested last
  for (;;) {
    if (target) {
      const STPReadBuffer::PacketRun more = input_.runLike(latest, run);
      const unsigned char* packet = input_.front() + latest;
      forwardingHandler_->relayed(
          *this, static_cast<std::int32_t>(stpReadWord(packet + STP_SOURCE_OFFSET)),
          static_cast<std::int32_t>(stpReadWord(packet + STP_DESTINATION_OFFSET)), more.packets + 1,
          run - latest + more.bytes);
      run += more.bytes;
    }
    const STPPacketTest test = input_.test(run);
    STPTransport* next = nullptr;
    if (test.state == STPPacketState::complete) {
      latest = run;
      next = targetOf(input_.front() + run);
    }
    if (next != target && target) {
      forwardRun(*target, run, test.state == STPPacketState::incomplete);
      if (isStalled()) return {};
      run = latest = 0;
    }
    if (!next) {
      if (test.state == STPPacketState::incomplete) input_.awaitMore();
      return test;
    }
    const std::int64_t total = std::int64_t{test.headerSize} + test.payloadSize;
    input_.clearFill(run, total);
    target = next;
    run += stpStoredSize(total);
  }
}

// Passes `count` bytes at the front of the read buffer on to `target`: at once from where they lie
// if they are the last of this turn, together with what waits before them, else behind what is to
// be written at the end of the turn.
void STPTransport::forwardRun(STPTransport& target, std::int64_t count, bool isLast) {
  const unsigned char* bytes = input_.front();
  std::int64_t sent = 0;
  if (isLast && target.hasSocket() && target.link_ != Link::draining &&
      platform::readiness().isWritable(target.fd_))
    sent = target.sendWaiting(bytes, count);
  input_.take(count, STPReadBuffer::Use::relayed);
  stall_.on = 0;
  if (sent == count) return;
  target.queueBytes(bytes + sent, count - sent);
  target.markUnflushed();
  target.noteQueued();
  waitFor(target);
}

// Delivers the packet at the front of the read buffer here. The buffer is in a sound state before
// anything is called that may come back.
void STPTransport::deliverFront(const STPPacketTest& test) {
  const std::int64_t stored = stpStoredSize(std::int64_t{test.headerSize} + test.payloadSize);
  auto message =
      std::make_unique<STPReceivedMessage>(input_.front(), test.headerSize, test.payloadSize);
  input_.take(stored, STPReadBuffer::Use::delivered);
  dispatchMessage(std::move(message));
}

bool STPTransport::isForSink() const {
  return static_cast<std::int32_t>(stpReadWord(input_.front() + STP_DESTINATION_OFFSET)) >=
         STP_FIRST_RN;
}

// With those behind it that go the same way.
void STPTransport::giveFrontToSink(const STPPacketTest& test) {
  const std::int64_t total = std::int64_t{test.headerSize} + test.payloadSize;
  input_.clearFill(0, total);
  const std::int64_t first = stpStoredSize(total);
  const std::int64_t size = first + input_.runLike(0, first).bytes;
  packetSink_->takePackets(input_.front(), size);
  input_.take(size, STPReadBuffer::Use::relayed);
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
