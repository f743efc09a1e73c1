// The message brokers that are measured beside the hub: how each is started, and what a client of
// each can do. What is sent and timed is the same for all and knows nothing of their protocols.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/waiting_socket.h"

using Message = std::span<const unsigned char>;

/// The two processes that a broker stands between.
enum class PeerEnd { driver, farEnd };

/// Where a broker runs. One that needs a single port leaves the other alone.
struct BrokerPlace {
  std::string directory;  ///< for its files; it is empty at first
  std::uint16_t port = 0;
  std::uint16_t otherPort = 0;
};

/// One end's connection to a broker. Whatever it sends goes to the other end and nobody else.
class PeerClient {
 public:
  virtual ~PeerClient() = default;

  /// Why the last call gave false.
  virtual const std::string& failure() const = 0;
  /// Notes why the other end can't be trusted any more; false.
  virtual bool fail(const char* what) = 0;

  /// Sends one message at once.
  virtual bool send(Message payload) = 0;
  /// Makes the messages that sendPrepared sends: all of one size, in no more than one write.
  virtual void prepare(const std::vector<Bytes>& payloads) = 0;
  /// Sends the first `count` of them.
  virtual bool sendPrepared(std::size_t count) = 0;
  /// Waits for a message and gives all that came with it, valid until the next call. A `patient`
  /// call waits without limit.
  virtual bool receive(std::vector<Message>& messages, bool patient) = 0;
};

struct PeerKind {
  const char* option;   ///< its name on the command line
  const char* title;    ///< in the table
  const char* program;  ///< the broker's executable; null: this program, in a role of that name
  /// Its arguments. Writes its configuration.
  std::vector<std::string> (*arguments)(const BrokerPlace& place);
  /// Connects, and returns when messages for this end would reach it; null with a text in `error`.
  std::unique_ptr<PeerClient> (*connect)(const BrokerPlace& place, PeerEnd end, std::string& error);
};

extern const PeerKind kNats, kMosquitto, kDBus, kZeroMQ;
inline constexpr std::array kPeerKinds{&kNats, &kMosquitto, &kZeroMQ, &kDBus};

/// The address at which messages reach an end; a word of one letter.
inline const char* addressOf(PeerEnd end) {
  return end == PeerEnd::driver ? "d" : "f";
}
inline const char* addressOfOther(PeerEnd end) {
  return addressOf(end == PeerEnd::driver ? PeerEnd::farEnd : PeerEnd::driver);
}

/// The zeromq kind's broker: passes messages on between its two ports until it is ended.
int runZeroMQProxy(const BrokerPlace& place);
