#include "bench/far_end.h"

#include <cstdio>

#include "bench/hub_end.h"

namespace {

// The end of one path.
struct PathEnd {
  explicit PathEnd(int pair) : hub(pair) {}
  LoopbackSocket connection;
  HubEnd hub;
  std::optional<PacketSocket> socket;
};

bool join(PathEnd& end, const JoinOrder& order) {
  if (order.hub) {
    std::string error;
    if (end.hub.joinAsRequester(order.port, order.road, error)) {
      end.socket.emplace(end.hub.takeOver(), end.hub.route());
      return true;
    }
    std::fprintf(stderr, "hublink_bench: far end: %s\n", error.c_str());
    return false;
  }
  end.connection = LoopbackSocket::connectedTo(order.port, order.road);
  end.socket.emplace(end.connection.get(), Route{}.reversed());
  return end.connection && platform::makeBlocking(end.connection.get(), kTransferLimit);
}

// Takes one stream and tells the driver what has come of it.
bool takeStream(PacketSocket& orders, PacketSocket& socket, const StreamOrder& order) {
  // The batch is made before the answer, which starts the driver's clock.
  const Bytes batch =
      order.compare ? makeBatch(socket.route().reversed(), order.payloadSize) : Bytes();
  bool intact = false;
  return orders.sendOrder(Order::ready) &&
         socket.receiveStream(streamBytes(order), order.compare ? &batch : nullptr, intact) &&
         orders.sendOrder(intact ? Order::taken : Order::garbled);
}

bool sendBack(PacketSocket& orders, PacketSocket& socket, const StreamOrder& order) {
  Bytes echo = makePacket(socket.route(), Order::echo, 0, order.payloadSize);
  STPHeader header;
  if (!orders.sendOrder(Order::ready)) return false;
  for (std::uint32_t i = 0; i < order.packets; ++i) {
    if (!socket.receivePacket(header)) return false;
    stpWriteWord(echo.data() + 16, header.sequence);
    if (!socket.send(echo)) return false;
  }
  return true;
}

}  // namespace

int runFarEnd(std::uint16_t port, int pair) {
  const LoopbackSocket connection = LoopbackSocket::connectedTo(port);
  if (!connection || !platform::makeBlocking(connection.get(), kTransferLimit)) return 1;
  PacketSocket orders(connection.get(), Route{}.reversed());
  std::deque<PathEnd> paths;
  STPHeader header;
  bool good = orders.sendOrder(Order::ready);
  while (good && orders.receivePacket(header, true)) {
    if (header.id == static_cast<std::uint32_t>(Order::join)) {
      good = join(paths.emplace_back(pair), readJoinOrder(orders.payload())) &&
             orders.sendOrder(Order::ready);
      continue;
    }
    const StreamOrder order = readStreamOrder(orders.payload());
    const auto carry =
        header.id == static_cast<std::uint32_t>(Order::echoes) ? sendBack : takeStream;
    good = order.path < paths.size() && carry(orders, *paths[order.path].socket, order);
  }
  return good ? 0 : 1;
}

std::unique_ptr<FarEnds> FarEnds::start(const BenchPrograms& programs, int pairs,
                                        std::string& error) {
  auto ends = std::make_unique<FarEnds>();
  for (int pair = 0; pair < pairs; ++pair)
    if (!ends->startOne(programs, pair, error)) return nullptr;
  return ends;
}

bool FarEnds::startOne(const BenchPrograms& programs, int pair, std::string& error) {
  One& one = all_.emplace_back();
  const LoopbackSocket listener = LoopbackSocket::listening();
  if (!one.process.start(programs.bench,
                         {"--role", kRoleFarEnd, "--port", std::to_string(listener.port()),
                          "--pair", std::to_string(pair)},
                         error))
    return false;
  one.connection = listener.accept([this] { return !ended().empty(); });
  one.orders.emplace(one.connection.get(), Route{});
  if (!one.connection || !platform::makeBlocking(one.connection.get(), kTransferLimit) ||
      !one.orders->receiveOrder(Order::ready))
    error = "a far end hasn't connected" + ended();
  return error.empty();
}

void FarEnds::dismiss() {
  for (One& one : all_) one.connection = LoopbackSocket();
}

std::string FarEnds::ended() const {
  std::string text;
  int status = 0;
  for (const One& one : all_)
    if (one.process.ended(status))
      text += " (a far end has ended with status " + std::to_string(status) + ")";
  return text;
}
