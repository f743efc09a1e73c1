// How the hub waits for a child to connect: until a limit, with the traffic between plugins going
// on.
#pragma once

#include <cstdint>

#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/transport/stp_transport.h"

/// Gives up after a limit, or when the hub is asked to stop.
class LaunchWait : public TimeoutSTPRetryHandler {
 public:
  /// Waits on `child` and relays on `others`; neither is owned.
  LaunchWait(STPTransport* child, const STPTransportSet& others, int milliseconds);
  bool shouldRetry() override;
  void wait() override;

 private:
  STPTransport* child_;
  const STPTransportSet& others_;
};
