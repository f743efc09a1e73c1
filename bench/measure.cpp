#include "bench/measure.h"

#include <vector>

#include "bench/statistics.h"
#include "bench/stopwatch.h"

bool measureRoundTrips(PacketSocket& socket, std::uint32_t count, RoundTripTimes& times) {
  Bytes packet = makePacket(socket.route(), Order::echo, 0, kSmallPayload);
  std::vector<double> samples;
  samples.reserve(count);
  for (std::uint32_t sequence = 1; sequence <= count; ++sequence) {
    stpWriteWord(packet.data() + 16, sequence);
    STPHeader answer;
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

bool announceStream(PacketSocket& socket, const StreamOrder& order) {
  return socket.send(makeStreamOrder(socket.route(), order)) && socket.receiveOrder(Order::ready);
}

bool carryStream(PacketSocket& socket, const StreamOrder& order, const Bytes& batch) {
  return socket.sendStream(batch, streamBytes(order)) && socket.receiveOrder(Order::taken);
}

bool measureStream(PacketSocket& socket, const StreamOrder& order, double& seconds) {
  const Bytes batch = makeBatch(socket.route(), order.payloadSize);
  if (!announceStream(socket, order)) return false;
  const Stopwatch watch;
  if (!carryStream(socket, order, batch)) return false;
  seconds = watch.seconds();
  return true;
}
