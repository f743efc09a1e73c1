#include "bench/peers/row.h"

namespace {

constexpr double kMegabyte = 1e6;
// Enough of a stream to go through every buffer several times.
constexpr std::uint32_t kComparedSmall = 20000;
constexpr std::uint32_t kComparedLarge = 400;

class LaneRow : public Row {
 public:
  explicit LaneRow(std::unique_ptr<Lane> lane) : lane_(std::move(lane)) {}
  bool roundTrips(std::uint32_t count, RoundTripTimes& times) override {
    return ::measureRoundTrips(*lane_, count, times);
  }
  bool stream(const StreamOrder& order, double& seconds) override {
    return measureStreams(*lane_, order, seconds);
  }
  std::string failure() const override { return lane_->failure(); }

 private:
  std::unique_ptr<Lane> lane_;
};

class PeerRow : public Row {
 public:
  PeerRow(std::unique_ptr<PeerLane> lane, std::int64_t window)
      : lane_(std::move(lane)), window_(window) {}
  bool roundTrips(std::uint32_t count, RoundTripTimes& times) override {
    return ::measureRoundTrips(lane_->client(), count, times);
  }
  bool stream(const StreamOrder& order, double& seconds) override {
    return measureStream(lane_->client(), order, window_, seconds);
  }
  std::string failure() const override { return lane_->failure(); }

 private:
  std::unique_ptr<PeerLane> lane_;
  std::int64_t window_;
};

// Messages of a second at the rate of `seconds` for `count`, between `count` and `most`.
std::uint32_t countOf(std::uint32_t count, double seconds, std::uint32_t most) {
  const double wanted = count / seconds;
  return wanted < most ? std::max(count, static_cast<std::uint32_t>(wanted)) : most;
}

}  // namespace

bool Row::verify(const BlockSize& most) {
  RoundTripTimes times;
  double small = 0, large = 0;
  const std::uint32_t smallCount = std::min(most.smallPackets, kComparedSmall);
  const std::uint32_t largeCount = std::min(most.largePackets, kComparedLarge);
  if (!roundTrips(most.roundTrips / 4 + 1, times) ||
      !stream({kSmallPayload, smallCount, true}, small) ||
      !stream({kLargePayload, largeCount, true}, large))
    return false;
  size_ = {most.roundTrips, countOf(smallCount, small, most.smallPackets),
           countOf(largeCount, large, most.largePackets)};
  return true;
}

bool Row::measureRoundTrips() {
  RoundTripTimes times;
  if (!roundTrips(size_.roundTrips, times)) return false;
  add(Quantity::roundTrip, times.median);
  add(Quantity::roundTripP99, times.p99);
  return true;
}

bool Row::measureSmallMessages() {
  double seconds = 0;
  if (!stream({kSmallPayload, size_.smallPackets, false}, seconds)) return false;
  add(Quantity::smallMessages, size_.smallPackets / seconds);
  return true;
}

bool Row::measureLargeMessages() {
  double seconds = 0;
  if (!stream({kLargePayload, size_.largePackets, false}, seconds)) return false;
  const double bytes = static_cast<double>(size_.largePackets) * kLargePayload;
  add(Quantity::largeMessages, bytes / kMegabyte / seconds);
  return true;
}

std::unique_ptr<Row> makeRow(std::unique_ptr<Lane> lane) {
  return std::make_unique<LaneRow>(std::move(lane));
}

std::unique_ptr<Row> makeRow(std::unique_ptr<PeerLane> lane, std::int64_t window) {
  return std::make_unique<PeerRow>(std::move(lane), window);
}
