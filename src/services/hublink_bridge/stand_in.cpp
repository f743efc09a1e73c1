#include "services/hublink_bridge/stand_in.h"

#include <utility>

#include "stp_transport/wire/stp_wire.h"

namespace bridge {

namespace {

// Milliseconds for a hub of this machine, which is there. Nothing else is done meanwhile.
constexpr int kHubTime = 2000;

}  // namespace

StandIn::StandIn(StandInListener& listener) : listener_(listener) {
  plugin_.carryPackets(this);
  plugin_.onValueQuestion([this](std::int32_t requestingPluginID, const std::string& name,
                                 HublinkPlugin::ValueAnswer answer) {
    listener_.valueAsked(*this, requestingPluginID, name, std::move(answer));
  });
}

StandIn::~StandIn() = default;

bool StandIn::connect(std::uint16_t port, std::string& error) {
  if (!plugin_.connect(port, error, "localhost", kHubTime)) return false;
  plugin_.setPersistent(false);
  return true;
}

void StandIn::standFor(RemotePluginKey key, std::string program) {
  key_ = std::move(key);
  program_ = std::move(program);
}

std::uint64_t StandIn::send(const unsigned char* packets, std::size_t size) {
  plugin_.sendPackets(packets, static_cast<std::int64_t>(size));
  return queuedEnd_ += size;
}

std::uint64_t StandIn::written() const {
  const auto waiting = static_cast<std::uint64_t>(plugin_.waitingBytes());
  return waiting < queuedEnd_ ? queuedEnd_ - waiting : 0;
}

void StandIn::setHeld(std::int32_t localRN, bool flag) {
  const bool wasHeld = !held_.empty();
  if (flag)
    held_.insert(localRN);
  else
    held_.erase(localRN);
  if (wasHeld != !held_.empty()) plugin_.setReading(held_.empty());
}

void StandIn::takePackets(const unsigned char* packets, std::int64_t size) {
  const auto localRN = static_cast<std::int32_t>(stpReadWord(packets + STP_DESTINATION_OFFSET));
  listener_.packetsArrived(*this, localRN, packets, size);
}

}  // namespace bridge
