// One end of an STP connection, in parts that don't know each other:
//
//        callers              listeners           other transports
//           | messages            ^ messages             ^ packets
//           v                STPDelivery                 |
//    STPWriteFields               ^                      |
//    or STPWriteQueue,            +---- STPReadBuffer ---+
//    with an STPBacklog                       ^
//           v                                 |
//    what this end is joined to (Link): another transport in memory, or a socket
//
// Everything above works with whole messages, everything below is non-blocking socket calls. The
// object is counted. It runs on one thread; what looks like concurrency is re-entry: a listener may
// wait, a wait runs the service loop, and the loop delivers further messages, to this transport or
// another, while the listener is on the stack.
//
// The operations stand by subject in stp_transport_*.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "libcxxutil/ut_retryhandler.h"
#include "libcxxutil/ut_wait.h"
#include "stp_transport/message/stp_received_message.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/response_listener.h"
#include "stp_transport/transport/stp_backlog.h"
#include "stp_transport/transport/stp_byte_block.h"
#include "stp_transport/transport/stp_delivery.h"
#include "stp_transport/transport/stp_read_buffer.h"
#include "stp_transport/transport/stp_status.h"
#include "stp_transport/transport/stp_transport_set.h"
#include "stp_transport/transport/stp_write_fields.h"
#include "stp_transport/transport/stp_write_queue.h"
#include "stp_transport/wire/stp_wire.h"

class STPChannel;
class STPListener;

/// Initial size in bytes of both buffers of every transport in this system.
inline constexpr std::int32_t STP_BUFFER_SIZE = 32768;
static_assert(STP_BUFFER_SIZE == STP_SMALL_BLOCK);
/// Milliseconds of one service step in a blocking wait that has no handler.
inline constexpr int STP_WAIT_STEP = 10000;

class STPTransport {
 public:
  /// `initialSize` is the size in bytes of both buffers when they hold little.
  explicit STPTransport(std::int32_t initialSize = STP_BUFFER_SIZE);
  STPTransport(const STPTransport&) = delete;
  STPTransport& operator=(const STPTransport&) = delete;

  // --- Life ---
  void addRef();
  /// Deletes the object when the last reference goes.
  void release();
  /// Not owned; null takes it off.
  void setForwardingHandler(ForwardingHandler* handler) { forwardingHandler_ = handler; }
  /// Gives all packets for RNs above the link's own addresses to `sink` instead of delivering them.
  /// Not owned; null takes it off.
  void setPacketSink(PacketSink* sink) { packetSink_ = sink; }

  // --- State ---
  /// A number that no other transport of this process has had.
  std::uintptr_t serial() const { return serial_; }
  /// Outcome of the latest operation.
  const STPStatus& status() const { return status_; }
  void clearStatus() { status_.clear(); }
  /// The descriptor is no socket: it is closed without a shutdown.
  void setPlainFD() { plainFD_ = true; }
  bool isConnected() const { return link_ >= Link::paired; }
  bool isListening() const { return link_ == Link::listening || link_ == Link::clientWaiting; }
  bool isClosed() const { return link_ == Link::closed; }
  bool isInProcess() const { return link_ == Link::paired; }
  /// The connected or listening socket, else -1.
  int fileDescriptor() const { return fd_; }
  /// More bytes wait to be written than the limit allows: until half of that has gone those who
  /// send to it aren't read, and what it asks of this end itself isn't handled.
  bool isCongested() const { return backlog_.isFull(); }
  /// Since when the peer hasn't kept up with what is sent to it, in ms of the steady clock; 0 if it
  /// does.
  std::uint64_t slowSince() const { return backlog_.slowSince(); }
  /// The serial number of the transport for whose sake this one isn't read at present, or 0.
  std::uintptr_t waitsFor() const { return isStalled() ? stall_.on : 0; }
  /// Has this one wait like a sender to `target`, to which something was queued on its behalf, if
  /// that is congested or holds its senders up.
  void waitFor(const STPTransport& target);
  /// Whether this one isn't read, since it waits for such a target.
  bool isStalled() const;
  /// Has this end not be read until told otherwise; what has been read waits too. The end of the
  /// connection is seen all the same.
  void setReading(bool flag);
  bool isWritePending() const { return hasSocket() && !writeQueue_.empty(); }
  /// Type and id of the last packet queued, each pointer optional; false if there was none.
  bool lastQueued(std::uint32_t* type, std::uint32_t* id) const;
  /// Dotted addresses of the other and of this end, owned by the transport and cached until the
  /// connection closes; null if not connected or not to be had.
  const char* peerName();
  const char* localName();
  /// Bytes waiting to go out, and the capacities for those and for input, for those who watch
  /// memory.
  std::int64_t writeCount() const { return fields_.count + writeQueue_.count(); }
  std::int64_t writeCapacity() const {
    return hasSocket() ? writeQueue_.capacity() : fields_.capacity;
  }
  std::int64_t readCapacity() const { return input_.capacity(); }

