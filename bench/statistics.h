// What is said of many values of one quantity.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

/// The value with that share of the others below it, between two of them where it falls there. At
/// least one value is needed.
inline double quantileOf(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  const double place = share * static_cast<double>(values.size() - 1);
  const auto below = static_cast<std::size_t>(place);
  const std::size_t above = std::min(below + 1, values.size() - 1);
  return values[below] + (values[above] - values[below]) * (place - static_cast<double>(below));
}

inline double medianOf(std::vector<double> values) {
  return quantileOf(std::move(values), 0.5);
}
