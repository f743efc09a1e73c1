#include "hublink_plugin/posted_calls.h"

#include <utility>

#include "platform/readiness.h"

// What a call holds may itself post something when it goes.
void PostedCalls::close() {
  std::deque<Call> rest;
  const std::lock_guard lock(mutex_);
  isClosed_ = true;
  rest.swap(calls_);
}

// Only the first one wakes: whoever is about to wait looks whether any are there.
void PostedCalls::add(Call call) {
  bool isFirst = false;
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) return;
    calls_.push_back(std::move(call));
    isFirst = !isFilled_.exchange(true);
  }
  if (isFirst) platform::readiness().wake();
}

bool PostedCalls::take(Call& call) {
  const std::lock_guard lock(mutex_);
  if (calls_.empty()) return false;
  call = std::move(calls_.front());
  calls_.pop_front();
  isFilled_ = !calls_.empty();
  return true;
}

// A call may serve the plugin, which makes those behind it.
void PostedCalls::callAll() {
  if (isEmpty()) return;
  std::size_t most = 0;
  {
    const std::lock_guard lock(mutex_);
    most = calls_.size();
  }
  for (Call call; most > 0 && take(call); --most, call = nullptr)
    if (call) call();
}
