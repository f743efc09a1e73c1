#include "services/hublink/launch_wait.h"

#include "platform/process.h"

namespace {

// Milliseconds of one step: how late the limit may be noticed when nothing happens.
constexpr int kStep = 100;

}  // namespace

LaunchWait::LaunchWait(STPTransport* child, const STPTransportSet& others, int milliseconds)
    : TimeoutSTPRetryHandler(child, milliseconds), child_(child), others_(others) {}

bool LaunchWait::shouldRetry() {
  return !platform::stopRequested() && TimeoutSTPRetryHandler::shouldRetry();
}

void LaunchWait::wait() {
  child_->serviceOnceRelaying(kStep, others_);
}