  // --- Bytes and closing (stp_transport_bytes.cpp) ---
  /// One non-blocking step each.
  void handleWrite(STPStatus* status = nullptr);
  void handleRead(STPStatus* status = nullptr);
  /// Closes the connection. The object stays and can be connected again.
  void disconnect(STPStatus* status = nullptr);

  // --- Packets (stp_transport_packets.cpp) ---
  std::unique_ptr<STPMessage> newMessage(std::int32_t source, std::int32_t destination,
                                         std::uint32_t type, std::uint32_t id, std::uint32_t flags);
  std::unique_ptr<STPMessage> newResponse(std::int32_t source, std::int32_t destination,
                                          std::uint32_t responseTo, std::uint32_t flags);
  /// The packet's sequence number, or 0 with a failure in status() if the message has no type or is
  /// larger than STP_MAX_PACKET_SIZE. Whether the transport is connected doesn't matter. The
  /// message's bytes are copied.
  std::uint32_t enqueueMessage(STPMessage& message);
  /// Queues whole packets as they stand, `size` bytes with the fill of each.
  void queuePackets(const unsigned char* packets, std::int64_t size);
  /// Queues and writes all of it, waiting if need be; the sequence number, or 0. Unless the message
  /// is one-way, awaitResponse must follow: it closes the call that this opens.
  std::uint32_t sendMessage(STPMessage& message, RetryHandler* retry, STPStatus* status = nullptr);
  /// Queues and tries to write at most `attempts` times, without waiting.
  std::uint32_t postMessage(STPMessage& message, int attempts, STPStatus* status = nullptr);
  /// Writes what has been queued on any transport, as far as that goes at once. Closes none.
  static void flushMarked();
  /// Takes the packets that the read buffer holds and delivers what has been put off.
  void parseInput();

  // --- Delivery (stp_transport_delivery.cpp) ---
  /// `source` and `destination` as they stand in an incoming header. A null listener is ignored.
  void addListener(std::int32_t source, std::int32_t destination, ResponseListener* listener,
                   std::uint32_t type) {
    delivery_.addListener(source, destination, listener, type);
  }
  void removeListener(ResponseListener* listener) { delivery_.removeListener(listener); }
  void dispatchMessage(std::unique_ptr<STPReceivedMessage> message);
  /// Whether a message may run now or must wait for its turn.
  bool canDeliver(const STPReceivedMessage& message) const { return delivery_.canDeliver(message); }
  /// The first message of this kind that was put off, which is now the caller's, or null.
  std::unique_ptr<STPReceivedMessage> takeDeferred(std::int32_t source, std::int32_t destination,
                                                   std::uint32_t type) {
    return delivery_.takeDeferred(source, destination, type);
  }
  /// Whether there is parsing or delivery to be done that no socket event will announce.
  bool hasDeliverable() const;
  /// The response to `sequence`, or null with the reason in the status. Closes the call that
  /// sendMessage opened, whatever the result.
  std::unique_ptr<STPReceivedMessage> awaitResponse(std::uint32_t sequence, RetryHandler* retry,
                                                    STPStatus* status = nullptr);
  /// Dispatches again the first message that found no listener; false if there is none.
  bool redispatchUnclaimed(std::int32_t source, std::int32_t destination, std::uint32_t type);
  void enterCall(std::uint32_t chain, std::uint32_t depth, std::uint32_t flags) {
    delivery_.enterCall(chain, depth, flags);
  }
  void leaveCall() { delivery_.leaveCall(); }
  const STPCallContext& currentContext() const { return delivery_.currentContext(); }
  const STPCallContext& requestContext() { return delivery_.requestContext(lastSequence_ + 1); }
  void setChainSite(std::uint16_t site) { delivery_.setChainSite(site); }

