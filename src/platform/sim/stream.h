// One end of a connection in the simulated network, or a listening socket.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>

namespace platform::sim {

struct Stream {
  std::uint32_t address = 0;  ///< of the machine that it is on
  std::uint16_t port = 0;     ///< its own; 0 by name
  std::uint32_t user = 0;     ///< that its process acts as
  int owner = 0;              ///< the process that holds it; 0 before it was accepted
  int descriptor = -1;        ///< there

  // Listening.
  bool listening = false;
  std::string place;  ///< the world's key for it, or for whom it connects to
  std::deque<std::shared_ptr<Stream>> clients;  ///< not yet accepted

  // Connecting.
  bool connecting = false;
  std::uint64_t answerAt = 0;  ///< ms

  // Connected.
  std::weak_ptr<Stream> peer;  ///< gone once the other side has closed
  bool connected = false;
  bool withinMachine = false;  ///< both ends are on one
  bool byName = false;
  bool accepted = false;
  bool touched = false;  ///< this side has sent or read, or tried to
  std::uint32_t peerAddress = 0;
  std::uint32_t peerUser = 0;  ///< as it was when the connection was made
  std::string inbox;           ///< sent by the other side and not yet read
  std::size_t arrived = 0;     ///< bytes of it that a read can have
  bool ended = false;          ///< the other side sends no more
  bool reset = false;          ///< what is sent meets a reset, and so does a read at the end
  bool shutDown = false;       ///< this side has ended both directions
  bool sendingEnded = false;   ///< this side sends no more
  bool wantsRoom = false;      ///< a send was refused or cut
  bool roomComes = true;       ///< false while a cut send keeps its room back

  bool isReadable() const {
    if (listening) return !clients.empty();
    return connected && (arrived > 0 || isAtEnd());
  }
  bool isAtEnd() const { return (inbox.empty() && (ended || reset)) || shutDown; }
  /// Whether the system can tell whose process is at the other end.
  bool tellsUser() const {
    const auto other = peer.lock();
    return byName || (other && !other->sendingEnded);
  }
  /// Nothing goes either way any more. By name the end of the peer is that too.
  bool isBroken() const {
    return reset || shutDown || (ended && sendingEnded) || (byName && peer.expired());
  }
  std::size_t room(std::size_t size) const {
    const auto other = peer.lock();
    if (!other) return size;
    return other->inbox.size() < size ? size - other->inbox.size() : 0;
  }
};

}  // namespace platform::sim
