#include "bench/relay.h"

#include <vector>

#include "bench/waiting_socket.h"
#include "platform/readiness.h"
#include "stp_transport/wire/stp_wire.h"

namespace {

constexpr std::size_t kRelayBytes = 262144;

// One way through a pair of connections, with a buffer that isn't read into while the other side is
// full.
struct Flow {
  Flow(const LoopbackSocket& source, const LoopbackSocket& sink)
      : from(source.get()), to(sink.get()), buffer(kRelayBytes) {}
  platform::Socket from, to;
  Bytes buffer;
  std::int64_t begin = 0, end = 0;  // what of it hasn't gone yet
  bool isMovable() const {
    auto& ready = platform::readiness();
    return begin == end ? ready.isReadable(from) : ready.isWritable(to);
  }
};

// Moves once what can be moved. False if a connection has ended.
bool move(Flow& flow) {
  auto& ready = platform::readiness();
  if (flow.begin == flow.end) {
    const platform::Transfer got =
        platform::receiveBytes(flow.from, flow.buffer.data(), std::ssize(flow.buffer));
    if (got.wouldBlock) ready.drained(flow.from);
    if (got.count == 0) return got.wouldBlock;
    // A short read has emptied the socket, as a short write has filled it.
    if (got.count < std::ssize(flow.buffer)) ready.clearReadable(flow.from);
    flow.begin = 0;
    flow.end = got.count;
  }
  const platform::Transfer sent =
      platform::sendBytes(flow.to, flow.buffer.data() + flow.begin, flow.end - flow.begin);
  flow.begin += sent.count;
  if (flow.begin < flow.end) ready.clearWritable(flow.to);
  return sent.error == 0;
}

void relay(std::vector<Flow>& flows) {
  auto& ready = platform::readiness();
  for (bool failed = false; !failed;) {
    bool movable = false;
    for (Flow& flow : flows) {
      if (flow.isMovable() && !move(flow)) return;
      movable = movable || flow.isMovable();
    }
    ready.wait(movable ? 0 : -1, failed);
    ready.forgetNews();
  }
}

}  // namespace

int runRelay(std::uint16_t port, int pairs, Road road) {
  const LoopbackSocket listener = LoopbackSocket::listening(road);
  if (!listener) return 1;
  std::vector<LoopbackSocket> connections;
  for (int i = 0; i < pairs; ++i) connections.push_back(LoopbackSocket::connectedTo(port, road));
  unsigned char word[4];
  stpWriteWord(word, listener.port());
  if (platform::sendBytes(connections.front().get(), word, 4).count != 4) return 1;
  for (int i = 0; i < pairs; ++i) connections.push_back(listener.accept([] { return false; }));
  std::vector<Flow> flows;
  for (int i = 0; i < pairs; ++i) {
    const LoopbackSocket& driver = connections[static_cast<std::size_t>(i)];
    const LoopbackSocket& farEnd = connections[static_cast<std::size_t>(pairs + i)];
    if (!driver || !farEnd) return 1;
    flows.emplace_back(driver, farEnd);
    flows.emplace_back(farEnd, driver);
    platform::readiness().watch(driver.get());
    platform::readiness().watch(farEnd.get());
  }
  relay(flows);
  for (const LoopbackSocket& connection : connections)
    platform::readiness().forget(connection.get());
  return 0;
}
