#include "platform/clock.h"

#include <errno.h>
#include <time.h>

namespace platform {
namespace {

std::uint64_t nanoseconds(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000000u +
         static_cast<std::uint64_t>(time.tv_nsec);
}

}  // namespace

std::uint64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return nanoseconds(now);
}

std::uint64_t monotonicMilliseconds() {
  return monotonicNanoseconds() / 1000000u;
}

std::int64_t unixMilliseconds() {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void sleepMilliseconds(int milliseconds) {
  timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

}  // namespace platform
