#include "bench/lane_set.h"

#include <algorithm>
#include <latch>
#include <thread>

#include "bench/stopwatch.h"
#include "platform/process.h"

namespace {

// Enough of a stream to go through every buffer several times.
constexpr std::uint32_t kComparedPackets = 20000;

}  // namespace

ProcessorHold::ProcessorHold(Placement placement)
    : placement_(placement),
      holds_(placement == Placement::anywhere || platform::runOnProcessor(0)) {}

ProcessorHold::~ProcessorHold() {
  if (placement_ == Placement::oneProcessor) platform::runOnProcessor(-1);
}

bool verifyLane(Lane& lane, const RunSize& size) {
  const std::uint32_t compared = std::min(size.smallPackets, kComparedPackets);
  RoundTripTimes times;
  double seconds = 0;
  return measureRoundTrips(lane.socket(), size.roundTrips / 4 + 1, times) &&
         measureStreams(lane, {kSmallPayload, compared, true}, seconds) &&
         measureStream(lane.socket(), {kLargePayload, size.largePackets / 4 + 1, true}, seconds);
}

bool measureStreams(Lane& lane, const StreamOrder& order, double& seconds) {
  const auto pairs = static_cast<std::ptrdiff_t>(lane.pairs());
  std::latch ready(pairs), go(1);
  std::vector<char> carried(lane.pairs());
  for (std::size_t pair = 0; pair < lane.pairs(); ++pair)
    if (!announceStream(lane.socket(pair), order)) return false;
  std::vector<std::thread> senders;
  for (std::size_t pair = 0; pair < lane.pairs(); ++pair)
    senders.emplace_back([&, pair] {
      PacketSocket& socket = lane.socket(pair);
      const Bytes batch = makeBatch(socket.route(), order.payloadSize);
      ready.count_down();
      go.wait();
      carried[pair] = carryStream(socket, order, batch);
    });
  ready.wait();
  const Stopwatch watch;
  go.count_down();
  for (std::thread& sender : senders) sender.join();
  seconds = watch.seconds();
  return std::ranges::find(carried, char{0}) == carried.end();
}

bool LaneSet::open(std::string& error) {
  if (!lanes_.empty()) return true;
  const ProcessorHold hold(placement_);
  if (!hold.holds()) {
    error = "this process can't be kept on one processor";
    return false;
  }
  for (const Path path : kPaths) {
    auto lane = Lane::open(path, settings_.programs, error, static_cast<int>(pairs_));
    if (!lane) return false;
    if (!verifyLane(*lane, settings_.size)) {
      error = lane->failure();
      return false;
    }
    lanes_.push_back(std::move(lane));
  }
  return true;
}

bool LaneSet::each(std::size_t run, const std::function<bool(Lane&)>& measure, std::string& error) {
  const ProcessorHold hold(placement_);
  for (std::size_t i = 0; i < lanes_.size(); ++i) {
    Lane& lane = *lanes_[(i + run) % lanes_.size()];
    if (!measure(lane)) error = lane.failure();
    if (platform::stopRequested()) error = "stopped";
    if (!error.empty()) return false;
  }
  return true;
}
