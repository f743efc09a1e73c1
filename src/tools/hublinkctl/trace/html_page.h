// The chart as one page that needs nothing else: styles, program and data stand in it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/hublinkctl/trace/request_tracker.h"
#include "tools/hublinkctl/trace/trace_event.h"

namespace trace {

class HtmlPage {
 public:
  void add(Event event);
  /// Takes an event that isn't shown.
  void skip(const Event& event) { tracker_.assign(event); }
  /// The page; `title` is what it is headed with. Bytes that are no UTF-8 become U+FFFD.
  std::string text(const std::string& title) const;

 private:
  struct Entry {
    Event event;
    RequestIds requests;
  };
  std::vector<Entry> entries_;
  RequestTracker tracker_;
};

}  // namespace trace
