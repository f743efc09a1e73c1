// Text sinks for traces and a program's own lines.
//
// STPLog turns text and format calls into writes of bytes and brackets each line with two hooks.
// What a line says, its line end included, is up to the callers. None of the operations gives an
// error.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "indgen/report.h"

class STPSpecClass;

class STPLog {
 public:
  STPLog() = default;
  STPLog(const STPLog&) = delete;
  STPLog& operator=(const STPLog&) = delete;
  virtual ~STPLog() = default;
  virtual void write(const char* bytes, std::size_t length) = 0;
  /// Writes a text; null writes nothing.
  virtual void write(const char* text);
  virtual void printf(const char* format, ...) GEN_PRINTF(2, 3);
  virtual void vprintf(const char* format, std::va_list arguments);
  /// Opens and closes a line. `spec` is the object on whose behalf it is written, or null.
  virtual void begin(const STPSpecClass* spec, std::uint32_t flag);
  virtual void end(const STPSpecClass* spec, std::uint32_t flag);
};

/// Sends the bytes to an open stream; a null stream swallows them. The first write that fails is
/// told on standard error.
class STPFileLog : public STPLog {
 public:
  /// With `owned` the destructor closes `file`.
  STPFileLog(std::FILE* file, bool owned);
  ~STPFileLog() override;
  using STPLog::write;
  void write(const char* bytes, std::size_t length) override;

 private:
  std::FILE* file_;
  bool owned_;
  bool failureTold_ = false;
};

/// Puts a time in front of each line: seconds and milliseconds since 1601, UTC.
class TimestampedSTPFileLog : public STPFileLog {
 public:
  using STPFileLog::STPFileLog;
  void begin(const STPSpecClass* spec, std::uint32_t flag) override;
};
