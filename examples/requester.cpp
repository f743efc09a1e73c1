// An example plugin that asks for the service "Echo", sends packets of mixed sizes through the hub,
// checks each answer byte for byte and prints the round-trip times.
//
//   requester [-hl_zone ZONE | -hl_connect_hublink_port PORT] [-count N]
//
// It finds the hub, or starts it, unless it is told a port.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

#include "hublink_plugin/hub_finder.h"
#include "indgen/number.h"
#include "platform/clock.h"

namespace {

constexpr int kPatience = 10000;  // ms for any one answer
constexpr int kAskAgain = 50;     // ms

// Mostly small packets, some of a few KiB, now and then a large one.
std::size_t sizeOf(std::mt19937& random) {
  const auto kind = random() % 100;
  if (kind < 80) return random() % 256;
  if (kind < 99) return random() % 8192;
  return random() % 200000;
}

// Asks until somebody provides the service: whoever starts both may start them in any order.
ServiceReply findEcho(HublinkPlugin& plugin) {
  ServiceQuery query;
  query.serviceName = "Echo";
  const std::uint64_t end = platform::monotonicMilliseconds() + kPatience;
  for (;;) {
    const ServiceReply reply = plugin.requestService(query, kPatience);
    if (reply.outcome != ServiceReply::Outcome::notFound ||
        platform::monotonicMilliseconds() >= end)
      return reply;
    plugin.serveUntil([] { return false; }, kAskAgain);
  }
}

// Sends `count` packets, one after the other, and waits for each; false with a message on failure.
bool exchange(const std::string& who, HublinkLink& link, int count,
              std::vector<double>& microseconds) {
  std::mt19937 random(4711);
  std::vector<unsigned char> sent;
  HublinkLink::Packet answer;
  for (int i = 0; i < count; ++i) {
    sent.resize(sizeOf(random));
    for (unsigned char& byte : sent) byte = static_cast<unsigned char>(random());
    const std::uint64_t start = platform::monotonicNanoseconds();
    if (!link.send(sent.data(), sent.size()) || !link.receive(answer, kPatience)) {
      std::fprintf(stderr, "%s: no answer to packet %d\n", who.c_str(), i);
      return false;
    }
    microseconds.push_back(static_cast<double>(platform::monotonicNanoseconds() - start) / 1000);
    if (answer != sent) {
      std::fprintf(stderr, "%s: packet %d came back changed\n", who.c_str(), i);
      return false;
    }
  }
  return true;
}

void printTimes(const std::string& who, std::vector<double> microseconds) {
  if (microseconds.empty()) return;
  std::sort(microseconds.begin(), microseconds.end());
  std::printf("%s: round trips: median %.1f us, 99th percentile %.1f us\n", who.c_str(),
              microseconds[microseconds.size() / 2], microseconds[microseconds.size() * 99 / 100]);
}

int run(int argc, char** argv, int count) {
  HublinkPlugin plugin;
  std::string error;
  if (!connectToHub(plugin, argc, argv, error)) {
    std::fprintf(stderr, "requester: %s\n", error.c_str());
    return 1;
  }
  const std::string who = "requester (plugin " + std::to_string(plugin.pluginID()) + ")";
  std::printf("%s: connected\n", who.c_str());
  const ServiceReply reply = findEcho(plugin);
  if (!reply.link) {
    std::fprintf(stderr, "%s: asked for Echo: %s\n", who.c_str(), outcomeText(reply.outcome));
    return 1;
  }
  std::printf("%s: asked for Echo: accepted by plugin %d, link from RN %d to RN %d\n", who.c_str(),
              reply.pluginID, reply.link->localRN(), reply.link->remoteRN());
  std::vector<double> microseconds;
  if (!exchange(who, *reply.link, count, microseconds)) return 1;
  std::printf("%s: %d packets came back byte for byte\n", who.c_str(), count);
  printTimes(who, std::move(microseconds));
  std::printf("%s: ends\n", who.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  int count = 10000;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "-count") == 0)
      count = static_cast<int>(gen_strtoul(argv[i + 1], nullptr, 0));
  return run(argc, argv, count);
}
