// The log of -hl_log_internal: the hub's own lines and the trace of all connections, each traced
// line with the plugin that it is about.
//
// No text within a line can pass for another line. What the hub itself writes, names included,
// stays on one line, with line ends and tabulators as `\n` and `\t`. A text of a message is written
// as it is, line ends too, but behind the first of them each time stamp gets a `>` in front.
#pragma once

#include "stp_transport/log/stp_log.h"

class Hublink;

class HLInternalFileLog : public TimestampedSTPFileLog {
 public:
  /// `hub` is kept and not owned; with `owned` the destructor closes `file`.
  HLInternalFileLog(Hublink* hub, std::FILE* file, bool owned);
  ~HLInternalFileLog() override;
  using TimestampedSTPFileLog::write;
  void write(const char* bytes, std::size_t length) override;
  /// Writes the time stamp and a tag: "name(id)" or "Plugin id", -1 for a spec that is no plugin.
  void begin(const STPSpecClass* spec, std::uint32_t flag) override;
  /// Writes a line of the hub's own: the time stamp without a tag, and the text.
  void writeOwnLine(const char* format, std::va_list arguments);

 private:
  [[maybe_unused]] Hublink* hub_;
  bool goesOn_ = false;  // the present line has had a line end
};
