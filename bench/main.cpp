// hublink_bench: what the hub costs, beside the same work over a bare socket and through the
// smallest possible relay, in one run and interleaved.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "bench/crowd_measurement.h"
#include "bench/far_end.h"
#include "bench/launch_crowd_measurement.h"
#include "bench/path_measurements.h"
#include "bench/plain_starts.h"
#include "bench/relay.h"
#include "bench/report.h"
#include "bench/start_measurements.h"
#include "bench/stuck_measurement.h"
#include "indgen/program.h"
#include "platform/host.h"
#include "platform/process.h"

namespace {

// What a part of this program, in a process of its own, is told.
struct Part {
  std::string role;
  std::uint16_t port = 0;
  int pair = 0, pairs = 1;
  int road = 0;
  PlainStarts starts;
};

int fail(const std::string& text) {
  std::fprintf(stderr, "hublink_bench: %s\n", text.c_str());
  return 1;
}

int runPart(const Part& part) {
  if (part.role == kRoleRelay) return runRelay(part.port, part.pairs, static_cast<Road>(part.road));
  if (part.role == kRoleFarEnd) return runFarEnd(part.port, part.pair);
  if (part.role == kRoleStarter) return runStarter(part.port, part.starts);
  return fail("there is no part named " + part.role);
}

// Leaves those with a row whose key contains `only`.
void choose(Measurements& measurements, const std::string& only) {
  for (const auto& measurement : measurements)
    for (Row& row : measurement->rows()) row.isChosen = row.key.find(only) != std::string::npos;
  std::erase_if(measurements, [](const auto& measurement) { return !measurement->isChosen(); });
}

bool measure(const Measurements& measurements, int runs, std::string& error) {
  for (const auto& measurement : measurements)
    if (!measurement->open(error)) return false;
  for (int run = 0; run < runs; ++run)
    for (const auto& measurement : measurements) {
      if (platform::stopRequested()) error = "stopped";
      if (!error.empty() || !measurement->run(error)) return false;
    }
  return true;
}

int drive(const Settings& settings, const std::string& only, const std::string& json) {
  platform::installStopSignals();
  platform::raiseDescriptorLimit();
  Measurements measurements;
  addPathMeasurements(settings, measurements);
  addStuckMeasurement(settings, measurements);
  addCrowdMeasurement(settings, measurements);
  addStartMeasurements(settings, measurements);
  addLaunchCrowdMeasurement(settings, measurements);
  choose(measurements, only);
  if (measurements.empty()) return fail("no row has '" + only + "' in its name");
  std::string error;
  if (!measure(measurements, settings.runs, error)) return fail(error);
  std::vector<Row> rows;
  for (const auto& measurement : measurements)
    for (const Row& row : measurement->rows())
      if (row.isChosen) rows.push_back(row);
  std::printf(
      "%s build, %u processors, %d runs: median (least..greatest), ratios of neighbouring "
      "blocks: median (quartiles)\n\n%s",
      HUBLINK_BUILD_TYPE, std::thread::hardware_concurrency(), settings.runs,
      tableOf(rows).c_str());
  if (!json.empty() && !writeJson(json, rows)) return fail(json + " can't be written");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  platform::ensureStandardDescriptors();
  platform::ignoreBrokenPipe();
  gen_initialise();

  Settings settings;
  settings.programs.bench = platform::executablePath();
  settings.programs.hub = gen_program_dir() + std::string("/hublink");
  bool quick = false;
  std::string only, json;
  Part part;
  CLI::App app("Measures the hub beside a bare socket and the smallest possible relay.");
  app.add_option("--runs", settings.runs, "Runs that the medians are taken of")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_flag("--quick", quick, "One short run: shows that it works, the figures mean little");
  app.add_option("--only", only, "Measure the rows with this in their name in the JSON");
  app.add_option("--hub", settings.programs.hub, "The hub's executable")->capture_default_str();
  app.add_option("--json", json, "File for the figures of all runs");
  app.add_option("--role", part.role)->group("");  // the parts that this program starts
  app.add_option("--port", part.port)->group("");
  app.add_option("--pair", part.pair)->group("");
  app.add_option("--pairs", part.pairs)->group("");
  app.add_option("--road", part.road)->group("");
  app.add_option("--program", part.starts.program)->group("");
  app.add_option("--count", part.starts.count)->group("");
  app.add_option("--hanging", part.starts.hanging)->group("");
  CLI11_PARSE(app, argc, argv);

  if (!part.role.empty()) return runPart(part);
  if (quick) {
    settings.runs = 1;
    settings.size = {500, 20000, 200};
    settings.blocks = 2;
    settings.idlePlugins = 1000;
    settings.stuckBytes = 4 << 20;
    settings.chainedLaunches = 3;
    settings.crowdedLaunches = 10;
    settings.launchTimeout = 1;
  }
  try {
    return drive(settings, only, json);
  } catch (const std::exception& failure) {  // of the file system
    return fail(failure.what());
  }
}
