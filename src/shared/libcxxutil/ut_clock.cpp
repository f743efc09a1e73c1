#include "libcxxutil/ut_clock.h"

#include "platform/clock.h"

namespace {

constexpr std::int64_t kMillisecondsFrom1601To1970 = 11644473600000;

}  // namespace

std::uint32_t tickCount() {
  return static_cast<std::uint32_t>(platform::monotonicMilliseconds());
}

std::int64_t systemTimeMilliseconds() {
  const std::int64_t now = platform::unixMilliseconds();
  return now < 0 ? 0 : now + kMillisecondsFrom1601To1970;
}
