// A bound on the work that one reading of a file may cause, however small the file.
//
// Macros that name each other twice double with every level, in texts and in conditions alike, and
// each failure among them writes a line. All of that is paid from one budget, in rough units of one
// character handled; when it is used up, the reading ends.
#pragma once

#include <cstddef>

class ut_work_budget {
 public:
  explicit ut_work_budget(std::size_t units) : left_(units) {}
  ut_work_budget(const ut_work_budget&) = delete;
  ut_work_budget& operator=(const ut_work_budget&) = delete;

  /// Takes `units` off what is left. False, from then on, if there were fewer.
  bool spend(std::size_t units) {
    if (units > left_) exhausted_ = true;
    if (exhausted_) return false;
    left_ -= units;
    return true;
  }
  bool exhausted() const { return exhausted_; }

 private:
  std::size_t left_;
  bool exhausted_ = false;
};

/// Bytes of input, and units of work, that the reading of one file and all that it includes may
/// take.
inline constexpr std::size_t kMostReadingInput = std::size_t{8} << 20;
inline constexpr std::size_t kMostReadingWork = std::size_t{4} << 20;
/// The price of one reported line, besides the characters that it shows.
inline constexpr std::size_t kReportCost = 64;
