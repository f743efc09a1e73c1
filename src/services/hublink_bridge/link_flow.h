// The packets of one link on their way through a session: a stream in each direction, cut anywhere.
// A side may have kLinkWindow bytes under way on a link; then it waits for credit, which the other
// gives as the packets are written to its hub. So a slow plugin makes those wait who send to it,
// and nothing piles up on the way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "services/hublink_bridge/session.h"

namespace bridge {

/// Bytes that may be sent on a link before any credit has come.
inline constexpr std::uint32_t kLinkWindow = 4 << 20;
/// Credit is given in steps of at least this many bytes.
inline constexpr std::uint32_t kCreditStep = 256 << 10;
/// A packet that is larger gives back while it comes, or it would never be whole.
inline constexpr std::int64_t kLargePacket = kLinkWindow / 2;

struct FlowCounters {
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
};

/// What a stand-in has read from its hub, on the way to the other machine.
class OutgoingFlow {
 public:
  /// The session is to outlive it.
  OutgoingFlow(Session& session, std::uint32_t link) : session_(session), link_(link) {}
  ~OutgoingFlow();
  OutgoingFlow(const OutgoingFlow&) = delete;
  OutgoingFlow& operator=(const OutgoingFlow&) = delete;

  /// A run of whole packets with their fill. What can't go yet is kept.
  void send(const unsigned char* packets, std::size_t size);
  /// The stand-in isn't to be read: something is kept, or the next would be.
  bool isStopped() const;
  /// A CREDIT. False if it is malformed or more than was sent: the session is to end.
  bool takeCredit(const Frame& frame);
  /// Sends what is kept, as far as it may go; for when the session has room again.
  void sendMore();
  /// Sends a CLOSE behind all that is kept, perhaps later. Nothing is sent after this call.
  void close();
  /// The CLOSE is on its way.
  bool isClosed() const { return state_ == State::closed; }
  const FlowCounters& counters() const { return counters_; }

 private:
  enum class State { open, closing, closed };

  std::size_t sendSome(const unsigned char* bytes, std::size_t size);

  Session& session_;
  const std::uint32_t link_;
  std::uint32_t credit_ = kLinkWindow;
  State state_ = State::open;
  Bytes kept_;
  std::size_t keptAt_ = 0;  // where what has not been sent begins
  FlowCounters counters_;
};

/// Where the packets of a link leave.
class PacketOutlet {
 public:
  virtual ~PacketOutlet() = default;
  /// Queues whole packets for the hub, and gives the place of their end in all that was queued
  /// there. Calls nothing of the flow.
  virtual std::uint64_t passOn(const unsigned char* packets, std::size_t size) = 0;
};

/// What has come from the other machine, on the way to a stand-in's hub.
class IncomingFlow : private LargePackets::Taker {
 public:
  /// The session is to outlive it.
  IncomingFlow(Session& session, std::uint32_t link) : session_(session), link_(link) {}
  ~IncomingFlow() override;
  IncomingFlow(const IncomingFlow&) = delete;
  IncomingFlow& operator=(const IncomingFlow&) = delete;

  /// The link is up here: what has come so far, and what comes, goes to `outlet`, from and to these
  /// RNs. False as with take().
  bool start(PacketOutlet& outlet, std::int32_t sourceRN, std::int32_t destinationRN);
  /// Bytes of the stream, which are changed; whole packets among them are passed on where they lie.
  /// False if they are no packets or more than there was credit for: the session is to end.
  bool take(unsigned char* bytes, std::size_t size);
  /// All that was queued up to this place has been written.
  void written(std::uint64_t place);
  /// Nothing more is wanted here: what comes is dropped, but credit given for it, so that the other
  /// side gets on with its work.
  void drop();
  /// Nothing more will come: a packet that isn't whole is dropped, and no credit given.
  void close();
  /// Whether something that was passed on has not been written. Until then the link counts: who
  /// opens, fills and closes links in a row would else fill the memory.
  bool hasUnwritten() const { return !passed_.empty(); }
  const FlowCounters& counters() const { return counters_; }

 private:
  enum class State { open, dropping, closed };
  /// `postponed`: until the link's last one has been written.
  enum class Large { none, postponed, waits, granted };
  // A run that was passed on.
  struct Passed {
    std::uint64_t place;    // of its end
    std::uint32_t bytes;    // to be given back when it has been written
    std::int64_t reserved;  // for a large packet, else 0
  };

  void largePacketGranted() override;
  bool consume(unsigned char* bytes, std::size_t size);
  bool join(unsigned char*& bytes, std::size_t& size);
  bool lookAtJoining();
  void joined();
  void address(unsigned char* packet);
  void passOn(const unsigned char* packets, std::size_t size, std::size_t toGiveBack,
              std::int64_t reserved);
  void giveBackLarge();
  void reserveLarge();
  std::size_t forgetJoining();
  void giveBack(std::size_t bytes);

  Session& session_;
  const std::uint32_t link_;
  PacketOutlet* outlet_ = nullptr;
  std::int32_t sourceRN_ = 0;
  std::int32_t destinationRN_ = 0;
  State state_ = State::open;
  Bytes joining_;                // the beginning of a packet, or all before start()
  std::size_t joiningSize_ = 0;  // of the whole packet, 0: not known yet
  Large large_ = Large::none;    // whether that is a large one
  std::size_t givenBack_ = 0;    // of a large one
  std::uint32_t credit_ = kLinkWindow;
  std::uint32_t owed_ = 0;   // less than a step
  bool holdsLarge_ = false;  // one that was passed on isn't written
  std::deque<Passed> passed_;
  FlowCounters counters_;
};

}  // namespace bridge
