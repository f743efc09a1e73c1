// The roads by which a transport calls upwards.
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

/// Takes packets that others have relayed to this end, for who carries them on unread.
class PacketSink {
 public:
  virtual ~PacketSink() = default;
  /// Packets that came one behind the other, from one RN of another plugin's to one of this one's:
  /// `size` bytes in all, each packet with its fill. They are the transport's, and gone after the
  /// call, in which nothing may be served.
  virtual void takePackets(const unsigned char* packets, std::int64_t size) = 0;
};

/// Diverts packets to another transport before anybody looks into them.
class ForwardingHandler {
 public:
  virtual ~ForwardingHandler() = default;
  /// The transport that a packet for `destinationRN` is passed on to, or null to keep it here.
  virtual STPTransport* forwardTarget(std::int32_t destinationRN) = 0;
  /// Packets from the one RN to the other, which came one behind the other on `sender`, have been
  /// passed on; `bytes` with their headers and fill. Only forwardTarget has said that the second is
  /// anybody's.
  virtual void relayed(const STPTransport& sender, std::int32_t sourceRN,
                       std::int32_t destinationRN, std::int64_t packets, std::int64_t bytes) {
    static_cast<void>(sender);
    static_cast<void>(sourceRN);
    static_cast<void>(destinationRN);
    static_cast<void>(packets);
    static_cast<void>(bytes);
  }
  /// `target` doesn't keep up with what is sent to it, or has taken nearly all of it since.
  virtual void slownessChanged(STPTransport* target, bool isSlow) {
    static_cast<void>(target);
    static_cast<void>(isSlow);
  }
  /// More waits for `target` than it may hold, or no longer: those who send to it are stopped.
  virtual void congestionChanged(STPTransport* target, bool isCongested) {
    static_cast<void>(target);
    static_cast<void>(isCongested);
  }
};
