#include "bench/process_usage.h"

#include <fstream>
#include <string>

namespace {

constexpr double kMillisecondsOfTick = 10;  // of /proc/PID/stat, on every common architecture
constexpr int kFieldsBeforeUserTime = 11;   // after the program's name

std::ifstream openFile(platform::ProcessId process, const char* name) {
  return std::ifstream("/proc/" + std::to_string(process) + "/" + name);
}

}  // namespace

std::optional<double> processorMilliseconds(platform::ProcessId process) {
  double nanoseconds = 0;
  if (openFile(process, "schedstat") >> nanoseconds) return nanoseconds / 1e6;
  // A kernel without it counts in ticks.
  std::ifstream file = openFile(process, "stat");
  std::string text;
  double user = 0, system = 0;
  std::getline(file, text, ')');
  for (int i = 0; i < kFieldsBeforeUserTime; ++i) file >> text;
  if (!(file >> user >> system)) return std::nullopt;
  return (user + system) * kMillisecondsOfTick;
}

std::optional<double> residentBytes(platform::ProcessId process) {
  std::ifstream file = openFile(process, "status");
  double kilobytes = 0;
  for (std::string word; file >> word;)
    if (word == "VmRSS:" && file >> kilobytes) return kilobytes * 1024;
  return std::nullopt;
}
