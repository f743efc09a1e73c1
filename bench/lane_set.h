// One lane of each path, opened once and then taken in turn, so that all are measured in the same
// minute.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/measurement.h"

enum class Placement { anywhere, oneProcessor };

/// Keeps this thread and the processes that it starts on one processor, while it lasts.
class ProcessorHold {
 public:
  explicit ProcessorHold(Placement placement);
  ~ProcessorHold();
  ProcessorHold(const ProcessorHold&) = delete;
  ProcessorHold& operator=(const ProcessorHold&) = delete;
  bool holds() const { return holds_; }

 private:
  Placement placement_;
  bool holds_;
};

/// Sends small round trips and compared streams of both sizes: warms a path up, and makes sure that
/// what is measured on it is really carried. False with the failure in the lane.
bool verifyLane(Lane& lane, const RunSize& size);

/// The same stream on every pair at once, each with a thread of its own. The seconds from the first
/// byte until the last far end has told that its stream has arrived.
bool measureStreams(Lane& lane, const StreamOrder& order, double& seconds);

class LaneSet {
 public:
  LaneSet(const Settings& settings, std::size_t pairs, Placement placement)
      : settings_(settings), pairs_(pairs), placement_(placement) {}

  /// Opens and verifies the lanes, once. False with a text in `error`.
  bool open(std::string& error);
  /// Measures on each lane; the one that comes first changes with `run`. False as above.
  bool each(std::size_t run, const std::function<bool(Lane&)>& measure, std::string& error);

 private:
  const Settings& settings_;
  std::size_t pairs_;
  Placement placement_;
  std::vector<std::unique_ptr<Lane>> lanes_;
};
