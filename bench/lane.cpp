#include "bench/lane.h"

#include "platform/file.h"

const char* pathName(Path path) {
  switch (path) {
    case Path::direct:
      return "direct";
    case Path::relay:
      return "relay";
    case Path::hub:
      return "hub";
    case Path::tcpRelay:
      return "TCP relay";
  }
  return "";
}

Lane::Lane(Path path, Road road, const BenchPrograms& programs, FarEnds& farEnds)
    : path_(path),
      road_(path == Path::tcpRelay ? Road::tcp : road),
      programs_(programs),
      farEnds_(farEnds),
      number_(farEnds.nextPath()) {
  for (std::size_t pair = 0; pair < farEnds.size(); ++pair)
    ends_.emplace_back(static_cast<int>(pair));
}

std::unique_ptr<Lane> Lane::open(Path path, Road road, const BenchPrograms& programs,
                                 FarEnds& farEnds, std::string& error) {
  std::unique_ptr<Lane> lane(new Lane(path, road, programs, farEnds));
  if (path == Path::hub ? lane->openHub(error) : lane->openPlain(error)) return lane;
  error = error.empty() ? lane->failure()
                        : std::string(pathName(path)) + ": " + error + lane->endedProcess();
  return nullptr;
}

std::string Lane::failure() const {
  std::string text = std::string(pathName(path_)) + ": ";
  for (std::size_t pair = 0; pair < pairs(); ++pair) {
    const auto& socket = ends_[pair].socket;
    const std::string& failure = socket ? socket->failure() : "";
    text += failure.empty() ? farEnds_.orders(pair).failure() : failure;
    if (!text.ends_with(": ")) break;
  }
  return text + endedProcess();
}

// All of them, since one often ends by the other's end.
std::string Lane::endedProcess() const {
  int status = 0;
  if (!between_.ended(status)) return farEnds_.ended();
  return std::string(" (the ") + pathName(path_) + " has ended with status " +
         std::to_string(status) + ")" + farEnds_.ended();
}

bool Lane::announce(std::size_t pair, StreamOrder order, Order id) {
  PacketSocket& orders = farEnds_.orders(pair);
  order.path = number_;
  return orders.send(makeStreamOrder(orders.route(), order, id)) &&
         orders.receiveOrder(Order::ready);
}

LoopbackSocket Lane::acceptFrom(const LoopbackSocket& listener, const char* whom,
                                std::string& error) const {
  LoopbackSocket client = listener.accept([this] { return !endedProcess().empty(); });
  if (!client) error = std::string(whom) + " hasn't connected";
  return client;
}

bool Lane::openRelay(const LoopbackSocket& listener, std::uint16_t& farPort, std::string& error) {
  if (!between_.start(programs_.bench,
                      {"--role", kRoleRelay, "--port", std::to_string(listener.port()), "--pairs",
                       std::to_string(pairs()), "--road", std::to_string(static_cast<int>(road_))},
                      error))
    return false;
  for (End& end : ends_) {
    end.connection = acceptFrom(listener, "the relay", error);
    if (!end.connection) return false;
  }
  const platform::Socket first = ends_.front().connection.get();
  unsigned char word[4];
  if (!platform::makeBlocking(first, kTransferLimit) ||
      platform::receiveBytes(first, word, 4).count != 4) {
    error = "the relay doesn't tell its port";
    return false;
  }
  farPort = static_cast<std::uint16_t>(stpReadWord(word));
  return true;
}

bool Lane::openPlain(std::string& error) {
  const LoopbackSocket listener = LoopbackSocket::listening(road_);
  if (!listener) {
    error = "no port can be opened";
    return false;
  }
  std::uint16_t farPort = listener.port();
  if (path_ != Path::direct && !openRelay(listener, farPort, error)) return false;
  for (std::size_t pair = 0; pair < pairs(); ++pair) {
    End& end = ends_[pair];
    PacketSocket& orders = farEnds_.orders(pair);
    if (!orders.send(makeJoinOrder(orders.route(), {farPort, false, road_})) ||
        !orders.receiveOrder(Order::ready))
      return false;
    if (path_ == Path::direct) end.connection = acceptFrom(listener, "the far end", error);
    if (!end.connection) return false;
    end.socket.emplace(end.connection.get(), Route{});
    if (platform::makeBlocking(end.connection.get(), kTransferLimit)) continue;
    error = "the connection can't be made to wait";
    return false;
  }
  return true;
}

bool Lane::openHub(std::string& error) {
  const LoopbackSocket listener = LoopbackSocket::listening();
  if (platform::testAccess(programs_.hub.c_str(), platform::accessExecute) != 0) {
    error = "there is no hub to be measured at " + programs_.hub;
    return false;
  }
  const std::string port = std::to_string(listener.port());
  if (!between_.start(programs_.hub, {"-connect_hublink", port, "-not_shared"}, error))
    return false;
  LoopbackSocket connection = acceptFrom(listener, "the hub", error);
  if (!connection || !joinAsFirst(keeper_, std::move(connection), hubPort_, error)) return false;
  const auto givenUp = [this] { return platform::stopRequested() || !endedProcess().empty(); };
  for (std::size_t pair = 0; pair < pairs(); ++pair) {
    HubEnd& hub = ends_[pair].hub;
    PacketSocket& orders = farEnds_.orders(pair);
    if (!hub.joinAsProvider(hubPort_, road_, error) ||
        !orders.send(makeJoinOrder(orders.route(), {hubPort_, true, road_})) ||
        !hub.awaitRequester(givenUp, error) || !orders.receiveOrder(Order::ready))
      return false;
    ends_[pair].socket.emplace(hub.takeOver(), hub.route());
  }
  return true;
}
