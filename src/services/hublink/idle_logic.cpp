#include "services/hublink/idle_logic.h"

#include "libcxxutil/ut_clock.h"
#include "services/hublink/hublink.h"

namespace {

std::int64_t now() {
  return static_cast<std::int64_t>(systemTimeMilliseconds());
}

}  // namespace

bool IdleLogic::afterPass() {
  const bool isClosing = hub_.plugins().ids().areUsedUp() || hub_.stopsWhenIdle();
  if (!recordRemoved_ && isClosing) recordRemoved_ = hub_.removeActiveRecord();
  const bool idle = !hub_.isNeeded();
  if (idle && hub_.stopsWhenIdle()) return false;
  if (idle && !idleConfirmed_) {
    if (hub_.hasNoActiveRecord()) return false;
    if (idleSeen_) {
      idleConfirmed_ = true;
    } else {
      idleSeen_ = true;
      idleSince_ = now();
    }
    return true;
  }
  if (!idle) {
    idleSeen_ = false;
    idleConfirmed_ = false;
    return true;
  }
  const std::int64_t since = now() - idleSince_;
  if (!recordRemoved_ && since > 0) recordRemoved_ = hub_.removeActiveRecord();
  return since <= kLimit;
}
