#include "stp_transport/wire/stp_wire.h"

STPHeader stpReadHeader(const unsigned char* bytes, std::int64_t size) {
  std::array<std::uint32_t, STP_HEADER_WORDS> words{};
  for (std::size_t i = 0; i < words.size() && static_cast<std::int64_t>(4 * i + 4) <= size; ++i)
    words[i] = stpReadWord(bytes + 4 * i);
  STPHeader header;
  header.headerSize = static_cast<std::int32_t>(words[0]);
  header.payloadSize = static_cast<std::int32_t>(words[1]);
  header.sourceRN = static_cast<std::int32_t>(words[2]);
  header.destinationRN = static_cast<std::int32_t>(words[3]);
  header.sequence = words[4];
  header.responseTo = words[5];
  header.type = words[6];
  header.id = words[7];
  header.flags = words[8];
  header.chain = words[9];
  header.depth = words[10];
  return header;
}

void stpWriteHeader(unsigned char* bytes, const STPHeader& header) {
  const std::array<std::uint32_t, STP_HEADER_WORDS> words{
      static_cast<std::uint32_t>(header.headerSize),
      static_cast<std::uint32_t>(header.payloadSize),
      static_cast<std::uint32_t>(header.sourceRN),
      static_cast<std::uint32_t>(header.destinationRN),
      header.sequence,
      header.responseTo,
      header.type,
      header.id,
      header.flags,
      header.chain,
      header.depth};
  for (std::size_t i = 0; i < words.size(); ++i) stpWriteWord(bytes + 4 * i, words[i]);
}
