#include "stp_transport/transport/stp_read_buffer.h"

#include <algorithm>
#include <cstring>

namespace {

// Source and destination, which are only compared.
std::uint64_t routeOf(const unsigned char* packet) {
  static_assert(STP_DESTINATION_OFFSET == STP_SOURCE_OFFSET + 4);
  std::uint64_t route = 0;
  std::memcpy(&route, packet + STP_SOURCE_OFFSET, sizeof route);
  return route;
}

}  // namespace

// Brings the bytes to the front, in a larger block if there is too little room behind them for
// `wanted` bytes or a read of the usual size.
void STPReadBuffer::makeRoom(std::int64_t wanted) {
  const std::int64_t kept = count();
  // The place of the next byte, which may be fill, lies in the block.
  const std::int64_t offset = count_ < 0 ? STP_MAX_FILL + 1 : 0;
  const std::int64_t enough = 2 * kept + wanted;
  if (enough < capacity_ && goal_ <= capacity_) {
    if (kept > 0) std::memmove(block_.bytes, front(), static_cast<std::size_t>(kept));
  } else {
    const std::int64_t capacity = goal_ + enough;
    unsigned char* block = STPByteBlock::allocate(capacity);
    if (kept > 0) std::memcpy(block, front(), static_cast<std::size_t>(kept));
    block_.adopt(block, capacity);
    capacity_ = capacity;
  }
  offset_ = offset;
}

// The packets of a stream mostly have the sizes of the one before. As long as they do, the place of
// the next doesn't depend on what is read of this one, and the processor runs ahead: that takes a
// third of the time.
STPReadBuffer::PacketRun STPReadBuffer::runLike(std::int64_t first, std::int64_t place) {
  const std::uint64_t route = routeOf(front() + first);
  const unsigned char* const begin = front() + place;
  const std::int64_t available = count_ - place;
  std::int64_t run = 0, total = 0, packets = 0;
  std::uint32_t header = 0, payload = 0;
  while (available - run >= STP_MIN_HEADER_SIZE) {
    const unsigned char* const packet = begin + run;
    const std::uint32_t nextHeader = stpReadWord(packet), nextPayload = stpReadWord(packet + 4);
    if (nextHeader != header || nextPayload != payload) {
      if (!stpIsValidSize(nextHeader, nextPayload)) break;
      header = nextHeader;
      payload = nextPayload;
      total = std::int64_t{header} + payload;
    }
    if (routeOf(packet) != route || total > available - run) break;
    if (total % 4 != 0) clearFill(place + run, total);
    run += stpStoredSize(total);
    ++packets;
  }
  return {packets, run};
}

STPReadBuffer::Room STPReadBuffer::freeRoom() {
  block_.require(capacity_);
  const std::int64_t end = offset_ + count_;
  return {block_.bytes + end, capacity_ - end};
}

STPReadBuffer::Room STPReadBuffer::room() {
  // Much has been taken from the front, and little is to be moved there; or no room is left.
  if ((offset_ > capacity_ / 2 && count_ < capacity_ / 4) ||
      offset_ + count_ + kLeastRoom >= capacity_)
    makeRoom(0);
  return freeRoom();
}

STPReadBuffer::Room STPReadBuffer::roomFor(std::int64_t wanted) {
  if (capacity_ < offset_ + count_ + wanted) makeRoom(wanted);
  return freeRoom();
}

// What is delivered here costs more than its reading: those who send much of it have no longer
// turns than others.
void STPReadBuffer::add(std::int64_t count) {
  const bool isFull = offset_ + count_ + count == capacity_;
  if (isFull && use_ == Use::relayed)
    goal_ = std::max(initial_, STP_LARGE_BLOCK);
  else if (count < initial_ / 2 || use_ == Use::delivered)
    goal_ = initial_;
  needMore_ = false;
  count_ += count;
}

void STPReadBuffer::settle() {
  if (count_ != 0) return;
  offset_ = 0;
  needMore_ = false;
  if (capacity_ == goal_) return;
  capacity_ = goal_;
  block_.release();
}

void STPReadBuffer::clear() {
  block_.release();
  goal_ = capacity_ = initial_;
  offset_ = count_ = 0;
  needMore_ = false;
}
