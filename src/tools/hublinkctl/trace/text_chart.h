// The sequence chart for a terminal: a line for each event, with the time, the lanes, and what it
// says. The hub's lane is the first, a plugin gets the first lane that is free.
//
//   o    a plugin shows up        --->  <---  a message       ...>  an answer to a call that waits
//   X    its connection was reaped --x  a message not sent    *     a line of the hub's own
//   ?    a line that can't be read
//
// "#3" stands on each line that belongs to the third request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tools/hublinkctl/trace/request_tracker.h"
#include "tools/hublinkctl/trace/trace_event.h"

namespace trace {

class TextChart {
 public:
  /// Begins with room for `lanes` plugins and makes more as they come. `out` isn't owned.
  TextChart(std::ostream& out, std::size_t lanes);
  void add(const Event& event);
  /// Takes an event that isn't shown.
  void skip(const Event& event);
  /// Closes the chart with a list of the requests, of all or only these, and what came of them.
  void finish(const RequestIds* only = nullptr);
  /// How many lanes plugins have needed at once, up to the most that are drawn.
  std::size_t lanes() const { return lanes_.size(); }

 private:
  void noticeDay(const Event& event);
  std::size_t laneOf(int plugin, const std::string& label);
  std::size_t sharedLane() const;
  std::string bars() const;
  void writeLine(const std::string& time, const std::string& chart, const std::string& text);
  std::string textOf(const Event& event) const;

  std::ostream& out_;
  std::vector<std::vector<int>> lanes_;  // the plugins on each lane
  std::int64_t day_ = INT64_MIN;         // of the last event with a time, since 1970
  RequestTracker tracker_;
};

}  // namespace trace
