#include "bench/lane_set.h"

#include <algorithm>
#include <utility>

#include "platform/process.h"

namespace {

// Enough of a stream to go through every buffer several times.
constexpr std::uint32_t kComparedSmall = 20000, kComparedLarge = 50;

}  // namespace

ProcessorHold::ProcessorHold(Placement placement)
    : placement_(placement),
      holds_(placement == Placement::anywhere || platform::runOnProcessor(0)) {}

ProcessorHold::~ProcessorHold() {
  if (placement_ == Placement::oneProcessor) platform::runOnProcessor(-1);
}

bool LaneSet::open(std::string& error) {
  if (!lanes_.empty()) return true;
  const ProcessorHold hold(placement_);
  if (!hold.holds()) {
    error = "this process can't be kept on one processor";
    return false;
  }
  farEnds_ = FarEnds::start(settings_.programs, pairs_, error);
  if (!farEnds_) return false;
  for (const Path path : paths_) {
    auto lane = Lane::open(path, road_, settings_.programs, *farEnds_, error);
    if (!lane) return false;
    lanes_.push_back(std::move(lane));
  }
  return true;
}

bool LaneSet::verify(std::string& error) {
  if (std::exchange(verified_, true)) return true;
  const BlockSize& size = settings_.size;
  RoundTripTimes times;
  double seconds = 0;
  const auto carries = [&](Lane& lane) {
    return measureRoundTrips(lane, size.roundTrips / 4 + 1, times) &&
           measureStreams(lane, {kSmallPayload, std::min(size.smallPackets, kComparedSmall), true},
                          seconds) &&
           measureStreams(lane, {kLargePayload, std::min(size.largePackets, kComparedLarge), true},
                          seconds);
  };
  return each(true, carries, error);
}

bool LaneSet::measure(const std::function<bool(Lane&)>& block, std::string& error) {
  for (std::size_t turn = 0; turn < settings_.blocks; ++turn)
    if (!each(turn % 2 == 0, block, error)) return false;
  return true;
}

bool LaneSet::each(bool forwards, const std::function<bool(Lane&)>& block, std::string& error) {
  const ProcessorHold hold(placement_);
  for (std::size_t i = 0; i < lanes_.size(); ++i) {
    Lane& lane = *lanes_[forwards ? i : lanes_.size() - 1 - i];
    if (!block(lane)) error = lane.failure();
    if (platform::stopRequested()) error = "stopped";
    if (!error.empty()) return false;
  }
  return true;
}
