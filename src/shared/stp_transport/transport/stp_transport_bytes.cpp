// Moving bytes between a transport's buffers and its socket, and closing.
#include <algorithm>
#include <array>
#include <cstring>

#include "platform/file.h"
#include "platform/readiness.h"
#include "platform/socket.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_socket.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

// The most blocks of what waits that one send call is offered: about a mebibyte, so that one
// receiver doesn't take a turn for itself.
constexpr std::size_t kSendBlocks = 32;
static_assert(kSendBlocks < platform::kMostPieces);

struct ErrorText {
  int error;
  const char* text;
};

const char* writeFailureText(int error) {
  namespace e = platform::error;
  static const std::array<ErrorText, 17> table{{
      {e::interrupted, "[handleWrite]: Call cancelled"},
      {e::accessDenied, "[handleWrite]: Cannot broadcast"},
      {e::badAddress, "[handleWrite]: Page fault"},
      {e::invalid, "[handleWrite]: Socket is not bound"},
      {e::inProgress, "[handleWrite]: Call in progress"},
      {e::notSocket, "[handleWrite]: Not a valid socket"},
      {e::messageTooBig, "[handleWrite]: Too big for message-type socket"},
      {e::notSupported, "[handleWrite]: Operation not supported"},
      {e::netDown, "[handleWrite]: Network subsystem has failed"},
      {e::netReset, "[handleWrite]: Keep-alive failed"},
      {e::aborted, "[handleWrite]: Virtual circuit terminated"},
      {e::reset, "[handleWrite]: Virtual circuit reset"},
      {e::noBuffers, "[handleWrite]: No buffer space is available"},
      {e::notConnected, "[handleWrite]: Not connected"},
      {e::brokenPipe, "[handleWrite]: The socket has been shut down"},
      {e::timedOut, "[handleWrite]: Low-level timeout failure"},
      {e::hostUnreachable, "[handleWrite]: Host unreachable"},
  }};
  for (const ErrorText& entry : table)
    if (entry.error == error) return entry.text;
  return "[handleWrite]: write failed";
}

}  // namespace

// One call for what waits and, if that is offered whole, the bytes behind it from where they lie.
// How many of those it took.
std::int64_t STPTransport::sendWaiting(const unsigned char* bytes, std::int64_t count) {
  std::array<platform::Piece, kSendBlocks + 1> pieces;
  std::size_t used = writeQueue_.gather(pieces.data(), kSendBlocks);
  std::int64_t offered = 0;
  for (std::size_t i = 0; i < used; ++i) offered += pieces[i].count;
  if (count > 0 && offered == writeQueue_.count()) {
    pieces[used++] = {bytes, count};
    offered += count;
  }
  const platform::Transfer sent = platform::sendGathered(fd_, pieces.data(), used);
  if (!sent.wouldBlock && sent.count <= 0) {
    link_ = Link::draining;
    writeError_ = sent.error;
    return 0;
  }
  if (sent.count < offered) platform::readiness().clearWritable(fd_);
  const std::int64_t waited = std::min(sent.count, writeQueue_.count());
  writeQueue_.drop(waited);
  noteWritten(waited);
  return sent.count - waited;
}

STPTransport::WriteResult STPTransport::writeOnce() {
  if (!isWritePending()) return WriteResult::nothing;
  if (link_ == Link::draining) return WriteResult::failed;
  const std::int64_t before = writeQueue_.count();
  sendWaiting();
  if (link_ == Link::draining) return WriteResult::failed;
  return writeQueue_.count() == before ? WriteResult::blocked : WriteResult::wrote;
}

STPStatus STPTransport::writeFailure() const {
  if (writeError_ == 0) return {"[handleWrite]: peer has closed connection", STP_PEER_CLOSED};
  return {writeFailureText(writeError_), STP_FAILED};
}

void STPTransport::closeAfterWriteFailure() {
  const STPStatus failure = writeFailure();
  closeWithFailure(failure.code, failure.message);
}

