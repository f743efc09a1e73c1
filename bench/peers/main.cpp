// hublink_peers_bench: the hub beside the message brokers that a distribution packages, all doing
// the same work in one run and interleaved.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/peers/row.h"
#include "indgen/program.h"
#include "platform/host.h"
#include "platform/process.h"

namespace {

struct Settings {
  BenchPrograms programs;
  std::string self;
  int runs = 5;
  int windowKiB = 4096;
  std::vector<std::string> peers;  ///< all, if there are none
  BlockSize size{20000, 1000000, 8000};

  std::int64_t window() const { return static_cast<std::int64_t>(windowKiB) * 1024; }
  bool wanted(const PeerKind& kind) const {
    return peers.empty() || std::ranges::find(peers, kind.option) != peers.end();
  }
};

// A line of the table; one without a row can't be measured here.
struct Line {
  std::string title;
  std::unique_ptr<Row> row;
};

int fail(const std::string& text) {
  std::fprintf(stderr, "hublink_peers_bench: %s\n", text.c_str());
  return 1;
}

bool openLines(const Settings& settings, const ScratchDirectory& scratch, FarEnds& farEnds,
               std::vector<Line>& lines, std::string& error) {
  for (const Path path : kPaths) {
    auto lane = Lane::open(path, Road::tcp, settings.programs, farEnds, error);
    if (!lane) return false;
    lines.push_back({pathName(path), makeRow(std::move(lane))});
  }
  for (const PeerKind* kind : kPeerKinds) {
    if (!settings.wanted(*kind)) continue;
    lines.push_back({kind->title, nullptr});
    if (brokerProgram(*kind, settings.self).empty()) continue;
    auto lane = PeerLane::open(*kind, settings.self, scratch, settings.window(), error);
    if (!lane) return false;
    lines.back().row = makeRow(std::move(lane), settings.window());
  }
  return true;
}

void printTable(const std::vector<Line>& lines, const Row& hub) {
  const struct {
    Quantity quantity;
    const char* title;
    int decimals;
  } parts[] = {{Quantity::roundTrip, "round trip, 64 bytes, us", 1},
               {Quantity::roundTripP99, "round trip, 64 bytes, p99, us", 1},
               {Quantity::smallMessages, "one way, 64 bytes, messages/s", 0},
               {Quantity::largeMessages, "one way, 64 KiB, MB/s", 0}};
  for (const auto& part : parts) {
    std::printf("\n%-32s %11s %11s    %11s %11s\n", part.title, "median", "least", "most",
                "hub/this");
    for (const Line& line : lines) {
      if (!line.row) {
        std::printf("  %-30s %11s\n", line.title.c_str(), "not installed");
        continue;
      }
      const Values& values = line.row->of(part.quantity);
      std::printf("  %-30s %11.*f %11.*f .. %11.*f %10.2fx\n", line.title.c_str(), part.decimals,
                  values.median(), part.decimals, values.least(), part.decimals, values.most(),
                  hub.of(part.quantity).median() / values.median());
    }
  }
}

int drive(const Settings& settings) {
  platform::installStopSignals();
  const ScratchDirectory scratch;
  std::string error;
  const auto farEnds = FarEnds::start(settings.programs, 1, error);
  std::vector<Line> lines;
  if (!farEnds || !openLines(settings, scratch, *farEnds, lines, error)) return fail(error);
  std::vector<Row*> rows;
  for (const Line& line : lines)
    if (line.row) rows.push_back(line.row.get());
  for (Row* row : rows)
    if (!row->verify(settings.size)) return fail(row->failure());
  for (int run = 0; run < settings.runs; ++run) {
    for (const auto measure :
         {&Row::measureRoundTrips, &Row::measureSmallMessages, &Row::measureLargeMessages}) {
      // Each is the first one in its turn.
      for (std::size_t i = 0; i < rows.size(); ++i) {
        Row& row = *rows[(i + static_cast<std::size_t>(run)) % rows.size()];
        if (!(row.*measure)()) return fail(row.failure());
        if (platform::stopRequested()) return fail("stopped");
      }
    }
  }
  std::printf("%s build, %u processors, median of %d runs, window of %d KiB\n", HUBLINK_BUILD_TYPE,
              std::thread::hardware_concurrency(), settings.runs, settings.windowKiB);
  printTable(lines, *rows[static_cast<std::size_t>(Path::hub)]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  platform::ensureStandardDescriptors();
  platform::ignoreBrokenPipe();
  gen_initialise();

  Settings settings;
  settings.self = platform::executablePath();
  const std::string directory = settings.self.substr(0, settings.self.rfind('/') + 1);
  settings.programs = {directory + "hublink_bench", directory + "hublink"};
  bool quick = false;
  std::string role;
  BrokerPlace place;
  std::vector<std::string> names;
  for (const PeerKind* kind : kPeerKinds) names.emplace_back(kind->option);
  CLI::App app("Measures the hub beside the message brokers that are installed.");
  app.add_option("--runs", settings.runs, "Runs that the medians are taken of")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_option("--peer", settings.peers, "A broker to measure, can be repeated; all without it")
      ->check(CLI::IsMember(names));
  app.add_option("--window", settings.windowKiB,
                 "KiB of payload that a broker may hold before the receiver confirms")
      ->check(CLI::Range(256, 1048576))
      ->capture_default_str();
  app.add_flag("--quick", quick, "One short run: shows that it works, the figures mean little");
  app.add_option("--hub", settings.programs.hub, "The hub's executable")->capture_default_str();
  app.add_option("--role", role)->group("");  // the parts that this program starts
  app.add_option("--port", place.port)->group("");
  app.add_option("--other-port", place.otherPort)->group("");
  CLI11_PARSE(app, argc, argv);

  if (role == kZeroMQ.option) return runZeroMQProxy(place);
  if (role == kRoleFarEnd) {
    for (const PeerKind* kind : kPeerKinds)
      if (settings.wanted(*kind)) return runPeerFarEnd(*kind, place, settings.window());
  }
  if (!role.empty()) return fail("there is no part named " + role);
  if (quick) {
    settings.runs = 1;
    settings.size = {500, 20000, 200};
  }
  return drive(settings);
}
