#include "bench/stuck_measurement.h"

namespace {

// Rows: median, p99.
class StuckMeasurement : public Measurement {
 public:
  StuckMeasurement(const Settings& settings, std::vector<Row> rows)
      : Measurement(std::move(rows)), settings_(settings) {}

  // What waits for the stuck plugin stays with its hub: each run has one of its own.
  bool open(std::string&) override { return true; }

  bool run(std::string& error) override {
    const auto farEnds = FarEnds::start(settings_.programs, 2, error);
    if (!farEnds) return false;
    const auto lane = Lane::open(Path::hub, Road::tcp, settings_.programs, *farEnds, error);
    if (!lane) return false;
    // The far end of the other pair never gets an order to read.
    PacketSocket& socket = lane->socket();
    const Bytes batch =
        makeBatch({socket.route().source, lane->socket(1).route().destination}, kSmallPayload);
    const auto count = static_cast<std::uint32_t>(settings_.stuckBytes / std::ssize(batch));
    return add(*lane, Path::direct, count, {}, error) &&
           add(
               *lane, Path::hub, count, [&] { return socket.send(batch); }, error);
  }

 private:
  bool add(Lane& lane, Path column, std::uint32_t count, const std::function<bool()>& before,
           std::string& error) {
    RoundTripTimes times;
    if (!measureRoundTrips(lane, count, times, before)) error = lane.failure();
    row(0).add(column, times.median);
    row(1).add(column, times.p99);
    return error.empty();
  }

  const Settings& settings_;
};

}  // namespace

void addStuckMeasurement(const Settings& settings, Measurements& measurements) {
  const std::string beside = "round trip beside a stuck receiver, ";
  const std::string alone = "the same hub before the stream";
  measurements.push_back(std::make_unique<StuckMeasurement>(
      settings, std::vector<Row>{{"stuck_round_trip_median", beside + "median", "us", 1, alone},
                                 {"stuck_round_trip_p99", beside + "p99", "us", 1, alone}}));
}
