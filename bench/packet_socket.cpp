#include "bench/packet_socket.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::int64_t kReceiveBytes = 262144;

Bytes makeOrder(const Route& route, Order id, std::initializer_list<std::uint32_t> words) {
  Bytes packet = makePacket(route, id, 1, static_cast<std::int32_t>(4 * words.size()));
  unsigned char* place = packet.data() + STP_HEADER_SIZE;
  for (const std::uint32_t word : words) {
    stpWriteWord(place, word);
    place += 4;
  }
  return packet;
}

}  // namespace

Bytes makePacket(const Route& route, Order order, std::uint32_t sequence,
                 std::int32_t payloadSize) {
  Bytes packet(static_cast<std::size_t>(STP_HEADER_SIZE + payloadSize));
  STPHeader header;
  header.headerSize = STP_HEADER_SIZE;
  header.payloadSize = payloadSize;
  header.sourceRN = route.source;
  header.destinationRN = route.destination;
  header.sequence = sequence;
  header.type = STP_BINARY;
  header.id = static_cast<std::uint32_t>(order);
  header.flags = STP_ONE_WAY;
  stpWriteHeader(packet.data(), header);
  std::uint32_t state = sequence;
  for (auto byte = packet.begin() + STP_HEADER_SIZE; byte != packet.end(); ++byte) {
    state = state * 1664525 + 1013904223;
    *byte = static_cast<unsigned char>(state >> 24);
  }
  return packet;
}

Bytes makeBatch(const Route& route, std::int32_t payloadSize) {
  const std::int64_t count =
      std::max<std::int64_t>(1, kBatchBytes / (STP_HEADER_SIZE + payloadSize));
  Bytes batch;
  for (std::uint32_t sequence = 1; sequence <= count; ++sequence) {
    const Bytes packet = makePacket(route, Order::data, sequence, payloadSize);
    batch.insert(batch.end(), packet.begin(), packet.end());
  }
  return batch;
}

Bytes makeStreamOrder(const Route& route, const StreamOrder& order, Order id) {
  return makeOrder(route, id,
                   {static_cast<std::uint32_t>(order.payloadSize), order.packets,
                    order.compare ? 1U : 0U, order.path});
}

StreamOrder readStreamOrder(const unsigned char* payload) {
  return {static_cast<std::int32_t>(stpReadWord(payload)), stpReadWord(payload + 4),
          stpReadWord(payload + 8) != 0, stpReadWord(payload + 12)};
}

Bytes makeJoinOrder(const Route& route, const JoinOrder& order) {
  return makeOrder(route, Order::join,
                   {order.port, order.hub ? 1U : 0U, static_cast<std::uint32_t>(order.road)});
}

JoinOrder readJoinOrder(const unsigned char* payload) {
  return {static_cast<std::uint16_t>(stpReadWord(payload)), stpReadWord(payload + 4) != 0,
          static_cast<Road>(stpReadWord(payload + 8))};
}

PacketSocket::PacketSocket(platform::Socket socket, const Route& route)
    : WaitingSocket(socket), route_(route), buffer_(static_cast<std::size_t>(kReceiveBytes)) {}

bool PacketSocket::sendStream(const Bytes& batch, std::int64_t total) {
  for (std::int64_t left = total; left > 0; left -= std::ssize(batch))
    if (!send(batch.data(), std::min(left, std::ssize(batch)))) return false;
  return true;
}

bool PacketSocket::receivePacket(STPHeader& header, bool patient) {
  std::int64_t count = 0;
  for (;;) {
    const std::int64_t got =
        receiveSome(buffer_.data() + count, kReceiveBytes - count, patient && count == 0);
    if (got == 0) return false;
    count += got;
    const STPPacketTest test = stpTestPacket(buffer_.data(), count);
    if (test.state == STPPacketState::invalid) return fail("no packet has arrived");
    if (test.state == STPPacketState::incomplete) {
      if (count == kReceiveBytes) return fail("too large a packet has arrived");
      continue;
    }
    header = stpReadHeader(buffer_.data(), test.headerSize);
    if (stpStoredSize(test.headerSize + test.payloadSize) != count)
      return fail("more than one packet has arrived");
    if (header.destinationRN != route_.source)
      return fail("a packet for somebody else has arrived");
    return true;
  }
}

bool PacketSocket::receiveOrder(Order expected) {
  STPHeader header;
  if (!receivePacket(header)) return false;
  if (header.id == static_cast<std::uint32_t>(expected)) return true;
  return fail(header.id == static_cast<std::uint32_t>(Order::garbled)
                  ? "the stream has arrived with other bytes than were sent"
                  : "a packet of another kind than expected has arrived");
}

bool PacketSocket::receiveStream(std::int64_t total, const Bytes* batch, bool& intact) {
  std::size_t place = 0;  // in the batch
  intact = true;
  while (total > 0) {
    const std::int64_t got = receiveSome(buffer_.data(), std::min(total, kReceiveBytes), false);
    if (got == 0) return false;
    total -= got;
    if (!batch) continue;
    for (std::size_t seen = 0; seen < static_cast<std::size_t>(got);) {
      const std::size_t part =
          std::min(static_cast<std::size_t>(got) - seen, batch->size() - place);
      intact = intact && std::memcmp(buffer_.data() + seen, batch->data() + place, part) == 0;
      seen += part;
      place = (place + part) % batch->size();
    }
  }
  return true;
}
