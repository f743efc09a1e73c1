#include "bench/peers/peer_measure.h"

#include <algorithm>

#include "bench/statistics.h"
#include "bench/stopwatch.h"

namespace {

constexpr Route kRoute;
constexpr std::uint32_t kConfirmations = 4;  // in each window

// A packet that makes a payload of `size` bytes.
Bytes makePayload(Order order, std::uint32_t sequence, std::int32_t size) {
  return makePacket(kRoute, order, sequence, size - STP_HEADER_SIZE);
}

std::vector<Bytes> makePayloads(std::int32_t size) {
  std::vector<Bytes> payloads;
  const auto count = static_cast<std::uint32_t>(std::max<std::int64_t>(1, kBatchBytes / size));
  for (std::uint32_t sequence = 1; sequence <= count; ++sequence)
    payloads.push_back(makePayload(Order::data, sequence, size));
  return payloads;
}

std::uint32_t windowOf(const StreamOrder& order, std::int64_t window) {
  return static_cast<std::uint32_t>(
      std::max<std::int64_t>(kConfirmations, window / order.payloadSize));
}

bool readHeader(PeerClient& client, Message message, STPHeader& header) {
  if (std::ssize(message) < STP_HEADER_SIZE) return client.fail("a message without a packet");
  header = stpReadHeader(message.data(), STP_HEADER_SIZE);
  return true;
}

bool sendOrder(PeerClient& client, Order order, std::uint32_t sequence) {
  return client.send(makePacket(kRoute, order, sequence, 0));
}

// The headers of the orders that arrive next, the first of which must be an `expected` one.
bool receiveOrders(PeerClient& client, Order expected, STPHeader& last) {
  std::vector<Message> messages;
  if (!client.receive(messages, false)) return false;
  for (const Message& message : messages) {
    if (!readHeader(client, message, last)) return false;
    if (last.id == static_cast<std::uint32_t>(expected)) continue;
    return client.fail(last.id == static_cast<std::uint32_t>(Order::garbled)
                           ? "the stream has arrived with other messages than were sent"
                           : "a message of another kind than expected has arrived");
  }
  return true;
}

// Takes one stream, and confirms each part of the window and the end.
bool takeStream(PeerClient& client, const StreamOrder& order, std::int64_t window) {
  const std::uint32_t part = windowOf(order, window) / kConfirmations;
  const std::vector<Bytes> payloads =
      order.compare ? makePayloads(order.payloadSize) : std::vector<Bytes>();
  bool intact = true;
  std::vector<Message> messages;
  if (!sendOrder(client, Order::ready, 1)) return false;
  for (std::uint32_t taken = 0, confirmed = 0; taken < order.packets;) {
    if (!client.receive(messages, false)) return false;
    for (const Message& message : messages) {
      intact = intact && std::ssize(message) == order.payloadSize &&
               (!order.compare || std::ranges::equal(message, payloads[taken % payloads.size()]));
      ++taken;
    }
    if (taken - confirmed < part && taken < order.packets) continue;
    const bool good = intact && taken <= order.packets;
    if (!sendOrder(client, good ? Order::taken : Order::garbled, taken)) return false;
    if (!good) return client.fail("other messages have arrived than were sent");
    confirmed = taken;
  }
  return true;
}

}  // namespace

bool awaitReady(PeerClient& client) {
  STPHeader header;
  return receiveOrders(client, Order::ready, header);
}

bool measureRoundTrips(PeerClient& client, std::uint32_t count, RoundTripTimes& times) {
  Bytes payload = makePayload(Order::echo, 0, kSmallPayload);
  std::vector<Message> messages;
  std::vector<double> samples;
  samples.reserve(count);
  for (std::uint32_t sequence = 1; sequence <= count; ++sequence) {
    stpWriteWord(payload.data() + 16, sequence);
    const Stopwatch watch;
    if (!client.send(payload) || !client.receive(messages, false)) return false;
    samples.push_back(watch.microseconds());
    if (messages.size() != 1 || !std::ranges::equal(messages.front(), payload))
      return client.fail("another message has come back than was sent");
  }
  times.p99 = quantileOf(samples, 0.99);
  times.median = medianOf(std::move(samples));
  return true;
}

bool measureStream(PeerClient& client, const StreamOrder& order, std::int64_t window,
                   double& seconds) {
  const std::vector<Bytes> payloads = makePayloads(order.payloadSize);
  const auto batch = static_cast<std::uint32_t>(payloads.size());
  const std::uint32_t most = std::max(windowOf(order, window), batch);
  client.prepare(payloads);
  if (!client.send(makeStreamOrder(kRoute, order)) || !awaitReady(client)) return false;
  STPHeader header;
  const Stopwatch watch;
  for (std::uint32_t sent = 0, confirmed = 0; confirmed < order.packets;) {
    const std::uint32_t next = std::min(batch, order.packets - sent);
    if (next > 0 && sent + next - confirmed <= most) {
      if (!client.sendPrepared(next)) return false;
      sent += next;
    } else {
      if (!receiveOrders(client, Order::taken, header)) return false;
      confirmed = header.sequence;
    }
  }
  seconds = watch.seconds();
  return true;
}

void serve(PeerClient& client, std::int64_t window) {
  if (!sendOrder(client, Order::ready, 1)) return;
  std::vector<Message> messages;
  STPHeader header;
  while (client.receive(messages, true) && readHeader(client, messages.front(), header)) {
    switch (static_cast<Order>(header.id)) {
      case Order::echo:
        if (!client.send(messages.front())) return;
        break;
      case Order::stream: {
        const StreamOrder order = readStreamOrder(messages.front().data() + STP_HEADER_SIZE);
        if (!takeStream(client, order, window)) return;
        break;
      }
      default:
        return;
    }
  }
}
