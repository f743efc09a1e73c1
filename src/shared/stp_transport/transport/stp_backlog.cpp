#include "stp_transport/transport/stp_backlog.h"

#include <algorithm>

#include "stp_transport/transport/stp_process_state.h"

namespace {

std::int64_t halfLimit() {
  return stpProcess().holdLimit / 2;
}

}  // namespace

void STPBacklog::openWindow(std::uint64_t now) {
  windowEnd_ = now + kPatience;
  taken_ = 0;
}

bool STPBacklog::isTooMuch(std::int64_t waiting) const {
  return state_ == State::quick && waiting >= stpProcess().holdLimit;
}

void STPBacklog::hold(std::uint64_t now) {
  state_ = State::held;
  if (slowSince_ == 0) slowSince_ = now;
  ++turn_;
  if (releaseAt_ == 0) releaseAt_ = halfLimit();
  openWindow(now);
}

void STPBacklog::reset() {
  state_ = State::quick;
  releaseAt_ = 0;
  slowSince_ = 0;
  wasSlow_ = false;
}

// What a slow one has stored goes down by half of the limit between two turns of the senders, so
// that it comes down for good and they wait for none of it long.
void STPBacklog::took(std::int64_t bytes, std::int64_t waiting, std::uint64_t now) {
  const std::int64_t half = halfLimit();
  if (waiting <= half) {
    reset();
    return;
  }
  if (state_ == State::slow && now >= windowEnd_) openWindow(now);
  taken_ += bytes;
  if (state_ == State::held && waiting <= releaseAt_) {
    state_ = State::quick;
    releaseAt_ = std::max(half, releaseAt_ - half);
  } else if (state_ == State::slow && taken_ >= half) {
    state_ = State::quick;
    releaseAt_ = std::max(half, waiting - half);
  }
}

void STPBacklog::expire(std::uint64_t now) {
  if (state_ != State::held || now < windowEnd_) return;
  if (taken_ < halfLimit()) {
    state_ = State::slow;
    wasSlow_ = true;
  }
  openWindow(now);
}
