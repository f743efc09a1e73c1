#include "bench/measure.h"

#include <algorithm>
#include <vector>

#include "platform/clock.h"

namespace {

double microseconds(std::uint64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e3;
}

std::uint64_t quantile(std::vector<std::uint64_t>& samples, std::size_t numerator,
                       std::size_t denominator) {
  const auto place =
      samples.begin() + static_cast<std::ptrdiff_t>((samples.size() - 1) * numerator / denominator);
  std::nth_element(samples.begin(), place, samples.end());
  return *place;
}

}  // namespace

bool measureRoundTrips(PacketSocket& socket, std::uint32_t count, RoundTripTimes& times) {
  Bytes packet = makePacket(socket.route(), Order::echo, 0, kSmallPayload);
  std::vector<std::uint64_t> samples;
  samples.reserve(count);
  for (std::uint32_t sequence = 1; sequence <= count; ++sequence) {
    stpWriteWord(packet.data() + 16, sequence);
    STPHeader answer;
    const std::uint64_t start = platform::monotonicNanoseconds();
    if (!socket.send(packet) || !socket.receivePacket(answer)) return false;
    samples.push_back(platform::monotonicNanoseconds() - start);
    if (answer.sequence != sequence || answer.payloadSize != kSmallPayload)
      return socket.fail("another packet has come back than was sent");
  }
  times.median = microseconds(quantile(samples, 1, 2));
  times.p99 = microseconds(quantile(samples, 99, 100));
  return true;
}

bool measureStream(PacketSocket& socket, const StreamOrder& order, double& seconds) {
  const Bytes batch = makeBatch(socket.route(), order.payloadSize);
  if (!socket.send(makeStreamOrder(socket.route(), order)) || !socket.receiveOrder(Order::ready))
    return false;
  const std::uint64_t start = platform::monotonicNanoseconds();
  if (!socket.sendStream(batch, streamBytes(order)) || !socket.receiveOrder(Order::taken))
    return false;
  seconds = static_cast<double>(platform::monotonicNanoseconds() - start) / 1e9;
  return true;
}
