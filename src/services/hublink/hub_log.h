// Where the hub writes what it has to tell, each place of which may be missing: its internal log,
// and the log that plugins write into.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "services/hublink/internal_file_log.h"

/// Opens a log's file anew, so that it can be followed while the hub runs: each line goes out when
/// it is complete. Null with the reason in `error` if it can't be, or is another user's: a log
/// holds what is nobody else's business.
std::FILE* openLogFile(const char* name, std::string& error);

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
  void endInternal();
  /// Goes on with the internal log in a file of this name, made anew. False if it can't be opened
  /// or is another user's; then all stays as it was, with the reason in `error`.
  bool switchInternal(const char* file, std::string& error);
  /// The file's name if switchInternal has opened it, or what main() has told; empty without a log.
  const std::string& internalFile() const { return internalFile_; }
  void setInternalFile(const char* name) { internalFile_ = name; }
  /// Null without the log.
  HLInternalFileLog* internal() const { return internal_.get(); }
  STPFileLog* plugins() const { return plugins_; }

 private:
  Hublink* hub_;
  STPFileLog* plugins_;
  std::unique_ptr<HLInternalFileLog> internal_;
  std::string internalFile_;
};
