// Reads a hub's internal log as it grows: bytes in, events out.
//
// Nothing is lost: what isn't a line of the log is an event of its own, as it stands. A text in a
// message may hold line ends, so lines without a time stamp are tried as the rest of a message that
// is incomplete before; they stay single lines if that gives no message.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/hublinkctl/trace/trace_event.h"

namespace trace {

class Reader {
 public:
  using Sink = std::function<void(Event event)>;
  explicit Reader(Sink sink) : sink_(std::move(sink)) {}

  /// Takes the next bytes of the file, cut anywhere.
  void feed(std::string_view bytes);
  /// Gives out what waits for more: at the end of the file.
  void finish();

 private:
  void takeLine(std::string_view line);
  void takeStamped(std::string_view line);
  bool continuesMessage(std::string_view line);
  void flushMessage();
  void giveUnreadable(std::string_view line);

  Sink sink_;
  std::string partial_;             // a line whose end hasn't come
  std::string message_;             // a message whose fields are incomplete
  std::size_t messageEnd_ = 0;      // where the first line of it ends
  std::vector<std::string> lines_;  // the lines that followed it
};

}  // namespace trace
