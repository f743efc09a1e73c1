#include "bench/relay.h"

#include <vector>

#include "bench/loopback.h"
#include "bench/waiting_socket.h"
#include "platform/readiness.h"
#include "stp_transport/wire/stp_wire.h"

namespace {

// Takes the least processor time of 64, 128 and 256 KiB.
constexpr std::size_t kRelayBytes = 131072;

// One way through a pair of connections.
struct Flow {
  platform::Socket from, to;
  Bytes held;  // for which there was no room yet
  bool isMovable() const {
    auto& ready = platform::readiness();
    return held.empty() ? ready.isReadable(from) : ready.isWritable(to);
  }
};

// Sends what fits and holds the rest. False if the connection has ended.
bool send(Flow& flow, const unsigned char* bytes, std::int64_t count) {
  const platform::Transfer sent = platform::sendBytes(flow.to, bytes, count);
  if (sent.error != 0) return false;
  // Less than all has filled the socket: a further try would be a call for nothing.
  if (sent.count < count) platform::readiness().clearWritable(flow.to);
  flow.held = Bytes(bytes + sent.count, bytes + count);
  return true;
}

// Moves once what can be moved. False if a connection has ended.
bool move(Flow& flow, Bytes& buffer) {
  if (!flow.held.empty()) {
    const Bytes rest = std::move(flow.held);
    return send(flow, rest.data(), std::ssize(rest));
  }
  auto& ready = platform::readiness();
  const platform::Transfer got =
      platform::receiveBytes(flow.from, buffer.data(), std::ssize(buffer));
  if (got.wouldBlock) {
    ready.drained(flow.from);
    return true;
  }
  if (got.count == 0) return false;
  // A short read has emptied the socket, as a short write has filled it.
  if (got.count < std::ssize(buffer)) ready.clearReadable(flow.from);
  return send(flow, buffer.data(), got.count);
}

void relay(std::vector<Flow>& flows) {
  auto& ready = platform::readiness();
  Bytes buffer(kRelayBytes);
  for (bool failed = false; !failed;) {
    bool movable = false;
    for (Flow& flow : flows) {
      if (flow.isMovable() && !move(flow, buffer)) return;
      movable = movable || flow.isMovable();
    }
    ready.wait(movable ? 0 : -1, failed);
    ready.forgetNews();
  }
}

}  // namespace

int runRelay(std::uint16_t port, int pairs) {
  const LoopbackSocket listener = LoopbackSocket::listening();
  if (!listener) return 1;
  std::vector<LoopbackSocket> connections;
  for (int i = 0; i < pairs; ++i) connections.push_back(LoopbackSocket::connectedTo(port));
  unsigned char word[4];
  stpWriteWord(word, platform::localPort(listener.get()));
  if (platform::sendBytes(connections.front().get(), word, 4).count != 4) return 1;
  for (int i = 0; i < pairs; ++i) connections.push_back(listener.accept([] { return false; }));
  std::vector<Flow> flows;
  for (int i = 0; i < pairs; ++i) {
    const LoopbackSocket& driver = connections[static_cast<std::size_t>(i)];
    const LoopbackSocket& farEnd = connections[static_cast<std::size_t>(pairs + i)];
    if (!driver || !farEnd) return 1;
    flows.push_back({driver.get(), farEnd.get(), {}});
    flows.push_back({farEnd.get(), driver.get(), {}});
    platform::readiness().watch(driver.get());
    platform::readiness().watch(farEnd.get());
  }
  relay(flows);
  for (const LoopbackSocket& connection : connections)
    platform::readiness().forget(connection.get());
  return 0;
}
