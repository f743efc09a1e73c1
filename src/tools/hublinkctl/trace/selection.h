// Which lines and requests of a log are shown: those of a plugin, of a service, or that failed.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/hublinkctl/trace/request_tracker.h"
#include "tools/hublinkctl/trace/trace_event.h"

namespace trace {

/// A request must be all of what is given; a line must belong to such a request, or, if only the
/// plugin is given, be one of the plugin's.
struct Filter {
  std::optional<int> plugin;
  std::string service;
  bool failed = false;

  bool isGiven() const { return plugin || !service.empty() || failed; }
};

class Selection {
 public:
  /// Of all events of a log. Without a filter all are chosen.
  Selection(const std::vector<Event>& events, const Filter& filter);
  /// By its place among the events.
  bool hasEvent(std::size_t place) const { return events_[place]; }
  const RequestIds& requests() const { return requests_; }

 private:
  std::vector<bool> events_;
  RequestIds requests_;
};

}  // namespace trace
