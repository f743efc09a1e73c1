// The hub's executable as a process of its own, which goes with its object, on every way out of a
// test.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "indgen/scratch.h"
#include "platform/process.h"

/// Milliseconds after which a test gives up on something that has to come.
inline constexpr int kPatience = 20000;

class HubProcess {
 public:
  /// Starts the hub, or the copy of it that `executable` names. With `softLimit` above 0 it gets
  /// that soft limit on open files.
  HubProcess(const std::vector<std::string>& arguments, const Scratch& directory, int softLimit = 0,
             const std::string& executable = builtExecutable());
  ~HubProcess();
  HubProcess(const HubProcess&) = delete;
  HubProcess& operator=(const HubProcess&) = delete;

  /// The hub as it was built.
  static std::string builtExecutable();

  bool hasStarted() const { return process_ > 0; }
  platform::ProcessId id() const { return process_; }
  /// The exit status, or -1 if the process hasn't ended by then.
  int waitForEnd(int milliseconds = kPatience);
  void terminate() { platform::terminateProcess(process_); }
  /// What it has printed to both standard streams.
  std::string printed() const { return contents(output_); }
  std::int64_t residentBytes() const;

 private:
  std::string output_;
  platform::ProcessId process_ = 0;
};
