// Helpers for tests that look at a message's bytes or make a packet of them.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "stp_transport/message/stp_received_message.h"

using Bytes = std::vector<unsigned char>;

/// The whole message, header included.
inline Bytes finishedBytes(STPMessage& message) {
  message.finishMessage(2);
  return {message.storage(), message.storage() + message.cursorOffset()};
}

/// The first `length` bytes as a packet, in a copy that a read past its end would leave.
inline STPReceivedMessage received(const Bytes& bytes, std::size_t length) {
  const Bytes packet(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
  return {packet.data(), STP_HEADER_SIZE, static_cast<std::int32_t>(length) - STP_HEADER_SIZE};
}

inline STPReceivedMessage received(STPMessage& message) {
  const Bytes bytes = finishedBytes(message);
  return received(bytes, bytes.size());
}

/// Hands every cut of a message and many changes of it to `reader`, the same in every run.
template <class Reader>
void readDamaged(STPMessage& message, Reader reader) {
  const Bytes bytes = finishedBytes(message);
  const auto read = [&](const Bytes& damaged, std::size_t length) {
    STPReceivedMessage packet = received(damaged, length);
    reader(packet);
  };
  for (std::size_t length = STP_HEADER_SIZE; length <= bytes.size(); ++length) read(bytes, length);
  for (std::size_t bit = STP_HEADER_SIZE * 8; bit < bytes.size() * 8; ++bit) {
    Bytes flipped = bytes;
    flipped[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
    read(flipped, flipped.size());
  }
  std::uint32_t seed = 1;
  const auto random = [&](std::size_t bound) {
    return STP_HEADER_SIZE +
           ((seed = seed * 1664525 + 1013904223) >> 8) % (bound - STP_HEADER_SIZE);
  };
  for (int round = 0; round < 4000; ++round) {
    Bytes mixed = bytes;
    for (int i = 0; i < 4; ++i) mixed[random(bytes.size())] = bytes[random(bytes.size())];
    read(mixed, random(bytes.size() + 1));
  }
}
