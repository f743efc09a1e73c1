// The chart as a file in the Chrome trace-event format, for the Perfetto viewer and others that
// read it.
//
// Each plugin is a process of the trace, and the hub is one. A request is a slice on the track of
// who asked, and one on those of the plugins that had to do with it, to which a flow leads. Slices
// that would overlap get further tracks of the same process. A log tells milliseconds alone: what
// happens within one is a microsecond apart, in the order of the log.
#pragma once

#include <string>
#include <vector>

#include "tools/hublinkctl/trace/selection.h"
#include "tools/hublinkctl/trace/trace_event.h"

namespace trace {

/// The file's text. Bytes that are no UTF-8 become U+FFFD.
std::string chromeTrace(const std::vector<Event>& events, const Selection& selection);

}  // namespace trace
