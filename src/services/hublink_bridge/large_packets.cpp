#include "services/hublink_bridge/large_packets.h"

namespace bridge {

bool LargePackets::reserve(Taker& taker, std::int64_t bytes) {
  // One that fits doesn't overtake a larger one that waits.
  if (waiting_.empty() && bytes <= left_) {
    left_ -= bytes;
    return true;
  }
  waiting_.push_back({&taker, bytes});
  return false;
}

void LargePackets::release(std::int64_t bytes) {
  left_ += bytes;
  grantWaiting();
}

void LargePackets::forget(const Taker& taker) {
  std::erase_if(waiting_, [&](const Waiting& entry) { return entry.taker == &taker; });
  grantWaiting();
}

void LargePackets::grantWaiting() {
  while (!waiting_.empty() && waiting_.front().bytes <= left_) {
    const Waiting next = waiting_.front();
    waiting_.pop_front();
    left_ -= next.bytes;
    next.taker->largePacketGranted();
  }
}

}  // namespace bridge
