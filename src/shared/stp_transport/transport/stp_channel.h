// A channel: a pair of RNs on one connection that both sides open, start and close.
#pragma once

#include <cstdint>

#include "libcxxutil/ut_retryhandler.h"
#include "stp_transport/transport/stp_status.h"

class STPTransport;

class STPChannel {
 public:
  /// Sends the close unless it was sent, and leaves the transport's table.
  ~STPChannel();
  STPChannel(const STPChannel&) = delete;
  STPChannel& operator=(const STPChannel&) = delete;

  /// Sends the start and waits for the peer's.
  void startChannel(RetryHandler* retry, STPStatus* status = nullptr);
  /// Sends the close and waits for it to leave.
  void closeChannel(RetryHandler* retry, STPStatus* status = nullptr);
  bool isStarted() const { return startSent_ && startReceived_; }
  bool isClosed() const { return closeSent_ || closeReceived_; }
  const STPStatus& status() const { return status_; }

 private:
  friend class STPTransport;
  STPChannel(STPTransport* transport, std::int32_t local, std::int32_t remote)
      : transport_(transport), localRN_(local), remoteRN_(remote) {}

  STPTransport* transport_;  // not owned; null once it has gone
  std::int32_t localRN_;
  std::int32_t remoteRN_;
  bool createSent_ = false;
  bool createReceived_ = false;
  bool startSent_ = false;
  bool startReceived_ = false;
  bool closeSent_ = false;
  bool closeReceived_ = false;
  STPStatus status_;
};
