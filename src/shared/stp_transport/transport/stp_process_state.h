// What all transports of one process share, in one place: the depth counters of delivery, and the
// serial numbers by which a transport can be found again after it may have gone.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "stp_transport/transport/stp_attention.h"

struct STPProcessState {
  /// Calls in progress: messages sent and not yet finished, plus messages being handled.
  std::int32_t messageDepth = 0;
  /// Blocking write phases on the stack; nothing is delivered while there is one.
  std::int32_t sendDepth = 0;
  /// Waits on the stack for the response to a message that holds others back.
  std::int32_t holdDepth = 0;

  std::uintptr_t lastSerial = 0;
  /// Every live transport, in the order of construction.
  std::map<std::uintptr_t, STPTransport*> transportsBySerial;
  /// Those that may have something to do in a step on a set: all others are idle, and cost it
  /// nothing.
  STPAttention attention;
  /// Whose the events of a descriptor are, by its number; null for nobody's.
  std::vector<STPTransport*> byDescriptor;
  /// How often a transport has stopped being connected or listening.
  std::uint64_t closings = 0;
  /// Bytes waiting to be written to a transport from which on those who send to it aren't read as
  /// long as it takes bytes quickly.
  std::int64_t holdLimit = 256 << 10;
  /// The same however slow it is.
  std::int64_t backlogLimit = std::int64_t{256} << 20;
  /// Those that hold up who sends to them because of the former.
  std::vector<STPTransport*> holding;
  /// Serial numbers of those who aren't read because of the latter, and when it is time to see
  /// whether their peers have gone, in ms of the steady clock.
  std::vector<std::uintptr_t> stopped;
  std::uint64_t nextLook = 0;
  /// Transports that a packet has been queued on since they were last flushed.
  std::vector<STPTransport*> unflushed;
};

STPProcessState& stpProcess();

/// Raises a depth counter for the length of a scope.
class STPDepthGuard {
 public:
  explicit STPDepthGuard(std::int32_t& depth) : depth_(depth) { ++depth_; }
  ~STPDepthGuard() { --depth_; }
  STPDepthGuard(const STPDepthGuard&) = delete;
  STPDepthGuard& operator=(const STPDepthGuard&) = delete;

 private:
  std::int32_t& depth_;
};
