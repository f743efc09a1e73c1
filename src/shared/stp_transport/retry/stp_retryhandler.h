// Retry handlers that wait on a transport, and the condition that watches a spec.
#pragma once

#include <functional>
#include <utility>

#include "libcxxutil/ut_retryhandler.h"
#include "stp_transport/transport/counted_ptr.h"

class STPSpecClass;
class STPTransport;

/// Gives up when its transport closes or its status shows a failure. The transport isn't owned; a
/// handler without one never allows a second try and pauses for 50 ms in its wait.
class STPRetryHandler : public RetryHandler {
 public:
  STPRetryHandler() = default;  ///< no limit, no transport
  explicit STPRetryHandler(int spec) : RetryHandler(spec) {}
  explicit STPRetryHandler(STPTransport* transport) : transport_(transport) {}
  STPRetryHandler(STPTransport* transport, int spec) : RetryHandler(spec), transport_(transport) {}
  /// Has `step` let time pass, for a wait that serves more than its transport; false gives up.
  void setStep(std::function<bool()> step) { step_ = std::move(step); }
  void start() override;
  bool shouldRetry() override;
  void wait() override;

 private:
  STPTransport* transport_ = nullptr;
  std::function<bool()> step_;
  bool stepsOn_ = true;
};

/// Gives up after `milliseconds` as well; at once, without sleeping, for 0 or a negative number.
class TimeoutSTPRetryHandler : public STPRetryHandler {
 public:
  TimeoutSTPRetryHandler(STPTransport* transport, int milliseconds);
};

/// True while a spec's virtual connection is up in at least one direction. Holds a reference on it.
class STP_RetryCondition : public RetryCondition {
 public:
  explicit STP_RetryCondition(STPSpecClass* spec);
  ~STP_RetryCondition() override;
  bool shouldRetry() override;

 private:
  CountedPtr<STPSpecClass> spec_;
};
