// A sleep until one of a few descriptors is ready, for a program that has others than those of the
// readiness set: the set's own descriptor is then one of the few (poll(2)).
#pragma once

#include <cstddef>

namespace platform {

struct DescriptorWait {
  int descriptor = -1;  ///< below 0: none, never ready
  bool wantsRead = true;
  bool wantsWrite = false;
  bool isReadable = false;  ///< outcome; an end or a failure counts as readable
  bool isWritable = false;  ///< outcome
};

/// Sleeps until one of them is ready or the time is up (negative: no limit). False if the wait has
/// failed or was interrupted; none is ready then.
bool waitForDescriptors(DescriptorWait* waits, std::size_t count, int milliseconds);

}  // namespace platform
