// What was measured, and its two forms: a table for people and JSON for programs.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "bench/lane.h"

/// One quantity on the paths that it makes sense on, with a value for each run.
struct Row {
  std::string key;    ///< in JSON, and to choose it by
  std::string title;  ///< in the table
  std::string unit;
  int decimals = 0;
  /// What the direct column holds, if it isn't the bare connection.
  std::string yardstick{};
  bool isChosen = true;
  std::array<std::vector<double>, kPaths.size()> runs{};

  const std::vector<double>& of(Path path) const { return runs[static_cast<std::size_t>(path)]; }
  void add(Path path, double value) { runs[static_cast<std::size_t>(path)].push_back(value); }
  /// The median over the runs of the hub's value over that of `other` in the same run; none without
  /// them.
  std::optional<double> hubRatio(Path other) const;
};

/// Medians, least and greatest values of the runs, and the hub's ratios to the other paths.
std::string tableOf(const std::vector<Row>& rows);
/// The same with the value of every run. False if the file can't be written.
bool writeJson(const std::string& file, const std::vector<Row>& rows);

/// A number with its thousands set off, for titles.
std::string grouped(int number);
