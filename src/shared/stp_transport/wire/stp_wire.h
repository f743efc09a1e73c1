// The packet format: what crosses a connection, to the byte, and the test that a receiver applies.
//
// A stream is an unbroken sequence of packets. A packet is a header of little-endian 32-bit words,
// a payload, and fill up to the next multiple of 4. Every number of the format stands here and
// nowhere else.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

/// Bytes of the header that this system writes: eleven words.
inline constexpr std::int32_t STP_HEADER_SIZE = 44;
inline constexpr int STP_HEADER_WORDS = 11;
/// Bytes of the zero word behind the last field of a finished message; its payload counts it.
inline constexpr std::int64_t STP_END_WORD_SIZE = 4;
/// Header sizes that a receiver accepts; also a multiple of 4.
inline constexpr std::int32_t STP_MIN_HEADER_SIZE = 32;
inline constexpr std::int32_t STP_MAX_HEADER_SIZE = 128;
/// Header and payload together above this many bytes make a packet invalid.
inline constexpr std::int64_t STP_MAX_PACKET_SIZE = 0x10000000;

/// Bytes of fill that may follow a packet, at most.
inline constexpr std::int64_t STP_MAX_FILL = 3;
/// Offsets of the words that say from which RN to which a packet goes: a relay goes by the latter.
inline constexpr std::int64_t STP_SOURCE_OFFSET = 8;
inline constexpr std::int64_t STP_DESTINATION_OFFSET = 12;

/// The addresses of a link itself. The hub hands out RNs from STP_FIRST_RN on.
inline constexpr std::int32_t STP_HUB_RN = 1;
inline constexpr std::int32_t STP_PLUGIN_RN = 2;
inline constexpr std::int32_t STP_FIRST_RN = 10;

/// Packet types.
inline constexpr std::uint32_t STP_DISCARD = 4;
inline constexpr std::uint32_t STP_SYNC = 5;
inline constexpr std::uint32_t STP_CHANNEL = 6;
inline constexpr std::uint32_t STP_NEGOTIATION = 12;
inline constexpr std::uint32_t STP_COMMAND = 13;
inline constexpr std::uint32_t STP_ASCII = 14;
inline constexpr std::uint32_t STP_BINARY = 15;
/// Plain bytes on a link between two plugins, as one field: an array of bytes without a count.
inline constexpr std::uint32_t STP_PLAIN = 16;
/// Both `type` and `id` of a response.
inline constexpr std::uint32_t STP_RESPONSE = 0xFFFFFFFF;

/// Subtypes of STP_CHANNEL.
inline constexpr std::uint32_t STP_CHANNEL_CREATE = 1;
inline constexpr std::uint32_t STP_CHANNEL_START = 2;
inline constexpr std::uint32_t STP_CHANNEL_CLOSE = 3;

/// Subtypes of STP_NEGOTIATION.
inline constexpr std::uint32_t STP_NEGOTIATE = 1;
inline constexpr std::uint32_t STP_FORMAT_QUERY = 2;
inline constexpr std::uint32_t STP_READY = 3;
/// Subtypes below this are delivered at any time, the others only in the chain that waits.
inline constexpr std::uint32_t STP_FIRST_HELD_SUBTYPE = 9;

/// The `id` of a message that goes by its name, and of one that the peer doesn't take.
inline constexpr std::uint32_t STP_NO_MESSAGE = 0xFFFFFFFF;

/// Packet flags.
inline constexpr std::uint32_t STP_WANTS_RESPONSE = 0x01;
inline constexpr std::uint32_t STP_ONE_WAY = 0x02;
inline constexpr std::uint32_t STP_IN_CHAIN_ONLY = 0x04;
inline constexpr std::uint32_t STP_ANY_TIME = 0x10;
inline constexpr std::uint32_t STP_CARRIED = 0x20;
inline constexpr std::uint32_t STP_HOLD_OTHERS = 0x40;

/// Entry flags, in the list of messages that a side takes; STP_IN_CHAIN_ONLY and STP_ANY_TIME are
/// entry flags too.
inline constexpr std::uint32_t STP_ENTRY_TWO_WAY = 0x01;
inline constexpr std::uint32_t STP_ENTRY_ONE_WAY = 0x02;
/// The receiver would bring itself to the foreground.
inline constexpr std::uint32_t STP_FOREGROUND = 0x80;

/// Flag of a side: messages that it doesn't list may be sent to it all the same.
inline constexpr std::uint32_t STP_TAKES_UNLISTED = 0x01;

