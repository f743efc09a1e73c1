// Buffers for messages that come and go by the thousand: a few of each size stay for the next, so
// that a stream of messages doesn't ask the system for memory again and again.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "services/hublink_bridge/frames.h"

namespace bridge {

class MessageBuffers {
 public:
  /// Makes room for `size` bytes in all; what `bytes` holds stays.
  void require(Bytes& bytes, std::size_t size);
  /// Takes back a buffer.
  void put(Bytes&& bytes);
  /// Lets go of those that stay.
  void clear();

 private:
  // Four times as large each, so that no message has more than three parts of its buffer empty;
  // what is larger isn't kept.
  static constexpr std::array<std::size_t, 4> kSizes = {4 << 10, 16 << 10, 64 << 10, 256 << 10};
  static constexpr std::size_t kMostKept = 512 << 10;  // bytes of each size

  std::array<std::vector<Bytes>, kSizes.size()> kept_;
};

}  // namespace bridge
