// What has been read from a connection and not been taken yet: bytes in one block, taken packet by
// packet from the front. What comes next goes behind them, into room that is made by moving them to
// the front of the block or of a larger one.
//
// A packet is whole, and may be taken, before the fill that brings it up to a multiple of four has
// come. Until then the count is below 0: the fill, which nobody looks at, lands in front of the
// next packet.
//
// There is a block only while there is something to hold. Its size follows the reads: one that
// finds more than there is room for is followed by larger ones, one that finds little by small ones
// again.
#pragma once

#include <cstdint>

#include "stp_transport/transport/stp_byte_block.h"
#include "stp_transport/wire/stp_wire.h"

class STPReadBuffer {
 public:
  /// The free room, in bytes, that a read finds at least.
  static constexpr std::int64_t kLeastRoom = 1024;

  /// Who the packets at the front turn out to be for.
  enum class Use : std::uint8_t { delivered, relayed };

  struct Room {
    unsigned char* bytes;
    std::int64_t size;
  };

  /// `initialSize` is that of the block in bytes while reads find little.
  explicit STPReadBuffer(std::int64_t initialSize)
      : initial_(initialSize), goal_(initialSize), capacity_(initialSize) {}

  // --- The front ---
  /// Bytes that wait to be taken, and the first of them.
  std::int64_t count() const { return count_ > 0 ? count_ : 0; }
  unsigned char* front() const { return block_.bytes + offset_; }
  /// Whether there is anything at the front that hasn't been found to be less than a packet.
  bool mayHavePacket() const { return count_ > 0 && !needMore_; }
  /// The same with as many bytes as nearly every packet has.
  bool hasInput() const { return count_ >= kParsable && !needMore_; }
  /// Tests the packet that begins `place` bytes behind the front, where a taken one would end: that
  /// may lie behind all that has come.
  STPPacketTest test(std::int64_t place = 0) const {
    return stpTestPacket(front() + place, count_ - place);
  }
  /// Packets that follow each other, and their bytes with the fill behind each.
  struct PacketRun {
    std::int64_t packets = 0;
    std::int64_t bytes = 0;
  };
  /// The whole packets from `place` on that go the same way as the one at `first`, from its RN to
  /// its RN, with the fill behind each set to 0: what a stream consists of, looked through as
  /// quickly as can be.
  PacketRun runLike(std::int64_t first, std::int64_t place);
  /// The front has turned out to be less than a packet: there is nothing to take until more comes.
  void awaitMore() { needMore_ = true; }
  /// Sets the fill behind a packet of `total` bytes at `place` to 0, be it there or still to come.
  void clearFill(std::int64_t place, std::int64_t total) {
    unsigned char* packet = front() + place;
    for (std::int64_t i = total; i < stpStoredSize(total); ++i) packet[i] = 0;
  }
  /// Takes whole packets off the front, `stored` bytes with the fill of the last one.
  void take(std::int64_t stored, Use use) {
    offset_ += stored;
    count_ -= stored;
    use_ = use;
  }

  // --- The end ---
  /// Where the next read is to put what comes: kLeastRoom bytes or more.
  Room room();
  /// The same for at least `wanted` bytes.
  Room roomFor(std::int64_t wanted);
  /// So many bytes have been put into the room.
  void add(std::int64_t count);

  // --- The block ---
  std::int64_t capacity() const { return capacity_; }
  /// To be called when there is nothing to take: if nothing is there at all, begins anew at the
  /// front, with a block of the size that the reads call for.
  void settle();
  /// Gives the block back if nothing lies in it: whoever is idle holds no memory for what may come
  /// one day.
  void rest() {
    if (count_ <= 0) block_.release();
  }
  /// Forgets everything.
  void clear();

 private:
  static constexpr std::int64_t kParsable = 40;

  void makeRoom(std::int64_t wanted);
  Room freeRoom();

  STPByteBlock block_;
  std::int64_t offset_ = 0;
  std::int64_t count_ = 0;  // below 0 while the fill of a taken packet is still to come
  std::int64_t initial_;
  std::int64_t goal_;  // the capacity that the latest reads call for
  std::int64_t capacity_;
  bool needMore_ = false;
  Use use_ = Use::delivered;  // of the latest packet
};
