// Where the hub writes what it has to tell, each place of which may be missing: its internal log,
// and the log that plugins write into.
#pragma once

#include <cstdio>
#include <memory>
#include <string_view>

#include "services/hublink/internal_file_log.h"

class HubLog {
 public:
  /// `pluginLog` and `internalFile` may be null and aren't owned.
  HubLog(Hublink* hub, STPFileLog* pluginLog, std::FILE* internalFile);

  /// Writes a line of the hub's own to the internal log, if there is one.
  void logInternal(const char* format, ...) GEN_PRINTF(2, 3);
  /// Tells what a program has written on its standard error, each line marked with the program's
  /// name: in the internal log, or without one on the hub's own standard error.
  void tellErrors(const char* program, std::string_view text);
  /// Nothing more is written to the internal log.
  void endInternal() { internal_.reset(); }
  /// Null without the log.
  HLInternalFileLog* internal() const { return internal_.get(); }
  STPFileLog* plugins() const { return plugins_; }

 private:
  STPFileLog* plugins_;
  std::unique_ptr<HLInternalFileLog> internal_;
};
