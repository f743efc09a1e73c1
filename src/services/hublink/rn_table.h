// Who owns which RN. A look-up is a few array accesses, since every relayed packet makes one. An RN
// is handed out once; the memory of a page of RNs goes when the last of them has gone, and a page
// that lies within one large block costs no more than its entry.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "stp_transport/wire/stp_wire.h"

class HublinkConnection;

class RNTable {
 public:
  /// RNs below this are the addresses of a link itself and are never handed out.
  static constexpr std::int32_t kFirst = STP_FIRST_RN;
  /// The last one before the count starts anew.
  static constexpr std::int32_t kLast = std::numeric_limits<std::int32_t>::max();

  /// The next RN, owned by `owner` from now on. RNs count up over all owners; only past the top of
  /// the signed range does the count start anew, and an RN then met again passes to the new owner.
  std::int32_t assign(HublinkConnection* owner);
  /// `count` RNs, given to `visit` one by one.
  void assignBlock(HublinkConnection* owner, std::int32_t count,
                   const std::function<void(std::int32_t)>& visit);
  /// Takes the RN back if `owner` has it.
  void release(const HublinkConnection* owner, std::int32_t rn);
  /// The owner, or null.
  HublinkConnection* owner(std::int32_t rn) const {
    if (rn < kFirst) return nullptr;
    const std::size_t index = static_cast<std::size_t>(rn) / kPageSize;
    if (index >= slots_.size()) return nullptr;
    const Slot& slot = slots_[index];
    return slot.page ? slot.page->owners[static_cast<std::size_t>(rn) % kPageSize] : slot.whole;
  }
  /// Takes back all RNs of `owner`, calling `visit` with those that were handed out one by one.
  void releaseAll(const HublinkConnection* owner, const std::function<void(std::int32_t)>& visit);
  /// What has been sent from an RN, or to it.
  struct Traffic {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
  };
  struct TrafficOfRN {
    Traffic sent, received;
  };
  /// Counts what has been sent from one RN to another, as far as they are owned; those of large
  /// blocks aren't counted.
  void count(std::int32_t source, std::int32_t destination, const Traffic& traffic);
  /// Since the RN was handed out.
  TrafficOfRN traffic(std::int32_t rn) const;
  /// All that was counted, of RNs that have gone too.
  const Traffic& relayed() const { return relayed_; }
  /// How far the count has come.
  std::int32_t handedOut() const { return next_ < kFirst ? 0 : next_ - kFirst; }
  /// How many RNs it owns.
  std::int64_t count(const HublinkConnection* owner) const;
  /// How many pages are held, for those who watch memory.
  std::size_t pages() const { return live_.size(); }

 private:
  friend class HublinkInspector;

  static constexpr std::size_t kPageSize = 1024;
  using TrafficPage = std::array<TrafficOfRN, kPageSize>;
  struct Page {
    std::array<HublinkConnection*, kPageSize> owners{};
    std::size_t used = 0;
    std::unique_ptr<TrafficPage> traffic{};  // null as long as there was none
  };
  struct Slot {
    HublinkConnection* whole = nullptr;  // owner of all RNs of a page that isn't spelt out
    std::unique_ptr<Page> page;
  };

  TrafficOfRN* trafficPlace(std::int32_t rn);
  std::int32_t takeNext();
  Page& spellOut(std::size_t index);
  void clear(std::size_t index, std::size_t place);
  void forget(std::size_t index);
  void note(const HublinkConnection* owner, std::int64_t change);

  std::int32_t next_ = 0;
  Traffic relayed_;
  std::vector<Slot> slots_;
  std::set<std::size_t> live_;  // the slots that own something
  std::unordered_map<const HublinkConnection*, std::int64_t> counts_;
};
