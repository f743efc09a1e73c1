#include "bench/crowd_measurement.h"

#include "bench/crowd.h"
#include "bench/lane_set.h"
#include "bench/process_usage.h"
#include "bench/stopwatch.h"

namespace {

constexpr int kStorm = 1000;

class CrowdMeasurement : public Measurement {
 public:
  CrowdMeasurement(const Settings& settings, std::vector<Row> rows)
      : Measurement(std::move(rows)), settings_(settings) {}

  // A hub that has had a crowd once isn't the same again: each run has hubs of its own.
  bool open(std::string&) override { return true; }

  bool run(std::string& error) override {
    LaneSet lanes(settings_, Road::tcp, {Path::hub, Path::hub});
    if (!lanes.open(error)) return false;
    const Lane& crowded = lanes[1];
    Crowd crowd;
    if (!gather(crowded, crowd, error)) return false;
    if (!row(kMedian).isChosen && !row(kP99).isChosen) return true;
    // The hub without a crowd has the place of the direct path.
    const auto compare = [&](Lane& lane) {
      RoundTripTimes times;
      if (!measureRoundTrips(lane, settings_.size.roundTrips, times)) return false;
      const Path column = &lane == &crowded ? Path::hub : Path::direct;
      row(kMedian).add(column, times.median);
      row(kP99).add(column, times.p99);
      return true;
    };
    return lanes.verify(error) && lanes.measure(compare, error);
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
