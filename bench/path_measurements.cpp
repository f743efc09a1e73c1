#include "bench/path_measurements.h"

#include <memory>
#include <type_traits>

#include "bench/lane_set.h"
#include "bench/process_usage.h"

namespace {

constexpr double kMillion = 1e6;
constexpr int kPairs = 8;

// A measurement that goes over the lanes of a set.
class PathMeasurement : public Measurement {
 public:
  PathMeasurement(std::shared_ptr<LaneSet> lanes, const BlockSize& size, std::vector<Row> rows)
      : Measurement(std::move(rows)), size_(size), lanes_(std::move(lanes)) {}

  bool open(std::string& error) override { return lanes_->open(error) && lanes_->verify(error); }
  bool run(std::string& error) override {
    return lanes_->measure([this](Lane& lane) { return measure(lane); }, error);
  }

 protected:
  // Adds one value to each row. False with the failure in the lane.
  virtual bool measure(Lane& lane) = 0;

  const BlockSize size_;

 private:
  std::shared_ptr<LaneSet> lanes_;
};

// Rows: median, p99.
class RoundTrips : public PathMeasurement {
 public:
  using PathMeasurement::PathMeasurement;

 protected:
  bool measure(Lane& lane) override {
    RoundTripTimes times;
    if (!measureRoundTrips(lane, size_.roundTrips, times)) return false;
    row(0).add(lane.path(), times.median);
    row(1).add(lane.path(), times.p99);
    return true;
  }
};

// Rows: packets on all pairs together, processor time of the process between.
class SmallPackets : public PathMeasurement {
 public:
  using PathMeasurement::PathMeasurement;

 protected:
  bool measure(Lane& lane) override {
    const auto before = processorMilliseconds(lane.between());
    const auto each = static_cast<std::uint32_t>(size_.smallPackets / lane.pairs());
    double seconds = 0;
    if (!measureStreams(lane, {kSmallPayload, each}, seconds)) return false;
    const double millions = static_cast<double>(each * lane.pairs()) / kMillion;
    row(0).add(lane.path(), millions / seconds);
    if (lane.between() == 0) return true;
    const auto after = processorMilliseconds(lane.between());
    if (!before || !after) return lane.socket().fail("its processor time isn't told");
    row(1).add(lane.path(), (*after - *before) / millions);
    return true;
  }
};

// Row: megabytes of payload.
class LargePackets : public PathMeasurement {
 public:
  using PathMeasurement::PathMeasurement;

 protected:
  bool measure(Lane& lane) override {
    double seconds = 0;
    if (!measureStreams(lane, {kLargePayload, size_.largePackets}, seconds)) return false;
    const double bytes = static_cast<double>(size_.largePackets) * kLargePayload;
    row(0).add(lane.path(), bytes / kMillion / seconds);
    return true;
  }
};

}  // namespace

namespace {

// The rows of one road, whose keys and titles begin as `key` and `title` say.
void addRoad(const Settings& settings, Road road, const std::string& key, const std::string& title,
             Measurements& measurements) {
  std::vector<Path> paths{Path::direct, Path::relay, Path::hub};
  if (road == Road::local) paths.push_back(Path::tcpRelay);
  const auto single = std::make_shared<LaneSet>(settings, road, paths);
  const auto pinned = std::make_shared<LaneSet>(settings, road, paths, 1, Placement::oneProcessor);
  const auto pairs = std::make_shared<LaneSet>(settings, road, paths, kPairs);
  const auto add = [&]<class Kind>(const std::shared_ptr<LaneSet>& lanes, std::vector<Row> rows,
                                   std::type_identity<Kind>) {
    for (Row& row : rows) {
      row.key = key + row.key;
      if (!row.title.starts_with(' ')) row.title = title + row.title;
    }
    measurements.push_back(std::make_unique<Kind>(lanes, settings.size, std::move(rows)));
  };
  add(single,
      {{"round_trip_median", "round trip, 64 bytes, median", "us", 1},
       {"round_trip_p99", "round trip, 64 bytes, p99", "us", 1}},
      std::type_identity<RoundTrips>());
  add(pinned,
      {{"one_core_round_trip_median", "round trip, all on one core, median", "us", 1},
       {"one_core_round_trip_p99", "round trip, all on one core, p99", "us", 1}},
      std::type_identity<RoundTrips>());
  add(single,
      {{"packets_per_second", "packets of 64 bytes, one sender", "million/s", 2},
       {"processor_time", "  CPU time in between for a million of them", "ms", 0}},
      std::type_identity<SmallPackets>());
  add(pairs,
      {{"eight_pairs_packets_per_second", "packets of 64 bytes, eight pairs at once", "million/s",
        2},
       {"eight_pairs_processor_time", "  CPU time in between for a million of them", "ms", 0}},
      std::type_identity<SmallPackets>());
  add(single, {{"megabytes_per_second", "packets of 64 KiB", "MB/s", 0}},
      std::type_identity<LargePackets>());
}

}  // namespace

void addPathMeasurements(const Settings& settings, Measurements& measurements) {
  addRoad(settings, Road::tcp, "", "", measurements);
  addRoad(settings, Road::local, "local_", "local road: ", measurements);
}
