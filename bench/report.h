// What was measured, and its two forms: a table for people and JSON for programs.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "bench/lane.h"

/// What neighbouring values give.
struct Ratio {
  double median = 0, lowerQuartile = 0, upperQuartile = 0;
};

/// One quantity on the paths that it makes sense on, with a value for each block. Values with the
/// same place are neighbours.
struct Row {
  std::string key;    ///< in JSON, and to choose it by
  std::string title;  ///< in the table
  std::string unit;
  int decimals = 0;
  /// What the direct column holds, if it isn't the bare connection.
  std::string yardstick{};
  /// The same of the relay's column.
  std::string otherYardstick{};
  bool isChosen = true;
  std::array<std::vector<double>, kPaths.size()> blocks{};

  const std::vector<double>& of(Path path) const { return blocks[static_cast<std::size_t>(path)]; }
  void add(Path path, double value) { blocks[static_cast<std::size_t>(path)].push_back(value); }
  /// The hub's values over their neighbours of `other`; none without them.
  std::optional<Ratio> hubRatio(Path other) const;
};

/// Medians, least and greatest values of the blocks, but for those of the relay by TCP beside
/// another road, and the hub's ratios to the other paths.
std::string tableOf(const std::vector<Row>& rows);
/// The same with the value of every block. False if the file can't be written.
bool writeJson(const std::string& file, const std::vector<Row>& rows);

/// A number with its thousands set off, for titles.
std::string grouped(int number);
