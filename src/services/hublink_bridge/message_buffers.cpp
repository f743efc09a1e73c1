#include "services/hublink_bridge/message_buffers.h"

#include <utility>

namespace bridge {

void MessageBuffers::require(Bytes& bytes, std::size_t size) {
  if (bytes.capacity() >= size) return;
  Bytes wider;
  std::size_t kind = 0;
  while (kind < kSizes.size() && kSizes[kind] < size) ++kind;
  if (kind == kSizes.size()) {
    wider.reserve(size);
  } else if (kept_[kind].empty()) {
    wider.reserve(kSizes[kind]);
  } else {
    wider = std::move(kept_[kind].back());
    kept_[kind].pop_back();
  }
  wider.assign(bytes.begin(), bytes.end());
  put(std::exchange(bytes, std::move(wider)));
}

void MessageBuffers::put(Bytes&& bytes) {
  for (std::size_t kind = 0; kind < kSizes.size(); ++kind) {
    if (bytes.capacity() != kSizes[kind]) continue;
    if ((kept_[kind].size() + 1) * kSizes[kind] <= kMostKept)
      kept_[kind].push_back(std::move(bytes));
    return;
  }
}

void MessageBuffers::clear() {
  for (std::vector<Bytes>& kept : kept_) kept.clear();
}

}  // namespace bridge
