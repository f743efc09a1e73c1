// The two roads by which a transport calls upwards.
#pragma once

#include <cstdint>

class STPReceivedMessage;
class STPTransport;

/// Receiver of dispatched messages.
class ResponseListener {
 public:
  virtual ~ResponseListener() = default;
  /// `message` stays the transport's. `exclusive` says that this listener is the only one and that
  /// nobody waits for the message. False means: not taken, offer it again later.
  virtual bool handleMessage(STPReceivedMessage& message, bool exclusive) = 0;
  /// The connection has ended with messages put off that may never be offered again.
  virtual void connectionEnded() {}
};

/// Diverts packets to another transport before anybody looks into them.
class ForwardingHandler {
 public:
  virtual ~ForwardingHandler() = default;
  /// The transport that a packet for `destinationRN` is passed on to, or null to keep it here.
  virtual STPTransport* forwardTarget(std::int32_t destinationRN) = 0;
  /// More waits for `target` than it may hold, or no longer: those who send to it are stopped.
  virtual void congestionChanged(STPTransport* target, bool isCongested) {
    static_cast<void>(target);
    static_cast<void>(isCongested);
  }
};
