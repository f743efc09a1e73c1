#include "bench/measure.h"

#include <algorithm>
#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "bench/statistics.h"
#include "bench/stopwatch.h"

namespace {

// How many are announced at once while it isn't known how many it will be.
constexpr std::uint32_t kRoundTripsBeside = 50;

bool sampleRoundTrips(Lane& lane, std::uint32_t count, const std::function<bool()>& before,
                      std::vector<double>& samples) {
  PacketSocket& socket = lane.socket();
  Bytes packet = makePacket(socket.route(), Order::echo, 0, kSmallPayload);
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
  return true;
}

void addThoseNotBegun(double usual, std::vector<double>& samples) {
  for (std::size_t i = 0, count = samples.size(); i < count; ++i)
    for (double left = samples[i] - usual; left > usual; left -= usual) samples.push_back(left);
}

RoundTripTimes timesOf(const std::vector<double>& samples) {
  return {medianOf(samples), quantileOf(samples, 0.99), quantileOf(samples, 1)};
}

}  // namespace

bool measureRoundTrips(Lane& lane, std::uint32_t count, RoundTripTimes& times,
                       const std::function<bool()>& before) {
  std::vector<double> samples;
  samples.reserve(count);
  if (!sampleRoundTrips(lane, count, before, samples)) return false;
  times = timesOf(samples);
  return true;
}

bool measureRoundTripsBeside(Lane& lane, const std::function<void()>& work, double usual,
                             RoundTripTimes& times) {
  std::atomic<bool> over = false;
  bool carried = false;
  std::vector<double> samples;
  std::thread link([&] {
    do {
      carried = sampleRoundTrips(lane, kRoundTripsBeside, {}, samples);
    } while (carried && !over);
  });
  work();
  over = true;
  link.join();
  if (!carried) return false;
  addThoseNotBegun(usual, samples);
  times = timesOf(samples);
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
