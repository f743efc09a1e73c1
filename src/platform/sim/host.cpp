// The names of the simulated machine.
#include "platform/host.h"

#include "platform/process.h"

namespace platform {

std::string hostName() {
  return "simulated";
}

std::string canonicalHostName(const char* host) {
  return host ? host : "";
}

std::string userName() {
  return "somebody";
}

std::string userConfigDirectory() {
  return {};
}

std::string executablePath() {
  return "/simulated/bin/hublink";
}

}  // namespace platform
