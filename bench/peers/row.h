// A path of the table: to the far end directly, through the hub, or through a broker.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "bench/lane.h"
#include "bench/peers/peer_lane.h"
#include "bench/statistics.h"

/// The quantities that are measured.
enum class Quantity { roundTrip, roundTripP99, smallMessages, largeMessages };
inline constexpr std::size_t kQuantities = 4;

/// A value of each run.
struct Values {
  std::vector<double> runs;
  void add(double value) { runs.insert(std::ranges::upper_bound(runs, value), value); }
  double least() const { return runs.front(); }
  double most() const { return runs.back(); }
  double median() const { return medianOf(runs); }
};

class Row {
 public:
  virtual ~Row() = default;

  /// As the functions of bench/measure.h.
  virtual bool roundTrips(std::uint32_t count, RoundTripTimes& times) = 0;
  virtual bool stream(const StreamOrder& order, double& seconds) = 0;
  virtual std::string failure() const = 0;

  /// Makes sure that every byte arrives, and finds out how much a run of about a second is.
  bool verify(const BlockSize& most);
  bool measureRoundTrips();
  bool measureSmallMessages();
  bool measureLargeMessages();

  const Values& of(Quantity quantity) const { return values_[static_cast<std::size_t>(quantity)]; }

 private:
  void add(Quantity quantity, double value) {
    values_[static_cast<std::size_t>(quantity)].add(value);
  }

  BlockSize size_;
  std::array<Values, kQuantities> values_;
};

std::unique_ptr<Row> makeRow(std::unique_ptr<Lane> lane);
std::unique_ptr<Row> makeRow(std::unique_ptr<PeerLane> lane, std::int64_t window);
