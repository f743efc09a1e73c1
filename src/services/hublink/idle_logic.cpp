#include "services/hublink/idle_logic.h"

bool IdleLogic::afterPass(IdleSubject& subject) {
  if (!recordRemoved_ && subject.isUsedUp()) recordRemoved_ = subject.removeRecord();
  const bool idle = !subject.hasPersistentPlugin();
  if (idle && !idleConfirmed_) {
    if (!subject.isShared()) return false;
    if (idleSeen_) {
      idleConfirmed_ = true;
    } else {
      idleSeen_ = true;
      idleSince_ = subject.now();
    }
    return true;
  }
  if (!idle) {
    idleSeen_ = false;
    idleConfirmed_ = false;
    return true;
  }
  const std::int64_t since = subject.now() - idleSince_;
  if (!recordRemoved_ && since > 0) recordRemoved_ = subject.removeRecord();
  return since <= kLimit;
}
