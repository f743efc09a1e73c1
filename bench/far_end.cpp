#include "bench/far_end.h"

#include <cstdio>

#include "bench/hub_end.h"
#include "bench/loopback.h"
#include "bench/packet_socket.h"

namespace {

// Takes one stream and tells the driver what has come of it.
bool takeStream(PacketSocket& socket, const StreamOrder& order) {
  // The batch is made before the answer, which starts the driver's clock.
  const Bytes batch =
      order.compare ? makeBatch(socket.route().reversed(), order.payloadSize) : Bytes();
  bool intact = false;
  if (!socket.send(makePacket(socket.route(), Order::ready, 1, 0)) ||
      !socket.receiveStream(streamBytes(order), order.compare ? &batch : nullptr, intact))
    return false;
  return socket.send(makePacket(socket.route(), intact ? Order::taken : Order::garbled, 1, 0));
}

// Serves until the path is closed, which shows as its end or, behind a hub, as a packet of the hub.
void serve(PacketSocket& socket) {
  Bytes echo;
  STPHeader header;
  while (socket.receivePacket(header, true)) {
    switch (static_cast<Order>(header.id)) {
      case Order::echo:
        if (std::ssize(echo) != STP_HEADER_SIZE + header.payloadSize)
          echo = makePacket(socket.route(), Order::echo, 0, header.payloadSize);
        stpWriteWord(echo.data() + 16, header.sequence);
        if (!socket.send(echo)) return;
        break;
      case Order::stream:
        if (!takeStream(socket, readStreamOrder(socket.payload()))) return;
        break;
      default:
        return;
    }
  }
}

}  // namespace

int runPlainFarEnd(std::uint16_t port) {
  const LoopbackSocket connection = LoopbackSocket::connectedTo(port);
  if (!connection || !platform::makeBlocking(connection.get(), kTransferLimit)) return 1;
  PacketSocket socket(connection.get(), Route{}.reversed());
  if (!socket.send(makePacket(socket.route(), Order::ready, 1, 0))) return 1;
  serve(socket);
  return 0;
}

int runHubFarEnd(std::uint16_t port, int pair) {
  HubEnd hub(pair);
  std::string error;
  if (!hub.joinAsRequester(port, error)) {
    std::fprintf(stderr, "hublink_bench: far end: %s\n", error.c_str());
    return 1;
  }
  PacketSocket socket(hub.takeOver(), hub.route());
  serve(socket);
  return 0;
}
