// One end of a measurement: a provider that sends back or counts what comes, or the requester that
// measures, over a hub or plainly over NATS. Packets and messages begin with a letter that says
// what is to be done with them.
//
//   bridge_bench hub-serve  [options of a plugin]     bridge_bench nats-serve  URL
//   bridge_bench hub-measure ROUND_TRIPS STREAM BULK [options]   bridge_bench nats-measure URL ...
//
// A measuring end prints one line of JSON: the round trip in us, messages of 64 bytes a second, and
// MB/s in messages of 64 KiB.
#include <nats/nats.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "hublink_plugin/hub_finder.h"
#include "platform/clock.h"

namespace {

constexpr const char* kService = "BridgeBench";
constexpr std::size_t kSmall = 64, kLarge = 65536;
constexpr unsigned char kEcho = 'E', kCount = 'C', kLast = 'L';
constexpr int kWait = 30000;  // ms

double secondsSince(std::uint64_t begin) {
  return static_cast<double>(platform::monotonicNanoseconds() - begin) / 1e9;
}

// What an end does, whatever carries it. Both give false on a failure.
struct Road {
  std::function<bool(const std::vector<unsigned char>&)> send;
  std::function<bool(const std::vector<unsigned char>&)> ask;  ///< sends, and waits for an answer
};

int measure(const Road& road, int roundTrips, int stream, int bulk) {
  std::vector<double> times;
  std::vector<unsigned char> packet(kSmall, kEcho);
  for (int i = -roundTrips / 10; i < roundTrips; ++i) {
    const std::uint64_t begin = platform::monotonicNanoseconds();
    if (!road.ask(packet)) return 1;
    if (i >= 0) times.push_back(secondsSince(begin) * 1e6);
  }
  std::sort(times.begin(), times.end());
  double rates[2];
  for (const bool isLarge : {false, true}) {
    packet.assign(isLarge ? kLarge : kSmall, kCount);
    const int count = isLarge ? bulk : stream;
    const std::uint64_t begin = platform::monotonicNanoseconds();
    for (int i = 1; i < count; ++i)
      if (!road.send(packet)) return 1;
    packet[0] = kLast;
    if (!road.ask(packet)) return 1;
    rates[isLarge ? 1 : 0] = count / secondsSince(begin);
  }
  std::printf("{\"median\": %.1f, \"p99\": %.1f, \"small\": %.0f, \"large\": %.1f}\n",
              times[times.size() / 2], times[times.size() * 99 / 100], rates[0],
              rates[1] * kLarge / 1e6);
  return 0;
}

int serveHub(int argc, char** argv) {
  HublinkPlugin plugin;
  std::string error;
  if (!connectToHub(plugin, argc, argv, error)) return 1;
  plugin.registerService(kService, [](const std::shared_ptr<HublinkLink>& link) {
    link->onPacket([link = link.get()](const unsigned char* bytes, std::size_t size) {
      if (bytes[0] != kCount) link->send(bytes, std::min(size, kSmall));
    });
  });
  std::puts("ready");
  std::fflush(stdout);
  plugin.run();
  return 0;
}

int measureHub(int argc, char** argv) {
  HublinkPlugin plugin;
  std::string error;
  if (!connectToHub(plugin, argc, argv, error)) return 1;
  ServiceQuery query;
  query.serviceName = kService;
  const ServiceReply reply = plugin.requestService(query);
  if (!reply.link) {
    std::fprintf(stderr, "%s: %s\n", kService, outcomeText(reply.outcome));
    return 1;
  }
  HublinkLink::Packet answer;
  Road road;
  road.send = [&](const std::vector<unsigned char>& packet) {
    return reply.link->send(packet.data(), packet.size());
  };
  road.ask = [&](const std::vector<unsigned char>& packet) {
    return road.send(packet) && reply.link->receive(answer, kWait);
  };
  return measure(road, std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]));
}

void natsArrived(natsConnection* connection, natsSubscription*, natsMsg* message, void*) {
  if (natsMsg_GetData(message)[0] != kCount)
    natsConnection_Publish(connection, natsMsg_GetReply(message), natsMsg_GetData(message),
                           std::min(natsMsg_GetDataLength(message), static_cast<int>(kSmall)));
  natsMsg_Destroy(message);
}

// The library can send each message at once, which round trips ask for, or wait up to a millisecond
// for more, which streams gain by.
natsConnection* connectNats(const char* url, bool atOnce) {
  natsOptions* options = nullptr;
  natsConnection* connection = nullptr;
  natsOptions_Create(&options);
  natsOptions_SetURL(options, url);
  natsOptions_SetSendAsap(options, atOnce);
  natsConnection_Connect(&connection, options);
  natsOptions_Destroy(options);
  return connection;
}

int serveNats(const char* url) {
  natsConnection* connection = connectNats(url, true);
  natsSubscription* subscription = nullptr;
  if (!connection || natsConnection_Subscribe(&subscription, connection, kService, natsArrived,
                                              nullptr) != NATS_OK)
    return 1;
  natsSubscription_SetPendingLimits(subscription, -1, -1);
  natsConnection_Flush(connection);
  std::puts("ready");
  std::fflush(stdout);
  for (;;) platform::sleepMilliseconds(kWait);
}

int measureNats(char** argv) {
  natsConnection* atOnce = connectNats(argv[2], true);
  natsConnection* gathering = connectNats(argv[2], false);
  if (!atOnce || !gathering) return 1;
  Road road;
  road.send = [&](const std::vector<unsigned char>& packet) {
    return natsConnection_Publish(gathering, kService, packet.data(),
                                  static_cast<int>(packet.size())) == NATS_OK;
  };
  road.ask = [&](const std::vector<unsigned char>& packet) {
    natsMsg* reply = nullptr;
    const natsStatus status =
        natsConnection_Request(&reply, packet[0] == kEcho ? atOnce : gathering, kService,
                               packet.data(), static_cast<int>(packet.size()), kWait);
    natsMsg_Destroy(reply);
    return status == NATS_OK;
  };
  return measure(road, std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view role = argc > 1 ? argv[1] : "";
  if (role == "hub-serve") return serveHub(argc, argv);
  if (role == "nats-serve" && argc == 3) return serveNats(argv[2]);
  if (role == "hub-measure" && argc >= 5) return measureHub(argc, argv);
  if (role == "nats-measure" && argc == 6) return measureNats(argv);
  std::fprintf(stderr, "bridge_bench: unknown role\n");
  return 2;
}
