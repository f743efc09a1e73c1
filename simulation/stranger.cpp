#include "simulation/stranger.h"

#include "platform/readiness.h"
#include "platform/sim/world.h"
#include "platform/socket.h"
#include "stp_transport/transport/stp_socket.h"
#include "support/raw_peer.h"

namespace {

constexpr std::uint32_t kStranger = 1001;
constexpr std::uint32_t kHere = 0x7F000001;
constexpr std::uint16_t kNamesHeld = 12;

void start(platform::sim::World& world, std::uint32_t machine,
           const platform::sim::Program& program) {
  world.start("stranger", program, machine).user = kStranger;
}

}  // namespace

void startIntruder(platform::sim::World& world, std::uint32_t machine, std::uint64_t choice) {
  const std::uint16_t port = world.somePort(choice / 4);
  const bool isByName = choice % 2 == 0, goesAtOnce = choice / 2 % 2 == 0;
  start(world, machine, [port, isByName, goesAtOnce, name = stpLocalName(port)](const auto&) {
    const platform::Socket socket =
        isByName ? platform::connectToName(name) : platform::openStream();
    if (socket == platform::kNoSocket) return 1;
    if (!isByName && platform::connectStream(socket, kHere, port, 0) != 0) return 1;
    const std::string bytes =
        filled(negotiateBytes()) +
        filled(hubMessageBytes("RequestPluginLaunch", [](STPMessage& message) {
          putTexts(message, tag("argv"), tag("count"), 1, {kBooty});
        }));
    platform::sendBytes(socket, bytes.data(), static_cast<std::int64_t>(bytes.size()));
    platform::readiness().watch(socket);
    bool failed = goesAtOnce;
    while (!failed && !platform::readiness().isHungUp(socket))
      platform::readiness().wait(-1, failed);
    return 0;
  });
}

std::uint16_t startSquatter(platform::sim::World& world, std::uint32_t machine) {
  const std::uint16_t port = world.freePort();
  std::vector<std::string> names;
  for (std::uint16_t i = 0; i < kNamesHeld; ++i)
    names.push_back(stpLocalName(static_cast<std::uint16_t>(port + i)));
  start(world, machine, [port, names](const auto&) {
    for (const std::string& name : names) platform::listenOnName(name);
    const platform::Socket socket = platform::openStream();
    if (!platform::bindPort(socket, port, true) || !platform::listenOn(socket)) return 1;
    for (bool failed = false; !failed;) platform::readiness().wait(-1, failed);
    return 0;
  });
  return port;
}
