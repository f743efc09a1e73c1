// What the table is made of: measurements, each of which fills a row or some in every run.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/measure.h"
#include "bench/report.h"

/// What is asked of a run of this program.
struct Settings {
  BenchPrograms programs;
  int runs = 7;
  std::size_t blocks = 6;  ///< on each path, in a run
  BlockSize size;
  int idlePlugins = 5000;
  std::int64_t stuckBytes = 250 << 20;  ///< what waits for a receiver before it is too much
  int chainedLaunches = 10;
  int crowdedLaunches = 50;  ///< that are in hand at once
  int launchTimeout = 2;     ///< seconds, of those that hang
};

class Measurement {
 public:
  explicit Measurement(std::vector<Row> rows) : rows_(std::move(rows)) {}
  virtual ~Measurement() = default;
  Measurement(const Measurement&) = delete;
  Measurement& operator=(const Measurement&) = delete;

  /// Makes ready what stays open between the runs. False with a text in `error`.
  virtual bool open(std::string& error) = 0;
  /// Adds one value or several to each column of each chosen row. False with a text in `error`.
  virtual bool run(std::string& error) = 0;

  std::vector<Row>& rows() { return rows_; }
  bool isChosen() const {
    return std::any_of(rows_.begin(), rows_.end(), [](const Row& row) { return row.isChosen; });
  }

 protected:
  Row& row(std::size_t index) { return rows_[index]; }

 private:
  std::vector<Row> rows_;
};

using Measurements = std::vector<std::unique_ptr<Measurement>>;
