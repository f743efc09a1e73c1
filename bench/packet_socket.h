// What every path carries: whole packets, over a socket whose calls wait.
//
// The ends of a path send and receive nothing but packets, whether there is nothing, a relay or the
// hub between them, so that all paths are measured with the same bytes and the same code. The id of
// a packet tells the other end what to do with it.
#pragma once

#include <cstdint>

#include "bench/loopback.h"
#include "bench/waiting_socket.h"
#include "stp_transport/wire/stp_wire.h"

/// What the driver fills its send buffer with: as many whole packets as go in here, at least one.
inline constexpr std::int64_t kBatchBytes = 32768;

/// Packet ids.
enum class Order : std::uint32_t {
  ready = 1,    ///< what was ordered can begin
  echo = 2,     ///< to be sent back under the same sequence number
  stream = 3,   ///< StreamOrder follows; then the stream comes
  data = 4,     ///< part of a stream
  taken = 5,    ///< the whole stream has arrived
  garbled = 6,  ///< a stream has arrived, but other bytes than those sent
  join = 7,     ///< JoinOrder follows
  echoes = 8    ///< StreamOrder follows; then its packets come, each to be sent back
};

/// The RNs of one end.
struct Route {
  std::int32_t source = 10;
  std::int32_t destination = 11;
  Route reversed() const { return {destination, source}; }
};

/// What the far end has to know of a stream before it comes.
struct StreamOrder {
  std::int32_t payloadSize = 0;  ///< bytes of each packet
  std::uint32_t packets = 0;
  bool compare = false;    ///< compare every byte, which takes time
  std::uint32_t path = 0;  ///< the path that it comes on, in the order of joining
};

/// Where the far end finds the beginning of a further path.
struct JoinOrder {
  std::uint16_t port = 0;
  bool hub = false;  ///< by becoming a plugin
  Road road = Road::tcp;
};

/// A packet whose payload depends on its sequence number.
Bytes makePacket(const Route& route, Order order, std::uint32_t sequence, std::int32_t payloadSize);
/// The bytes that a stream of such packets repeats.
Bytes makeBatch(const Route& route, std::int32_t payloadSize);
inline std::int64_t streamBytes(const StreamOrder& order) {
  return static_cast<std::int64_t>(order.packets) * (STP_HEADER_SIZE + order.payloadSize);
}

/// A packet with `order` in its payload, and its reading.
Bytes makeStreamOrder(const Route& route, const StreamOrder& order, Order id = Order::stream);
StreamOrder readStreamOrder(const unsigned char* payload);
Bytes makeJoinOrder(const Route& route, const JoinOrder& order);
JoinOrder readJoinOrder(const unsigned char* payload);

class PacketSocket : public WaitingSocket {
 public:
  /// Borrows `socket`, which must outlive it. Its packets go along `route`, and those that come
  /// must have come along it.
  PacketSocket(platform::Socket socket, const Route& route);

  const Route& route() const { return route_; }

  using WaitingSocket::send;
  bool send(const Bytes& packet) { return send(packet.data(), std::ssize(packet)); }
  /// Sends a packet that says all by its id.
  bool sendOrder(Order order) { return send(makePacket(route_, order, 1, 0)); }
  /// Sends the batch over and over until `total` bytes have gone.
  bool sendStream(const Bytes& batch, std::int64_t total);
  /// Takes the one packet that is on its way. A `patient` one waits without limit for its start.
  bool receivePacket(STPHeader& header, bool patient = false);
  /// The same for a packet of that id and no other.
  bool receiveOrder(Order expected);
  /// Payload of the packet received last, valid until the next call.
  const unsigned char* payload() const { return buffer_.data() + STP_HEADER_SIZE; }
  /// Takes exactly `total` bytes. With a batch given, `intact` tells whether they were its bytes,
  /// over and over.
  bool receiveStream(std::int64_t total, const Bytes* batch, bool& intact);

 private:
  Route route_;
  Bytes buffer_;
};
