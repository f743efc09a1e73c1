// One end of a connection between two plugins through the hub.
//
// Two kinds of traffic may travel on a link: packets of plain bytes, and the messages of an
// interface of one's own, by an object of a class that stpc has made. A link ends when either side
// closes it, when the other plugin goes, or with the connection to the hub; whoever waits on it for
// an answer then fails at once.
//
// Links are shared: the plugin keeps those that are up, a program keeps those that it uses. One
// that has ended stays a valid object that sends nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "stp_transport/transport/counted_ptr.h"

class HublinkPlugin;
class STPReceivedMessage;
class STPSpecClass;
class STPTransport;
namespace hublink {
class InterfaceCore;
}

/// What came of a packet that was to be queued without waiting.
enum class SendOutcome {
  sent,    ///< it is queued
  full,    ///< too much is queued before it
  failed,  ///< the link has ended, or the packet is too large
};

class HublinkLink : public std::enable_shared_from_this<HublinkLink> {
 public:
  using PacketHandler = std::function<void(const unsigned char* bytes, std::size_t size)>;
  using EndHandler = std::function<void()>;
  using RoomHandler = std::function<void()>;
  using Packet = std::vector<unsigned char>;

  HublinkLink(const HublinkLink&) = delete;
  HublinkLink& operator=(const HublinkLink&) = delete;
  ~HublinkLink();

  /// RNs of this end and of the other.
  std::int32_t localRN() const { return localRN_; }
  std::int32_t remoteRN() const { return remoteRN_; }
  std::int32_t peerPluginID() const { return peerPluginID_; }
  const std::string& serviceName() const { return serviceName_; }
  bool isUp() const { return up_; }

  /// Queues a copy of one packet of `size` bytes; the next step of the plugin's loop writes it, or
  /// flush(). Once as much is queued as the plugin's limit allows (HublinkPlugin::setSendLimit),
  /// waits until half of that has gone, and serves the plugin meanwhile. A packet handler that
  /// waits so isn't overtaken: packets that come then are kept, and handled behind it, on all
  /// links. False if the link has ended, also in the wait, or the packet is too large (a little
  /// less than 256 MiB is the most).
  bool send(const void* bytes, std::size_t size);
  /// The same, but says so in place of waiting.
  SendOutcome trySend(const void* bytes, std::size_t size);
  /// Called from the plugin's loop, once after each time that trySend() has found it full, when
  /// half of the limit has gone.
  void onRoom(RoomHandler handler) { roomHandler_ = std::move(handler); }
  /// Writes what is queued as far as it goes without waiting.
  void flush();
  /// Called with each packet that arrives, which is gone after the call. Packets that came before
  /// are handed over at once.
  void onPacket(PacketHandler handler);
  /// The next packet, for a program without a handler: waits up to `milliseconds` (negative: no
  /// limit). False if none came or the link has ended with none left.
  bool receive(Packet& packet, int milliseconds);
  /// Called once when the link ends by the other side or with the connection, not by close(); at
  /// once if it has ended already.
  void onEnd(EndHandler handler);

  /// Puts one side of an interface onto this link, which takes in a record that the other end has
  /// sent already. Both ends then negotiate (`spec->negotiate(...)`); when the link ends the
  /// object's virtual connection closes, so that a call that waits fails; messages that the
  /// call has put off come after that. The link holds a reference to it until then. On a link that
  /// has ended the virtual connection closes at once.
  void attach(STPSpecClass* spec);

  /// Ends the link; the other side is told.
  void close();

 private:
  friend class HublinkPlugin;
  friend class hublink::InterfaceCore;
  HublinkLink(HublinkPlugin* plugin, std::int32_t localRN, std::int32_t remoteRN,
              std::int32_t peerPluginID, std::string serviceName, bool ownsRN);

  /// Hears of the packets that arrive.
  class Listener;
  /// Waits for room for one message more; false if the time is up or the link has ended.
  bool awaitRoom(int milliseconds);
  bool queue(const void* bytes, std::size_t size);
  void callHandler(const unsigned char* bytes, std::size_t size);
  /// Hands over a packet that has been put off.
  void take(const Packet& packet);
  void tellRoom();
  void arrive(const STPReceivedMessage& message);
  /// Takes the packets that the transport has put off; a handler may close the link meanwhile.
  void takeRest();
  /// Takes the link down on this side, without a word to the other.
  void end();
  /// The last of it, when all that came before has been handed over.
  void tellEnd();

  HublinkPlugin* plugin_;  // null once the link has ended and that was told
  CountedPtr<STPTransport> transport_;
  std::unique_ptr<Listener> listener_;
  std::int32_t localRN_;
  std::int32_t remoteRN_;
  std::int32_t peerPluginID_;
  std::string serviceName_;
  bool ownsRN_;  // the local RN was made for this link and goes with it
  bool up_ = true;
  PacketHandler packetHandler_;
  EndHandler endHandler_;
  RoomHandler roomHandler_;
  bool awaitsRoom_ = false;  // stands among the plugin's links that are to be told
  std::deque<Packet> inbox_;
  std::vector<CountedPtr<STPSpecClass>> specs_;
};
