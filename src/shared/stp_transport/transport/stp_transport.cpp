#include "stp_transport/transport/stp_transport.h"

#include <algorithm>

#include "platform/socket.h"
#include "stp_transport/transport/stp_channel.h"
#include "stp_transport/transport/stp_process_state.h"

STPTransport::STPTransport(std::int32_t initialSize)
    : serial_(++stpProcess().lastSerial), fields_(initialSize), input_(initialSize) {
  stpProcess().transportsBySerial.emplace(serial_, this);
  attend();
}

STPTransport::~STPTransport() {
  disconnect();
  dropChannels();
  STPProcessState& process = stpProcess();
  process.transportsBySerial.erase(serial_);
  process.attention.remove(serial_);
  if (isListening()) endListening();
  if (unflushed_) std::erase(process.unflushed, this);
}

void STPTransport::addRef() {
  if (!dying_) ++refCount_;
}

void STPTransport::release() {
  if (dying_ || --refCount_ >= 1) return;
  dying_ = true;
  delete this;
}

bool STPTransport::lastQueued(std::uint32_t* type, std::uint32_t* id) const {
  if (type) *type = lastType_;
  if (id) *id = lastId_;
  return lastType_ != 0;
}

const char* STPTransport::peerName() {
  if (peerName_.empty() && hasSocket()) peerName_ = platform::peerAddress(fd_);
  return peerName_.empty() ? nullptr : peerName_.c_str();
}

const char* STPTransport::localName() {
  if (localName_.empty() && hasSocket()) localName_ = platform::localAddress(fd_);
  return localName_.empty() ? nullptr : localName_.c_str();
}

void STPTransport::copyStatus(STPStatus* status) const {
  if (status && status != &status_) *status = status_;
}

WaitState STPTransport::waitUntil(RetryHandler* retry, WaitOrder order,
                                  const std::function<bool()>& done) {
  const auto look = [&] {
    if (status_.good() && done()) return WaitState::reached;
    return status_.good() ? WaitState::waiting : WaitState::failed;
  };
  const WaitState end = ::waitUntil(retry, order, look, [this] { serviceOnce(STP_WAIT_STEP); });
  // The handler may have given up because the connection has failed, which says more.
  return end == WaitState::gaveUp && !status_.good() ? WaitState::failed : end;
}
