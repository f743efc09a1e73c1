#include "stp_transport/retry/stp_retryhandler.h"

#include <algorithm>

#include "platform/clock.h"
#include "stp_transport/spec/stp_specclass.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

constexpr int kPause = 50;  // ms

}  // namespace

void STPRetryHandler::start() {
  RetryHandler::start();
  stepsOn_ = true;
}

bool STPRetryHandler::shouldRetry() {
  return stepsOn_ && RetryHandler::shouldRetry() && transport_ && !transport_->isClosed() &&
         transport_->status().good();
}

void STPRetryHandler::wait() {
  if (step_)
    stepsOn_ = step_();
  else if (transport_)
    transport_->serviceOnce(limit() == 0 ? 0 : STP_WAIT_STEP);
  else
    platform::sleepMilliseconds(kPause);
}

TimeoutSTPRetryHandler::TimeoutSTPRetryHandler(STPTransport* transport, int milliseconds)
    : STPRetryHandler(transport) {
  setLimit(std::max(milliseconds, 0));
}

STP_RetryCondition::STP_RetryCondition(STPSpecClass* spec) : spec_(spec) {}

STP_RetryCondition::~STP_RetryCondition() = default;

bool STP_RetryCondition::shouldRetry() {
  return spec_->isVirtualConnectionUp();
}
