#include "stp_transport/retry/stp_retryhandler.h"

#include <cstdint>

#include "platform/clock.h"
#include "stp_transport/spec/stp_specclass.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

constexpr int kPause = 50;  // ms
// Added to a number of milliseconds to tell a retry handler that it is one.
constexpr int kMillisecondsMark = 1000000;

// Without a meaning, and so the default limit, if it is too long to be told.
int specFor(int milliseconds) {
  return milliseconds > INT32_MAX - kMillisecondsMark ? 0 : milliseconds + kMillisecondsMark;
}

}  // namespace

bool STPRetryHandler::shouldRetry() {
  return RetryHandler::shouldRetry() && transport_ && !transport_->isClosed() &&
         transport_->status().good();
}

void STPRetryHandler::wait() {
  if (transport_)
    transport_->serviceOnce(STP_WAIT_STEP);
  else
    platform::sleepMilliseconds(kPause);
}

TimeoutSTPRetryHandler::TimeoutSTPRetryHandler(STPTransport* transport, int milliseconds)
    : STPRetryHandler(transport, specFor(milliseconds)) {}

STP_RetryCondition::STP_RetryCondition(STPSpecClass* spec) : spec_(spec) {}

STP_RetryCondition::~STP_RetryCondition() = default;

bool STP_RetryCondition::shouldRetry() {
  return spec_->isVirtualConnectionUp();
}
