// The calls that a transport is in: one entry for each message sent and not yet finished or being
// handled, with the words that tie a packet to the call in which it was made.
#pragma once

#include <cstdint>
#include <vector>

struct STPCallContext {
  std::uint16_t site = 0;       ///< high half of the chain word
  std::uint16_t serial = 0;     ///< low half of the chain word
  std::uint16_t callDepth = 0;  ///< low half of the depth word
  std::uint32_t callFlags = 0;  ///< flags of the message that opened the call

  std::uint32_t chain() const { return std::uint32_t{site} << 16 | serial; }
};

class STPCallStack {
 public:
  void push(std::uint32_t chain, std::uint32_t depth, std::uint32_t flags) {
    entries_.push_back({static_cast<std::uint16_t>(chain >> 16), static_cast<std::uint16_t>(chain),
                        static_cast<std::uint16_t>(depth), flags});
  }
  void pop() {
    if (!entries_.empty()) entries_.pop_back();
  }
  bool empty() const { return entries_.empty(); }
  /// The innermost call, or the base entry outside of all calls.
  const STPCallContext& current() const { return entries_.empty() ? base_ : entries_.back(); }
  void setSite(std::uint16_t site) { base_.site = site; }
  void setBaseSerial(std::uint16_t serial) { base_.serial = serial; }

 private:
  std::vector<STPCallContext> entries_;  // keeps its room: a steady state allocates nothing
  STPCallContext base_;
};
