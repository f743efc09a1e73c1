#include "stp_transport/transport/stp_connect_attempt.h"

#include <utility>

#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/readiness.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

constexpr const char* kUnresolved = "[connectToServer]: Unable to resolve host";

const char* textOf(int failure) {
  if (failure == platform::error::addressInUse) return "[ConnectToServer]: address in use";
  if (failure == platform::error::refused) return "[ConnectToServer]: connection refused";
  return "[ConnectToServer]: connection failed";
}

}  // namespace

STPConnectAttempt::STPConnectAttempt(const char* host, std::uint16_t port, bool takesLocalRoad,
                                     STPConnectMode mode)
    : port_(port), takesLocalRoad_(takesLocalRoad && stpUsesLocalRoad()), mode_(mode) {
  const bool waits = mode_ == STPConnectMode::waiting;
  std::uint32_t address = 0;
  if (host &&
      (platform::parseAddress(host, address) || (waits && platform::resolveHost(host, address)))) {
    reach(address);
  } else if (!host || waits) {
    status_.set(STP_FAILED, kUnresolved);
  } else {
    setLimit(STP_LOOKUP_LIMIT);
    lookup_.emplace(host);
  }
}

STPConnectAttempt::~STPConnectAttempt() {
  if (socket_ == platform::kNoSocket) return;
  platform::readiness().forget(socket_);
  platform::closeStream(socket_);
}

bool STPConnectAttempt::poll() {
  if (limit_ == 0) return true;
  const bool isLate = timeLeft() == 0;
  if (lookup_) {
    const bool isOver = lookup_->isOver();
    if (!isOver && !isLate) return false;
    const std::optional<std::uint32_t> address = isOver ? lookup_->address() : std::nullopt;
    lookup_.reset();
    limit_ = 0;
    if (address)
      reach(*address);
    else
      status_.set(STP_FAILED, kUnresolved);
  } else {
    const int outcome = platform::readiness().isWritable(socket_)
                            ? platform::connectOutcome(socket_, 0)
                            : platform::error::inProgress;
    if (outcome != platform::error::inProgress || isLate) settle(outcome);
  }
  return limit_ == 0;
}

int STPConnectAttempt::timeLeft() const {
  const std::uint64_t now = platform::monotonicMilliseconds();
  return now < limit_ ? static_cast<int>(limit_ - now) : 0;
}

int STPConnectAttempt::takeSocket() {
  if (socket_ == platform::kNoSocket || limit_ != 0) return 0;
  // Who takes it watches it himself, and is told anew what there is.
  platform::readiness().forget(socket_);
  return std::exchange(socket_, platform::kNoSocket);
}

void STPConnectAttempt::reach(std::uint32_t address) {
  if (takesLocalRoad_ && platform::isOwnAddress(address) && takeLocalRoad()) return;
  socket_ = platform::openStream();
  const int outcome = socket_ < 0 ? -1 : platform::beginConnect(socket_, address, port_);
  if (outcome != platform::error::inProgress) {
    settle(outcome);
  } else if (mode_ == STPConnectMode::waiting) {
    settle(platform::connectOutcome(socket_, STP_CONNECT_LIMIT));
  } else {
    setLimit(STP_CONNECT_LIMIT);
    platform::readiness().watch(socket_);
    platform::readiness().clearWritable(socket_);
  }
}

// Somebody else may hold the name.
bool STPConnectAttempt::takeLocalRoad() {
  const platform::Socket local = platform::connectToName(stpLocalName(port_));
  if (local == platform::kNoSocket) return false;
  if (!platform::userOfServer(local).isOwn()) {
    platform::closeStream(local);
    return false;
  }
  socket_ = local;
  settle(0);
  return true;
}

// A connect that is still in progress has taken too long.
void STPConnectAttempt::settle(int outcome) {
  limit_ = 0;
  if (outcome == 0) {
    platform::setStreamOptions(socket_);
    return;
  }
  status_.set(STP_FAILED, textOf(outcome));
  if (socket_ == platform::kNoSocket) return;
  platform::readiness().forget(socket_);
  platform::closeStream(std::exchange(socket_, platform::kNoSocket));
}

void STPConnectAttempt::setLimit(int milliseconds) {
  limit_ = platform::monotonicMilliseconds() + static_cast<std::uint64_t>(milliseconds);
}
