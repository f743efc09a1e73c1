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

std::unique_ptr<Lane> Lane::open(Path path, const BenchPrograms& programs, std::string& error) {
  std::unique_ptr<Lane> lane(new Lane(path, programs));
  if (path == Path::hub ? lane->openHub(error) : lane->openPlain(path == Path::relay, error))
    return lane;
  error = std::string(pathName(path)) + ": " + error + lane->endedProcess();
  return nullptr;
}

std::string Lane::failure() const {
  return std::string(pathName(path_)) + ": " + socket_->failure() + endedProcess();
}

// Both, since one often ends by the other's end.
std::string Lane::endedProcess() const {
  std::string text;
  int status = 0;
  if (between_.ended(status))
    text += std::string(" (the ") + pathName(path_) + " has ended with status " +
            std::to_string(status) + ")";
  if (farEnd_.ended(status))
    text += " (the far end has ended with status " + std::to_string(status) + ")";
  return text;
}

bool Lane::startFarEnd(const char* role, std::uint16_t port, std::string& error) {
  return farEnd_.start(programs_.bench, {"--role", role, "--port", std::to_string(port)}, error);
}

LoopbackSocket Lane::acceptFrom(const LoopbackSocket& listener, const char* whom,
                                std::string& error) const {
  LoopbackSocket client = listener.accept([this] { return !endedProcess().empty(); });
  if (!client) error = std::string(whom) + " hasn't connected";
  return client;
}

bool Lane::openPlain(bool withRelay, std::string& error) {
  const LoopbackSocket listener = LoopbackSocket::listening();
  if (!listener) {
    error = "no port can be opened";
    return false;
  }
  std::uint16_t farPort = platform::localPort(listener.get());
  if (withRelay) {
    if (!between_.start(programs_.bench, {"--role", kRoleRelay, "--port", std::to_string(farPort)},
                        error))
      return false;
    connection_ = acceptFrom(listener, "the relay", error);
    unsigned char word[4];
    if (!connection_) return false;
    if (!platform::makeBlocking(connection_.get(), kTransferLimit) ||
        platform::receiveBytes(connection_.get(), word, 4).count != 4) {
      error = "the relay doesn't tell its port";
      return false;
    }
    farPort = static_cast<std::uint16_t>(stpReadWord(word));
  }
  if (!startFarEnd(kRolePlainEnd, farPort, error)) return false;
  if (!withRelay) connection_ = acceptFrom(listener, "the far end", error);
  if (!connection_) return false;
  socket_.emplace(connection_.get(), Route{});
  if (!platform::makeBlocking(connection_.get(), kTransferLimit))
    error = "the connection can't be made to wait";
  else if (!socket_->receiveOrder(Order::ready))
    error = socket_->failure();
  return error.empty();
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
  std::uint16_t hubPort = 0;
  if (!connection || !hub_.joinAsProvider(std::move(connection), hubPort, error) ||
      !startFarEnd(kRoleHubEnd, hubPort, error) ||
      !hub_.awaitRequester([this] { return platform::stopRequested() || !endedProcess().empty(); },
                           error))
    return false;
  socket_.emplace(hub_.takeOver(), hub_.route());
  return true;
}
