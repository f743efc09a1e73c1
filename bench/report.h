// What a run has measured, and its two forms: a table for people and JSON for programs.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "bench/lane.h"

/// One quantity on all paths, a value for each run.
struct Figure {
  const char* key;    ///< in JSON
  const char* title;  ///< in the table
  const char* unit;
  int decimals;
  std::array<std::vector<double>, kPaths.size()> runs{};

  std::vector<double>& of(Path path) { return runs[static_cast<std::size_t>(path)]; }
  double median(Path path) const;
  /// The median of the hub over that of `other`.
  double hubRatio(Path other) const { return median(Path::hub) / median(other); }
};

/// Medians of the runs, and the hub's ratios to the other paths.
std::string tableOf(const std::vector<Figure>& figures);
/// The same with the value of every run. False if the file can't be written.
bool writeJson(const std::string& file, const std::vector<Figure>& figures);
