#include "bench/measure.h"

#include <algorithm>
#include <latch>
#include <thread>
#include <vector>

#include "bench/statistics.h"
#include "bench/stopwatch.h"

bool measureRoundTrips(Lane& lane, std::uint32_t count, RoundTripTimes& times,
                       const std::function<bool()>& before) {
  PacketSocket& socket = lane.socket();
  Bytes packet = makePacket(socket.route(), Order::echo, 0, kSmallPayload);
  std::vector<double> samples;
  samples.reserve(count);
  if (!lane.announce(0, {kSmallPayload, count}, Order::echoes)) return false;
  for (std::uint32_t sequence = 1; sequence <= count; ++sequence) {
    stpWriteWord(packet.data() + 16, sequence);
    STPHeader answer;
    if (before && !before()) return false;
    const Stopwatch watch;
    if (!socket.send(packet) || !socket.receivePacket(answer)) return false;
    samples.push_back(watch.microseconds());
    if (answer.sequence != sequence || answer.payloadSize != kSmallPayload)
      return socket.fail("another packet has come back than was sent");
  }
  times.median = medianOf(samples);
  times.p99 = quantileOf(std::move(samples), 0.99);
  return true;
}

bool measureStreams(Lane& lane, const StreamOrder& order, double& seconds) {
  const auto pairs = static_cast<std::ptrdiff_t>(lane.pairs());
  std::latch ready(pairs), go(1);
  std::vector<char> carried(lane.pairs());
  for (std::size_t pair = 0; pair < lane.pairs(); ++pair)
    if (!lane.announce(pair, order)) return false;
  std::vector<std::thread> senders;
  for (std::size_t pair = 0; pair < lane.pairs(); ++pair)
    senders.emplace_back([&, pair] {
      PacketSocket& socket = lane.socket(pair);
      const Bytes batch = makeBatch(socket.route(), order.payloadSize);
      ready.count_down();
      go.wait();
      carried[pair] = socket.sendStream(batch, streamBytes(order)) && lane.awaitTaken(pair);
    });
  ready.wait();
  const Stopwatch watch;
  go.count_down();
  for (std::thread& sender : senders) sender.join();
  seconds = watch.seconds();
  return std::ranges::find(carried, char{0}) == carried.end();
}
