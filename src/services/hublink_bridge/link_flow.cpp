#include "services/hublink_bridge/link_flow.h"

#include <algorithm>
#include <utility>

#include "stp_transport/wire/stp_wire.h"

namespace bridge {

namespace {

// What is sent between two looks at whether the session has room.
constexpr std::size_t kPieceBytes = 128 << 10;
// Runs that are written one after the other are noted as one up to this size.
constexpr std::uint32_t kNotedBytes = 64 << 10;
// A buffer that has grown beyond this isn't kept.
constexpr std::size_t kKeptCapacity = 256 << 10;
// Sizes of a packet stand at its beginning.
constexpr std::size_t kSizesBytes = 8;

// What a packet takes in the stream, its fill included; 0 if its sizes are not valid.
std::size_t storedSizeAt(const unsigned char* packet) {
  const std::uint32_t header = stpReadWord(packet), payload = stpReadWord(packet + 4);
  if (!stpIsValidSize(header, payload)) return 0;
  return static_cast<std::size_t>(stpStoredSize(std::int64_t{header} + payload));
}

void dropBuffer(Bytes& bytes) {
  if (bytes.capacity() > kKeptCapacity)
    Bytes().swap(bytes);
  else
    bytes.clear();
}

}  // namespace

// --- Outgoing ---

OutgoingFlow::~OutgoingFlow() {
  session_.noteKept(-static_cast<std::ptrdiff_t>(kept_.size() - keptAt_));
}

void OutgoingFlow::send(const unsigned char* packets, std::size_t size) {
  if (state_ != State::open) return;
  for (std::size_t at = 0; size - at >= kSizesBytes; ++counters_.packets) {
    const std::size_t packet = storedSizeAt(packets + at);
    if (packet == 0 || packet > size - at) break;
    at += packet;
  }
  counters_.bytes += size;
  const std::size_t sent = kept_.empty() ? sendSome(packets, size) : 0;
  kept_.insert(kept_.end(), packets + sent, packets + size);
  session_.noteKept(static_cast<std::ptrdiff_t>(size - sent));
}

// Gives how many bytes could go.
std::size_t OutgoingFlow::sendSome(const unsigned char* bytes, std::size_t size) {
  std::size_t sent = 0;
  while (sent < size && credit_ > 0 && session_.hasRoom()) {
    const std::size_t piece = std::min({size - sent, std::size_t{credit_}, kPieceBytes});
    session_.send(FrameKind::data, link_, bytes + sent, piece);
    credit_ -= static_cast<std::uint32_t>(piece);
    sent += piece;
  }
  return sent;
}

bool OutgoingFlow::isStopped() const {
  return !kept_.empty() || credit_ == 0 || !session_.hasRoom();
}

bool OutgoingFlow::takeCredit(const Frame& frame) {
  std::uint32_t bytes = 0;
  if (!readCredit(frame, bytes) || bytes > kLinkWindow - credit_) return false;
  credit_ += bytes;
  sendMore();
  return true;
}

void OutgoingFlow::sendMore() {
  if (!kept_.empty()) {
    const std::size_t sent = sendSome(kept_.data() + keptAt_, kept_.size() - keptAt_);
    session_.noteKept(-static_cast<std::ptrdiff_t>(sent));
    keptAt_ += sent;
    if (keptAt_ < kept_.size()) return;
    dropBuffer(kept_);
    keptAt_ = 0;
  }
  if (state_ != State::closing) return;
  session_.send(FrameKind::close, link_);
  state_ = State::closed;
}

void OutgoingFlow::close() {
  if (state_ != State::open) return;
  state_ = State::closing;
  sendMore();
}

// --- Incoming ---

IncomingFlow::~IncomingFlow() {
  close();
  for (const Passed& run : passed_)
    if (run.reserved > 0) session_.largePackets().release(run.reserved);
}

void IncomingFlow::drop() {
  if (state_ != State::open) return;
  state_ = State::dropping;
  giveBack(forgetJoining());
}

void IncomingFlow::close() {
  state_ = State::closed;
  forgetJoining();
}

// Gives how many bytes of it the other side has no credit for yet.
std::size_t IncomingFlow::forgetJoining() {
  const Large large = std::exchange(large_, Large::none);
  const std::size_t size = std::exchange(joiningSize_, 0);
  const std::size_t owed = joining_.size() - (large == Large::granted ? givenBack_ : 0);
  Bytes().swap(joining_);
  if (large == Large::waits) session_.largePackets().forget(*this);
  if (large == Large::granted) session_.largePackets().release(static_cast<std::int64_t>(size));
  return owed;
}

bool IncomingFlow::start(PacketOutlet& outlet, std::int32_t sourceRN, std::int32_t destinationRN) {
  outlet_ = &outlet;
  sourceRN_ = sourceRN;
  destinationRN_ = destinationRN;
  Bytes early = std::exchange(joining_, {});
  return consume(early.data(), early.size());
}

bool IncomingFlow::take(unsigned char* bytes, std::size_t size) {
  if (state_ == State::closed) return true;
  if (size > credit_) return false;
  credit_ -= static_cast<std::uint32_t>(size);
  if (state_ == State::dropping) {
    giveBack(size);
    return true;
  }
  counters_.bytes += size;
  if (outlet_) return consume(bytes, size);
  joining_.insert(joining_.end(), bytes, bytes + size);
  return true;
}

bool IncomingFlow::consume(unsigned char* bytes, std::size_t size) {
  while (!joining_.empty() && size > 0)
    if (!join(bytes, size)) return false;
  std::size_t run = 0;
  while (size - run >= kSizesBytes) {
    const std::size_t packet = storedSizeAt(bytes + run);
    if (packet == 0) return false;
    if (packet > size - run) break;
    address(bytes + run);
    run += packet;
  }
  if (run > 0) passOn(bytes, run, run, 0);
  if (run == size) return true;
  joining_.assign(bytes + run, bytes + size);
  return lookAtJoining();
}

// Adds to the packet that has begun, and no more.
bool IncomingFlow::join(unsigned char*& bytes, std::size_t& size) {
  const std::size_t wanted = joiningSize_ != 0 ? joiningSize_ : kSizesBytes;
  const std::size_t piece = std::min(size, wanted - joining_.size());
  joining_.insert(joining_.end(), bytes, bytes + piece);
  bytes += piece;
  size -= piece;
  if (joiningSize_ == 0) return lookAtJoining();
  if (large_ == Large::granted) giveBackLarge();
  if (joining_.size() == joiningSize_) joined();
  return true;
}

// Learns the size of the packet that has begun when it is there.
bool IncomingFlow::lookAtJoining() {
  if (joining_.size() < kSizesBytes) return true;
  joiningSize_ = storedSizeAt(joining_.data());
  if (joiningSize_ == 0) return false;
  if (joiningSize_ <= kLargePacket) return true;
  reserveLarge();
  return true;
}

// One of a link at a time, or those for a plugin that stands still would take all that there is.
void IncomingFlow::reserveLarge() {
  large_ = holdsLarge_ ? Large::postponed : Large::waits;
  if (holdsLarge_) return;
  if (session_.largePackets().reserve(*this, static_cast<std::int64_t>(joiningSize_)))
    largePacketGranted();
}

void IncomingFlow::largePacketGranted() {
  large_ = Large::granted;
  givenBack_ = 0;
  giveBackLarge();
}

void IncomingFlow::giveBackLarge() {
  giveBack(joining_.size() - givenBack_);
  givenBack_ = joining_.size();
}

void IncomingFlow::joined() {
  const std::size_t size = std::exchange(joiningSize_, 0);
  const Large large = std::exchange(large_, Large::none);
  if (large == Large::waits) session_.largePackets().forget(*this);
  address(joining_.data());
  holdsLarge_ = holdsLarge_ || large == Large::granted;
  if (large == Large::granted)
    passOn(joining_.data(), size, 0, static_cast<std::int64_t>(size));
  else
    passOn(joining_.data(), size, size, 0);
  dropBuffer(joining_);
}

void IncomingFlow::address(unsigned char* packet) {
  stpWriteWord(packet + STP_SOURCE_OFFSET, static_cast<std::uint32_t>(sourceRN_));
  stpWriteWord(packet + STP_DESTINATION_OFFSET, static_cast<std::uint32_t>(destinationRN_));
  ++counters_.packets;
}

void IncomingFlow::passOn(const unsigned char* packets, std::size_t size, std::size_t toGiveBack,
                          std::int64_t reserved) {
  const std::uint64_t place = outlet_->passOn(packets, size);
  const auto bytes = static_cast<std::uint32_t>(toGiveBack);
  if (reserved == 0 && !passed_.empty() && passed_.back().reserved == 0 &&
      passed_.back().bytes + bytes <= kNotedBytes) {
    passed_.back().place = place;
    passed_.back().bytes += bytes;
  } else {
    passed_.push_back({place, bytes, reserved});
  }
}

void IncomingFlow::written(std::uint64_t place) {
  while (!passed_.empty() && passed_.front().place <= place) {
    const Passed run = passed_.front();
    passed_.pop_front();
    giveBack(run.bytes);
    if (run.reserved == 0) continue;
    holdsLarge_ = false;
    session_.largePackets().release(run.reserved);
    if (large_ == Large::postponed) reserveLarge();
  }
}

void IncomingFlow::giveBack(std::size_t bytes) {
  owed_ += static_cast<std::uint32_t>(bytes);
  if (owed_ < kCreditStep || state_ == State::closed) return;
  unsigned char body[4];
  stpWriteWord(body, owed_);
  if (session_.send(FrameKind::credit, link_, body, sizeof body)) credit_ += owed_;
  owed_ = 0;
}

}  // namespace bridge
