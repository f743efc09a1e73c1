// Programs that are started at once and without a hub, by a process of their own: what many
// launches at once are compared with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "bench/far_end.h"

inline constexpr const char* kRoleStarter = "starter";

/// Which programs are started.
struct PlainStarts {
  std::string program;  ///< a launched_provider
  int count = 0;
  int hanging = 0;  ///< how many of them hang before they connect
};

/// Serves the driver that listens on `port` as its starter, once. The exit code of its process.
int runStarter(std::uint16_t port, const PlainStarts& starts);

/// The driver's view of that process, which ends with this object and its programs with it.
class Starter {
 public:
  /// Has the process ready. False with a text in `error`.
  bool open(const BenchPrograms& programs, const PlainStarts& starts, std::string& error);
  /// Has it start the programs: milliseconds until all but those that hang have connected to a bare
  /// socket. None with a text in `error`.
  std::optional<double> start(std::string& error);
  /// Waits until the programs have ended.
  void finish();

 private:
  BenchProcess process_;
  LoopbackSocket connection_;
};