  // --- Sockets (stp_transport_sockets.cpp) ---
  /// By either road (stp_socket.h), or by TCP alone.
  void connect(const char* host, std::uint16_t port, STPStatus* status = nullptr,
               bool takesLocalRoad = true);
  /// Opens a port, waits for one client, becomes its transport and closes the port.
  void listen(std::uint16_t port, RetryHandler* retry, STPStatus* status = nullptr);
  void listenOnFD(int fd, bool closeListener, RetryHandler* retry, STPStatus* status = nullptr);
  /// Begins listening without waiting.
  void startListenOnFD(int fd, STPStatus* status = nullptr);
  /// The same on both sockets of a listener, which must stay open for as long.
  void startListenOn(const STPListener& listener, STPStatus* status = nullptr);
  /// Ends listening; the socket stays open and is the caller's alone.
  void stopListening();
  /// Whether a client was accepted. Nobody being there is no failure.
  bool tryAccept(bool closeListener, STPStatus* status = nullptr);
  /// Becomes the transport of a connected socket, which it then owns.
  void bindFD(int fd, STPStatus* status = nullptr);
  /// listen or bindFD, then serves until the connection ends.
  void serveOnPort(std::uint16_t port, STPStatus* status = nullptr);
  void serveOnFD(int fd, STPStatus* status = nullptr);

  // --- Service (stp_transport_service.cpp) ---
  /// One step: waits up to `timeout` ms for this transport, then writes and reads.
  void serviceOnce(int timeout, STPStatus* status = nullptr);
  /// Whether such a step has something to do without waiting.
  bool hasToStep() const { return canWrite() || canRead() || hasDeliverable(); }
  /// Before the end of all of them: writes what is queued, for at most `milliseconds`. Whatever
  /// comes meanwhile to those that have something queued is dropped, and they only remain to be
  /// disconnected.
  static void takeLeave(const STPTransportSet& transports, int milliseconds);

  // --- Sync and channels (stp_channel.cpp) ---
  /// A barrier: sends one packet and waits for the peer's.
  void awaitSync(std::int32_t local, std::int32_t remote, RetryHandler* retry,
                 STPStatus* status = nullptr);
  /// The channel, owned by the caller, or null.
  STPChannel* createChannel(std::int32_t local, std::int32_t remote, RetryHandler* retry,
                            STPStatus* status = nullptr);

  // --- Pairs in one process (stp_transport_inprocess.cpp) ---
  using Notify = void (*)(std::uintptr_t argument);
  static bool createInProcessPair(STPTransport** a, STPTransport** b);
  static bool connectInProcess(STPTransport* a, STPTransport* b);
  /// Joins a transport to write fields that live elsewhere, closing what it was connected to;
  /// `notify` tells the other side to read. The end of that side isn't seen from here, unless it is
  /// a transport of this process that has been joined to this one's fields.
  static void attachInProcess(STPTransport* transport, std::int64_t* peerWriteOffset,
                              std::int64_t* peerWriteCount, std::int64_t* peerWriteCapacity,
                              unsigned char** peerWriteBuffer, Notify notify,
                              std::uintptr_t notifyArgument);
  void inProcessEndpoints(std::int64_t** writeOffset, std::int64_t** writeCount,
                          std::int64_t** writeCapacity, unsigned char*** writeBuffer);
  /// A function and an argument that run handleRead on `transport` if it still exists.
  static void pumpFor(const STPTransport* transport, Notify* function, std::uintptr_t* argument);

 private:
  friend class STPChannel;
  friend void serviceFirst(int timeout, const STPTransportSet& transports, STPStatus* status);

  /// What this end is joined to. The order counts: from `paired` on it is connected, from
  /// `connected` on by a socket, and behind that there is nothing more to come than the peer's last
  /// words.
  enum class Link : std::uint8_t {
    closed,         ///< to nothing: it may become any of the next
    listening,      ///< to a listening socket
    clientWaiting,  ///< the same, and somebody has been seen there
    paired,         ///< to another transport, in memory
    connected,      ///< to a peer, by a socket
    abandoned,      ///< its peer is known to have gone, without its end having been read
    draining,       ///< a write has failed: it is read to its end before it is closed, since the
                    ///< peer's last words may still lie in the socket
  };

  /// What an end in memory knows of the other.
  struct Pair {
    STPPeerFields fields;
    STPTransport* partner = nullptr;  ///< if it is one of this process's
    Notify notify = nullptr;          ///< tells it to read
    std::uintptr_t argument = 0;
  };
  /// The receiver that this end waits for, without being read meanwhile.
  struct Stall {
    std::uintptr_t on = 0;   ///< its serial number, or 0
    std::uint32_t turn = 0;  ///< which of its holds
    bool isListed = false;   ///< stands in the process's list of those who aren't read
  };
  enum class WriteResult { nothing, wrote, blocked, failed };

  using Hold = CountedPtr<STPTransport>;
  using ChannelKey = std::pair<std::int32_t, std::int32_t>;

  ~STPTransport();

