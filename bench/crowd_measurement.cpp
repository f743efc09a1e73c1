#include "bench/crowd_measurement.h"

#include <algorithm>

#include "bench/crowd.h"
#include "bench/process_usage.h"
#include "bench/statistics.h"
#include "bench/stopwatch.h"

namespace {

constexpr int kStorm = 1000;
constexpr std::uint32_t kParts = 4;  // of a run's round trips, in turn with the hub without a crowd

class CrowdMeasurement : public Measurement {
 public:
  CrowdMeasurement(const Settings& settings, std::vector<Row> rows)
      : Measurement(std::move(rows)), settings_(settings) {}

  // A hub that has had a crowd once isn't the same again: each run has hubs of its own.
  bool open(std::string&) override { return true; }

  bool run(int run, std::string& error) override {
    const auto crowded = Lane::open(Path::hub, settings_.programs, error);
    if (!crowded) return false;
    Crowd crowd;
    if (!gather(*crowded, crowd, error)) return false;
    if (!row(kMedian).isChosen && !row(kP99).isChosen) return true;
    const auto alone = Lane::open(Path::hub, settings_.programs, error);
    return alone && compare({alone.get(), crowded.get()}, run, error);
  }

 private:
  enum Index { kMedian, kP99, kStormTime, kMemory };

  bool gather(const Lane& lane, Crowd& crowd, std::string& error) {
    const auto before = residentBytes(lane.between());
    const Stopwatch watch;
    if (!crowd.join(lane.hubPort(), kStorm)) error = "the storm isn't taken";
    const double taken = watch.milliseconds();
    if (error.empty() && !crowd.join(lane.hubPort(), settings_.idlePlugins - kStorm))
      error = "the crowd isn't taken";
    const auto after = residentBytes(lane.between());
    if (error.empty() && (!before || !after)) error = "the hub's memory isn't told";
    if (!error.empty()) return false;
    row(kStormTime).add(Path::hub, taken);
    row(kMemory).add(Path::hub, (*after - *before) / settings_.idlePlugins);
    return true;
  }

  // Round trips on the hub without a crowd, which has the place of the direct path, and on the one
  // with it.
  bool compare(const std::array<Lane*, 2>& lanes, int run, std::string& error) {
    constexpr std::array kColumns{Path::direct, Path::hub};
    const std::uint32_t count = settings_.size.roundTrips / kParts;
    std::array<std::vector<double>, 2> medians, p99s;
    RoundTripTimes times;
    for (std::uint32_t part = 0; part <= kParts; ++part) {
      for (std::size_t i = 0; i < lanes.size(); ++i) {
        const std::size_t which = (i + part + static_cast<std::size_t>(run)) % lanes.size();
        if (!measureRoundTrips(lanes[which]->socket(), count, times)) {
          error = lanes[which]->failure();
          return false;
        }
        if (part == 0) continue;  // warms up
        medians[which].push_back(times.median);
        p99s[which].push_back(times.p99);
      }
    }
    for (std::size_t i = 0; i < lanes.size(); ++i) {
      row(kMedian).add(kColumns[i], medianOf(medians[i]));
      row(kP99).add(kColumns[i], medianOf(p99s[i]));
    }
    return true;
  }

  const Settings& settings_;
};

}  // namespace

void addCrowdMeasurement(const Settings& settings, Measurements& measurements) {
  const std::string beside =
      "round trip beside " + grouped(settings.idlePlugins) + " idle plugins, ";
  const std::string alone = "a hub without the idle plugins";
  measurements.push_back(std::make_unique<CrowdMeasurement>(
      settings,
      std::vector<Row>{
          {"idle_crowd_round_trip_median", beside + "median", "us", 1, alone},
          {"idle_crowd_round_trip_p99", beside + "p99", "us", 1, alone},
          {"storm", grouped(kStorm) + " plugins at once, until all have their ID", "ms", 1},
          {"idle_plugin_memory", "memory of the hub for each idle plugin", "bytes", 0}}));
}
