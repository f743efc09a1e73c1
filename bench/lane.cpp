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
  }
  return "";
}

Lane::Lane(Path path, const BenchPrograms& programs, int pairs) : path_(path), programs_(programs) {
  for (int pair = 0; pair < pairs; ++pair) ends_.emplace_back(pair);
}

std::unique_ptr<Lane> Lane::open(Path path, const BenchPrograms& programs, std::string& error,
                                 int pairs) {
  std::unique_ptr<Lane> lane(new Lane(path, programs, pairs));
  if (path == Path::hub ? lane->openHub(error) : lane->openPlain(error)) return lane;
  error = std::string(pathName(path)) + ": " + error + lane->endedProcess();
  return nullptr;
}

std::string Lane::failure() const {
  std::string text = std::string(pathName(path_)) + ": ";
  for (const End& end : ends_) {
    if (end.socket->failure().empty()) continue;
    text += end.socket->failure();
    break;
  }
  return text + endedProcess();
}

// All of them, since one often ends by the other's end.
std::string Lane::endedProcess() const {
  std::string text;
  int status = 0;
  if (between_.ended(status))
    text += std::string(" (the ") + pathName(path_) + " has ended with status " +
            std::to_string(status) + ")";
  for (const End& end : ends_)
    if (end.farEnd.ended(status))
      text += " (the far end has ended with status " + std::to_string(status) + ")";
  return text;
}

bool Lane::startFarEnd(std::size_t pair, const char* role, std::uint16_t port, std::string& error) {
  return ends_[pair].farEnd.start(
      programs_.bench,
      {"--role", role, "--port", std::to_string(port), "--pair", std::to_string(pair)}, error);
}

LoopbackSocket Lane::acceptFrom(const LoopbackSocket& listener, const char* whom,
                                std::string& error) const {
  LoopbackSocket client = listener.accept([this] { return !endedProcess().empty(); });
  if (!client) error = std::string(whom) + " hasn't connected";
  return client;
}

bool Lane::openRelay(const LoopbackSocket& listener, std::uint16_t& farPort, std::string& error) {
  if (!between_.start(
          programs_.bench,
          {"--role", kRoleRelay, "--port", std::to_string(platform::localPort(listener.get())),
           "--pairs", std::to_string(pairs())},
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
  const LoopbackSocket listener = LoopbackSocket::listening();
  if (!listener) {
    error = "no port can be opened";
    return false;
  }
  std::uint16_t farPort = platform::localPort(listener.get());
  if (path_ == Path::relay && !openRelay(listener, farPort, error)) return false;
  for (std::size_t pair = 0; pair < pairs(); ++pair) {
    if (!startFarEnd(pair, kRolePlainEnd, farPort, error)) return false;
    if (path_ == Path::direct) ends_[pair].connection = acceptFrom(listener, "the far end", error);
    if (!ends_[pair].connection) return false;
  }
  for (End& end : ends_) {
    end.socket.emplace(end.connection.get(), Route{});
    if (!platform::makeBlocking(end.connection.get(), kTransferLimit))
      error = "the connection can't be made to wait";
    else if (!end.socket->receiveOrder(Order::ready))
      error = end.socket->failure();
    if (!error.empty()) return false;
  }
  return true;
}

bool Lane::openHub(std::string& error) {
  const LoopbackSocket listener = LoopbackSocket::listening();
  if (platform::testAccess(programs_.hub.c_str(), platform::accessExecute) != 0) {
    error = "there is no hub to be measured at " + programs_.hub;
    return false;
  }
  const std::string port = std::to_string(platform::localPort(listener.get()));
  if (!between_.start(programs_.hub, {"-connect_hublink", port, "-not_shared"}, error))
    return false;
  LoopbackSocket connection = acceptFrom(listener, "the hub", error);
  if (!connection || !ends_.front().hub.joinAsFirst(std::move(connection), hubPort_, error))
    return false;
  const auto givenUp = [this] { return platform::stopRequested() || !endedProcess().empty(); };
  for (std::size_t pair = 0; pair < pairs(); ++pair) {
    HubEnd& hub = ends_[pair].hub;
    if ((pair > 0 && !hub.joinAsProvider(hubPort_, error)) ||
        !startFarEnd(pair, kRoleHubEnd, hubPort_, error) || !hub.awaitRequester(givenUp, error))
      return false;
    ends_[pair].socket.emplace(hub.takeOver(), hub.route());
  }
  return true;
}