void STPTransport::handleWrite(STPStatus* status) {
  const Hold hold(this);
  switch (writeOnce()) {
    case WriteResult::nothing:
      break;
    case WriteResult::wrote:
      status_.clear();
      break;
    case WriteResult::failed:
      closeAfterWriteFailure();
      break;
    case WriteResult::blocked:
      break;
  }
  copyStatus(status);
}

bool STPTransport::canWrite() const {
  return isWritePending() && (link_ == Link::draining || platform::readiness().isWritable(fd_));
}

bool STPTransport::canRead() const {
  if (isInProcess()) return !pair_.fields.count || *pair_.fields.count > 0;
  // A client that is known to wait is somebody else's to take.
  if (fd_ < 0 || link_ == Link::clientWaiting) return false;
  if (link_ == Link::listening && platform::readiness().isReadable(localFD_)) return true;
  return platform::readiness().isReadable(fd_) && !isStalled() && !mustHandleFirst();
}

// This transport's own turn: the write first, then the read.
void STPTransport::serveReady(STPStatus* status) {
  if (canWrite()) {
    const WriteResult result = writeOnce();
    if (result == WriteResult::failed) {
      drainThenClose(status);
      return;
    }
    if (result == WriteResult::wrote) status_.clear();
    copyStatus(status);
  }
  if (canRead()) handleRead(status);
}

// The peer takes nothing any more, but what it sent before is still to be delivered, a read in each
// turn. The failure may be known before any event has announced those bytes.
void STPTransport::drainThenClose(STPStatus* status) {
  if (mustHandleFirst()) return;
  platform::readiness().markReadable(fd_);
  handleRead();
  if (isConnected() && !platform::readiness().isReadable(fd_) && !mustHandleFirst())
    closeAfterWriteFailure();
  copyStatus(status);
}

void STPTransport::handleRead(STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  if (isListening()) {
    link_ = Link::clientWaiting;
  } else if (isConnected()) {
    // What a step within a handler has left comes before what is to be read, which may be the end.
    if (input_.mayHavePacket()) parseInput();
    if (isConnected() && !isStalled() && !mustHandleFirst() &&
        (isInProcess() ? receiveInProcess() : receiveFromSocket()))
      parseInput();
  }
  copyStatus(status);
}

// False if the connection was closed.
bool STPTransport::receiveFromSocket() {
  const STPReadBuffer::Room room = input_.room();
  const platform::Transfer received = platform::receiveBytes(fd_, room.bytes, room.size);
  if (received.error == platform::error::interrupted) return true;
  if (received.error != 0) {
    closeWithFailure(STP_FAILED, "[handleRead]: read failed, closing connection");
    return false;
  }
  if (received.wouldBlock) {
    platform::readiness().drained(fd_);
    return true;
  }
  if (received.count == 0) {
    closeWithFailure(STP_PEER_CLOSED, "[handleRead]: peer has closed connection");
    return false;
  }
  if (received.count < room.size) platform::readiness().clearReadable(fd_);
  input_.add(received.count);
  return true;
}

void STPTransport::closeConnection() {
  if (!isConnected()) return;
  if (isInProcess()) {
    leavePair();
  } else if (plainFD_) {
    disclaim(fd_);
    platform::readiness().forget(fd_);
    platform::closeDescriptor(fd_);
  } else {
    disclaim(fd_);
    closeSocket(fd_);
  }
  if (isCongested()) setCongested(false);
  endHold();
  backlog_.reset();
  stall_.on = 0;
  ++stpProcess().closings;
  attend();
  lastSequence_ = 1;
  fd_ = -1;
  link_ = Link::closed;
  writeError_ = 0;
  writeQueue_.clear();
  fields_.clear();
  input_.clear();
  peerName_.clear();
  localName_.clear();
  delivery_.connectionEnded();
}

void STPTransport::closeWithFailure(std::int32_t code, const char* text) {
  const Hold hold(this);
  closeConnection();
  status_.set(code, text);
}

void STPTransport::disconnect(STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  copyStatus(status);
  closeConnection();
}
