#include "tools/hublinkctl/trace/trace_reader.h"

#include <charconv>
#include <utility>

#include "stp_transport/log/time_stamp.h"
#include "tools/hublinkctl/trace/trace_fields.h"

namespace trace {
namespace {

// A message that needs more than this is taken for one that never ends.
constexpr std::size_t kMostLines = 1000;
constexpr std::size_t kMostBytes = 1 << 18;
// Seconds from 1601, from where the log counts, to 1970.
constexpr std::int64_t kEpoch = 11644473600;

using Kind = Event::Kind;

template <class Number>
bool takeDecimal(std::string_view& text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

std::int64_t takeStamp(std::string_view& text) {
  std::int64_t seconds = 0;
  std::int64_t milliseconds = 0;
  takeDecimal(text, seconds);
  text.remove_prefix(1);
  takeDecimal(text, milliseconds);
  text.remove_prefix(2);
  return (seconds - kEpoch) * 1000 + milliseconds;
}

// "Plugin 4" or "name(4)", up to the tabulator.
bool takeTag(std::string_view& text, Event& event) {
  const std::size_t end = text.find(":\t ");
  if (end == text.npos) return false;
  std::string_view tag = text.substr(0, end);
  int id = 0;
  if (take(tag, "Plugin ")) {
    if (!takeDecimal(tag, id) || !tag.empty()) return false;
  } else {
    const std::size_t open = tag.rfind('(');
    if (open == tag.npos || open == 0) return false;
    std::string_view number = tag.substr(open + 1);
    if (!takeDecimal(number, id) || number != ")") return false;
    event.pluginName = tag.substr(0, open);
  }
  event.pluginID = id;
  text.remove_prefix(end + 3);
  return true;
}

bool takeDirection(std::string_view& text, Kind& kind) {
  const std::pair<std::string_view, Kind> directions[] = {{"RECV: ", Kind::received},
                                                          {"SEND: ", Kind::sent},
                                                          {"REPLY: ", Kind::reply},
                                                          {"SEND FAILED: ", Kind::sendFailed}};
  for (const auto& [word, direction] : directions) {
    kind = direction;
    if (take(text, word)) return true;
  }
  return false;
}

// Reads a message but for what stays in `text`; false if it is none.
bool readMessage(std::string_view text, Event& event) {
  if (!takeTag(text, event) || !takeDirection(text, event.kind)) return false;
  if (event.kind == Kind::sendFailed) {
    event.message = text;
    return true;
  }
  const std::size_t end = text.find(": ");
  if (end == text.npos || end == 0 || text.substr(0, end).find_first_of(" \"") != text.npos)
    return false;
  event.message = text.substr(0, end);
  event.text = readFields(text.substr(end + 2), event.fields);
  return true;
}

void classifyOwnLine(Event& event) {
  std::string_view text = event.text;
  int id = 0;
  event.kind = Kind::note;
  if (take(text, "Launching plugin ")) {
    event.kind = Kind::launch;
    event.message = text.substr(0, text.empty() ? 0 : text.size() - 1);
  } else if (take(text, "Warning: Failed to launch plugin: ")) {
    event.kind = Kind::launchFailed;
  } else if (text == "Accepted new connection.") {
    event.kind = Kind::accepted;
  } else if (text == "Shutting down Hublink.") {
    event.kind = Kind::shutdown;
  } else if (take(text, "Created plugin ID ") && takeDecimal(text, id)) {
    event.kind = Kind::created;
    event.pluginID = id;
  } else if (take(text, "Connection to plugin ID ") && takeDecimal(text, id) &&
             text.starts_with(" down")) {
    event.kind = Kind::down;
    event.pluginID = id;
  }
}

// Where a stamped message begins behind a text that the plugins' log, in the same file, left
// without a line end; npos if none does. What a text of the hub's own log holds is marked.
std::size_t embeddedLine(std::string_view line) {
  for (std::size_t at = findTimeStamp(line, 1); at != line.npos; at = findTimeStamp(line, at + 1)) {
    if (line[at - 1] == kNoTimeStamp) continue;
    Event event;
    if (readMessage(line.substr(at + kTimeStampLength), event)) return at;
    event.text = line.substr(at + kTimeStampLength);
    classifyOwnLine(event);
    if (event.kind != Kind::note) return at;
  }
  return std::string_view::npos;
}

// A line within a text, without its marks.
std::string unmarked(std::string_view line) {
  std::string result;
  std::size_t taken = 0;
  for (std::size_t at = findTimeStamp(line, 1); at != line.npos; at = findTimeStamp(line, at + 1)) {
    if (line[at - 1] != kNoTimeStamp) continue;
    result += line.substr(taken, at - 1 - taken);
    taken = at;
  }
  return result += line.substr(taken);
}

}  // namespace

void Reader::feed(std::string_view bytes) {
  std::size_t end;
  while ((end = bytes.find('\n')) != bytes.npos) {
    partial_ += bytes.substr(0, end);
    takeLine(std::exchange(partial_, {}));
    bytes.remove_prefix(end + 1);
  }
  partial_ += bytes;
}

void Reader::finish() {
  if (!partial_.empty()) takeLine(std::exchange(partial_, {}));
  flushMessage();
}

void Reader::takeLine(std::string_view line) {
  if (beginsWithTimeStamp(line)) {
    flushMessage();
    takeStamped(line);
    return;
  }
  if (!message_.empty() && continuesMessage(line)) return;
  const std::size_t at = embeddedLine(line);
  if (at == line.npos) {
    if (message_.empty()) giveUnreadable(line);
    return;
  }
  // The line that waits has been kept with the message, which it doesn't complete.
  if (!message_.empty()) lines_.pop_back();
  flushMessage();
  giveUnreadable(line.substr(0, at));
  takeStamped(line.substr(at));
}

void Reader::takeStamped(std::string_view line) {
  std::string_view text = line;
  Event event;
  event.time = takeStamp(text);
  if (readMessage(text, event)) {
    if (!event.text.empty()) {
      message_ = line;
      messageEnd_ = line.size();
      return;
    }
  } else {
    const auto time = event.time;
    event = Event();
    event.time = time;
    event.text = text;
    classifyOwnLine(event);
  }
  sink_(std::move(event));
}

// True if the line completes the message that waits. Keeps it otherwise, as long as there is hope.
bool Reader::continuesMessage(std::string_view line) {
  message_ += '\n';
  message_ += unmarked(line);
  lines_.emplace_back(line);
  std::string_view text = message_;
  Event event;
  event.time = takeStamp(text);
  if (readMessage(text, event) && event.text.empty()) {
    message_.clear();
    lines_.clear();
    sink_(std::move(event));
    return true;
  }
  if (lines_.size() < kMostLines && message_.size() < kMostBytes) return false;
  flushMessage();
  return true;
}

void Reader::flushMessage() {
  if (message_.empty()) return;
  std::string_view text = message_;
  text = text.substr(0, messageEnd_);
  Event event;
  event.time = takeStamp(text);
  readMessage(text, event);
  sink_(std::move(event));
  message_.clear();
  for (const std::string& line : std::exchange(lines_, {})) giveUnreadable(line);
}

void Reader::giveUnreadable(std::string_view line) {
  Event event;
  event.text = line;
  sink_(std::move(event));
}

}  // namespace trace
