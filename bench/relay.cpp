#include "bench/relay.h"

#include <array>
#include <vector>

#include "bench/loopback.h"
#include "platform/readiness.h"
#include "stp_transport/wire/stp_wire.h"

namespace {

constexpr std::size_t kRelayBytes = 131072;

// Sends all of it, waiting for room. False if the connection has ended.
bool passOn(platform::Socket to, const unsigned char* bytes, std::int64_t count) {
  auto& ready = platform::readiness();
  while (count > 0) {
    const platform::Transfer sent = platform::sendBytes(to, bytes, count);
    if (sent.error != 0) return false;
    bytes += sent.count;
    count -= sent.count;
    if (!sent.wouldBlock) continue;
    ready.clearWritable(to);
    bool failed = false;
    while (!ready.isWritable(to) && !failed) ready.wait(-1, failed);
    if (failed) return false;
  }
  return true;
}

void relay(platform::Socket left, platform::Socket right) {
  auto& ready = platform::readiness();
  ready.watch(left);
  ready.watch(right);
  std::vector<unsigned char> buffer(kRelayBytes);
  for (;;) {
    for (const auto& [from, to] : {std::array{left, right}, std::array{right, left}}) {
      if (!ready.isReadable(from)) continue;
      const platform::Transfer got = platform::receiveBytes(from, buffer.data(), kRelayBytes);
      if (got.wouldBlock) {
        ready.drained(from);
        continue;
      }
      if (got.count == 0) return;
      // A short read has emptied the socket: a further one would be a call for nothing.
      if (got.count < std::ssize(buffer)) ready.clearReadable(from);
      if (!passOn(to, buffer.data(), got.count)) return;
    }
    bool failed = false;
    if (!ready.isReadable(left) && !ready.isReadable(right)) ready.wait(-1, failed);
    if (failed) return;
  }
}

}  // namespace

int runRelay(std::uint16_t port) {
  const LoopbackSocket listener = LoopbackSocket::listening();
  const LoopbackSocket driver = LoopbackSocket::connectedTo(port);
  unsigned char word[4];
  stpWriteWord(word, platform::localPort(listener.get()));
  if (!listener || !driver || platform::sendBytes(driver.get(), word, 4).count != 4) return 1;
  const LoopbackSocket farEnd = listener.accept([] { return false; });
  if (!farEnd) return 1;
  relay(driver.get(), farEnd.get());
  platform::readiness().forget(driver.get());
  platform::readiness().forget(farEnd.get());
  return 0;
}