/// Field word of a binary field: tag x 256 + class x 16 + size of the value in bytes (0: a length
/// word follows).
inline constexpr int STP_FIELD_TAG_SHIFT = 8;
inline constexpr std::uint32_t STP_FIELD_CLASS_MASK = 0xF0;
inline constexpr std::uint32_t STP_FIELD_SIZE_MASK = 0x0F;
/// Class and size together.
inline constexpr std::uint32_t STP_FIELD_STRING = 0x10;
inline constexpr std::uint32_t STP_FIELD_U8 = 0x21;
inline constexpr std::uint32_t STP_FIELD_U16 = 0x22;
inline constexpr std::uint32_t STP_FIELD_U32 = 0x24;
inline constexpr std::uint32_t STP_FIELD_U64 = 0x28;
inline constexpr std::uint32_t STP_FIELD_F32 = 0x34;
inline constexpr std::uint32_t STP_FIELD_F64 = 0x38;
inline constexpr std::uint32_t STP_FIELD_STRUCT = 0x40;
inline constexpr std::uint32_t STP_FIELD_ARRAY = 0x50;
/// The fixed tags inside a pointer array, which go through no tag map.
inline constexpr std::int32_t STP_TAG_ARRAY_COUNT = 22;
inline constexpr std::int32_t STP_TAG_ARRAY_ELEMENT = 23;
/// The one tag of a packet of plain bytes.
inline constexpr std::int32_t STP_TAG_PLAIN_BYTES = 1;

/// The header words in their order on the wire.
struct STPHeader {
  std::int32_t headerSize = 0;
  std::int32_t payloadSize = 0;
  std::int32_t sourceRN = 0;
  std::int32_t destinationRN = 0;
  std::uint32_t sequence = 0;
  std::uint32_t responseTo = 0;
  std::uint32_t type = 0;
  std::uint32_t id = 0;
  std::uint32_t flags = 0;
  std::uint32_t chain = 0;
  std::uint32_t depth = 0;
};

/// A 32-bit little-endian word at any address.
inline std::uint32_t stpReadWord(const unsigned char* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}
inline void stpWriteWord(unsigned char* bytes, std::uint32_t word) {
  bytes[0] = static_cast<unsigned char>(word);
  bytes[1] = static_cast<unsigned char>(word >> 8);
  bytes[2] = static_cast<unsigned char>(word >> 16);
  bytes[3] = static_cast<unsigned char>(word >> 24);
}

/// The size that a packet takes in the stream: brought up to the next multiple of 4.
inline constexpr std::int64_t stpStoredSize(std::int64_t size) {
  return (size + 3) & ~std::int64_t{3};
}

/// Whether a message of `size` bytes, its end word still to come, makes a packet that receivers
/// take.
inline constexpr bool stpFitsPacket(std::int64_t size) {
  return stpStoredSize(size) + STP_END_WORD_SIZE <= STP_MAX_PACKET_SIZE;
}

/// The sequence number after `last`: 0 stands for none and is left out.
inline constexpr std::uint32_t stpNextSequence(std::uint32_t last) {
  return last == UINT32_MAX ? 1 : last + 1;
}

/// Reads the words of a header of `size` bytes; those that a shorter header lacks are 0, and what a
/// longer one has behind the eleventh is not looked at.
STPHeader stpReadHeader(const unsigned char* bytes, std::int64_t size);

/// Writes all eleven words to the first STP_HEADER_SIZE bytes.
void stpWriteHeader(unsigned char* bytes, const STPHeader& header);

/// What the first bytes of a stream are.
enum class STPPacketState { incomplete, invalid, complete };

struct STPPacketTest {
  STPPacketState state = STPPacketState::incomplete;
  std::int32_t headerSize = 0;   ///< bytes, set for a complete packet
  std::int32_t payloadSize = 0;  ///< bytes, set for a complete packet
};

/// Whether a packet may have these two sizes. They are added in 64 bits: a hostile pair can't wrap
/// around to a small sum.
inline constexpr bool stpIsValidSize(std::uint32_t header, std::uint32_t payload) {
  return header >= STP_MIN_HEADER_SIZE && header <= STP_MAX_HEADER_SIZE && header % 4 == 0 &&
         std::int64_t{header} + payload <= STP_MAX_PACKET_SIZE;
}

/// Tests the packet at the front of `available` unparsed bytes, a count that may be below 0.
inline STPPacketTest stpTestPacket(const unsigned char* bytes, std::int64_t available) {
  STPPacketTest test;
  if (available < 8) return test;
  const std::uint32_t header = stpReadWord(bytes), payload = stpReadWord(bytes + 4);
  test.headerSize = static_cast<std::int32_t>(header);
  test.payloadSize = static_cast<std::int32_t>(payload);
  if (!stpIsValidSize(header, payload))
    test.state = STPPacketState::invalid;
  else if (std::int64_t{header} + payload <= available)
    test.state = STPPacketState::complete;
  return test;
}
