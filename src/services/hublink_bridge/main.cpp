// hublink-bridge: joins the hub of this machine with those of other machines.
#include <cstdio>
#include <utility>

#include "platform/memory.h"
#include "platform/process.h"
#include "services/hublink_bridge/bridge.h"

// What a stream needs again and again: messages of NATS, and packets on their way to the hub. The
// bridge gives it back when nothing passes any more.
constexpr int kFreedMemory = 16 << 20;

int main(int argc, char** argv) {
  platform::boundFreedMemory(kFreedMemory);
  platform::ensureStandardDescriptors();
  platform::ignoreBrokenPipe();
  platform::raiseDescriptorLimit();
  bridge::Options options;
  int exitCode = 0;
  if (!bridge::readOptions(argc, argv, options, exitCode)) return exitCode;
  platform::installStopSignals();
  bridge::Bridge joined(std::move(options));
  std::string error;
  if (!joined.start(error)) {
    std::fprintf(stderr, "hublink-bridge: %s\n", error.c_str());
    return 1;
  }
  return joined.run();
}
