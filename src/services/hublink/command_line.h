// The hub's command line.
#pragma once

#include <cstdint>

#include "services/hublink/launcher.h"

struct CommandLine {
  std::uint32_t port = 0;         ///< 0: none was given
  bool connectMode = false;       ///< connect to `port` first, then listen on a free port
  const char* zone = nullptr;     ///< name of the active hub record
  const char* logFile = nullptr;  ///< of the plugins' log
  const char* internalLogFile = nullptr;
  bool notShared = false;
  bool loopbackOnly = false;   ///< listen on 127.0.0.1 alone
  bool anyUser = false;        ///< take connections of every user of this machine
  bool tcpOnly = false;        ///< offer no socket of this machine beside the port
  bool noBusyPolling = false;  ///< sleep at once whenever there is nothing to do
  /// Seconds that a launched plugin may take to connect, 0 for no limit; -1: what was given is no
  /// such number.
  std::int32_t launchTimeout = Launcher::kTimeout;
  const char* missingValue = nullptr;  ///< the option that stood last without its value
};

/// What a call without arguments tells, a format that takes the program's name.
extern const char* const kUsage;
/// What `--help` tells besides: each option on a line.
extern const char* const kOptionHelp;

/// Reads the options. Whatever it doesn't know is skipped in silence; an option with a value takes
/// the next argument, whatever that looks like. The texts are those of `argv`.
CommandLine parseCommandLine(int argc, char** argv);