  // --- The link ---
  bool hasSocket() const { return link_ >= Link::connected; }
  void watchForClients(int fd);
  int takeClient(bool closeListener);
  void endListening();
  /// Events of a descriptor are this transport's from now on, or nobody's.
  void claim(int fd);
  void disclaim(int fd);
  void findPartner();
  void leavePair();
  void closeConnection();
  void closeWithFailure(std::int32_t code, const char* text);
  void copyStatus(STPStatus* status) const;

  // --- Bytes ---
  void queueBytes(const unsigned char* bytes, std::int64_t count, std::int64_t fill = 0);
  void markUnflushed();
  bool canWrite() const;
  WriteResult writeOnce();
  std::int64_t sendWaiting(const unsigned char* bytes = nullptr, std::int64_t count = 0);
  STPStatus writeFailure() const;
  void closeAfterWriteFailure();
  void drainThenClose(STPStatus* status);
  bool canRead() const;
  bool receiveFromSocket();
  bool receiveInProcess();

  // --- Packets ---
  /// A relay reads no more than it handles.
  bool mustHandleFirst() const { return forwardingHandler_ && input_.hasInput(); }
  STPTransport* targetOf(const unsigned char* packet) const;
  bool isFrontForThisEnd() const;
  STPPacketTest passOnFront();
  void forwardRun(STPTransport& target, std::int64_t count, bool isLast);
  void deliverFront(const STPPacketTest& test);
  bool isForSink() const;
  void giveFrontToSink(const STPPacketTest& test);

  // --- Those who wait for others ---
  void noteQueued();
  void noteWritten(std::int64_t count);
  void setCongested(bool flag);
  void endHold();
  bool isOverfull() const;
  static void lookAtStopped();

  // --- Steps ---
  /// Has steps on sets look at this transport. To be called wherever something to do may have
  /// arisen; looking in vain costs little.
  void attend();
  bool needsAttention() const;
  void restAt(std::size_t place);
  /// Has the transports that the readiness set has news of looked at.
  static void attendNews();
  static bool waitForNews(int timeout, bool& failed);
  void serveReady(STPStatus* status);
  bool leaveStep(bool& hasEndedSending);
  /// Waits until `done`, which is asked as long as nothing fails. A failure stands in the status.
  WaitState waitUntil(RetryHandler* retry, WaitOrder order, const std::function<bool()>& done);

  // --- Sync and channels ---
  void handleChannelPacket(const STPReceivedMessage& message);
  void recordSync(const STPReceivedMessage& message);
  bool takeSync(std::int32_t source, std::int32_t destination);
  void queueControl(std::int32_t local, std::int32_t remote, std::uint32_t type, std::uint32_t id);
  void dropChannels();

  std::int32_t refCount_ = 1;
  bool dying_ = false;
  bool attended_ = false;   // stands in the process's list of those that may have something to do
  bool unflushed_ = false;  // stands in the process's list of those to be flushed
  std::uintptr_t serial_ = 0;
  STPStatus status_;

  Link link_ = Link::closed;
  int fd_ = -1;           // of the link, if it has a socket
  int localFD_ = -1;      // beside it, if it listens by both roads
  bool plainFD_ = false;  // it is no socket
  int writeError_ = 0;    // the system's, or 0 for an end: why it is draining
  Pair pair_;
  std::string peerName_;
  std::string localName_;

  STPWriteFields fields_;     // what waits for the other end of a pair, or for a connection
  STPWriteQueue writeQueue_;  // what waits for a socket
  STPBacklog backlog_;        // how that keeps up, and whether others wait for it
  Stall stall_;               // whom this one waits for itself
  std::uint32_t lastSequence_ = 1;
  std::uint32_t lastType_ = 0;  // 0 for none: no packet has that
  std::uint32_t lastId_ = 0;

  STPReadBuffer input_;
  ForwardingHandler* forwardingHandler_ = nullptr;
  PacketSink* packetSink_ = nullptr;
  bool isPaused_ = false;  // not to be read
  STPDelivery delivery_;
  std::list<std::pair<std::int32_t, std::int32_t>> syncs_;  // source and destination
  std::map<ChannelKey, STPChannel*> channels_;
};

inline bool STPTransportOrder::operator()(const STPTransport* a, const STPTransport* b) const {
  return a->serial() < b->serial();
}

/// One step for a set of transports: waits up to `timeout` ms for the first event, then serves
/// every transport that is ready. Handlers may add to the set and take transports out of it, which
/// must leave it before they go.
void serviceFirst(int timeout, const STPTransportSet& transports, STPStatus* status = nullptr);
