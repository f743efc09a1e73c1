// A session joins two bridges: a stream of frames in each direction that arrives whole, in order
// and once, over a carrier of messages that may lose, double, delay, reorder, and be away for a
// while; or it ends. Each bridge opens sessions of its own for the links that its plugins ask for,
// so between two machines there are up to two.
//
// It has no clock and no carrier: time comes in as milliseconds of any clock that doesn't go
// backwards, messages go out through SessionHost. Nothing happens between two calls. Its memory is
// bounded whatever the other side does: by the window, and by what hasRoom() lets wait.
//
// Frames are gathered in the message that they will leave in, which is kept until the other side
// has it: each byte is copied once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "services/hublink_bridge/frames.h"
#include "services/hublink_bridge/large_packets.h"
#include "services/hublink_bridge/message_buffers.h"

namespace bridge {

class Session;

class SessionHost {
 public:
  virtual ~SessionHost() = default;
  /// Hands a message to the carrier, which copies it. False without a connection at present.
  virtual bool transmit(Session& session, const unsigned char* message, std::size_t size) = 0;
  /// The next frame of the other side's, OPEN only at the acceptor and OPENED only at the
  /// initiator. Its body is gone after the call, in which frames may be sent and the session may be
  /// ended. A frame for a link that isn't known is passed over with Session::countStray(): its
  /// CLOSE may have crossed it.
  virtual void frameArrived(Session& session, const Frame& frame) = 0;
  /// hasRoom() has become true again; told by flush().
  virtual void roomAgain(Session& session) { static_cast<void>(session); }
  /// The last call, exactly one for each session. The session is still to be there when this
  /// returns: delete it later.
  virtual void sessionEnded(Session& session, const std::string& why) = 0;
};

struct SessionOptions {
  std::int64_t grace = 10000;          ///< milliseconds that the carrier may be away
  std::size_t maxMessage = 128 << 10;  ///< bytes that the carrier takes; at least kLeastMaxMessage
  std::uint32_t window = 256 << 10;    ///< see setWindow()
};

/// Bytes and messages count the first time that they are sent, and only when they are taken.
struct SessionCounters {
  std::uint64_t sentMessages = 0;
  std::uint64_t sentBytes = 0;  ///< of frames
  std::uint64_t resentMessages = 0;
  std::uint64_t receivedMessages = 0;
  std::uint64_t receivedBytes = 0;
  std::uint64_t droppedMessages = 0;  ///< came twice, or before their turn
  std::uint64_t strayFrames = 0;      ///< for links that are not known (any more)
};

class Session {
 public:
  /// Bounds of a window: less is taken for nonsense, more isn't made use of.
  static constexpr std::uint32_t kMinWindow = 64 << 10;
  static constexpr std::uint32_t kMaxWindow = 8 << 20;
  /// What each side has until the other has told.
  static constexpr std::uint32_t kStartWindow = 256 << 10;
  /// Milliseconds that a machine may be silent beyond the grace: the side that was cut off has to
  /// notice that and to come back.
  static constexpr std::int64_t kSilence = 5000;
  /// A carrier that takes no more than this in a message is of no use.
  static constexpr std::size_t kLeastMaxMessage = kMaxBody + kFrameHeadSize + kMessageHeadSize;

  /// `id` is random and the initiator's; an acceptor takes it from a message with kFirst. `host`
  /// stays the caller's.
  Session(std::string machine, std::uint64_t id, bool isInitiator, SessionHost& host,
          const SessionOptions& options, std::int64_t now);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const std::string& machine() const { return machine_; }
  std::uint64_t id() const { return id_; }
  bool isInitiator() const { return isInitiator_; }
  bool hasEnded() const { return hasEnded_; }
  /// Bytes of its largest messages.
  std::size_t maxMessage() const { return maxMessage_; }

  /// Queues a frame until flush(). DATA is cut to the size of messages and takes any size, but is
  /// to wait for hasRoom(). False if a body is larger than kMaxBody, and after the end.
  bool send(FrameKind kind, std::uint32_t link, const unsigned char* body = nullptr,
            std::size_t size = 0);
  bool send(FrameKind kind, std::uint32_t link, const Bytes& body) {
    return send(kind, link, body.data(), body.size());
  }
  /// Whether DATA may be queued: what waits would leave at once, or is little.
  bool hasRoom() const;
  /// The end of a turn: what the window allows goes out, and with it, or alone if it is time, the
  /// acknowledgement of what has come.
  void flush(std::int64_t now);

  /// A message that bears this session's id, from its machine. Its bytes may be changed.
  void take(unsigned char* message, std::size_t size, std::int64_t now);
  /// The machine has sent something else.
  void heard(std::int64_t now) { heardAt_ = now; }
  /// Tells a change, and at first if there is no carrier. After a cut all goes out again.
  void carrierChanged(bool isUp, std::int64_t now);
  /// Does what is due. Gives the milliseconds until there is more to do, -1 after the end.
  std::int64_t step(std::int64_t now);
  /// No frame has passed for some time, and none is under way: it may end if nobody needs it.
  bool isAtRest(std::int64_t now) const;
  /// Ends it; the other side is told by one message that may be lost.
  void end(const std::string& why, bool tellsPeer);

