// hublink-bridge: joins the hub of this machine with those of other machines.
#include <cstdio>
#include <utility>

#include "platform/process.h"
#include "services/hublink_bridge/bridge.h"

int main(int argc, char** argv) {
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
