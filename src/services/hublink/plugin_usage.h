// What a plugin has in the hub's tables, counted so that it can be bounded.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

struct Usage {
  std::int64_t count = 0;
  std::int64_t bytes = 0;
};

/// What the entries of one plugin take together, by kind.
struct PluginUsage {
  Usage services;
  Usage waiting;      ///< requests without an answer so far
  Usage connections;  ///< to services, asked for by the plugin
  Usage arrivals;     ///< launches and connects in hand
};

/// The part of one entry, which stands in it and so goes with it, however that happens. The plugin
/// may go first.
class UsageShare {
 public:
  UsageShare() = default;
  UsageShare(std::shared_ptr<Usage> usage, std::int64_t bytes)
      : usage_(std::move(usage)), bytes_(bytes) {
    ++usage_->count;
    usage_->bytes += bytes_;
  }
  UsageShare(UsageShare&&) = default;
  UsageShare& operator=(UsageShare&& other) noexcept {
    std::swap(usage_, other.usage_);
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  ~UsageShare() {
    if (!usage_) return;
    --usage_->count;
    usage_->bytes -= bytes_;
  }

 private:
  std::shared_ptr<Usage> usage_;
  std::int64_t bytes_ = 0;
};
