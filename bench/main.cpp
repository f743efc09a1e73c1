// hublink_bench: what the hub costs, beside the same bytes over a bare socket and through the
// smallest possible relay, in one run and interleaved.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/far_end.h"
#include "bench/lane.h"
#include "bench/measure.h"
#include "bench/relay.h"
#include "bench/report.h"
#include "platform/host.h"
#include "platform/process.h"

namespace {

constexpr double kMegabyte = 1e6;
// Enough of a stream to go through every buffer several times.
constexpr std::uint32_t kComparedPackets = 20000;

using Lanes = std::vector<std::unique_ptr<Lane>>;

struct Figures {
  Figure median{"round_trip_median", "round trip, 64 bytes", "us", 2};
  Figure p99{"round_trip_p99", "round trip, 64 bytes, p99", "us", 2};
  Figure packets{"packets_per_second", "one way, 64 bytes", "packets/s", 0};
  Figure megabytes{"megabytes_per_second", "one way, 64 KiB", "MB/s", 0};
};

bool runRoundTrips(Lane& lane, const RunSize& size, Figures& figures) {
  RoundTripTimes times;
  if (!measureRoundTrips(lane.socket(), size.roundTrips, times)) return false;
  figures.median.of(lane.path()).push_back(times.median);
  figures.p99.of(lane.path()).push_back(times.p99);
  return true;
}

bool runSmallPackets(Lane& lane, const RunSize& size, Figures& figures) {
  double seconds = 0;
  if (!measureStream(lane.socket(), {kSmallPayload, size.smallPackets, false}, seconds))
    return false;
  figures.packets.of(lane.path()).push_back(size.smallPackets / seconds);
  return true;
}

bool runLargePackets(Lane& lane, const RunSize& size, Figures& figures) {
  double seconds = 0;
  if (!measureStream(lane.socket(), {kLargePayload, size.largePackets, false}, seconds))
    return false;
  const double bytes = static_cast<double>(size.largePackets) * kLargePayload;
  figures.megabytes.of(lane.path()).push_back(bytes / kMegabyte / seconds);
  return true;
}

// Warms a path up, and makes sure that what is measured on it is really carried: every byte of
// these streams is compared.
bool verify(Lane& lane, const RunSize& size) {
  RoundTripTimes times;
  double seconds = 0;
  return measureRoundTrips(lane.socket(), size.roundTrips / 4 + 1, times) &&
         measureStream(lane.socket(),
                       {kSmallPayload, std::min(size.smallPackets, kComparedPackets), true},
                       seconds) &&
         measureStream(lane.socket(), {kLargePayload, size.largePackets / 4 + 1, true}, seconds);
}

int fail(const std::string& text) {
  std::fprintf(stderr, "hublink_bench: %s\n", text.c_str());
  return 1;
}

int drive(const BenchPrograms& programs, int runs, const RunSize& size, const std::string& json) {
  platform::installStopSignals();
  Lanes lanes;
  std::string error;
  for (const Path path : kPaths) {
    lanes.push_back(Lane::open(path, programs, error));
    if (!lanes.back()) return fail(error);
  }
  for (const auto& lane : lanes)
    if (!verify(*lane, size)) return fail(lane->failure());
  Figures figures;
  for (int run = 0; run < runs; ++run) {
    for (const auto measure : {runRoundTrips, runSmallPackets, runLargePackets}) {
      // Each path is the first one in its turn.
      for (std::size_t i = 0; i < lanes.size(); ++i) {
        Lane& lane = *lanes[(i + static_cast<std::size_t>(run)) % lanes.size()];
        if (!measure(lane, size, figures)) return fail(lane.failure());
        if (platform::stopRequested()) return fail("stopped");
      }
    }
  }
  const std::vector<Figure> all{figures.median, figures.p99, figures.packets, figures.megabytes};
  std::printf("%s build, %u processors, median of %d runs\n\n%s", HUBLINK_BUILD_TYPE,
              std::thread::hardware_concurrency(), runs, tableOf(all).c_str());
  if (!json.empty() && !writeJson(json, all)) return fail(json + " can't be written");
  return 0;
}

std::string besideProgram(const std::string& program, const char* name) {
  return program.substr(0, program.rfind('/') + 1) + name;
}

}  // namespace

int main(int argc, char** argv) {
  platform::ensureStandardDescriptors();
  platform::ignoreBrokenPipe();

  BenchPrograms programs;
  programs.bench = platform::executablePath();
  programs.hub = besideProgram(programs.bench, "hublink");
  int runs = 7;
  bool quick = false;
  RunSize size;
  std::string json, role;
  std::uint16_t port = 0;
  CLI::App app("Measures the hub beside a bare socket and the smallest possible relay.");
  app.add_option("--runs", runs, "Runs that the medians are taken of")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_flag("--quick", quick, "One short run: shows that it works, the figures mean little");
  app.add_option("--hub", programs.hub, "The hub's executable")->capture_default_str();
  app.add_option("--json", json, "File for the figures of all runs");
  app.add_option("--role", role)->group("");  // the parts that this program starts
  app.add_option("--port", port)->group("");
  CLI11_PARSE(app, argc, argv);

  if (role == kRoleRelay) return runRelay(port);
  if (role == kRolePlainEnd) return runPlainFarEnd(port);
  if (role == kRoleHubEnd) return runHubFarEnd(port);
  if (!role.empty()) return fail("there is no part named " + role);
  if (quick) {
    runs = 1;
    size = {500, 20000, 200};
  }
  return drive(programs, runs, size, json);
}
