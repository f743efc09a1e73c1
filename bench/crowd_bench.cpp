// What many plugins cost a hub: how long a thousand take that come at once, how much memory each
// idle one holds, and what a round trip between two plugins takes beside thousands of idle ones.
//
//   hublink_crowd_bench [--runs N] [--plugins N]
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/loopback.h"
#include "generated/hublink_plugin_impl.h"
#include "hublink_plugin/hublink_plugin.h"
#include "indgen/program.h"
#include "platform/clock.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

constexpr int kStorm = 1000;
constexpr int kRoundTrips = 20000;

double millisecondsSince(std::uint64_t start) {
  return static_cast<double>(platform::monotonicNanoseconds() - start) / 1e6;
}

double medianOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// A plugin that connects, negotiates, learns its ID and does nothing more.
class IdlePlugin : public Hublink_plugin_Impl {
 public:
  explicit IdlePlugin(int& known) : known_(known) {}

 protected:
  ~IdlePlugin() override = default;
  void PluginId(std::int32_t) override { ++known_; }
  void ConnectionDroppedEvent(std::int32_t, std::int32_t) override {}
  void ConnectionReplyEvent(const char*, std::int32_t, bool, bool, bool, std::int32_t, std::int32_t,
                            const char*, std::int32_t) override {}
  void ConnectionRequestedEvent(std::int32_t, std::int32_t, std::int32_t, StringArray) override {}
  void ForwardedRequestValueOfNameOnPlugin(std::int32_t, std::int32_t, const char*) override {}
  void LocationEvent(const char*, std::int32_t) override {}
  void PluginConnectedEvent(std::int32_t, std::int32_t, const char*) override {}
  void PluginIdForServiceReplyEvent(std::int32_t, const char*, std::int32_t, bool) override {}
  void RNBlockReservedEvent(RNArray) override {}
  void StartLogging() override {}
  void StartPlugin(StringArray, std::int32_t, const char*) override {}
  void ValueOfNameOnPluginEvent(std::int32_t, const char*, const char*) override {}

 private:
  int& known_;
};

// Plugins that are there and silent.
class Crowd {
 public:
  // Connects them all before it looks at any; false if one is refused or doesn't get its ID.
  bool join(std::uint16_t port, int count) {
    for (int i = 0; i < count; ++i) {
      auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
      transport->connect("127.0.0.1", port);
      if (!transport->isConnected()) return false;
      auto plugin = makeCounted<IdlePlugin>(known_);
      plugin->setTransport(transport.get(), 2, 1);
      plugin->sendNegotiate(true, nullptr, nullptr);
      transports_.insert(transport.get());
      members_.emplace_back(std::move(transport), std::move(plugin));
    }
    const int wanted = static_cast<int>(members_.size());
    const std::uint64_t start = platform::monotonicNanoseconds();
    while (known_ < wanted && millisecondsSince(start) < kStartLimit)
      serviceFirst(100, transports_);
    return known_ == wanted;
  }
  ~Crowd() {
    for (const auto& [transport, plugin] : members_) plugin->setTransport(nullptr);
  }
  Crowd() = default;
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

 private:
  int known_ = 0;
  STPTransportSet transports_;
  std::vector<std::pair<CountedPtr<STPTransport>, CountedPtr<IdlePlugin>>> members_;
};

class Hub {
 public:
  bool start() {
    const int socket = getFreeListenSocket(&port, nullptr, true);
    if (socket != 0) closeListenSocket(socket, nullptr);
    std::string error;
    const std::string directory = gen_program_dir();
    if (!process_.start(directory + "/hublink",
                        {"-port", std::to_string(port), "-hl_zone", std::to_string(port)}, error) ||
        !provider_.connect(port, error, "127.0.0.1", kStartLimit))
      return false;
    return echo_.start(directory + "/echo_provider",
                       {"-hl_connect_hublink_port", std::to_string(port)}, error);
  }
  // Resident bytes of the hub.
  double residentBytes() const {
    std::ifstream status("/proc/" + std::to_string(process_.id()) + "/status");
    for (std::string word; status >> word;)
      if (word == "VmRSS:") {
        double kilobytes = 0;
        status >> kilobytes;
        return kilobytes * 1024;
      }
    return 0;
  }
  // Microseconds of a round trip of 64 bytes to the echo and back; below 0 if it can't be had.
  double roundTrip() {
    if (!link_) {
      ServiceQuery query;
      query.serviceName = "Echo";
      for (int tries = 0; tries < 100 && !link_; ++tries) {
        link_ = provider_.requestService(query, kStartLimit).link;
        if (!link_) platform::sleepMilliseconds(20);
      }
      if (!link_) return -1;
    }
    const std::string bytes(64, 'x');
    HublinkLink::Packet packet;
    std::vector<double> times;
    for (int i = 0; i < kRoundTrips; ++i) {
      const std::uint64_t start = platform::monotonicNanoseconds();
      link_->send(bytes.data(), bytes.size());
      link_->flush();
      if (!link_->receive(packet, kStartLimit)) return -1;
      times.push_back(millisecondsSince(start) * 1000);
    }
    return medianOf(std::move(times));
  }

  std::uint16_t port = 0;

 private:
  BenchProcess process_, echo_;
  HublinkPlugin provider_;
  std::shared_ptr<HublinkLink> link_;
};

int fail(const char* text) {
  std::fprintf(stderr, "hublink_crowd_bench: %s\n", text);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 5, plugins = 5000;
  CLI::App app("Measures what many plugins cost a hub.");
  app.add_option("--runs", runs, "Runs; medians count")->check(CLI::Range(1, 1000));
  app.add_option("--plugins", plugins, "Idle plugins")->check(CLI::Range(1, 100000));
  CLI11_PARSE(app, argc, argv);
  gen_initialise();
  platform::ignoreBrokenPipe();
  platform::raiseDescriptorLimit();
  std::vector<double> storm, memory, alone, crowded, ratio;
  for (int run = 0; run < runs; ++run) {
    Hub hub;
    if (!hub.start()) return fail("the hub doesn't start");
    alone.push_back(hub.roundTrip());
    const double before = hub.residentBytes();
    Crowd first, rest;
    const std::uint64_t start = platform::monotonicNanoseconds();
    if (!first.join(hub.port, kStorm)) return fail("the storm isn't taken");
    storm.push_back(millisecondsSince(start));
    if (!rest.join(hub.port, plugins - kStorm)) return fail("the crowd isn't taken");
    memory.push_back((hub.residentBytes() - before) / plugins);
    crowded.push_back(hub.roundTrip());
    if (alone.back() < 0 || crowded.back() < 0) return fail("no round trip");
    ratio.push_back(crowded.back() / alone.back());
  }
  std::printf("%-56s %10.1f ms\n", "1,000 plugins at once, until all have their ID",
              medianOf(storm));
  std::printf("%-56s %10.0f bytes\n", "memory of the hub for each idle plugin", medianOf(memory));
  std::printf("%-56s %10.2f us\n", "round trip, 64 bytes, two plugins alone", medianOf(alone));
  std::printf("%-56s %10.2f us (%.2fx)\n", "the same beside the idle plugins", medianOf(crowded),
              medianOf(ratio));
  return 0;
}
