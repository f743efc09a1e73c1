#include "hublink_plugin/timed_calls.h"

#include <algorithm>
#include <climits>
#include <utility>
#include <vector>

#include "platform/clock.h"

namespace {

constexpr std::uint64_t kMillion = 1000000;

}  // namespace

// What a call holds may itself cancel another when it goes.
TimedCalls::~TimedCalls() {
  const auto rest = std::exchange(calls_, {});
}

// A millisecond that has begun doesn't count: none is called too early.
TimedCallID TimedCalls::add(int milliseconds, Call call) {
  const std::uint64_t begun = milliseconds > 0 ? kMillion - 1 : 0;
  const std::uint64_t now = (platform::monotonicNanoseconds() + begun) / kMillion;
  const TimedCallID id{now + static_cast<std::uint64_t>(std::max(milliseconds, 0)), ++lastNumber_};
  calls_.emplace(id, std::move(call));
  return id;
}

// A call may cancel others, and serve the plugin, which makes them.
void TimedCalls::callDue() {
  if (calls_.empty()) return;
  const std::uint64_t now = platform::monotonicMilliseconds();
  std::vector<TimedCallID> due;
  for (auto place = calls_.begin(); place != calls_.end() && place->first.at <= now; ++place)
    due.push_back(place->first);
  for (const TimedCallID id : due) {
    const auto node = calls_.extract(id);
    if (!node.empty() && node.mapped()) node.mapped()();
  }
}

int TimedCalls::next() const {
  if (calls_.empty()) return -1;
  const std::uint64_t at = calls_.begin()->first.at;
  const std::uint64_t now = platform::monotonicMilliseconds();
  return at <= now ? 0 : static_cast<int>(std::min<std::uint64_t>(at - now, INT_MAX));
}