  /// The most bytes that the other side may have under way, brought to the bounds above; told with
  /// the next message, unless less comes in some seconds.
  void setWindow(std::uint32_t bytes);
  /// Shares out what links with large packets may have in hand.
  LargePackets& largePackets() { return largePackets_; }
  /// Bytes more or less that links keep until they may be sent. Far too many end the session.
  void noteKept(std::ptrdiff_t bytes) { kept_ += bytes; }
  const SessionCounters& counters() const { return counters_; }
  void countStray() { ++counters_.strayFrames; }
  /// Smoothed round trip, the other side's leisure to acknowledge included; -1: not known yet.
  std::int64_t roundTrip() const { return roundTrip_; }

  // --- For who keeps the table of sessions ---
  /// The answer to a message for a session that isn't there, unless that is a reset itself or has
  /// kFirst and opens one.
  static std::array<unsigned char, kMessageHeadSize> resetMessage(std::uint64_t id);

 private:
  struct Message {
    Bytes bytes;
    std::int64_t sentAt = 0;
    bool isResent = false;
    bool isTried = false;  // it may have left: what is in it stays as it is
  };

  // What comes.
  bool takeAck(const MessageHead& head, std::int64_t now);
  void takeFrames(const MessageHead& head, unsigned char* frames, std::size_t size,
                  std::int64_t now);
  bool isWellFormed(unsigned char* frames, std::size_t size) const;
  void measureRoundTrip(const Message& message, std::int64_t now);
  void fitWindow(std::size_t size, std::int64_t now);
  void missed();
  void breakOff(const char* why);
  // What goes.
  Message& openMessage(std::size_t need);
  void append(Message& message, FrameKind kind, std::uint32_t link, const unsigned char* body,
              std::size_t size);
  void appendBytes(Bytes& message, const unsigned char* bytes, std::size_t size);
  void sendData(std::uint32_t link, const unsigned char* bytes, std::size_t size);
  void writeOut(std::int64_t now);
  bool transmitAgain(std::size_t index, std::int64_t now);
  bool transmit(unsigned char* message, std::size_t size, std::uint64_t sequence, std::int64_t now);
  void transmitAck(std::int64_t now);
  void sendAllAgain(std::int64_t now);
  bool tellRoom();
  bool mayLeave(const Message& message) const;
  bool isAwayTooLong(std::int64_t now);
  void setPatience(std::int64_t milliseconds);

  const std::string machine_;
  const std::uint64_t id_;
  const bool isInitiator_;
  SessionHost& host_;
  const std::int64_t grace_;
  const std::size_t maxMessage_;
  bool hasEnded_ = false;
  SessionCounters counters_;
  LargePackets largePackets_;

  // Messages from the one that the other side is known to lack on: first those that have left, then
  // those that wait, to the last of which frames are still added.
  std::deque<Message> messages_;
  std::uint64_t firstSequence_ = 1;  // of messages_.front()
  std::size_t sent_ = 0;             // how many of messages_ have left
  std::size_t again_ = 0;            // those from here to sent_ are to leave once more
  std::size_t underWay_ = 0;         // bytes of frames in those that have left
  std::size_t waiting_ = 0;          // and in the others
  std::size_t openData_ = 0;         // place of the DATA at the end of the last message, 0: none
  std::ptrdiff_t kept_ = 0;          // bytes that links haven't handed over
  bool isFull_ = false;              // and the host has to hear when it isn't any longer
  std::uint32_t openLink_ = 0;       // of that
  MessageBuffers buffers_;

  // What the other side has told.
  bool isPeerKnown_ = false;
  std::uint32_t peerWindow_ = kStartWindow;
  std::uint64_t windowSequence_ = 0;  // of the message that told it, for one that comes late

  // What has come.
  std::uint64_t expected_ = 1;
  std::uint64_t missedAt_ = 0;  // the gap that the other side was told of
  std::uint32_t mostWindow_;
  std::uint32_t window_;
  std::uint32_t widestWindow_;  // that the other side may go by
  std::size_t measured_ = 0;    // bytes that have come since then
  std::int64_t measuredSince_;
  std::size_t unackedBytes_ = 0;
  std::size_t unackedMessages_ = 0;
  bool isAckWanted_ = false;  // at the end of this turn
  bool isNakWanted_ = false;

  // Times; kNever for none.
  static constexpr std::int64_t kNever = INT64_MAX;
  bool isUp_ = true;
  std::int64_t downSince_ = 0;
  std::int64_t heardAt_;
  std::int64_t spokeAt_;  // when a message left
  std::int64_t movedAt_;  // when a frame did, or came
  std::int64_t ackDue_;
  std::int64_t retryDue_;     // the carrier has refused
  std::int64_t allAgainDue_;  // a NAK that came too soon after another
  std::int64_t noneAgainBefore_;
  std::int64_t oldestAt_ = 0;  // when the oldest left, or became the oldest
  bool isProbing_ = false;     // the oldest has gone again, and nothing was heard of it
  std::int64_t patience_;      // until it goes again
  std::int64_t roundTrip_ = -1;
};

}  // namespace bridge
