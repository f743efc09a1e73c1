// Whose process is at the other end of a connection within this machine. The system is asked, not
// the peer.
#pragma once

#include <cstdint>
#include <string>

#include "platform/socket.h"

namespace platform {

/// The system's number of a user.
using UserId = std::uint32_t;
inline constexpr UserId kRoot = 0;

/// The user that this process acts as.
UserId currentUser();

/// What is known of the process at the other end.
struct PeerUser {
  enum class Kind {
    elsewhere,  ///< it isn't on this machine
    known,      ///< it acts as `user`, or did when the connection was made
    unknown,    ///< it is on this machine, and the system can't tell, or it has closed already
  };
  Kind kind = Kind::unknown;
  UserId user = 0;           ///< only if known
  bool byName = false;       ///< the connection is one by name
  std::int32_t process = 0;  ///< 0 unless the system tells it, which it does of those by name

  /// A process of this user or of root, who could do what it asks for anyway.
  bool isOwn() const { return kind == Kind::known && (user == currentUser() || user == kRoot); }
};

/// Of a connection that was accepted: who has made it.
PeerUser userOfClient(Socket accepted);
/// The same of one over TCP whose socket a library keeps to itself, by the IPv4 addresses and the
/// ports of both its ends. On a simulated machine it is never known.
struct TcpEnd {
  std::string address;
  std::uint16_t port = 0;
};
PeerUser userOfClient(const TcpEnd& client, const TcpEnd& own);
/// Of a connection that was made: who has accepted it, or listens there and is about to.
PeerUser userOfServer(Socket connected);

}  // namespace platform
