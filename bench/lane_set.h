// Lanes that are compared: opened once, to the same far ends, and then taken in turn block by
// block, so that what the machine does meanwhile concerns neighbouring blocks alike.
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

class LaneSet {
 public:
  LaneSet(const Settings& settings, Road road, std::vector<Path> paths, int pairs = 1,
          Placement placement = Placement::anywhere)
      : settings_(settings),
        road_(road),
        paths_(std::move(paths)),
        pairs_(pairs),
        placement_(placement) {}

  /// Opens the lanes, once. False with a text in `error`.
  bool open(std::string& error);
  /// Warms them up, once, and makes sure that what is measured is really carried. False as above.
  bool verify(std::string& error);
  /// Measures block after block, to and fro over the lanes. False as above.
  bool measure(const std::function<bool(Lane&)>& block, std::string& error);

  /// The lane of the path with that place.
  const Lane& operator[](std::size_t place) const { return *lanes_[place]; }

 private:
  bool each(bool forwards, const std::function<bool(Lane&)>& block, std::string& error);

  const Settings& settings_;
  Road road_;
  std::vector<Path> paths_;
  int pairs_;
  Placement placement_;
  bool verified_ = false;
  std::unique_ptr<FarEnds> farEnds_;
  std::vector<std::unique_ptr<Lane>> lanes_;
};
